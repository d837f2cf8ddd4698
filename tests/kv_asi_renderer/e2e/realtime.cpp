// Real-time play-out through the virtual board: constant-rate streams up to the line's
// limit and real captures, fed at their own rate and paced by their PCRs or by buffer
// stamps. Every packet from the first PCR on reaches the line once, in order and on time
// from the first frame, and the PCRs sit on the line where their values say.

#include "wire_fixture.h"

namespace {

using kvtest::ts_stream;
using wire::kSanitized;
using WireRealTime = wire::RealTimeWireTest;

// Packets spread by position within a PCR interval may leave a few microseconds off their
// ideal time; a packet that missed its frame is 20 ms late.
constexpr double kLateNs = 1e6;

// Source packets [first, end) are on the line once each and in order, with nothing reset,
// skipped or late. Returns the analysis of the whole line.
kv_asi_analyze::report check_packets(const wire::outcome& o, const ts_stream& s, size_t first,
                                     size_t end) {
    EXPECT_EQ(o.resets, 0u);
    EXPECT_EQ(o.last_error, "");
    const kv_asi_analyze::report all = wire::analyze(o.line.records, &s);
    EXPECT_EQ(all.source.repeated + all.source.altered, 0u)
        << testing::PrintToString(all.source.details);
    EXPECT_EQ(all.source.unsent_head, first);
    // A sanitized build may miss frames; the packets due in them then go out late or, past
    // a frame's room, are dropped.
    if (!kSanitized) {
        EXPECT_EQ(o.skip_hw, 0u) << "the element missed frames";
    }
    if (o.skip_hw == 0) {
        // A clean play-out says nothing, not even at the line's limit; a raised latency
        // is said at the start.
        for (const std::string& w : o.warnings) {
            EXPECT_NE(w.find("\"latency\""), std::string::npos) << w;
        }
        EXPECT_EQ(o.skip_ts, 0u);
        EXPECT_EQ(all.source.missing, 0u);
        EXPECT_GE(all.source.matched, end - first);
        EXPECT_TRUE(all.cc_errors.empty());
        const wire::lateness late = wire::packet_lateness(o.line.records, s, first);
        EXPECT_EQ(late.matched, all.source.matched);
        EXPECT_LE(late.max_ns, kLateNs) << "some packets left later than their time";
    }
    return all;
}

// From the first frame on: at 213 Mbit/s every frame is full to the line's limit (2842
// packets), so a frame that is not handed out, or a time line that steps, loses packets.
TEST_F(WireRealTime, GeneratedStreamsPacedByPcrKeepEveryPacketAndPcrAccuracy) {
    for (const uint64_t rate : {5000000ull, 38000000ull, 150000000ull, 213000000ull}) {
        SCOPED_TRACE(rate);
        if (kSanitized && rate > 100000000ull) {
            continue;  // filling a frame this full takes a sanitized build longer than a frame
        }
        const ts_stream s = kvtest::generated(rate, 2);
        const wire::outcome o = run(wire::settings(), [&] { feed_realtime(s); });
        const kv_asi_analyze::report all =
            check_packets(o, s, s.pcr_packets.front(), s.pcr_packets.back());
        // End of stream was not sent: the last PCR packet waits for a next one.
        EXPECT_EQ(all.source.unsent_tail, 1u);
        const kv_asi_analyze::pcr_report p =
            wire::pcr_accuracy(all, s, s.name + ", PCR pacing", wire::kPcrPacingLimitNs);
        if (!kSanitized) {
            EXPECT_LE(p.drift_max_ns, wire::kPcrPacingLimitNs);
        }
        TearDown();
        SetUp();
    }
}

// Whatever sequence number the driver gives its first buffer back, numbering goes on from
// the primed frames: no frame counted as skipped, no step in the time line.
TEST_F(WireRealTime, DriverSequenceStartDoesNotShiftTheLine) {
    const ts_stream s = kvtest::generated(38000000, 1);
    for (const uint32_t first_sequence : {0u, 1u, 2u, 1000u}) {
        SCOPED_TRACE(first_sequence);
        wire::settings st;
        st.first_sequence = first_sequence;
        const wire::outcome o = run(st, [&] { feed_realtime(s); });
        wire::pcr_accuracy(check_packets(o, s, s.pcr_packets.front(), s.pcr_packets.back()), s,
                           "first sequence " + std::to_string(first_sequence),
                           wire::kPcrPacingLimitNs);
        TearDown();
        SetUp();
    }
}

// Latency is the time from arrival to the line. Below the device's read-ahead (six frames
// of 20 ms) it is raised, with a warning; 0 asks for the smallest that keeps every packet
// on time. The line starts about the latency after the first PCR arrived.
TEST_F(WireRealTime, SmallLatenciesAreRaisedAndNoPacketIsLate) {
    const ts_stream s = kvtest::generated(38000000, 1.5);
    for (const unsigned latency : {0u, 50u, 100u, 400u}) {
        SCOPED_TRACE(latency);
        wire::settings st;
        st.latency_ms = latency;
        const wire::outcome o = run(st, [&] { feed_realtime(s); });
        check_packets(o, s, s.pcr_packets.front(), s.pcr_packets.back());
        TearDown();
        SetUp();
    }
    for (const unsigned latency : {0u, 50u, 120u}) {
        build([&] {
            wire::settings st;
            st.latency_ms = latency;
            return st;
        }());
        ASSERT_EQ(set_state(GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
        EXPECT_EQ(bus_messages(GST_MESSAGE_WARNING).size(), latency == 50u ? 1u : 0u) << latency;
        TearDown();
        SetUp();
    }
}

TEST_F(WireRealTime, GeneratedStreamPacedByBufferStamps) {
    const ts_stream s = kvtest::generated(38000000, 2.5);
    wire::settings st;
    st.time_control = 1;
    const wire::outcome o = run(st, [&] { feed_realtime(s); });
    // Every buffer's last packet is an anchor; the stream's last packet waits for a next.
    const kv_asi_analyze::report all = check_packets(o, s, 0, s.packets() - 1);
    wire::pcr_accuracy(all, s, s.name + ", buffer stamps", 500.0);
}

TEST_F(WireRealTime, GeneratedStreamPacedByTsparseStamps) {
    if (!wire::have_tsparse()) {
        GTEST_SKIP() << "tsparse is not installed";
    }
    const ts_stream s = kvtest::generated(38000000, 2.5);
    wire::settings st;
    st.time_control = 1;
    st.tsparse = true;
    const wire::outcome o = run(st, [&] { feed_realtime(s); });
    // tsparse hands on a buffer per PCR interval, stamped with the time of its last
    // packet from the PCR after it.
    const kv_asi_analyze::report all =
        check_packets(o, s, 0, s.pcr_packets[s.pcr_packets.size() - 2]);
    wire::pcr_accuracy(all, s, s.name + ", tsparse stamps", 500.0);
}

TEST_F(WireRealTime, CorpusCapturesPlayOutWithTheirPcrAccuracy) {
    // test-143.ts is left out: its first PCR PID carries stray PCR values hours away from
    // their neighbours.
    int played = 0;
    for (const auto& it :
         {std::make_pair("test-072.ts", 0x65), std::make_pair("test-025.ts", 0x100)}) {
        const ts_stream s = kvtest::corpus(it.first, uint16_t(it.second), 2.5);
        if (s.packets() == 0) {
            continue;
        }
        SCOPED_TRACE(it.first);
        ++played;
        const wire::outcome o = run(wire::settings(), [&] { feed_realtime(s); });
        // The pacing PID's PCRs are the FIFO's anchors: as exact as a generated stream's.
        wire::pcr_accuracy(check_packets(o, s, s.pcr_packets.front(), s.pcr_packets.back()), s,
                           s.name + ", pacing PID", wire::kPcrPacingLimitNs);
        TearDown();
        SetUp();
    }
    if (played == 0) {
        GTEST_SKIP() << "corpus not found in " KV_CORPUS_DIR;
    }
}

}  // namespace
