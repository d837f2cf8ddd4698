// The board in real time against a host loop at frame rate, and calls that meet across
// threads. KV_VBOARD_RT_SECONDS sets the length of the real-time run (2 s).

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "kv_asi_analyzer.h"
#include "vboard_test_host.h"

using namespace vboard_test;

static const char* const kNode = "/dev/kvasi-rt0";

TEST(VboardRealtimeConcurrency, HostLoopAtFrameRateLeavesNoIdleFrame) {
    const char* env = getenv("KV_VBOARD_RT_SECONDS");
    const uint32_t nFrames = (env && atoi(env) > 0 ? uint32_t(atoi(env)) : 2) * 50;
    const double ppm = 50.0;
    const std::string capture = temp_path("rt_capture.bin");
    kv_vboard_remove_all();
    kv_vboard_config c = config(kNode);
    c.ppm = ppm;
    snprintf(c.capture, sizeof(c.capture), "%s", capture.c_str());
    ASSERT_EQ(kv_vboard_add(&c), 0);

    // About 22.6 Mbit/s, packets cut at frame borders, a PCR every 20 packets.
    const cbr_line line{1999, 20, 1234567};
    host h;
    ASSERT_EQ(h.open(kNode, false), 0);
    ASSERT_EQ(h.setup(), 0);
    for (uint32_t i = 0; i < 6; ++i) {
        line.frame(i, h.data[i]);
        ASSERT_EQ(h.qbuf(i), 0);
    }
    using clock = std::chrono::steady_clock;
    uint32_t c0 = 0, cEnd = 0;
    const auto tBefore0 = clock::now();
    ASSERT_EQ(h.counter(c0), 0);
    const auto tAfter0 = clock::now();
    ASSERT_EQ(h.stream(true), 0);
    for (uint32_t i = 6, nextSequence = 2; i < nFrames; ++i) {
        v4l2_buffer b;
        ASSERT_EQ(h.dqbuf(b), 0);
        uint32_t now = 0;
        ASSERT_EQ(h.counter(now), 0);
        ASSERT_EQ(b.sequence, nextSequence++) << "a frame went out idle";
        // A buffer comes back only once its frame has left, on the board's clock.
        EXPECT_GE(now - c0, (b.sequence - 1) * uint32_t(kvvb::kTicksPerFrame)) << b.sequence;
        line.frame(i, h.data[b.index]);
        ASSERT_EQ(h.qbuf(b.index), 0);
    }
    const auto tBeforeEnd = clock::now();
    ASSERT_EQ(h.counter(cEnd), 0);
    const auto tAfterEnd = clock::now();
    ASSERT_EQ(h.stream(false), 0);
    kv_vboard_counters n{};
    ASSERT_EQ(kv_vboard_get_counters(kNode, &n), 0);
    h.close();
    EXPECT_EQ(n.idle_frames, 0u);
    EXPECT_EQ(n.word_violations, 0u);
    EXPECT_GE(n.frames_sent, uint64_t(nFrames - 6));
    // The counter runs at 148.5 MHz plus the offset, bracketed by the monotonic clock.
    const double rate = 148.5e6 * (1 + ppm * 1e-6), ticks = double(uint32_t(cEnd - c0));
    EXPECT_GE(ticks, std::chrono::duration<double>(tBeforeEnd - tAfter0).count() * rate - 2);
    EXPECT_LE(ticks, std::chrono::duration<double>(tAfterEnd - tBefore0).count() * rate + 2);

    // The capture holds the stream in order, each PCR exactly at its word.
    kv_asi_analyze::report r;
    std::string error;
    ASSERT_TRUE(kv_asi_analyze::analyze_files(capture, "", r, error)) << error;
    EXPECT_EQ(r.packets, n.packets);
    EXPECT_GE(r.packets, uint64_t(nFrames - 6) * kvvb::kWordsPerFrame / line.spacing - 1);
    EXPECT_TRUE(r.cc_errors.empty());
    ASSERT_EQ(r.pcr.size(), 1u);
    EXPECT_LT(r.pcr[0].offset_max_ns, 1.0);
    EXPECT_NEAR(r.pcr[0].max_interval_ms, 20.0 * line.spacing / 27000, 1e-6);
    remove(capture.c_str());
}

// A DQBUF blocked on an empty queue wakes for a QBUF, and STREAMOFF releases (or refuses)
// the next one, while another thread keeps reading the counter and counters.
TEST(VboardConcurrency, BlockedDqbufWakesForQbufAndStreamoff) {
    kv_vboard_remove_all();
    kv_vboard_config c = config(kNode, true);
    ASSERT_EQ(kv_vboard_add(&c), 0);
    host h;
    ASSERT_EQ(h.open(kNode, false), 0);
    ASSERT_EQ(h.setup(), 0);
    ASSERT_EQ(h.stream(true), 0);  // nothing queued: the line waits

    std::atomic<bool> bStop{false};
    std::thread reader([&] {
        while (!bStop.load()) {
            uint32_t v;
            kv_vboard_counters n;
            EXPECT_EQ(h.counter(v), 0);
            EXPECT_EQ(kv_vboard_get_counters(kNode, &n), 0);
        }
    });
    std::atomic<int> stage{0};
    int results[2] = {-1, -1};
    uint32_t sequence = 0;
    std::thread waiter([&] {
        v4l2_buffer b;
        h.prepare(b, 0);
        stage = 1;
        results[0] = h.call(VIDIOC_DQBUF, &b);
        sequence = b.sequence;
        stage = 2;
        h.prepare(b, 0);
        results[1] = h.call(VIDIOC_DQBUF, &b);
    });
    while (stage.load() < 1) {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(stage.load(), 1);  // still blocked: nothing has been queued
    ASSERT_EQ(h.qbuf(0), 0);
    while (stage.load() < 2) {
        std::this_thread::yield();
    }
    EXPECT_EQ(results[0], 0);
    EXPECT_EQ(sequence, 2u);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(h.stream(false), 0);
    waiter.join();
    EXPECT_EQ(results[1], EINVAL);
    bStop = true;
    reader.join();
    h.close();
    kv_vboard_remove_all();
}
