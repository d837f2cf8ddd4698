// The edges of a play-out, in real time through the virtual board: the stream's time base
// changing mid-stream (flagged by the stream or not, forward or back), a pause, the end of
// the stream, and a source that stops with reset-when-empty on. Nothing buffered is lost
// and the line is paced again from the first full PCR interval after each edge.

#include "wire_fixture.h"

namespace {

using kvtest::ts_stream;
using wire::kPcrPacingLimitNs;
using wire::kSanitized;
using wire::kWordsPerFrame;
using WireEdges = wire::RealTimeWireTest;

constexpr int64_t kEdgeNs = 1200000000;  // where the stream meets its edge

// The records from the second PCR of the pacing PID at or after `from` on: the first full
// PCR interval after an edge.
std::vector<wire::record> after_two_pcrs(const std::vector<wire::record>& recs,
                                         const ts_stream& s, size_t from_record) {
    size_t seen = 0;
    for (size_t i = from_record; i < recs.size(); ++i) {
        if (s.is_pcr(recs[i].packet) && ++seen == 2) {
            return std::vector<wire::record>(recs.begin() + long(i), recs.end());
        }
    }
    return {};
}

// Index of the first record that carries source packet k.
size_t record_of(const std::vector<wire::record>& recs, const ts_stream& s, size_t k) {
    for (size_t i = 0; i < recs.size(); ++i) {
        if (std::memcmp(recs[i].packet, s.packet(k), 188) == 0) {
            return i;
        }
    }
    ADD_FAILURE() << "packet " << k << " is not on the line";
    return recs.size();
}

// Splicers and looping players flag a new time base; a broken source just jumps. Either
// way what is buffered plays at its times and the new PCRs continue right behind it, with
// no packet lost and no reopening of the device. Only the unflagged jump is an error.
TEST_F(WireEdges, TimeBaseChangesKeepEveryPacketAndThePacing) {
    const ts_stream base = kvtest::generated(5000000, 3);
    const size_t from = base.pcr_packets[size_t(std::lower_bound(base.pcr_packets.begin(),
                                                                 base.pcr_packets.end(),
                                                                 base.packet_at(kEdgeNs)) -
                                                base.pcr_packets.begin())];
    const struct {
        const char* label;
        int64_t shift_ns;
        bool flagged;
    } cases[] = {{"flagged, 10 s back", -10000000000, true},
                 {"unflagged, 3 s ahead", 3000000000, false},
                 {"unflagged, 3 s back", -3000000000, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const ts_stream s = wire::with_time_base_change(base, from, c.shift_ns, c.flagged);
        const wire::outcome o = run(wire::settings(), [&] { feed_realtime(s); });
        EXPECT_EQ(o.board.streamon, 1u) << "the device is never reopened";
        EXPECT_EQ(o.resets, c.flagged ? 0u : 1u);
        EXPECT_EQ(o.last_error, c.flagged ? "" : "Large gap in flow time");
        EXPECT_EQ(o.underflows + o.overflows + o.skip_ts, 0u);
        const kv_asi_analyze::report all = wire::analyze(o.line.records, &s);
        EXPECT_EQ(all.source.missing + all.source.repeated + all.source.altered, 0u);
        EXPECT_EQ(all.source.unsent_head, s.pcr_packets.front());
        EXPECT_EQ(all.source.unsent_tail, 1u);
        // One line, no pause in it: the packets keep their spacing across the change.
        EXPECT_EQ(o.line.runs(2 * kWordsPerFrame).size(), 1u);
        EXPECT_LE(wire::packet_lateness(o.line.records, base, s.pcr_packets.front()).max_ns, 1e6);

        const size_t edge = record_of(o.line.records, s, from);
        wire::pcr_accuracy(wire::analyze(std::vector<wire::record>(
                               o.line.records.begin(), o.line.records.begin() + long(edge))),
                           s, std::string(c.label) + ", before", kPcrPacingLimitNs);
        wire::pcr_accuracy(wire::analyze(after_two_pcrs(o.line.records, s, edge)), s,
                           std::string(c.label) + ", after", kPcrPacingLimitNs);
        TearDown();
        SetUp();
    }
}

// PLAYING -> PAUSED -> PLAYING while the source pauses too: what the device had queued
// plays, the line goes idle, and output resumes paced on what the FIFO kept. Nothing is
// lost and the statistics count on.
TEST_F(WireEdges, PauseAndResumeLoseNothing) {
    const ts_stream s = kvtest::generated(5000000, 3);
    const size_t pause_at = s.packet_at(kEdgeNs);
    std::string device_time_paused;
    const wire::outcome o = run(wire::settings(), [&] {
        const steady::time_point origin = steady::now();
        feed(s, 0, pause_at, origin);
        ASSERT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
        std::this_thread::sleep_for(std::chrono::seconds(1));
        device_time_paused = stat("Device time");
        play();
        feed(s, pause_at, s.packets(), origin + std::chrono::seconds(1));
    });
    EXPECT_EQ(o.resets + o.skip_ts + o.underflows + o.overflows, 0u);
    EXPECT_EQ(o.last_error, "");
    EXPECT_GT(device_time_paused, "000:00:00.000");
    const kv_asi_analyze::report all = wire::analyze(o.line.records, &s);
    EXPECT_EQ(all.source.missing + all.source.repeated + all.source.altered, 0u);
    EXPECT_EQ(all.source.unsent_head, s.pcr_packets.front());
    EXPECT_EQ(all.source.unsent_tail, 1u);
    // Idle while paused: two runs of packets.
    const auto runs = o.line.runs(10 * kWordsPerFrame);
    ASSERT_EQ(runs.size(), 2u);
    wire::pcr_accuracy(wire::analyze(runs[0]), s, "before the pause", kPcrPacingLimitNs);
    wire::pcr_accuracy(wire::analyze(after_two_pcrs(runs[1], s, 0)), s, "after the pause",
                       kPcrPacingLimitNs);
}

// The plain GStreamer pipeline of a file ends by itself: end of stream plays the packets
// after the last PCR at the last interval's rate and EOS reaches the bus once the last
// packet is on the line.
TEST_F(WireEdges, EndOfStreamPlaysTheTailThenPostsEos) {
    if (!wire::have_tsparse() || !wire::have_core_elements()) {
        GTEST_SKIP() << "tsparse, filesrc or clocksync is not installed";
    }
    ts_stream s = kvtest::generated(38000000, 1.5);
    // A tail of packets after the last PCR, as real files have.
    const ts_stream more = kvtest::generated(38000000, 1.7);
    s.bytes.insert(s.bytes.end(), more.bytes.begin() + long(s.bytes.size()),
                   more.bytes.begin() + long(s.bytes.size() + 50 * 188));
    s.index();
    const std::string file = m_dir + "/stream.ts";
    {
        std::ofstream out(file, std::ios::binary);
        out.write(reinterpret_cast<const char*>(s.bytes.data()), long(s.bytes.size()));
    }
    add_vboard(kNode, false, false, 2, 675000, m_capture);
    m_pipeline = gst_parse_launch(("filesrc location=" + file +
                                   " ! tsparse set-timestamps=true ! clocksync ! kv_asi_renderer "
                                   "name=sink latency=300 v4l2=" + kNode)
                                      .c_str(),
                                  nullptr);
    ASSERT_TRUE(GST_IS_PIPELINE(m_pipeline));
    play();
    GstBus* bus = gst_element_get_bus(m_pipeline);
    GstMessage* msg = gst_bus_timed_pop_filtered(
        bus, 30 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    ASSERT_NE(msg, nullptr) << "no EOS within 30 s";
    EXPECT_EQ(GST_MESSAGE_TYPE(msg), GST_MESSAGE_EOS);
    gst_message_unref(msg);
    gst_object_unref(bus);
    // Everything is on the line when EOS is posted.
    const uint64_t on_line = counters().packets;
    EXPECT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    const wire::capture line = wire::read_capture(m_capture);
    EXPECT_EQ(line.records.size(), on_line);
    const kv_asi_analyze::report all = wire::analyze(line.records, &s);
    EXPECT_EQ(all.source.missing + all.source.repeated + all.source.altered, 0u);
    EXPECT_EQ(all.source.unsent_head, s.pcr_packets.front());
    EXPECT_EQ(all.source.unsent_tail, 0u) << "the last source packet is on the line";
    // The tail goes at the last interval's rate: as evenly spaced as the rest.
    const wire::lateness late = wire::packet_lateness(line.records, s, s.pcr_packets.front());
    EXPECT_EQ(late.matched, all.source.matched);
    EXPECT_LE(late.max_ns, 1e6);
}

// A live source drops out for 0.5 s while its stream time runs on. Without reset-when-
// empty the packets after the gap are due on the line's time line. With it the FIFO
// resets once per outage (not in a loop while the source is away), the device keeps
// streaming idle, and output re-anchors when the latency has built up again, paced from
// the first PCR interval.
TEST_F(WireEdges, SourceStoppingAndResuming) {
    const ts_stream s = kvtest::generated(5000000, 3);
    const size_t stop_at = s.packet_at(kEdgeNs);
    const size_t resume_at = s.packet_at(kEdgeNs + 500000000);
    for (const bool reset_when_empty : {false, true}) {
        SCOPED_TRACE(reset_when_empty ? "reset when empty" : "no reset");
        wire::settings st;
        st.reset_when_empty = reset_when_empty;
        const wire::outcome o = run(st, [&] {
            const steady::time_point origin = steady::now();
            feed(s, 0, stop_at, origin);
            feed(s, resume_at, s.packets(), origin);
            end_of_stream();
        });
        EXPECT_EQ(o.overflows, 0u);
        EXPECT_EQ(o.board.streamon, 1u);
        const kv_asi_analyze::report all = wire::analyze(o.line.records, &s);
        EXPECT_EQ(all.source.matched, all.packets);
        EXPECT_EQ(all.source.repeated + all.source.altered, 0u);
        EXPECT_EQ(all.source.unsent_tail, 0u);
        const auto runs = o.line.runs(10 * kWordsPerFrame);
        ASSERT_EQ(runs.size(), 2u);
        wire::pcr_accuracy(wire::analyze(runs[0]), s, "before a dropout", kPcrPacingLimitNs);
        if (!reset_when_empty) {
            EXPECT_EQ(o.resets + o.skip_ts, 0u);
            EXPECT_EQ(o.last_error, "");
            EXPECT_EQ(o.underflows, 0u) << "muted for 31 s after a start";
            EXPECT_EQ(all.source.missing, resume_at - stop_at);
            // The last PCR before the dropout waits for the next one: late, it restarts the
            // line.
            EXPECT_EQ(std::memcmp(runs[1].front().packet, s.packet(s.pcr_before(stop_at)), 188),
                      0);
        } else {
            // One outage, one reset; what the FIFO held went out before it emptied.
            EXPECT_EQ(o.resets, 1u);
            EXPECT_EQ(o.underflows, 1u);
            EXPECT_EQ(o.last_error, "Fifo emptied");
            EXPECT_TRUE(s.is_pcr(runs[1].front().packet));
            wire::pcr_accuracy(wire::analyze(after_two_pcrs(runs[1], s, 0)), s,
                               "after a dropout and a reset", kPcrPacingLimitNs);
        }
        TearDown();
        SetUp();
    }
}

}  // namespace
