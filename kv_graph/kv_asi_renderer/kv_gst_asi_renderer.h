#pragma once

// The GObject/GStreamer side of the sink element "kv_asi_renderer": plugin entry points,
// the instance and class structures and the element type. Every callback only forwards
// to the kv_asi_renderer object that each instance owns; the glue keeps no state besides
// the type id, the parent class and the debug category.

#include <gst/gst.h>

G_BEGIN_DECLS

// One element instance. pRenderer is the owned kv_asi_renderer, created by instance init
// and destroyed by finalize.
struct _gstKVASIRenderer {
    GstElement element;
    void* pRenderer;
};

struct _gstKVASIRendererClass {
    GstElementClass parent_class;
};

typedef struct _gstKVASIRenderer gstKVASIRenderer;
typedef struct _gstKVASIRendererClass gstKVASIRendererClass;

// Registers the type "GstKvASIRendererType" (derived from GstElement) on first call.
GType gst_kv_asi_renderer_get_type(void);

#define GST_TYPE_KV_ASI_RENDERER (gst_kv_asi_renderer_get_type())
#define GST_KV_ASI_RENDERER(obj) \
    (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_KV_ASI_RENDERER, gstKVASIRenderer))

// The single always-present sink pad "sink", caps ANY: buffers are taken as raw
// transport-stream bytes, nothing is negotiated.
extern GstStaticPadTemplate sink_asi_pad;

GST_DEBUG_CATEGORY_EXTERN(gst_kv_asi_renderer_debug);
// Makes the element's debug category ("kv_asi_renderer") once per process.
void kv_asi_debug_init();

// The plugin descriptor the registry loads the module through.
GST_PLUGIN_EXPORT const GstPluginDesc* gst_plugin_kv_asi_renderer_get_desc(void);
// Registers the plugin from a program that links the element statically.
GST_PLUGIN_EXPORT void gst_plugin_kv_asi_renderer_register(void);

G_END_DECLS

// GObject property ids of the element; kv_asi_renderer::set_property and get_property
// switch on them.
enum kv_asi_renderer_property : guint {
    PROP_V4L2 = 1,
    PROP_BUFFER_SIZE = 2,
    PROP_LATENCY = 3,
    PROP_PLL = 4,
    PROP_TIME_CONTROL = 5,
    PROP_RESET_WHEN_EMPTY = 6,
    PROP_STATISTICS = 7,
    PROP_ALARM_SOURCE_NAME = 8,
    PROP_ALARM_MANAGER = 9,
    PROP_PLL_LIMIT = 10,
};
