// Real-time play-out through the virtual board: constant-rate streams at 5, 38 and 150
// Mbit/s and real captures, fed at their own rate and paced by their PCRs or by buffer
// stamps. Every packet reaches the line once and in order after the start-up, and the
// PCRs sit on the line where their values say.

#include "wire_fixture.h"

namespace {

using kvtest::ts_stream;
using wire::kSanitized;
using wire::kStartUpWords;
using WireRealTime = wire::RealTimeWireTest;

// Source packets [first, end) are on the line once each and in order, with nothing reset;
// only the start-up may lose packets, and only those counted as skipped. Returns the
// analysis of the line after the start-up.
kv_asi_analyze::report check_packets(const wire::outcome& o, const ts_stream& s, size_t first,
                                     size_t end) {
    EXPECT_EQ(o.resets, 0u);
    EXPECT_EQ(o.last_error, "");
    const kv_asi_analyze::report all = wire::analyze(o.line.records, &s);
    EXPECT_EQ(all.source.repeated + all.source.altered, 0u)
        << testing::PrintToString(all.source.details);
    if (o.skip_ts == 0) {
        EXPECT_TRUE(all.cc_errors.empty());
    }
    EXPECT_EQ(all.source.unsent_head, first);
    EXPECT_GE(all.source.matched + o.skip_ts, end - first)
        << "every packet is sent or counted as skipped";
    // A sanitized build may miss frames; the packets due in them then go out late or, past
    // a frame's room, are dropped.
    if (!kSanitized) {
        EXPECT_EQ(o.skip_hw, 0u) << "the element missed frames";
    }
    const kv_asi_analyze::report after = wire::analyze(o.line.between(kStartUpWords), &s);
    EXPECT_GT(after.packets, 0u);
    EXPECT_EQ(after.source.matched, after.packets);
    if (o.skip_hw == 0) {
        EXPECT_EQ(all.source.missing, o.skip_ts);
        EXPECT_EQ(after.source.missing, 0u);
        EXPECT_LE(all.source.unsent_tail, s.packets() - end);
    }
    return after;
}

TEST_F(WireRealTime, GeneratedStreamsPacedByPcrKeepEveryPacketAndPcrAccuracy) {
    for (const uint64_t rate : {5000000ull, 38000000ull, 150000000ull}) {
        SCOPED_TRACE(rate);
        if (kSanitized && rate > 100000000ull) {
            continue;  // filling a frame this full takes a sanitized build longer than a frame
        }
        const ts_stream s = kvtest::generated(rate, 2);
        const wire::outcome o = run(wire::settings(), [&] { feed_realtime(s); });
        const kv_asi_analyze::report after =
            check_packets(o, s, s.pcr_packets.front(), s.pcr_packets.back());
        // At 150 Mbit/s the seventh frame's two frames' worth of packets exceed its room:
        // the excess is dropped and counted.
        if (rate < 100000000ull) {
            EXPECT_EQ(o.skip_ts, 0u);
        }
        // PLL off: the PCRs sit where their values say, and the start-up frames exactly
        // one frame late.
        const kv_asi_analyze::pcr_report p =
            wire::pcr_accuracy(after, s, s.name + ", PCR pacing", wire::kPcrPacingLimitNs);
        if (!kSanitized) {
            EXPECT_LE(p.drift_max_ns, wire::kPcrPacingLimitNs);
            const double head =
                wire::mean_pcr_offset_ns(o.line.between(0, 6 * wire::kWordsPerFrame), s.pcr_pid);
            const double rest = wire::mean_pcr_offset_ns(o.line.between(kStartUpWords), s.pcr_pid);
            EXPECT_NEAR(rest - head, 20e6, wire::kPcrPacingLimitNs) << "start-up shift";
        }
        TearDown();
        SetUp();
    }
}

TEST_F(WireRealTime, GeneratedStreamPacedByBufferStamps) {
    const ts_stream s = kvtest::generated(38000000, 2.5);
    wire::settings st;
    st.time_control = 1;
    const wire::outcome o = run(st, [&] { feed_realtime(s); });
    // Every buffer's first packet is an anchor; the last buffer waits for a next one.
    const size_t last_buffer = (s.packets() - 1) / kBufferPackets * kBufferPackets;
    const kv_asi_analyze::report after = check_packets(o, s, 0, last_buffer);
    EXPECT_EQ(o.skip_ts, 0u);
    // Packets between two stamps are spread by position with a step truncated to 100 ns,
    // so a PCR packet inside a buffer may be early by up to 6 units.
    wire::pcr_accuracy(after, s, s.name + ", buffer stamps", 700.0);
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
    // tsparse hands on a buffer per PCR interval, stamped from its PCRs; the element keeps
    // the last one until a next stamp, which never comes.
    const kv_asi_analyze::report after =
        check_packets(o, s, 0, s.pcr_packets[s.pcr_packets.size() - 2]);
    EXPECT_EQ(o.skip_ts, 0u);
    wire::pcr_accuracy(after, s, s.name + ", tsparse stamps", 700.0);
}

TEST_F(WireRealTime, CorpusCapturesPlayOutWithTheirPcrAccuracy) {
    // test-143.ts is left out: its first PCR PID carries stray PCR values hours away from
    // their neighbours, each of which resets the FIFO as a large gap.
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
