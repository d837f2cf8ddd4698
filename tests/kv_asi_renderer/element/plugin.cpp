// What a host sees of the plugin before it plays anything: the registered plugin, the
// element's metadata, pad template and property table, and GObject's checks on it.

#include "element_fixture.h"

namespace {

using kvtest::ElementTest;

TEST(ElementPlugin, RegistersOnePluginAndElementWithItsMetadata) {
    GstPlugin* plugin = gst_registry_find_plugin(gst_registry_get(), "kv_asi_renderer");
    ASSERT_NE(plugin, nullptr) << "plugin not found in " KV_PLUGIN_DIR;
    EXPECT_STREQ(gst_plugin_get_description(plugin), "Karvo MBXXX ASI Renderer");
    EXPECT_STREQ(gst_plugin_get_version(plugin), "1.20.1");
    EXPECT_STREQ(gst_plugin_get_license(plugin), "LGPL");
    EXPECT_STREQ(gst_plugin_get_source(plugin), "kv_asi_renderer");
    EXPECT_STREQ(gst_plugin_get_package(plugin), "MB100/MB200/MB300.. Gst ASI Renderer");
    EXPECT_STREQ(gst_plugin_get_origin(plugin), "Karvo");
    GList* features =
        gst_registry_get_feature_list_by_plugin(gst_registry_get(), "kv_asi_renderer");
    EXPECT_EQ(g_list_length(features), 1u);
    gst_plugin_feature_list_free(features);
    gst_object_unref(plugin);

    GstElementFactory* f = gst_element_factory_find("kv_asi_renderer");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(gst_plugin_feature_get_rank(GST_PLUGIN_FEATURE(f)),
              static_cast<guint>(GST_RANK_NONE));
    EXPECT_STREQ(gst_element_factory_get_metadata(f, GST_ELEMENT_METADATA_LONGNAME),
                 "Karvo MBXXX ASI Renderer");
    EXPECT_STREQ(gst_element_factory_get_metadata(f, GST_ELEMENT_METADATA_KLASS), "Karvo Tessor");
    EXPECT_STREQ(gst_element_factory_get_metadata(f, GST_ELEMENT_METADATA_DESCRIPTION),
                 "Renderer for karvo board");

    const GList* templates = gst_element_factory_get_static_pad_templates(f);
    ASSERT_EQ(g_list_length(const_cast<GList*>(templates)), 1u);
    auto* t = static_cast<GstStaticPadTemplate*>(templates->data);
    EXPECT_STREQ(t->name_template, "sink");
    EXPECT_EQ(t->direction, GST_PAD_SINK);
    EXPECT_EQ(t->presence, GST_PAD_ALWAYS);
    GstCaps* caps = gst_static_caps_get(&t->static_caps);
    EXPECT_TRUE(gst_caps_is_any(caps));
    gst_caps_unref(caps);

    GstElement* el = gst_element_factory_create(f, nullptr);
    ASSERT_NE(el, nullptr);
    EXPECT_STREQ(G_OBJECT_TYPE_NAME(el), "GstKvASIRendererType");
    EXPECT_EQ(g_list_length(el->sinkpads), 1u);
    EXPECT_EQ(g_list_length(el->srcpads), 0u);
    GstPad* pad = gst_element_get_static_pad(el, "sink");
    ASSERT_NE(pad, nullptr);
    EXPECT_TRUE(GST_PAD_IS_FIXED_CAPS(pad));
    EXPECT_TRUE(GST_PAD_IS_PROXY_CAPS(pad));
    gst_object_unref(pad);
    gst_object_unref(el);
    gst_object_unref(f);
}

struct prop_row {
    const char* name;
    const char* nick;
    const char* blurb;
    GType type;
    guint min, max, def;  // uint range and default; boolean default in def
    const char* def_str;  // string default
    GParamFlags flags;
};

// GObject lists properties by id; the id is what the renderer's setters switch on.
TEST(ElementPlugin, PropertyTableById) {
    const auto rw = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    const prop_row rows[] = {
        {"v4l2", "v4l2", "Video for linux 2 asi device, example v4l2=/dev/video0", G_TYPE_STRING, 0,
         0, 0, "", rw},
        {"buffer-size", "Buffer size [byte]", "Buffer size [byte]", G_TYPE_UINT, 0, G_MAXUINT,
         38797312, nullptr, rw},
        {"latency", "latency", "Latency [ms]", G_TYPE_UINT, 0, 10000, 1000, nullptr, rw},
        {"pll", "pll", "Pll", G_TYPE_BOOLEAN, 0, 0, TRUE, nullptr, rw},
        {"time-control", "Time control", "Use time stamp or pcr, pcr = 0, timestamp = 1",
         G_TYPE_UINT, 0, 1, 0, nullptr, rw},
        {"reset-when-empty", "Reset fifo when empty", "Reset fifo when empty, no = 0, yes = 1",
         G_TYPE_BOOLEAN, 0, 0, FALSE, nullptr, rw},
        {"statistics", "statistics", "ASI renderer statistics", G_TYPE_POINTER, 0, 0, 0, nullptr,
         G_PARAM_READABLE},
        {"alarm-source-name", "Alarm source nam", "Name of source alarm for alarm manager",
         G_TYPE_STRING, 0, 0, 0, "", rw},
        {"alarm-manager", "Manager of alarms", "Manager of alarms", G_TYPE_POINTER, 0, 0, 0,
         nullptr, G_PARAM_WRITABLE},
    };

    // The registry loads the module, and so registers the type, on first use.
    GstElementFactory* f = gst_element_factory_find("kv_asi_renderer");
    ASSERT_NE(f, nullptr);
    auto* loaded = GST_ELEMENT_FACTORY(gst_plugin_feature_load(GST_PLUGIN_FEATURE(f)));
    auto* klass =
        static_cast<GObjectClass*>(g_type_class_ref(gst_element_factory_get_element_type(loaded)));
    gst_object_unref(loaded);
    gst_object_unref(f);
    ASSERT_NE(klass, nullptr);
    guint n = 0;
    GParamSpec** all = g_object_class_list_properties(klass, &n);
    std::vector<GParamSpec*> own;
    for (guint i = 0; i < n; ++i) {
        if (all[i]->owner_type == G_OBJECT_CLASS_TYPE(klass)) {
            own.push_back(all[i]);
        }
    }
    g_free(all);
    std::sort(own.begin(), own.end(),
              [](const GParamSpec* a, const GParamSpec* b) { return a->param_id < b->param_id; });
    ASSERT_EQ(own.size(), std::size(rows));
    const guint kAllFlags = G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | G_PARAM_CONSTRUCT |
                            G_PARAM_CONSTRUCT_ONLY | G_PARAM_EXPLICIT_NOTIFY | G_PARAM_DEPRECATED;
    for (size_t i = 0; i < own.size(); ++i) {
        const prop_row& r = rows[i];
        GParamSpec* p = own[i];
        SCOPED_TRACE(r.name);
        EXPECT_STREQ(g_param_spec_get_name(p), r.name);
        EXPECT_EQ(p->param_id, i + 1);
        EXPECT_STREQ(g_param_spec_get_nick(p), r.nick);
        EXPECT_STREQ(g_param_spec_get_blurb(p), r.blurb);
        EXPECT_EQ(p->value_type, r.type);
        EXPECT_EQ(p->flags & kAllFlags, static_cast<guint>(r.flags));
        if (r.type == G_TYPE_UINT) {
            auto* u = G_PARAM_SPEC_UINT(p);
            EXPECT_EQ(u->minimum, r.min);
            EXPECT_EQ(u->maximum, r.max);
            EXPECT_EQ(u->default_value, r.def);
        } else if (r.type == G_TYPE_BOOLEAN) {
            EXPECT_EQ(G_PARAM_SPEC_BOOLEAN(p)->default_value, static_cast<gboolean>(r.def));
        } else if (r.type == G_TYPE_STRING) {
            EXPECT_STREQ(G_PARAM_SPEC_STRING(p)->default_value, r.def_str);
        }
    }
    g_type_class_unref(klass);
}

// Counts the warnings GObject gives for refused property accesses.
struct warning_counter {
    static void on_log(const gchar*, GLogLevelFlags, const gchar*, gpointer self) {
        ++static_cast<warning_counter*>(self)->n;
    }
    warning_counter() { id = g_log_set_handler("GLib-GObject", G_LOG_LEVEL_WARNING, on_log, this); }
    ~warning_counter() { g_log_remove_handler("GLib-GObject", id); }
    guint id;
    int n = 0;
};

TEST_F(ElementTest, PropertiesKeepValuesAndRefuseOutOfRange) {
    guint latency = 0, capacity = 0, time_control = 9;
    gboolean pll = TRUE, reset_when_empty = TRUE;
    gchar* node = nullptr;
    // A new element starts with the PLL off although the property advertises TRUE.
    GstElement* fresh = gst_element_factory_make("kv_asi_renderer", nullptr);
    g_object_get(fresh, "pll", &pll, "latency", &latency, "buffer-size", &capacity, "time-control",
                 &time_control, "reset-when-empty", &reset_when_empty, "v4l2", &node, nullptr);
    EXPECT_FALSE(pll);
    EXPECT_EQ(latency, 1000u);
    EXPECT_EQ(capacity, 38797312u);
    EXPECT_EQ(time_control, 0u);
    EXPECT_FALSE(reset_when_empty);
    EXPECT_STREQ(node, "");
    g_free(node);
    // NULL strings read as empty instead of bringing the host down.
    g_object_set(fresh, "v4l2", nullptr, "alarm-source-name", nullptr, nullptr);
    g_object_get(fresh, "v4l2", &node, nullptr);
    EXPECT_STREQ(node, "");
    g_free(node);
    gst_object_unref(fresh);

    g_object_set(el, "pll", TRUE, "latency", 10000u, "time-control", 1u, "reset-when-empty", TRUE,
                 "buffer-size", G_MAXUINT, nullptr);
    {
        warning_counter warnings;
        g_object_set(el, "time-control", 2u, nullptr);
        g_object_set(el, "latency", 10001u, nullptr);
        g_object_set(el, "statistics", nullptr, nullptr);  // read-only
        EXPECT_EQ(warnings.n, 3);
    }
    g_object_get(el, "pll", &pll, "latency", &latency, "time-control", &time_control,
                 "reset-when-empty", &reset_when_empty, "buffer-size", &capacity, nullptr);
    EXPECT_TRUE(pll);
    EXPECT_EQ(latency, 10000u);
    EXPECT_EQ(time_control, 1u);
    EXPECT_TRUE(reset_when_empty);
    EXPECT_EQ(capacity, G_MAXUINT);

    // The statistics object is the engine's own, handed out by address every time.
    gpointer first = nullptr, second = nullptr;
    g_object_get(el, "statistics", &first, nullptr);
    g_object_get(el, "statistics", &second, nullptr);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(first, second);
}

}  // namespace
