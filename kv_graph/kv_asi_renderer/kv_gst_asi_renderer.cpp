#include "kv_asi_renderer/kv_gst_asi_renderer.h"

#include "kv_asi_renderer/kv_asi_renderer.h"

GST_DEBUG_CATEGORY(gst_kv_asi_renderer_debug);

void kv_asi_debug_init() {
    static gsize done = 0;
    if (g_once_init_enter(&done)) {
        GST_DEBUG_CATEGORY_INIT(gst_kv_asi_renderer_debug, "kv_asi_renderer", 0,
                                "Karvo MBXXX ASI Renderer Element");
        g_once_init_leave(&done, 1);
    }
}

GstStaticPadTemplate sink_asi_pad =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);

namespace {

GstElementClass* parent_class = nullptr;

kv_asi_renderer* renderer_of(gpointer instance) {
    return static_cast<kv_asi_renderer*>(GST_KV_ASI_RENDERER(instance)->pRenderer);
}

void gst_kv_asi_renderer_set_property(GObject* object, guint id, const GValue* value,
                                      GParamSpec* pspec) {
    renderer_of(object)->set_property(id, value, pspec);
}

void gst_kv_asi_renderer_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
    renderer_of(object)->get_property(id, value, pspec);
}

GstStateChangeReturn gst_kv_asi_renderer_change_state(GstElement* element,
                                                      GstStateChange transition) {
    return renderer_of(element)->change_state(transition);
}

// Stops output before the renderer goes, so that an element released without passing
// through the NULL state still joins its output thread.
void gst_kv_asi_renderer_finalize(GObject* object) {
    gstKVASIRenderer* self = GST_KV_ASI_RENDERER(object);
    if (self->pRenderer) {
        auto* renderer = static_cast<kv_asi_renderer*>(self->pRenderer);
        renderer->stop();
        delete renderer;
        self->pRenderer = nullptr;
    }
    G_OBJECT_CLASS(parent_class)->finalize(object);
}

void gst_kv_asi_renderer_init(GTypeInstance* instance, gpointer /*klass*/) {
    gstKVASIRenderer* self = GST_KV_ASI_RENDERER(instance);
    self->pRenderer = new kv_asi_renderer(self, parent_class);
    // A sink: a bin counts its EOS before it posts its own.
    GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_SINK);
}

void gst_kv_asi_renderer_base_init(gpointer klass) {
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    gst_element_class_add_static_pad_template(element_class, &sink_asi_pad);
    gst_element_class_set_static_metadata(element_class, "Karvo MBXXX ASI Renderer", "Karvo Tessor",
                                          "Renderer for karvo board",
                                          "libkv_asi_renderer developers");
}

