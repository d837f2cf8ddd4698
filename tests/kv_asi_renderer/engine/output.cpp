// The engine's output loop against the emulated board: what reaches the line, when the
// output starts, FIFO reset requests, device failures, and the fill's carry between
// frames.
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "engine_fixture.h"
#include "kv_asi_analyzer.h"

namespace engine_test {
namespace {

using mpegcore::kv_mpegts_item;
using mpegcore::kv_mpegts_items;
using mpegcore::stamp_time_type;

constexpr int64_t kT0 = 5000000000;  // first stamp, far from zero (500 s)

// n packets on PID 0x100 whose payload bytes encode the packet's index.
std::vector<uint8_t> synthetic_stream(size_t n) {
    std::vector<uint8_t> ts(n * kPacket);
    for (size_t k = 0; k < n; ++k) {
        uint8_t* p = &ts[k * kPacket];
        p[0] = 0x47;
        p[1] = 0x01;
        p[2] = 0x00;
        p[3] = static_cast<uint8_t>(0x10 | (k & 0x0F));
        for (size_t i = 4; i < kPacket; ++i) {
            p[i] = static_cast<uint8_t>(k * 7 + i);
        }
    }
    return ts;
}

std::vector<int64_t> evenly(size_t n, int64_t step) {
    std::vector<int64_t> t(n);
    for (size_t k = 0; k < n; ++k) {
        t[k] = kT0 + static_cast<int64_t>(k) * step;
    }
    return t;
}

// Ten-bit word i of a packed frame.
unsigned word(const std::vector<uint8_t>& frame, size_t i) {
    uint64_t v = 0;
    for (int b = 0; b < 5; ++b) {
        v |= uint64_t{frame[i / 4 * 5 + b]} << (8 * b);
    }
    return static_cast<unsigned>(v >> (10 * (i % 4))) & 0x3FF;
}

TEST_F(EngineTest, InitAndStartFailuresReportAndLeaveNothingOpen) {
    const int fds = proc_self_count("fd");
    const int threads = proc_self_count("task");
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

// Packets pushed one per buffer with their own stamps come out once each, in order,
// each at the first word whose time reaches its stamp on the time line anchored at
// the oldest packet, and never closer than 190 words to the previous one (its 188
// bytes and two idle words).
struct rate_shape {
    const char* name;
    size_t burst;    // packets sharing one stamp
    int64_t period;  // between stamps, 100 ns
    int64_t offset;  // of the stamps after the first packet
};

constexpr uint64_t kFrameWords = 540000;

// Where a word of the device's time line goes out on the line. The buffer the device
// gets back first after priming frames 0 to 5 is numbered frame 7, so device frame 6
// never exists: what is due in it is late in frame 7, and from frame 7 on the line
// runs one frame behind the device.
uint64_t line_word(uint64_t deviceWord) {
    if (deviceWord < 6 * kFrameWords) {
        return deviceWord;
    }
    return std::max(deviceWord, 7 * kFrameWords) - kFrameWords;
}

void PrintTo(const rate_shape& shape, std::ostream* os) {
    *os << shape.name;
}

class EngineLine : public EngineTest, public testing::WithParamInterface<rate_shape> {};

TEST_P(EngineLine, ConstantRateStreamLeavesTheLineOnceInOrderAtItsTimes) {
    const std::string source = corpus_path("test-025.ts");
    const std::vector<uint8_t> ts = read_file(source);
    if (ts.empty()) {
        GTEST_SKIP() << "corpus not available: " << source;
    }
    const rate_shape& shape = GetParam();
    const size_t n = ts.size() / kPacket;
    const std::string capture =
        testing::TempDir() + "engine_line_" + shape.name + "_" + std::to_string(getpid()) + ".cap";
    add_board(capture);

    std::vector<int64_t> times(n, kT0);
    for (size_t k = 1; k < n; ++k) {
        times[k] = kT0 + shape.offset + static_cast<int64_t>((k - 1) / shape.burst) * shape.period;
    }
    ASSERT_TRUE(engine.init(kNode, 4 << 20, 10, stamp_time_type, false, false));
    push_packets(ts, times);
    ASSERT_TRUE(engine.start());
    // The newest packet waits for an anchor after it and never becomes due.
    ASSERT_TRUE(wait_until([&] { return counters().packets >= n - 1; }))
        << counters().packets << " of " << n - 1 << " packets on the line";
    engine.stop();
    EXPECT_EQ(engine.get_start_fifo_time(), kT0);
    EXPECT_EQ(stat("Skip TS packets"), "0");
    engine.deinit();
    const kv_vboard_counters c = counters();
    EXPECT_EQ(c.packets, n - 1);
    EXPECT_EQ(c.word_violations, 0u);
    EXPECT_EQ(c.bytes_partial, 0u);

    kv_asi_analyze::report r;
    std::string error;
    ASSERT_TRUE(kv_asi_analyze::analyze_files(capture, source, r, error)) << error;
    EXPECT_EQ(r.source.matched, n - 1);
    EXPECT_EQ(r.source.missing, 0u);
    EXPECT_EQ(r.source.repeated, 0u);
    EXPECT_EQ(r.source.altered, 0u);
    EXPECT_EQ(r.source.unsent_head, 0u);
    EXPECT_EQ(r.source.unsent_tail, 1u);

    const std::vector<uint8_t> records = read_file(capture);
    ASSERT_EQ(records.size(), (n - 1) * 192);
    uint64_t expected = 0, minGap = ~uint64_t{0};
    uint32_t last = 0;
    size_t wrong = 0;
    for (size_t k = 0; k + 1 < n; ++k) {
        const uint8_t* rec = &records[k * 192];
        const uint32_t stamp =
            (uint32_t{rec[0]} << 24) | (uint32_t{rec[1]} << 16) | (uint32_t{rec[2]} << 8) | rec[3];
        const uint64_t due = static_cast<uint64_t>(times[k] - kT0);
        const uint64_t dueWord = line_word((27 * due + 9) / 10);  // 2.7 words per unit
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
    // Packets that wait behind another follow it after exactly two idle words.
    EXPECT_EQ(minGap, 190u);
    std::remove(capture.c_str());
}

// 211 units are 569.7 words: some packets are cut at a frame's end and finished in the
// next frame. Bursts of ten every 2000 units (5400 words), half a period off the frame
// grid: a burst due exactly at a frame's end would find the frame taking it but
// without a word left, and one across a frame's end would lose its tail. Both run
// through device frame 6, whose packets are sent late, back to back.
INSTANTIATE_TEST_SUITE_P(Shapes, EngineLine,
                         testing::Values(rate_shape{"Spaced", 1, 211, 211},
                                         rate_shape{"Bursts", 10, 2000, 1000}),
                         [](const testing::TestParamInfo<rate_shape>& i) {
                             return std::string(i.param.name);
                         });

TEST_F(EngineTest, LatencyZeroStreamsIdleAtOnceAndUnderflowWaitsForWarmUp) {
    ASSERT_TRUE(engine.init(kNode, 1 << 20, 0, stamp_time_type, false, false));
    ASSERT_TRUE(engine.start());
    // An empty FIFO holds 0 = 1 % of no latency: underflow on every pass, but muted for
    // the first 31 s.
    ASSERT_TRUE(wait_until([&] { return counters().qbuf >= 10; }));
    EXPECT_EQ(manager.count(kUnderflow), 0);
    engine.stop();

    engine.set_warm_up(std::chrono::nanoseconds(0));
    ASSERT_TRUE(engine.start());
    ASSERT_TRUE(wait_until([&] { return manager.count(kUnderflow) >= 3; }));
    EXPECT_EQ(manager.count(kOverflow), 0);
    engine.stop();
    const kv_vboard_counters c = counters();
    EXPECT_GT(c.frames_sent, 6u);
    EXPECT_EQ(c.packets, 0u);
    EXPECT_EQ(c.word_violations, 0u);
}

TEST_F(EngineTest, WaitsForTheLatencyThenAnchorsOnTheOldestPacket) {
    const std::vector<uint8_t> ts = synthetic_stream(1102);
    const std::vector<int64_t> times = evenly(1102, 1000);  // 0.1 ms apart
    ASSERT_TRUE(engine.init(kNode, 1 << 20, 100, stamp_time_type, false, false));
    engine.set_warm_up(std::chrono::nanoseconds(0));
    ASSERT_TRUE(engine.start());
    ASSERT_TRUE(wait_until([&] { return manager.count(kUnderflow) >= 2; }));

    // 50 ms stored (the newest packet is not timed yet): no buffer is taken, and more
    // than 1 % of the latency silences the underflow alarm.
    for (size_t k = 0; k < 502; ++k) {
        engine.push_data(times[k], &ts[k * kPacket], kPacket);
    }
    ASSERT_TRUE(wait_until([&] { return stat("Fullness fifo") == "000:00:00.050"; }));
    const long underflows = manager.count(kUnderflow);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(manager.count(kUnderflow), underflows);
    EXPECT_EQ(counters().qbuf, 0u);

    for (size_t k = 502; k < 1102; ++k) {
        engine.push_data(times[k], &ts[k * kPacket], kPacket);
    }
    ASSERT_TRUE(wait_until([&] { return counters().packets >= 1101; }));
    engine.stop();
    EXPECT_EQ(engine.get_start_fifo_time(), kT0);
}

// A FIFO that asks for a reset: its text is printed and kept as the last error, the
// matching alarm is raised even during the warm-up, the device is reopened and
// restarted, and the reset is counted once.
TEST_F(EngineTest, FifoResetRequestsReopenTheDeviceAndAreCounted) {
    struct reset_case {
        const char* text;
        size_t capacityPackets;
        bool resetWhenEmpty;
        long underflow, overflow;
    };
    const reset_case cases[] = {
        {"Fifo emptied", 1000, true, 1, 0},
        {"There is not enough memory in fifo", 10, false, 0, 1},
    };
    const std::vector<uint8_t> ts = synthetic_stream(40);
    for (const reset_case& rc : cases) {
        SCOPED_TRACE(rc.text);
        add_board();  // fresh counters
        print_log::clear();
        ASSERT_TRUE(engine.init(kNode, rc.capacityPackets * kPacket, 0, stamp_time_type, false,
                                rc.resetWhenEmpty));
        push_packets(ts, evenly(40, 1000));
        ASSERT_TRUE(engine.start());
        ASSERT_TRUE(wait_until([&] { return stat("Reset") == "1"; }));
        // The first device never completed its ring; the reopened one streams at once,
        // before priming.
        EXPECT_EQ(counters().streamon, 1u);
        // Nothing more to push: nothing more to fail.
        ASSERT_TRUE(wait_until([&] { return counters().qbuf >= 20; }));
        EXPECT_EQ(stat("Reset"), "1");
        EXPECT_EQ(log.count(std::string("kv_asi_renderer: ") + rc.text + "\n"), 1u);
        EXPECT_EQ(stat("Last error"), rc.text);
        EXPECT_EQ(manager.count(kUnderflow), rc.underflow);
        EXPECT_EQ(manager.count(kOverflow), rc.overflow);
        engine.stop();
        engine.deinit();
    }
}

// Every buffer the device hands out goes back exactly once, also around failed
// dequeues (retried after a message) and a failed queue.
TEST_F(EngineTest, MapFailuresAreRetriedAndEveryMappedBufferIsQueuedOnce) {
    ASSERT_TRUE(engine.init(kNode, 1 << 20, 0, stamp_time_type, false, false));
    push_packets(synthetic_stream(200), evenly(200, 20000));  // 2 ms apart
    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_DQBUF, 1, 3, EIO), 0);
    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_QBUF, 8, 1, EIO), 0);
    ASSERT_TRUE(engine.start());
    ASSERT_TRUE(wait_until([&] { return counters().dqbuf >= 20; }));
    engine.stop();
    const kv_vboard_counters c = counters();
    EXPECT_EQ(log.count("kv_asi_renderer: m_pDevice->map() ERROR\n"), 3u);
    const size_t failedQueues =
        log.count("kv_asi_renderer: -1 == ::xioctl(m_hASI, VIDIOC_QBUF, &m_cur_buffer)\n");
    EXPECT_EQ(failedQueues, 1u);
    EXPECT_EQ(c.qbuf + failedQueues, 6 + c.dqbuf);
    EXPECT_EQ(c.word_violations, 0u);
}

