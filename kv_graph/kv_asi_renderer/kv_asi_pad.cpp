#include "kv_asi_renderer/kv_asi_pad.h"

#include <cstdint>

#include "kv_asi_renderer/kv_asi_renderer.h"
#include "kv_asi_renderer/kv_gst_asi_renderer.h"

GstPad* kv_asi_new_sink_pad() {
    GstPad* pad = gst_pad_new_from_static_template(&sink_asi_pad, "sink");
    gst_pad_set_event_function(pad, GST_DEBUG_FUNCPTR(gst_pad_asi_sink_event));
    gst_pad_set_chain_function(pad, GST_DEBUG_FUNCPTR(gst_pad_asi_chain));
    gst_pad_use_fixed_caps(pad);
    GST_PAD_SET_PROXY_CAPS(pad);
    return pad;
}

GstFlowReturn gst_pad_asi_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer) {
    auto* renderer = static_cast<kv_asi_renderer*>(GST_KV_ASI_RENDERER(parent)->pRenderer);
    return renderer->chain(pad, buffer);
}

gboolean gst_pad_asi_sink_event(GstPad* /*pad*/, GstObject* parent, GstEvent* event) {
    auto* renderer = static_cast<kv_asi_renderer*>(GST_KV_ASI_RENDERER(parent)->pRenderer);
    return renderer->event(event);
}

gboolean gst_pad_asi_query(GstPad* /*pad*/, GstObject* /*parent*/, GstQuery* /*query*/) {
    return TRUE;
}

gboolean kv_asi_renderer::event(GstEvent* event) {
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_EOS:
            m_nEosSeqnum = gst_event_get_seqnum(event);
            m_renderer.end_of_stream();
            break;
        case GST_EVENT_FLUSH_START:
            m_renderer.flush_start();
            break;
        case GST_EVENT_FLUSH_STOP:
            m_renderer.flush_stop();
            break;
        default:
            // Caps, segments and the rest change nothing: the bytes are a transport
            // stream whatever upstream says, and they are paced by their own clock.
            break;
    }
    // The event function owns the reference it is given.
    gst_event_unref(event);
    return TRUE;
}

GstFlowReturn kv_asi_renderer::chain(GstPad* /*pad*/, GstBuffer* buffer) {
    if (!buffer) {
        return GST_FLOW_OK;
    }
    GstMapInfo map;
    if (gst_buffer_map(buffer, &map, GST_MAP_READ)) {
        // The DTS when the buffer has one, else the PTS; nanoseconds to 100 ns units. A
        // buffer with neither has no time of its own.
        const GstClockTime t =
            GST_BUFFER_DTS_IS_VALID(buffer) ? GST_BUFFER_DTS(buffer) : GST_BUFFER_PTS(buffer);
        m_renderer.push_data(GST_CLOCK_TIME_IS_VALID(t) ? static_cast<int64_t>(t / 100)
                                                        : mpegcore::kv_mpegts_fifo::kNoTime,
                             map.data, map.size);
        gst_buffer_unmap(buffer, &map);
    }
    gst_buffer_unref(buffer);
    return GST_FLOW_OK;
}