void gst_kv_asi_renderer_class_init(gpointer klass, gpointer /*class_data*/) {
    kv_asi_debug_init();
    GObjectClass* gobject_class = G_OBJECT_CLASS(klass);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);

    parent_class = GST_ELEMENT_CLASS(g_type_class_peek_parent(klass));

    gobject_class->set_property = gst_kv_asi_renderer_set_property;
    gobject_class->get_property = gst_kv_asi_renderer_get_property;
    gobject_class->finalize = gst_kv_asi_renderer_finalize;
    element_class->change_state = GST_DEBUG_FUNCPTR(gst_kv_asi_renderer_change_state);

    const auto rw = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);

    // Installed in this order on purpose: introspection lists them so.
    g_object_class_install_property(
        gobject_class, PROP_V4L2,
        g_param_spec_string("v4l2", "v4l2",
                            "Video for linux 2 asi device, example v4l2=/dev/video0", "", rw));
    // The advertised default is TRUE while a new element starts with the PLL off; hosts
    // rely on setting the property explicitly.
    g_object_class_install_property(gobject_class, PROP_PLL,
                                    g_param_spec_boolean("pll", "pll", "Pll", TRUE, rw));
    g_object_class_install_property(
        gobject_class, PROP_BUFFER_SIZE,
        g_param_spec_uint("buffer-size", "Buffer size [byte]", "Buffer size [byte]", 0, G_MAXUINT,
                          kv_asi_renderer::kDefaultCapacity, rw));
    g_object_class_install_property(
        gobject_class, PROP_LATENCY,
        g_param_spec_uint("latency", "latency", "Latency [ms]", 0, kv_asi_renderer::kMaxLatencyMs,
                          kv_asi_renderer::kDefaultLatencyMs, rw));
    g_object_class_install_property(
        gobject_class, PROP_TIME_CONTROL,
        g_param_spec_uint("time-control", "Time control",
                          "Use time stamp or pcr, pcr = 0, timestamp = 1", 0, 1, 0, rw));
    g_object_class_install_property(
        gobject_class, PROP_RESET_WHEN_EMPTY,
        g_param_spec_boolean("reset-when-empty", "Reset fifo when empty",
                             "Reset fifo when empty, no = 0, yes = 1", FALSE, rw));
    g_object_class_install_property(
        gobject_class, PROP_STATISTICS,
        g_param_spec_pointer("statistics", "statistics", "ASI renderer statistics",
                             G_PARAM_READABLE));
    // The nick is "Alarm source nam" as hosts know it.
    g_object_class_install_property(
        gobject_class, PROP_ALARM_SOURCE_NAME,
        g_param_spec_string("alarm-source-name", "Alarm source nam",
                            "Name of source alarm for alarm manager", "", rw));
    g_object_class_install_property(gobject_class, PROP_ALARM_MANAGER,
                                    g_param_spec_pointer("alarm-manager", "Manager of alarms",
                                                         "Manager of alarms", G_PARAM_WRITABLE));
    g_object_class_install_property(
        gobject_class, PROP_PLL_LIMIT,
        g_param_spec_uint("pll-limit", "PLL limit [ppm]",
                          "Largest rate correction the PLL may apply, in ppm (0: unbounded)", 0,
                          kv_asi_renderer::kMaxPllLimitPpm, kv_asi_renderer::kDefaultPllLimitPpm,
                          rw));
}

gboolean plugin_init(GstPlugin* plugin) {
    kv_asi_debug_init();
    return gst_element_register(plugin, "kv_asi_renderer", GST_RANK_NONE,
                                gst_kv_asi_renderer_get_type());
}

constexpr const char* kPluginName = "kv_asi_renderer";
constexpr const char* kPluginDescription = "Karvo MBXXX ASI Renderer";
constexpr const char* kPluginVersion = "1.20.1";
constexpr const char* kPluginLicense = "LGPL";
constexpr const char* kPluginSource = "kv_asi_renderer";
constexpr const char* kPluginPackage = "MB100/MB200/MB300.. Gst ASI Renderer";
constexpr const char* kPluginOrigin = "Karvo";

const GstPluginDesc kPluginDesc = {1,
                                   20,
                                   kPluginName,
                                   kPluginDescription,
                                   plugin_init,
                                   kPluginVersion,
                                   kPluginLicense,
                                   kPluginSource,
                                   kPluginPackage,
                                   kPluginOrigin,
                                   nullptr,
                                   {}};

}  // namespace

GType gst_kv_asi_renderer_get_type(void) {
    // The registry registers the type from plugin_init, but a host may ask for it from
    // any thread; the once-guard keeps it to one registration per process.
    static gsize type_id = 0;
    if (g_once_init_enter(&type_id)) {
        const GTypeInfo info = {
            sizeof(gstKVASIRendererClass),
            gst_kv_asi_renderer_base_init,
            nullptr,  // base_finalize
            gst_kv_asi_renderer_class_init,
            nullptr,  // class_finalize
            nullptr,  // class_data
            sizeof(gstKVASIRenderer),
            0,  // n_preallocs
            gst_kv_asi_renderer_init,
            nullptr,  // value_table
        };
        const GType type = g_type_register_static(GST_TYPE_ELEMENT, "GstKvASIRendererType", &info,
                                                  static_cast<GTypeFlags>(0));
        g_once_init_leave(&type_id, type);
    }
    return type_id;
}

const GstPluginDesc* gst_plugin_kv_asi_renderer_get_desc(void) {
    return &kPluginDesc;
}

void gst_plugin_kv_asi_renderer_register(void) {
    gst_plugin_register_static(kPluginDesc.major_version, kPluginDesc.minor_version,
                               kPluginDesc.name, kPluginDesc.description, kPluginDesc.plugin_init,
                               kPluginDesc.version, kPluginDesc.license, kPluginDesc.source,
                               kPluginDesc.package, kPluginDesc.origin);
}
