#pragma once

// The element as GStreamer loads it: the plugin module from the build tree, playing into
// the virtual board linked into the test executable (its open/ioctl/mmap/munmap/close are
// exported to the module, see CMakeLists.txt), and the streams the tests feed it.

#include <gst/check/gstharness.h>

#include "board_fixture.h"
#include "gst_fixture.h"
#include "ts_stream.h"

namespace kvtest {

// The element in a harness, its sink pad fed by the harness, on its own free-running node.
class ElementTest : public testing::Test {
protected:
    static constexpr const char* kNode = "/dev/kvasi-element";

    void SetUp() override {
        add_vboard(kNode, false, true);
        GstElementFactory* f = gst_element_factory_find("kv_asi_renderer");
        ASSERT_NE(f, nullptr) << "plugin not loaded from " KV_PLUGIN_DIR;
        gst_object_unref(f);
        el = gst_element_factory_make("kv_asi_renderer", nullptr);
        // A small FIFO and latency keep the free-running cycles short.
        g_object_set(el, "v4l2", kNode, "buffer-size", 4u << 20, "latency", 100u, nullptr);
        // The harness plays the element once; each test starts from NULL.
        h = gst_harness_new_with_element(el, "sink", nullptr);
        gst_object_unref(el);
        ASSERT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        gst_harness_set_src_caps_str(h, "video/mpegts, systemstream=(boolean)true");
    }
    void TearDown() override {
        if (h) {
            gst_harness_teardown(h);
        }
        kv_vboard_remove_all();
    }

    GstStateChangeReturn set_state(GstState s) { return gst_element_set_state(el, s); }
    void pause() {
        ASSERT_EQ(set_state(GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
        ASSERT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
    }
    void play() {
        pause();
        ASSERT_EQ(set_state(GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
    }

    // Pushes packets [first, last) of the stream in buffers of 7 packets.
    void push_packets(const ts_stream& s, size_t first, size_t last) {
        for (size_t i = first; i < last; i += 7) {
            GstBuffer* b = gst_buffer_new_memdup(s.packet(i), std::min<size_t>(7, last - i) * 188);
            ASSERT_EQ(gst_harness_push(h, b), GST_FLOW_OK);
        }
    }

    kv_vboard_counters counters() { return board_counters(kNode); }
    std::string stat(const std::string& name) { return kvtest::stat(el, name); }

    GstHarness* h = nullptr;
    GstElement* el = nullptr;
};

}  // namespace kvtest
