// The element playing out through the free-running virtual board: state changes against
// good, missing and failing nodes, buffer stamps, events, alarms and FIFO resets.

#include <unistd.h>

#include "element_fixture.h"

namespace {

using kvtest::ElementTest;

TEST_F(ElementTest, StateChangesOpenStartStopAndCloseTheDevice) {
    const int fds = open_fd_count();
    const int threads = thread_count();

    // Refused opens are in messages.cpp. Output cannot start on a device that was never opened.
    EXPECT_EQ(GST_ELEMENT_GET_CLASS(el)->change_state(el, GST_STATE_CHANGE_PAUSED_TO_PLAYING),
              GST_STATE_CHANGE_FAILURE);
    EXPECT_EQ(GST_STATE(el), GST_STATE_NULL);

    // Latency 0 (as soon as possible): nothing is streamed before there is something to
    // play; PAUSED keeps the output thread (the line idles), READY joins it and stops the
    // device.
    const kvtest::ts_stream s = kvtest::pcr_stream(1);
    g_object_set(el, "v4l2", kNode, "latency", 0u, nullptr);
    play();
    EXPECT_EQ(thread_count(), threads + 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(counters().qbuf, 0u);
    push_packets(s, 0, s.packets());
    ASSERT_TRUE(eventually([&] { return counters().frames_sent > 20; }));
    ASSERT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(thread_count(), threads + 1);
    const uint64_t sent = counters().frames_sent;
    EXPECT_TRUE(eventually([&] { return counters().frames_sent > sent + 20; }));
    ASSERT_EQ(set_state(GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(thread_count(), threads);  // output thread joined
    ASSERT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    const kv_vboard_counters c = counters();
    EXPECT_EQ(c.streamon, 1u);
    EXPECT_EQ(c.streamoff, 1u);
    EXPECT_EQ(open_fd_count(), fds);

    // The board refuses to stream: PLAYING is reached (streaming starts once the ring is
    // primed), output stalls after priming and leaving PLAYING does not hang.
    kv_vboard_set_fault(kNode, KV_VB_STREAMON, 1, 0, EIO);
    play();
    push_packets(s, 0, s.packets());
    ASSERT_TRUE(eventually([&] { return counters().qbuf == c.qbuf + 6; }));
    ASSERT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(counters().streamon, 1u);
    EXPECT_EQ(counters().frames_sent, c.frames_sent);
    EXPECT_EQ(thread_count(), threads);

    // The next open of the healed board streams again.
    kv_vboard_clear_faults(kNode);
    play();
    push_packets(s, 0, s.packets());
    EXPECT_TRUE(eventually([&] { return counters().frames_sent > c.frames_sent + 20; }));

    // Back to READY drops what was buffered: a stream pushed while PAUSED does not reach
    // the line when the element plays again (with nothing to play, nothing is queued).
    // (The stream's second second: PCRs that go on from the ones played.)
    const kvtest::ts_stream longer = kvtest::pcr_stream(2);
    ASSERT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_SUCCESS);
    push_packets(longer, longer.packets() / 2, longer.packets());
    ASSERT_EQ(set_state(GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
    const uint64_t queued = counters().qbuf;
    play();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(counters().qbuf, queued);
    EXPECT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(open_fd_count(), fds);
}

// Stamp pacing puts every buffer's last packet at the buffer's time: the captured line
// shows which time the element took from each buffer and how it scaled it.
TEST_F(ElementTest, BuffersAreStampedWithDtsElsePtsIn100nsUnits) {
    const std::string capture = "/tmp/kv-element-" + std::to_string(getpid()) + ".cap";
    kv_vboard_remove_all();
    add_vboard(kNode, false, true, 2, 675000, capture);
    g_object_set(el, "time-control", 1u, nullptr);

    const GstClockTime ms = GST_MSECOND, none = GST_CLOCK_TIME_NONE;
    const struct {
        GstClockTime dts, pts;
        uint64_t units;
    } bufs[] = {
        // DTS 0 is a valid DTS: were the PTS taken, this buffer would come after the rest.
        {0, 10000 * ms, 0},
        {none, 153456789, 1534567},     // no DTS: the PTS, truncated to 100 ns
        {210 * ms, 900 * ms, 2100000},  // both: the DTS
        {none, 310 * ms, 3100000},
        {400 * ms, none, 4000000},  // only ends the previous buffer's span
    };
    constexpr int kPackets = 4;
    pause();
    for (size_t b = 0; b < std::size(bufs); ++b) {
        uint8_t data[kPackets][188];
        std::memset(data, 0xff, sizeof(data));
        for (int p = 0; p < kPackets; ++p) {
            const uint8_t cc = uint8_t((b * kPackets + p) & 0xf);
            const uint8_t head[] = {0x47, 0x01, 0x00, uint8_t(0x10 | cc), uint8_t(b), uint8_t(p)};
            std::memcpy(data[p], head, sizeof(head));
        }
        GstBuffer* buf = gst_buffer_new_memdup(data, sizeof(data));
        GST_BUFFER_DTS(buf) = bufs[b].dts;
        GST_BUFFER_PTS(buf) = bufs[b].pts;
        ASSERT_EQ(gst_harness_push(h, buf), GST_FLOW_OK);
    }
    ASSERT_EQ(set_state(GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
    // The last packet waits for a following stamp that never comes.
    const uint64_t expected = std::size(bufs) * kPackets - 1;
    ASSERT_TRUE(eventually([&] { return counters().packets >= expected; }));
    ASSERT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);

    std::ifstream in(capture, std::ios::binary);
    const std::vector<uint8_t> rec(std::istreambuf_iterator<char>(in), {});
    unlink(capture.c_str());
    ASSERT_EQ(rec.size(), expected * 192);
    // Line word of the last packet of buffer b (records are in sending order).
    auto last_word = [&](size_t b) -> int64_t {
        const uint8_t* r = &rec[(b * kPackets + kPackets - 1) * 192];
        EXPECT_EQ(r[4 + 4], b);
        EXPECT_EQ(r[4 + 5], kPackets - 1);
        return r[0] << 24 | r[1] << 16 | r[2] << 8 | r[3];
    };
    // 27 words per microsecond: a packet due at t (100 ns units) starts at the first word
    // reaching t. Compared between buffers, so the line's origin cancels out.
    auto word_at = [](uint64_t units) { return static_cast<int64_t>((units * 27 + 9) / 10); };
    for (const size_t b : {0, 2, 3}) {
        EXPECT_EQ(last_word(b) - last_word(1), word_at(bufs[b].units) - word_at(bufs[1].units))
            << "buffer " << b;
    }
}

// Events are answered TRUE. A flush empties the FIFO; end of stream plays every packet,
// the tail after the last PCR included, and then posts EOS on the bus, once; the line
// runs on idle.
TEST_F(ElementTest, FlushEmptiesAndEndOfStreamPlaysEverythingThenPostsEos) {
    const kvtest::ts_stream s = kvtest::pcr_stream(1);
    const size_t last = s.pcr_packets.size() - 1;
    ASSERT_GE(last, 2u);
    GstBus* bus = gst_bus_new();
    gst_element_set_bus(el, bus);
    pause();
    push_packets(s, 0, s.pcr_packets[last]);
    EXPECT_TRUE(gst_harness_push_event(h, gst_event_new_flush_start()));
    EXPECT_TRUE(gst_harness_push_event(h, gst_event_new_flush_stop(TRUE)));
    ASSERT_EQ(set_state(GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);

    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    GstCaps* caps = gst_caps_new_empty_simple("application/x-unknown");
    for (GstEvent* e : {
             gst_event_new_segment(&segment),
             gst_event_new_caps(caps),
             gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, gst_structure_new_empty("kv")),
             gst_event_new_gap(0, GST_SECOND),
         }) {
        const std::string name = GST_EVENT_TYPE_NAME(e);
        EXPECT_TRUE(gst_harness_push_event(h, e)) << name;
    }
    gst_caps_unref(caps);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(counters().packets, 0u) << "the flush emptied the FIFO";

    // From the second PCR on, to the end: every packet after the first PCR goes out.
    push_packets(s, s.pcr_packets[1], s.packets());
    EXPECT_TRUE(gst_harness_push_event(h, gst_event_new_eos()));
    GstMessage* msg = gst_bus_timed_pop_filtered(bus, 30 * GST_SECOND, GST_MESSAGE_EOS);
    ASSERT_NE(msg, nullptr);
    gst_message_unref(msg);
    EXPECT_EQ(counters().packets, s.packets() - s.pcr_packets[1]);
    const kv_vboard_counters after = counters();
    EXPECT_TRUE(eventually([&] { return counters().frames_sent > after.frames_sent + 20; }));
    EXPECT_EQ(gst_bus_pop_filtered(bus, GST_MESSAGE_EOS), nullptr) << "EOS is posted once";
    EXPECT_EQ(counters().packets, after.packets);
    EXPECT_EQ(stat("Skip TS packets"), "0");
    EXPECT_EQ(stat("Reset"), "0");
    EXPECT_EQ(GST_STATE(el), GST_STATE_PLAYING);
    ASSERT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    gst_element_set_bus(el, nullptr);
    gst_object_unref(bus);
}

TEST_F(ElementTest, UnderflowAlarmReachesTheManagerSetAtOnce) {
    const kvtest::ts_stream s = kvtest::pcr_stream(1);
    kvtest::recording_manager first, second;
    g_object_set(el, "reset-when-empty", TRUE, "alarm-manager", &first, nullptr);
    pause();
    // Set after the device opened, still in time for the alarms made by the next start.
    g_object_set(el, "alarm-source-name", "asi-out-1", nullptr);
    ASSERT_EQ(set_state(GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
    const std::vector<kv_alarm_data> alarms = first.alarms();
    ASSERT_EQ(alarms.size(), 2u);
    for (const kv_alarm_data& a : alarms) {
        EXPECT_EQ(a.source, "asi-out-1");
    }

    // A new manager takes the alarms over while playing.
    g_object_set(el, "alarm-manager", &second, nullptr);
    EXPECT_TRUE(first.alarms().empty());
    EXPECT_EQ(second.alarms().size(), 2u);

    // The free-running board drains the FIFO, which resets itself once empty.
    push_packets(s, 0, s.packets());
    EXPECT_TRUE(eventually([&] { return second.count(eAlarmRemuxerOutputUnderflow) > 0; }));
    EXPECT_TRUE(eventually([&] { return stat("Reset") != "0"; }));
    EXPECT_EQ(second.count(eAlarmRemuxerOutputOverflow), 0u);
    EXPECT_EQ(stat("Last error"), "Fifo emptied");

    ASSERT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_TRUE(second.alarms().empty());
    g_object_set(el, "alarm-manager", nullptr, nullptr);
}

}  // namespace
