// What a host sees of the plugin before it plays anything: the registered plugin, the
// element's pad and property table, and the properties' values.

#include <tuple>

#include "element_fixture.h"

namespace {

using kvtest::ElementTest;

TEST(ElementPlugin, RegistrationPadAndPropertyTable) {
    GstPlugin* plugin = gst_registry_find_plugin(gst_registry_get(), "kv_asi_renderer");
    ASSERT_NE(plugin, nullptr) << "plugin not found in " KV_PLUGIN_DIR;
    EXPECT_STREQ(gst_plugin_get_version(plugin), "1.20.1");
    GList* features =
        gst_registry_get_feature_list_by_plugin(gst_registry_get(), "kv_asi_renderer");
    EXPECT_EQ(g_list_length(features), 1u);
    gst_plugin_feature_list_free(features);
    gst_object_unref(plugin);

    GstElementFactory* f = gst_element_factory_find("kv_asi_renderer");
    ASSERT_NE(f, nullptr);
    EXPECT_STREQ(gst_element_factory_get_metadata(f, GST_ELEMENT_METADATA_LONGNAME),
                 "Karvo MBXXX ASI Renderer");
    GstElement* el = gst_element_factory_create(f, nullptr);
    gst_object_unref(f);
    ASSERT_NE(el, nullptr);
    EXPECT_STREQ(G_OBJECT_TYPE_NAME(el), "GstKvASIRendererType");
    // One always-present sink pad taking any caps, fixed, proxying caps queries.
    EXPECT_EQ(g_list_length(el->srcpads), 0u);
    ASSERT_EQ(g_list_length(el->sinkpads), 1u);
    GstPad* pad = GST_PAD(el->sinkpads->data);
    EXPECT_STREQ(GST_PAD_NAME(pad), "sink");
    GstPadTemplate* t = GST_PAD_PAD_TEMPLATE(pad);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(GST_PAD_TEMPLATE_PRESENCE(t), GST_PAD_ALWAYS);
    EXPECT_TRUE(gst_caps_is_any(GST_PAD_TEMPLATE_CAPS(t)));
    EXPECT_TRUE(GST_PAD_IS_FIXED_CAPS(pad) && GST_PAD_IS_PROXY_CAPS(pad));

    // GObject lists properties by id; the id is what the renderer's setters switch on.
    const guint rw = G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS;
    const struct {
        const char* name;
        GType type;
        guint flags;
        guint min, max, def;  // uint range and default; boolean default in def
    } rows[] = {
        {"v4l2", G_TYPE_STRING, rw, 0, 0, 0},
        {"buffer-size", G_TYPE_UINT, rw, 0, G_MAXUINT, 38797312},
        {"latency", G_TYPE_UINT, rw, 0, 10000, 1000},
        {"pll", G_TYPE_BOOLEAN, rw, 0, 0, TRUE},
        {"time-control", G_TYPE_UINT, rw, 0, 1, 0},
        {"reset-when-empty", G_TYPE_BOOLEAN, rw, 0, 0, FALSE},
        {"statistics", G_TYPE_POINTER, G_PARAM_READABLE, 0, 0, 0},
        {"alarm-source-name", G_TYPE_STRING, rw, 0, 0, 0},
        {"alarm-manager", G_TYPE_POINTER, G_PARAM_WRITABLE, 0, 0, 0},
        {"pll-limit", G_TYPE_UINT, rw, 0, 1000, 100},
    };
    // A sink, so that a bin waits for its end of stream.
    EXPECT_TRUE(GST_OBJECT_FLAG_IS_SET(el, GST_ELEMENT_FLAG_SINK));
    guint n = 0;
    GParamSpec** all = g_object_class_list_properties(G_OBJECT_GET_CLASS(el), &n);
    std::vector<GParamSpec*> own;
    std::copy_if(all, all + n, std::back_inserter(own),
                 [&](const GParamSpec* p) { return p->owner_type == G_OBJECT_TYPE(el); });
    g_free(all);
    std::sort(own.begin(), own.end(),
              [](const GParamSpec* a, const GParamSpec* b) { return a->param_id < b->param_id; });
    ASSERT_EQ(own.size(), std::size(rows));
    const guint kAllFlags = G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | G_PARAM_CONSTRUCT |
                            G_PARAM_CONSTRUCT_ONLY | G_PARAM_EXPLICIT_NOTIFY | G_PARAM_DEPRECATED;
    for (size_t i = 0; i < own.size(); ++i) {
        GParamSpec* p = own[i];
        SCOPED_TRACE(rows[i].name);
        EXPECT_STREQ(g_param_spec_get_name(p), rows[i].name);
        EXPECT_EQ(p->param_id, i + 1);
        EXPECT_EQ(p->value_type, rows[i].type);
        EXPECT_EQ(p->flags & kAllFlags, rows[i].flags);
        if (rows[i].type == G_TYPE_UINT) {
            auto* u = G_PARAM_SPEC_UINT(p);
            EXPECT_EQ(std::make_tuple(u->minimum, u->maximum, u->default_value),
                      std::make_tuple(rows[i].min, rows[i].max, rows[i].def));
        } else if (rows[i].type == G_TYPE_BOOLEAN) {
            EXPECT_EQ(G_PARAM_SPEC_BOOLEAN(p)->default_value, gboolean(rows[i].def));
        } else if (rows[i].type == G_TYPE_STRING) {
            EXPECT_STREQ(G_PARAM_SPEC_STRING(p)->default_value, "");
        }
    }
    gst_object_unref(el);
}

TEST_F(ElementTest, PropertiesStartAtTheirDefaultsAndKeepTheirValues) {
    guint latency = 0, capacity = 0, time_control = 9;
    gboolean pll = TRUE, reset_when_empty = TRUE;
    gchar* node = nullptr;
    // A new element starts with the PLL off although the property advertises TRUE.
    GstElement* fresh = gst_element_factory_make("kv_asi_renderer", nullptr);
    g_object_get(fresh, "pll", &pll, "latency", &latency, "buffer-size", &capacity, "time-control",
                 &time_control, "reset-when-empty", &reset_when_empty, nullptr);
    EXPECT_FALSE(pll);
    EXPECT_EQ(std::make_tuple(latency, capacity, time_control, reset_when_empty),
              std::make_tuple(1000u, 38797312u, 0u, FALSE));
    // NULL strings read as empty instead of bringing the host down.
    g_object_set(fresh, "v4l2", nullptr, "alarm-source-name", nullptr, nullptr);
    g_object_get(fresh, "v4l2", &node, nullptr);
    EXPECT_STREQ(node, "");
    g_free(node);
    gst_object_unref(fresh);

    guint pll_limit = 0;
    g_object_set(el, "pll", TRUE, "latency", 10000u, "time-control", 1u, "reset-when-empty", TRUE,
                 "buffer-size", G_MAXUINT, "pll-limit", 0u, nullptr);
    g_object_get(el, "pll", &pll, "latency", &latency, "time-control", &time_control,
                 "reset-when-empty", &reset_when_empty, "buffer-size", &capacity, "pll-limit",
                 &pll_limit, nullptr);
    EXPECT_TRUE(pll);
    EXPECT_EQ(pll_limit, 0u);
    EXPECT_EQ(std::make_tuple(latency, capacity, time_control, reset_when_empty),
              std::make_tuple(10000u, G_MAXUINT, 1u, TRUE));

    // The statistics object is the engine's own, handed out by address every time.
    const kv_base_statistics* stats = kvtest::statistics(el);
    EXPECT_NE(stats, nullptr);
    EXPECT_EQ(kvtest::statistics(el), stats);
}

}  // namespace
