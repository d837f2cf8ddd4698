// Faults on the way to the line: the node vanishing mid-play, DQBUF failing for a while,
// the source stopping and resuming, a PCR jump of 3 s and garbage between packets. The
// element keeps running, says what happened through statistics, alarms and the last
// error, and recovers on its own where it is built to.

#include <dirent.h>
#include <unistd.h>

#include "wire_fixture.h"

namespace {

using wire::analyze;
using wire::kSanitized;
using wire::kStartUpWords;
using wire::kWordsPerFrame;

constexpr double kPcrPacingLimitNs = 150.0;

class WireFaults : public wire::WireTest {
protected:
    // PCR accuracy of the PCR PID over records, printed.
    kv_asi_analyze::pcr_report report_accuracy(const std::vector<wire::record>& recs,
                                               const wire::stream& s, const std::string& label) {
        const kv_asi_analyze::report r = analyze(recs, nullptr);
        const kv_asi_analyze::pcr_report* p = wire::pcr_of_pid(r, s.pcr_pid);
        EXPECT_NE(p, nullptr) << label;
        if (p == nullptr) {
            return kv_asi_analyze::pcr_report();
        }
        EXPECT_GE(p->pcrs, 5u) << label;
        wire::print_accuracy(label, *p);
        return *p;
    }
    // The same, within the PCR pacing limit (offset removed) in a plain build.
    void expect_accurate(const std::vector<wire::record>& recs, const wire::stream& s,
                         const std::string& label) {
        const kv_asi_analyze::pcr_report p = report_accuracy(recs, s, label);
        if (!kSanitized) {
            EXPECT_LE(p.offset_max_ns, kPcrPacingLimitNs) << label;
        }
    }
};

// Both the streaming thread and the output thread are busy with the device when it goes.
class WireFaultsConcurrency : public WireFaults {};

// Faults whose effect shows in the line's timing: the board runs on the wall clock.
class WireFaultsRealTime : public WireFaults {
protected:
    void SetUp() override {
#ifdef KV_E2E_TSAN
        GTEST_SKIP() << "a ThreadSanitizer build cannot keep the line's real time";
#endif
        WireFaults::SetUp();
    }
};

// Descriptors open on a board node.
int node_descriptors() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (dirent* e = readdir(d)) {
            char link[256] = {};
            const std::string path = std::string("/proc/self/fd/") + e->d_name;
            if (readlink(path.c_str(), link, sizeof(link) - 1) > 0 &&
                std::string(link) == "/memfd:kv_vboard (deleted)") {
                ++n;
            }
        }
        closedir(d);
    }
    return n;
}

