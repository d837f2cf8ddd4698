// The engine's output loop against the emulated board: what reaches the line and when,
// FIFO reset requests, device failures, and the fill's bookkeeping.
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "engine_fixture.h"
#include "kv_asi_analyzer.h"

namespace engine_test {
namespace {

using mpegcore::stamp_time_type;

TEST_F(EngineTest, InitAndStartFailuresReportAndLeaveNothingOpen) {
    const int fds = proc_self_count("fd"), threads = proc_self_count("task");
    EXPECT_FALSE(
        engine.init("/dev/kvasi-engine-missing", 1 << 20, 100, stamp_time_type, true, true));
    EXPECT_EQ(log.count("kv_asi_renderer: Can't open device, /dev/kvasi-engine-missing\n"), 1u);
    EXPECT_FALSE(engine.start());
    EXPECT_EQ(log.count("kv_asi_renderer: The device has not been opened\n"), 1u);
    engine.stop();
    EXPECT_EQ(proc_self_count("fd"), fds);
    EXPECT_EQ(proc_self_count("task"), threads);
    EXPECT_EQ(manager.count(kUnderflow), -1);  // alarms are not started without a thread
}

// Packets pushed one per buffer, 211 units (569.7 words) apart so that some are cut at a
// frame's end, leave the line once each, in order, each at the first word whose time
// reaches its stamp on the time line anchored at the oldest packet, and never closer than
// 190 words (188 bytes, two idle) to the previous.
TEST_F(EngineTest, ConstantRateStreamLeavesTheLineOnceInOrderAtItsTimes) {
    const std::string source = std::string(KV_CORPUS_DIR) + "/test-025.ts";
    const std::vector<uint8_t> ts = read_file(source);
    if (ts.empty()) {
        GTEST_SKIP() << "corpus not available: " << source;
    }
    const size_t n = ts.size() / kPacket;
    const std::string capture =
        testing::TempDir() + "engine_line_" + std::to_string(getpid()) + ".cap";
    add_board(capture);
    ASSERT_TRUE(engine.init(kNode, 4 << 20, 10, stamp_time_type, false, false));
    push_packets(ts, 0, n, 211);
    ASSERT_TRUE(engine.start());
    // The newest packet waits for an anchor after it and never becomes due.
    ASSERT_TRUE(eventually([&] { return counters().packets >= n - 1; }))
        << counters().packets << " of " << n - 1 << " packets on the line";
    engine.stop();
    EXPECT_EQ(engine.get_start_fifo_time(), kT0);
    EXPECT_EQ(stat("Skip TS packets"), "0");
    engine.deinit();
    const kv_vboard_counters c = counters();
    EXPECT_EQ(c.packets, n - 1);
    EXPECT_EQ(c.word_violations + c.bytes_partial, 0u);

    kv_asi_analyze::report r;
    std::string error;
    ASSERT_TRUE(kv_asi_analyze::analyze_files(capture, source, r, error)) << error;
    EXPECT_EQ(r.source.matched, n - 1);
    EXPECT_EQ(r.source.missing + r.source.repeated + r.source.altered + r.source.unsent_head, 0u);
    EXPECT_EQ(r.source.unsent_tail, 1u);

    // Frames are numbered without a gap from the first one: line word = device word.
    const auto line_word = [](uint64_t w) { return w; };
    const std::vector<uint8_t> records = read_file(capture);
    ASSERT_EQ(records.size(), (n - 1) * 192);
    uint64_t expected = 0, minGap = ~uint64_t{0};
    uint32_t last = 0;
    size_t wrong = 0;
    for (size_t k = 0; k + 1 < n; ++k) {
        const uint8_t* rec = &records[k * 192];
        const uint32_t stamp =
            (uint32_t{rec[0]} << 24) | (uint32_t{rec[1]} << 16) | (uint32_t{rec[2]} << 8) | rec[3];
        const uint64_t dueWord = line_word((27 * 211 * uint64_t(k) + 9) / 10);
        expected = k == 0 ? dueWord : std::max(dueWord, expected + 190);
        if (stamp != (expected & 0x3FFFFFFF) && wrong++ < 5) {
            ADD_FAILURE() << "packet " << k << " at word " << stamp << ", expected " << expected;
        }
        if (k > 0) {
            minGap = std::min<uint64_t>(minGap, (stamp - last) & 0x3FFFFFFF);
        }
        last = stamp;
    }
    EXPECT_EQ(wrong, 0u);
    EXPECT_GE(minGap, 569u);  // nothing piles up: every packet at its own time
    std::remove(capture.c_str());
}

TEST_F(EngineTest, LatencyAndWarmUpGateOutputAndUnderflow) {
    // Latency 0 on an empty FIFO: the device is not streamed before there is something to
    // play; the underflow of an empty FIFO is muted for the warm-up (31 s) and raised on
    // every pass without it.
    ASSERT_TRUE(engine.init(kNode, 1 << 20, 0, stamp_time_type, false, false));
    EXPECT_EQ(engine.get_read_ahead_ms(), 120);
    EXPECT_EQ(engine.get_latency(), 1200000);
    ASSERT_TRUE(engine.start());
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(counters().qbuf, 0u);
    EXPECT_EQ(manager.count(kUnderflow), 0);
    engine.stop();
    engine.set_warm_up(std::chrono::nanoseconds(0));
    ASSERT_TRUE(engine.start());
    ASSERT_TRUE(eventually([&] { return manager.count(kUnderflow) >= 3; }));
    EXPECT_EQ(manager.count(kOverflow), 0);
    engine.stop();
    EXPECT_EQ(counters().qbuf + counters().word_violations, 0u);
    engine.deinit();

    // 100 ms latency is raised to the read-ahead, 120 ms; with items 0.1 ms apart the
    // output waits for that plus one anchor interval and one frame. With 50 ms stored no
    // buffer is taken, and more than 1 % of the latency silences the underflow alarm.
    const std::vector<uint8_t> ts = generated(1000000, 1802);
    add_board();
    ASSERT_TRUE(engine.init(kNode, 1 << 20, 100, stamp_time_type, false, false));
    EXPECT_EQ(engine.get_latency(), 1200000);
    engine.set_warm_up(std::chrono::nanoseconds(0));
    ASSERT_TRUE(engine.start());
    ASSERT_TRUE(eventually([&] { return manager.count(kUnderflow) >= 2; }));
    push_packets(ts, 0, 502, 1000);
    ASSERT_TRUE(eventually([&] { return stat("Fullness fifo") == "000:00:00.050"; }));
    const long underflows = manager.count(kUnderflow);
    push_packets(ts, 502, 1402, 1000);  // 140 ms: one frame short
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(manager.count(kUnderflow), underflows);
    EXPECT_EQ(counters().qbuf, 0u);
    push_packets(ts, 1402, 1802, 1000);
    ASSERT_TRUE(eventually([&] { return counters().packets >= 1801; }));
    engine.stop();
    EXPECT_EQ(engine.get_start_fifo_time(), kT0);
    EXPECT_EQ(engine.get_late_packets(), 0u);
}

// A FIFO asking for a reset: its text is printed and kept as the last error, its alarm is
// raised even during the warm-up, the reset is counted once, and the device is neither
// reopened nor started before there is something to play again.
TEST_F(EngineTest, FifoResetRequestsAreReportedAndCountedOnce) {
    const struct {
        const char* text;
        size_t capacityPackets;
        bool resetWhenEmpty;
        long underflow, overflow;
        uint64_t streamon;
    } cases[] = {{"Fifo emptied", 1000, true, 1, 0, 1},
                 {"There is not enough memory in fifo", 10, false, 0, 1, 0}};
    const std::vector<uint8_t> ts = generated(1000000, 200);
    for (const auto& rc : cases) {
        SCOPED_TRACE(rc.text);
        add_board();  // fresh counters
        print_log::clear();
        engine.reset_statistics();
        ASSERT_TRUE(engine.init(kNode, rc.capacityPackets * kPacket, 0, stamp_time_type, false,
                                rc.resetWhenEmpty));
        push_packets(ts, 0, 200, 20000);  // 400 ms
        ASSERT_TRUE(engine.start());
        ASSERT_TRUE(eventually([&] { return stat("Reset") != "0"; }))
        << log.count("kv_asi_renderer: Can't open asi device: " + std::string(kNode) + "\n")
        << " failed opens";
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(stat("Reset"), "1");  // nothing more pushed, nothing more to fail
        EXPECT_EQ(counters().streamon, rc.streamon);
        EXPECT_EQ(log.count(std::string("kv_asi_renderer: ") + rc.text + "\n"), 1u);
        EXPECT_EQ(log.count("kv_asi_renderer: Open asi device: " + std::string(kNode) + "\n"), 1u);
        EXPECT_EQ(stat("Last error"), rc.text);
        EXPECT_EQ(manager.count(kUnderflow), rc.underflow);
        EXPECT_EQ(manager.count(kOverflow), rc.overflow);
        engine.stop();
        engine.deinit();
    }
}

// Device faults heal: failed dequeues are retried after a message, a buffer the driver
// refused is queued again (the ring stays whole: every buffer is in the driver once output
// stops), streaming that did not start is started again, a node that went away is opened
// again when it is back. Whatever the driver does, even never handing a buffer back,
// stop() returns promptly.
TEST_F(EngineTest, DeviceFaultsHealAndStopStaysPrompt) {
    const struct {
        const char* label;
        kv_vboard_call call;
        uint32_t from, count;  // count 0: for good
        const char* line;      // printed once: its repeats within a second are held back
        const char* error;     // the last error, with the faults counted
    } cases[] = {
        {"DQBUF fails 3 times", KV_VB_DQBUF, 1, 3, "m_pDevice->map() ERROR",
         "VIDIOC_DQBUF: Input/output error (3 device faults)"},
        {"QBUF fails once", KV_VB_QBUF, 8, 1, "-1 == ::xioctl(m_hASI, VIDIOC_QBUF, &m_cur_buffer)",
         "VIDIOC_QBUF: Input/output error (1 device fault)"},
        {"STREAMON fails twice", KV_VB_STREAMON, 1, 2,
         "Can't stream on, device = /dev/kvasi-engine-test",
         "VIDIOC_STREAMON: Input/output error (2 device faults)"},
        // Faults that last until the board is healed 1.5 s later.
        {"DQBUF fails 1.5 s", KV_VB_DQBUF, 1, 0, nullptr, nullptr},
        {"QBUF fails 1.5 s", KV_VB_QBUF, 7, 0, nullptr, nullptr},
        {"STREAMON fails 1.5 s", KV_VB_STREAMON, 1, 0, nullptr, nullptr},
    };
    const std::vector<uint8_t> ts = generated(1000000, 200);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        add_board();
        print_log::clear();
        ASSERT_TRUE(engine.init(kNode, 1 << 20, 0, stamp_time_type, false, false));
        engine.reset_statistics();
        push_packets(ts, 0, 200, 20000);  // 400 ms
        ASSERT_EQ(kv_vboard_set_fault(kNode, c.call, c.from, c.count, EIO), 0);
        ASSERT_TRUE(engine.start());
        double recovery_ms = 0;
        if (c.count > 0) {
            ASSERT_TRUE(eventually([&] { return counters().dqbuf >= 20; }));
        } else {
            // Repeats of the lasting fault's line are held back: one line a second at most.
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            const uint64_t sent = counters().frames_sent;
            const auto tHealed = std::chrono::steady_clock::now();
            kv_vboard_clear_faults(kNode);
            ASSERT_TRUE(eventually([&] { return counters().frames_sent > sent + 6; }));
            recovery_ms = std::chrono::duration<double, std::milli>(
                              std::chrono::steady_clock::now() - tHealed).count();
        }
        const auto t0 = std::chrono::steady_clock::now();
        engine.stop();
        const double stop_ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
        std::printf("[  fault   ] %-22s stop took %.1f ms, output back %.0f ms after the heal\n",
                    c.label, stop_ms, recovery_ms);
        EXPECT_LE(log.text_lines(), 12u) << "a lasting fault floods standard output";
        EXPECT_LT(stop_ms, 2000.0) << "stop hung on the driver";
        const kv_vboard_counters k = counters();
        // One warning for the episode, with the OS's reason and a hint.
        const std::vector<kv_asi_message> m = messages();
        ASSERT_FALSE(m.empty());
        EXPECT_EQ(m[0].eLevel, kv_asi_level::warning);
        EXPECT_EQ(m[0].eTopic, kv_asi_topic::device_fault);
        EXPECT_EQ(m[0].nErrno, EIO);
        EXPECT_NE(m[0].strText.find("Input/output error"), std::string::npos) << m[0].strText;
        EXPECT_FALSE(m[0].strDetail.empty());
        if (c.line) {
            EXPECT_EQ(m.size(), 1u);
            EXPECT_EQ(log.count(std::string("kv_asi_renderer: ") + c.line + "\n"), 1u);
            EXPECT_EQ(stat("Last error"), c.error);
            EXPECT_EQ(k.qbuf, 6 + k.dqbuf) << "the ring is whole";
            EXPECT_EQ(k.streamon, 1u);
        }
        EXPECT_EQ(k.word_violations, 0u);
        engine.deinit();
    }