// The engine's fill counts dropped packets in the statistics; start() forgets the
// carry.
TEST_F(EngineTest, FillCarriesACutPacketAndCountsTheRestAsSkipped) {
    EXPECT_EQ(engine.index_to_time(1000, 201000, 270000), 101000u);

    std::vector<uint8_t> ts = synthetic_stream(4);
    auto item = [&](size_t k, int64_t t) {
        auto p = std::make_unique<kv_mpegts_item>(&ts[k * kPacket], kPacket);
        p->m_nLength = kPacket;
        p->set_time(t);
        return p;
    };
    std::vector<uint8_t> frame(675000);
    kv_mpegts_items items;
    // Due 199963 = word 539900.1: starts at word 539901, 99 bytes fit.
    items.push_back(item(0, 199963));
    items.push_back(item(1, 199990));
    items.push_back(item(2, 200000));
    ASSERT_TRUE(engine.fill_asi_data(0, 200000, frame.data(), frame.size(), items));
    EXPECT_EQ(word(frame, 539900), 0u);
    EXPECT_EQ(word(frame, 539901), 0x147u);
    EXPECT_EQ(word(frame, 539999), 0x100u | ts[98]);
    EXPECT_EQ(log.count("kv_asi_rendere: 1: skip pkt = 2\n"), 1u);
    EXPECT_EQ(stat("Skip TS packets"), "2");

    // start() forgets the carry (and fails: no device).
    EXPECT_FALSE(engine.start());
    EXPECT_EQ(stat("Skip TS packets"), "0");
    items.clear();
    items.push_back(item(3, 400050));
    ASSERT_TRUE(engine.fill_asi_data(400000, 600000, frame.data(), frame.size(), items));
    EXPECT_EQ(word(frame, 0), 0u);
    EXPECT_EQ(word(frame, 135), 0x147u);  // 50 units = 135 words

    // A buffer shorter than a frame is left alone and its packets are dropped.
    std::fill(frame.begin(), frame.end(), 0xA5);
    EXPECT_FALSE(engine.fill_asi_data(0, 200000, frame.data(), frame.size() - 1, items));
    EXPECT_EQ(std::count(frame.begin(), frame.end(), 0xA5), 675000);
    EXPECT_EQ(stat("Skip TS packets"), "1");
}

}  // namespace
}  // namespace engine_test
