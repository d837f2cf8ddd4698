// Element lifecycles with the output, streaming and application threads all active:
// repeated play, pause, flush and stop with buffers flowing, and an element released
// while it plays.

#include "element_fixture.h"

namespace {

using ElementLifecycleConcurrency = kvtest::ElementTest;

TEST_F(ElementLifecycleConcurrency, PlayAndStopWithBuffersFlowing) {
    const kvtest::ts_stream s = kvtest::pcr_stream(1.2);
    ASSERT_GT(s.pcr_packets.size(), 2u);
    kvtest::recording_manager manager;
    g_object_set(el, "latency", 20u, "buffer-size", 1u << 20, "alarm-source-name", "asi-cycle",
                 "alarm-manager", &manager, nullptr);
    const int fds = open_fd_count();
    const int threads = thread_count();
    const kv_base_statistics* stats = kvtest::statistics(el);

    for (int cycle = 0; cycle < 200; ++cycle) {
        SCOPED_TRACE(cycle);
        play();
        // The streaming thread pushes while the application thread reads statistics and
        // then leaves PLAYING under it.
        const uint64_t sent = counters().packets;
        // Every other cycle the stream is flushed halfway and output paused and resumed.
        const bool bEdges = cycle % 2 == 1;
        const size_t half = s.pcr_packets[s.pcr_packets.size() / 2];
        std::thread upstream([&] {
            push_packets(s, 0, half);
            if (bEdges) {
                EXPECT_TRUE(gst_harness_push_event(h, gst_event_new_flush_start()));
                EXPECT_TRUE(gst_harness_push_event(h, gst_event_new_flush_stop(TRUE)));
            }
            push_packets(s, half, s.packets());
        });
        EXPECT_EQ(stats->get_items().size(), 7u);
        EXPECT_EQ(kvtest::statistics(el), stats);
        EXPECT_TRUE(eventually([&] { return counters().packets > sent; }));
        if (bEdges) {
            EXPECT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_SUCCESS);
            EXPECT_EQ(set_state(GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
        }
        EXPECT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_SUCCESS);
        upstream.join();
        ASSERT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        ASSERT_EQ(thread_count(), threads);
        ASSERT_EQ(open_fd_count(), fds);
        ASSERT_TRUE(manager.alarms().empty());
    }
    const kv_vboard_counters c = counters();
    EXPECT_EQ(c.streamon, c.streamoff);
    EXPECT_EQ(c.word_violations, 0u);
    g_object_set(el, "alarm-manager", nullptr, nullptr);
}

// A pipeline torn down without passing through NULL: finalize still joins the output
// thread and closes the device.
TEST_F(ElementLifecycleConcurrency, ReleasedWhilePlayingStopsOutputFirst) {
    const int fds = open_fd_count();
    const int threads = thread_count();
    g_object_set(el, "latency", 0u, nullptr);
    play();
    const kvtest::ts_stream s = kvtest::pcr_stream(1);
    push_packets(s, 0, s.packets());
    ASSERT_TRUE(eventually([&] { return counters().frames_sent > 10; }));
    ASSERT_EQ(thread_count(), threads + 1);

    // Marked NULL by hand so that disposal proceeds as after a state change nobody made.
    GST_STATE(el) = GST_STATE_NULL;
    gst_harness_teardown(h);
    h = nullptr;
    EXPECT_EQ(thread_count(), threads);
    EXPECT_EQ(open_fd_count(), fds);
    EXPECT_EQ(counters().streamoff, 1u);
}

}  // namespace
