// Start/stop cycles of the output thread while the streaming thread keeps pushing and the
// host keeps reading the statistics.
#include <atomic>

#include "engine_fixture.h"

namespace engine_test {
namespace {

using EngineConcurrency = EngineTest;

// The stream is pushed in a loop with PCR pacing and the device as the PLL's clock, so
// each loop's wrap is a PCR jump the FIFO carries the stream across (the output thread
// starts and stops the device while the streaming thread reads its clock), and the
// underflow alarm is live from the first pass.
TEST_F(EngineConcurrency, StartStopCyclesWithBuffersFlowingLeaveNothingBehind) {
    std::vector<uint8_t> ts = read_file(std::string(KV_CORPUS_DIR) + "/test-072.ts");
    if (ts.empty()) {
        ts = generated(1200000, 10000);  // about the capture's rate and length
    }
    // A sanitizer runtime may start a helper thread with the first thread; let it.
    std::thread([] {}).join();
    const int fds = proc_self_count("fd"), threads = proc_self_count("task");

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
        if (cycle % 2 == 1) {  // let some buffers through; on even cycles stop at once
            const uint64_t queued = counters().qbuf;
            ASSERT_TRUE(eventually([&] { return counters().qbuf >= queued + 3; }));
        }
        engine.stop();
    }
    const uint64_t sent = counters().packets;  // still playing after all that
    ASSERT_TRUE(engine.start());
    ASSERT_TRUE(eventually([&] { return counters().packets >= sent + 100; }));
    engine.stop();

    bQuit = true;
    producer.join();
    host.join();
    engine.deinit();
    EXPECT_EQ(counters().word_violations, 0u);
    EXPECT_EQ(proc_self_count("task"), threads);
    EXPECT_EQ(proc_self_count("fd"), fds);
    EXPECT_EQ(board_mapping_count(), 0);
}

}  // namespace
}  // namespace engine_test
