#pragma once

// The element's sink pad: creation from the "sink" template and the pad functions that
// hand buffers to the renderer object and swallow events.

#include <gst/gst.h>

// A new "sink" pad with the chain and event functions below installed, fixed caps and
// caps proxying. The caller adds it to the element.
GstPad* kv_asi_new_sink_pad();

// Passes the buffer to the renderer of the element that owns the pad.
GstFlowReturn gst_pad_asi_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer);

// Answers TRUE to every event and passes none on: EOS, flushes, segments and caps
// neither reach the output engine nor travel anywhere else, so output goes on.
gboolean gst_pad_asi_sink_event(GstPad* pad, GstObject* parent, GstEvent* event);

// Answers TRUE to every query. Not installed on the pad: queries get the default pad
// handling.
gboolean gst_pad_asi_query(GstPad* pad, GstObject* parent, GstQuery* query);