TEST_F(WireFaultsConcurrency, NodeVanishingMidPlayStopsTheLineButNotTheElement) {
    kvtest::recording_manager manager;
    wire::settings st;
    st.freerun = true;
    st.latency_ms = 100;
    st.buffer_size = 1 << 20;  // about 1.6 s of this stream
    st.manager = &manager;
    st.direct = true;
    build(st);
    const wire::stream s = wire::generated(5000000, 6);
    const size_t second = s.packet_at(1000000000);
    ASSERT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);  // pads active
    feed(s, 0, second, false, steady::now());
    play();
    ASSERT_TRUE(kvtest::eventually([&] { return counters().packets > 0; }));

    kv_vboard_vanish(kNode);
    const uint64_t sent = counters().packets;
    // The source goes on: with the line gone the FIFO fills up, overflows and resets, and
    // the reopening of the vanished node fails.
    feed(s, second, s.packets(), false, steady::now());
    EXPECT_TRUE(kvtest::eventually([&] { return manager.count(eAlarmRemuxerOutputOverflow) > 0; }));
    EXPECT_TRUE(kvtest::eventually([&] { return stat("Reset") != "0"; }));
    EXPECT_EQ(stat("Last error"), "There is not enough memory in fifo");
    EXPECT_EQ(counters().packets, sent);
    GstState state = GST_STATE_VOID_PENDING;
    EXPECT_EQ(gst_element_get_state(m_sink, &state, nullptr, 0), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(state, GST_STATE_PLAYING);
    EXPECT_EQ(bus_errors(), 0);

    // Stopping does not hang on the dead node and leaves nothing open; the node stays
    // gone, so the next start fails until it is back.
    ASSERT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(node_descriptors(), 0);
    EXPECT_EQ(set_state(GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    add_board(true);
    play();
    feed(s, 0, second, false, steady::now());
    EXPECT_TRUE(kvtest::eventually([&] { return counters().packets > 0; }));
    EXPECT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    g_object_set(m_sink, "alarm-manager", nullptr, nullptr);
    EXPECT_EQ(node_descriptors(), 0);
}

TEST_F(WireFaultsRealTime, DqbufFailingForAWhileCostsFramesNotPackets) {
    kvtest::recording_manager manager;
    wire::settings st;
    st.manager = &manager;
    build(st);
    const wire::stream s = wire::generated(5000000, 3);
    play();
    const steady::time_point origin = steady::now();
    const size_t fault_at = s.packet_at(1200000000);
    feed(s, 0, fault_at, true, origin, 1000000000);
    // About 60 failures 5 ms apart: longer than the six queued buffers last, so the
    // board sends idle frames and the element sees a gap in the frame numbers.
    kv_vboard_set_fault(kNode, KV_VB_DQBUF, 1, 60, EIO);
    feed(s, fault_at, s.packets(), true, origin, 1000000000);
    std::this_thread::sleep_for(std::chrono::milliseconds(st.latency_ms));
    wait_until_line_settles();

    const kv_vboard_counters board = counters();
    EXPECT_GT(board.idle_frames, 0u);
    EXPECT_EQ(stat_count("Skip HW frames"), board.idle_frames);
    EXPECT_EQ(stat("Skip TS packets"), "0");
    EXPECT_EQ(stat("Reset"), "0");
    EXPECT_EQ(stat("Last error"), "");
    EXPECT_EQ(manager.alarms().size(), 2u);
    EXPECT_EQ(manager.count(eAlarmRemuxerOutputUnderflow), 0u);
    EXPECT_EQ(manager.count(eAlarmRemuxerOutputOverflow), 0u);
    const wire::capture c = stop_and_read();

    // None is lost. When DQBUF works again the ring's six buffers, sent during the
    // outage, come back with their old frame numbers and are refilled for frames long
    // gone, so for six frames the line runs as late as the outage was long; the next
    // buffer's number shows the gap, the packets still due go out at once and the line
    // is back on its time line.
    const kv_asi_analyze::report all = analyze(c.records, &s);
    EXPECT_EQ(all.source.matched, all.packets);
    EXPECT_EQ(all.source.missing + all.source.repeated + all.source.altered, 0u);
    EXPECT_EQ(all.source.unsent_tail, s.packets() - s.pcr_packets.back());
    const auto runs = c.runs(5 * kWordsPerFrame);
    ASSERT_EQ(runs.size(), 2u) << "one outage";
    const uint64_t resumed = runs[1].front().word;
    std::vector<wire::record> on_time = c.between(kStartUpWords, runs[0].back().word + 1);
    for (const wire::record& r : c.between(resumed + kStartUpWords)) {
        on_time.push_back(r);
    }
    expect_accurate(on_time, s, "5 Mbit/s across a DQBUF outage");
}

// A live source drops out for half a second: its stream time runs on meanwhile, so the
// packets that come after the gap are due on the time line the line already keeps. The
// FIFO runs dry for a while but nothing resets, and the line stays on time.
TEST_F(WireFaultsRealTime, LiveSourceDroppingOutAndComingBackStaysOnTime) {
    kvtest::recording_manager manager;
    wire::settings st;
    st.manager = &manager;
    build(st);
    const wire::stream s = wire::generated(5000000, 3);
    play();
    const size_t stop_at = s.packet_at(1200000000);
    const size_t resume_at = s.packet_at(1700000000);
    const steady::time_point origin = steady::now();
    feed(s, 0, stop_at, true, origin, 1000000000);
    feed(s, resume_at, s.packets(), true, origin, 1000000000);
    std::this_thread::sleep_for(std::chrono::milliseconds(st.latency_ms));
    wait_until_line_settles();
    EXPECT_EQ(stat("Reset"), "0");
    EXPECT_EQ(stat("Last error"), "");
    EXPECT_EQ(stat("Skip TS packets"), "0");
    EXPECT_EQ(manager.count(eAlarmRemuxerOutputUnderflow), 0u) << "muted for 31 s after a start";
    EXPECT_EQ(manager.count(eAlarmRemuxerOutputOverflow), 0u);
    const wire::capture c = stop_and_read();

    const kv_asi_analyze::report all = analyze(c.records, &s);
    EXPECT_EQ(all.source.matched, all.packets);
    EXPECT_EQ(all.source.missing, resume_at - stop_at);
    EXPECT_EQ(all.source.repeated + all.source.altered + all.source.unsent_head, 0u);
    EXPECT_EQ(all.source.unsent_tail, s.packets() - s.pcr_packets.back());
    // The last PCR before the dropout and the packets after it wait for the next PCR,
    // which comes after the dropout: they are late, the first thing on the line again.
    const auto runs = c.runs(5 * kWordsPerFrame);
    ASSERT_EQ(runs.size(), 2u);
    const size_t held = s.pcr_before(stop_at);
    EXPECT_EQ(std::memcmp(runs[1].front().packet, s.packet(held), 188), 0);
    std::vector<wire::record> on_time = c.between(kStartUpWords, runs[0].back().word + 1);
    for (const wire::record& r : c.between(runs[1].front().word + kWordsPerFrame)) {
        on_time.push_back(r);
    }
    expect_accurate(on_time, s, "5 Mbit/s across a 0.5 s dropout");
}

// The same dropout with reset-when-empty: the FIFO runs empty, resets itself and says so.
// The reopened device streams idle frames while the latency builds up again, and its
// first returned buffer counts them as skipped, so the new time line starts that far
// ahead: the line then carries the packets as they arrive, in order but no longer paced
// by their PCRs, and each time the FIFO runs empty it resets again.
TEST_F(WireFaultsRealTime, SourceDroppingOutWithResetWhenEmptyResetsAndGoesOn) {
    kvtest::recording_manager manager;
    wire::settings st;
    st.reset_when_empty = true;
    st.manager = &manager;
    build(st);
    const wire::stream s = wire::generated(5000000, 3);
    play();
    const size_t stop_at = s.packet_at(1200000000);
    const size_t resume_at = s.packet_at(1700000000);
    const steady::time_point origin = steady::now();
    feed(s, 0, stop_at, true, origin, 1000000000);
    ASSERT_TRUE(kvtest::eventually([&] { return stat("Reset") == "1"; }));
    EXPECT_EQ(stat("Last error"), "Fifo emptied");
    EXPECT_EQ(manager.count(eAlarmRemuxerOutputUnderflow), 1u);
    const uint64_t before = counters().packets;
    feed(s, resume_at, s.packets(), true, origin, 1000000000);
    std::this_thread::sleep_for(std::chrono::milliseconds(st.latency_ms));
    wait_until_line_settles();
    const uint64_t resets = stat_count("Reset");
    EXPECT_GE(resets, 2u) << "the end of the stream empties the FIFO too";
    EXPECT_EQ(manager.count(eAlarmRemuxerOutputUnderflow), resets);
    EXPECT_EQ(manager.count(eAlarmRemuxerOutputOverflow), 0u);
    EXPECT_EQ(stat("Last error"), "Fifo emptied");
    EXPECT_GT(counters().packets, before);
    EXPECT_EQ(bus_errors(), 0);
    const wire::capture c = stop_and_read();

    // Every reset loses what the FIFO held; what goes out is in order, from a PCR on.
    const kv_asi_analyze::report all = analyze(c.records, &s);
    EXPECT_EQ(all.source.matched, all.packets);
    EXPECT_EQ(all.source.repeated + all.source.altered, 0u);
    const auto runs = c.runs(10 * kWordsPerFrame);
    ASSERT_GE(runs.size(), 2u);
    EXPECT_EQ(wire::pid_of(runs[1].front().packet), s.pcr_pid);
    EXPECT_TRUE(wire::has_pcr(runs[1].front().packet));
    std::printf("[   wire   ] 5 Mbit/s, 0.5 s dropout, reset when empty: %llu resets\n",
                (unsigned long long)resets);
    expect_accurate(c.between(kStartUpWords, runs[0].back().word + 1), s,
                    "5 Mbit/s before a dropout");
    report_accuracy(c.between(runs[1].front().word + kStartUpWords), s,
                    "5 Mbit/s after a reset when empty");
}

// The stream jumps 3 s ahead: a large gap, so the FIFO resets without an alarm. After the
// reset the time line starts ahead of the data, as above, so the PCR accuracy from there
// on is only reported.
TEST_F(WireFaultsRealTime, PcrJumpOfThreeSecondsResetsWithoutAlarms) {
    kvtest::recording_manager manager;
    wire::settings st;
    st.manager = &manager;
    build(st);
    const wire::stream s = wire::generated(5000000, 6);
    play();
    const size_t jump_from = s.packet_at(1200000000);
    const size_t jump_to = s.packet_at(4200000000);
    const steady::time_point origin = steady::now();
    feed(s, 0, jump_from, true, origin, 1000000000);
    // No pause in arrival: the stream itself jumps 3 s ahead.
    feed(s, jump_to, s.packets(), true, origin - std::chrono::seconds(3), 1000000000);
    std::this_thread::sleep_for(std::chrono::milliseconds(st.latency_ms));
    wait_until_line_settles();
    EXPECT_EQ(stat("Reset"), "1");
    EXPECT_EQ(stat("Last error"), "Large gap in flow time");
    EXPECT_EQ(manager.count(eAlarmRemuxerOutputUnderflow), 0u);
    EXPECT_EQ(manager.count(eAlarmRemuxerOutputOverflow), 0u);
    EXPECT_EQ(bus_errors(), 0);
    const wire::capture c = stop_and_read();

    const auto runs = c.runs(10 * kWordsPerFrame);
    ASSERT_EQ(runs.size(), 2u);
    // Before the jump: in order, up to what the FIFO held when it reset. After: input is
    // dropped until the output thread has reset the FIFO, then stored from a PCR on.
    const kv_asi_analyze::report before = analyze(runs[0], &s);
    EXPECT_EQ(before.source.matched, before.packets);
    EXPECT_EQ(before.source.missing + before.source.unsent_head, 0u);
    EXPECT_GE(before.source.unsent_tail, s.packets() - s.pcr_before(jump_from));
    const wire::record& restart = runs[1].front();
    EXPECT_EQ(wire::pid_of(restart.packet), s.pcr_pid);
    EXPECT_TRUE(wire::has_pcr(restart.packet));
    const kv_asi_analyze::report after = analyze(runs[1], &s);
    EXPECT_EQ(after.source.matched, after.packets);
    EXPECT_EQ(after.source.missing + after.source.repeated + after.source.altered, 0u);
    EXPECT_GE(after.source.unsent_head, jump_to);
    EXPECT_EQ(after.source.unsent_tail, s.packets() - s.pcr_packets.back());

    expect_accurate(c.between(kStartUpWords, runs[0].back().word + 1), s,
                    "5 Mbit/s before a PCR jump");
    report_accuracy(c.between(restart.word + kStartUpWords), s, "5 Mbit/s after a PCR jump");
}

// Garbage between buffers, free-running: the line's content is positional, so its PCR
// accuracy needs no real time.
TEST_F(WireFaults, GarbageBetweenPacketsIsSkipped) {
    const wire::stream s = wire::generated(38000000, 1);
    // A run of garbage after every tenth buffer. Without a sync byte the parser skips it
    // whole; with one it frames one false packet from there and finds the packets again
    // at the next sync byte.
    uint8_t clean[61];
    std::memset(clean, 0xA5, sizeof(clean));
    uint8_t false_sync[61];
    std::memset(false_sync, 0x00, sizeof(false_sync));
    false_sync[10] = 0x47;
    false_sync[11] = 0x1F;  // null PID: the false packet goes out as one
    false_sync[12] = 0xFF;
    false_sync[13] = 0x10;

    for (const uint8_t* garbage : {clean, false_sync}) {
        SCOPED_TRACE(garbage == clean ? "no sync byte" : "false sync byte");
        wire::settings st;
        st.freerun = true;
        st.latency_ms = 100;
        st.direct = true;
        build(st);
        ASSERT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
        size_t runs = 0;
        for (size_t i = 0; i < s.packets(); i += 10 * kBufferPackets) {
            feed(s, i, std::min(s.packets(), i + 10 * kBufferPackets), false, steady::now());
            push(gst_buffer_new_memdup(garbage, sizeof(clean)));
            ++runs;
        }
        play();
        wait_until_line_settles();
        EXPECT_EQ(stat("Reset"), "0");
        EXPECT_EQ(stat("Last error"), "");
        const kv_vboard_counters board = counters();
        EXPECT_EQ(board.word_violations, 0u);
        EXPECT_EQ(board.bytes_partial, 0u);
        const wire::capture c = stop_and_read();

        const kv_asi_analyze::report all = analyze(c.records, &s);
        EXPECT_EQ(all.source.repeated, 0u);
        EXPECT_EQ(all.source.unsent_head, 0u);
        if (garbage == clean) {
            EXPECT_EQ(all.source.matched, all.packets);
            EXPECT_EQ(all.source.missing + all.source.altered, 0u);
            EXPECT_EQ(all.source.unsent_tail, s.packets() - s.pcr_packets.back());
        } else {
            // Each run followed by packets costs the packet the false one ran into (the
            // false packet goes out in its place); a sync byte in the rest of that
            // packet's payload may frame one more false packet and cut the next one.
            const size_t hit = runs - 1;
            std::printf("[   wire   ] %zu false syncs: %llu altered, %llu missing\n", hit,
                        (unsigned long long)all.source.altered,
                        (unsigned long long)all.source.missing);
            EXPECT_GE(all.source.altered, hit);
            EXPECT_LE(all.source.altered + all.source.missing, 3 * hit);
        }
        expect_accurate(c.between(kStartUpWords), s,
                        std::string("38 Mbit/s with garbage, ") +
                            (garbage == clean ? "no sync byte" : "false sync byte"));
        TearDown();
        SetUp();
    }
}

}  // namespace