    // The node goes away mid-play and comes back: it is opened again (counted as a
    // reset) and plays what comes next.
    kv_vboard_clear_faults(kNode);
    add_board();
    ASSERT_TRUE(engine.init(kNode, 1 << 20, 0, stamp_time_type, false, false));
    engine.reset_statistics();
    push_packets(ts, 0, 100, 20000);
    ASSERT_TRUE(engine.start());
    ASSERT_TRUE(eventually([&] { return counters().dqbuf >= 5; }));
    ASSERT_EQ(kv_vboard_vanish(kNode), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    add_board();  // a new node under the same path, counters from 0
    ASSERT_TRUE(eventually([&] { return stat("Reset") != "0"; }))
        << log.count("kv_asi_renderer: Can't open asi device: " + std::string(kNode) + "\n")
        << " failed opens";
    push_packets(ts, 100, 200, 20000);
    EXPECT_TRUE(eventually([&] { return counters().packets >= 99; }));
    // Gone for good: stop does not wait for it.
    ASSERT_EQ(kv_vboard_vanish(kNode), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto tGone = std::chrono::steady_clock::now();
    engine.stop();
    const double gone_ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - tGone).count();
    std::printf("[  fault   ] %-22s stop took %.1f ms\n", "node gone", gone_ms);
    EXPECT_LT(gone_ms, 2000.0);
    const std::vector<kv_asi_message> m = messages();
    ASSERT_EQ(m.size(), 2u);
    EXPECT_EQ(m[0].eTopic, kv_asi_topic::device_gone);
    EXPECT_EQ(m[0].strText, std::string("The ASI device ") + kNode +
                                " went away (No such device); it is opened again as soon as it "
                                "is back");
    EXPECT_EQ(m[1].eTopic, kv_asi_topic::device_gone);  // the second time: no fault warning
    engine.deinit();

    // A paced board that sends 1000 frames of its own while every buffer waits: DQBUF
    // would block for 20 s.
    add_vboard(kNode, false, false, 2, 675000, "");
    ASSERT_TRUE(engine.init(kNode, 1 << 20, 0, stamp_time_type, false, false));
    push_packets(ts, 0, 200, 20000);
    ASSERT_TRUE(engine.start());
    ASSERT_TRUE(eventually([&] { return counters().dqbuf >= 2; }));
    ASSERT_EQ(kv_vboard_insert_idle_frames(kNode, 1000), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto t0 = std::chrono::steady_clock::now();
    engine.stop();
    const double stop_ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    std::printf("[  fault   ] %-22s stop took %.1f ms\n", "DQBUF blocked 20 s", stop_ms);
    EXPECT_LT(stop_ms, 2000.0) << "stop waited for the driver";
}

// The engine's fill counts dropped packets in the statistics, start() forgets the carry,
// and a buffer shorter than a frame is left alone with its packets dropped.
TEST_F(EngineTest, FillCountsSkippedPacketsAndStartForgetsTheCarry) {
    std::vector<uint8_t> ts = generated(1000000, 4);
    std::vector<uint8_t> frame(675000, 0xA5);
    mpegcore::kv_mpegts_items items;
    auto add = [&](size_t k, int64_t t) {
        items.push_back(std::make_unique<mpegcore::kv_mpegts_item>(&ts[k * kPacket], kPacket));
        items.back()->m_nLength = kPacket;
        items.back()->set_time(t);
    };
    add(0, 199963);  // starts at word 539901: 99 bytes fit, the rest is carried
    add(1, 199990);
    add(2, 200000);
    ASSERT_TRUE(engine.fill_asi_data(0, 200000, frame.data(), frame.size(), items));
    EXPECT_EQ(stat("Skip TS packets"), "2");

    EXPECT_FALSE(engine.start());  // no device
    engine.reset_statistics();
    EXPECT_EQ(stat("Skip TS packets"), "0");
    items.clear();
    add(3, 400050);
    ASSERT_TRUE(engine.fill_asi_data(400000, 600000, frame.data(), frame.size(), items));
    // 50 units = 135 words: word 135 starts packet 3 (0x100 | 0x47), nothing carried before.
    EXPECT_EQ(frame[0] | (frame[1] & 3), 0);
    EXPECT_EQ((frame[168] | frame[169] << 8) >> 6 & 0x3FF, 0x147);

    std::fill(frame.begin(), frame.end(), 0xA5);
    EXPECT_FALSE(engine.fill_asi_data(0, 200000, frame.data(), frame.size() - 1, items));
    EXPECT_EQ(std::count(frame.begin(), frame.end(), 0xA5), 675000);
    EXPECT_EQ(stat("Skip TS packets"), "1");
}

}  // namespace
}  // namespace engine_test
