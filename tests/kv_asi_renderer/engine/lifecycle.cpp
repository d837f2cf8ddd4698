// Start/stop cycles of the output thread while the streaming thread keeps pushing and
// the host keeps reading the statistics.
#include <atomic>
#include <cstdio>

#include "engine_fixture.h"

namespace engine_test {
namespace {

// Host mappings of the board's buffer memory still in place.
int board_mapping_count() {
    int n = 0;
    if (FILE* f = std::fopen("/proc/self/maps", "r")) {
        char line[1024];
        while (std::fgets(line, sizeof(line), f)) {
            n += std::strstr(line, "kv_vboard_buffers") != nullptr;
        }
        std::fclose(f);
    }
    return n;
}

using EngineConcurrency = EngineTest;

// The stream is pushed in a loop with PCR pacing and the device as the PLL's clock, so
// the wrap of each loop is a PCR jump that makes the FIFO ask for a reset (device
// reopened by the output thread while the streaming thread reads its clock), and the
// underflow alarm is live from the first pass.
TEST_F(EngineConcurrency, StartStopCyclesWithBuffersFlowingLeaveNothingBehind) {
    const std::vector<uint8_t> ts = read_file(corpus_path("test-072.ts"));
    if (ts.empty()) {
        GTEST_SKIP() << "corpus not available";
    }
    // A sanitizer runtime may start a helper thread along with the process's first
    // thread; let that happen before counting.
    std::thread([] {}).join();
    const int fds = proc_self_count("fd");
    const int threads = proc_self_count("task");

    ASSERT_TRUE(engine.init(kNode, 8 << 20, 20, mpegcore::pcr_time_type, true, true));
    engine.set_warm_up(std::chrono::nanoseconds(0));
    std::atomic<bool> bQuit{false};
    std::thread producer([&] {
        constexpr size_t kChunk = 7 * kPacket;
        for (size_t pos = 0; !bQuit; pos = (pos + kChunk) % (ts.size() / kChunk * kChunk)) {
            engine.push_data(0, &ts[pos], kChunk);
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    });
    std::thread host([&] {
        while (!bQuit) {
            EXPECT_EQ(engine.statistics()->get_items().size(), 7u);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });

    for (int cycle = 0; cycle < 40; ++cycle) {
        ASSERT_TRUE(engine.start());
        if (cycle % 2 == 1) {
            // Let some buffers through; on even cycles stop at once.
            const uint64_t queued = counters().qbuf;
            ASSERT_TRUE(wait_until([&] { return counters().qbuf >= queued + 3; }));
        }
        engine.stop();
    }
    // Still playing after all that.
    const uint64_t sent = counters().packets;
    ASSERT_TRUE(engine.start());
    ASSERT_TRUE(wait_until([&] { return counters().packets >= sent + 100; }));
    engine.stop();

    bQuit = true;
    producer.join();
    host.join();
    engine.deinit();

    const kv_vboard_counters c = counters();
    EXPECT_EQ(c.word_violations, 0u);
    EXPECT_EQ(proc_self_count("task"), threads);
    EXPECT_EQ(proc_self_count("fd"), fds);
    EXPECT_EQ(board_mapping_count(), 0);
}

}  // namespace
}  // namespace engine_test
