#include <algorithm>
#include <atomic>
#include <thread>

#include "board_fixture.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {
const std::string P = "kv_asi_renderer: ";
}

using DeviceStreaming = BoardTest;

TEST_P(DeviceStreaming, PrimesWithoutDequeueThenStreamsOnceWithFrameTimes) {
    const int fds = proc_self_count("fd");
    CaptureStdout();
    ASSERT_TRUE(dev.open_device(kNode));
    EXPECT_EQ(GetCapturedStdout(), P + "Open asi device: " + kNode + "\n");
    EXPECT_EQ(dev.get_device_type(),
              GetParam().mplane ? V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE : V4L2_BUF_TYPE_VIDEO_OUTPUT);
    ASSERT_EQ(dev.get_buffer_count(), 6u);
    EXPECT_EQ(dev.get_buffer_size(), kBufferBytes);
    EXPECT_GT(board_mapping_count(), 0);

    // Priming hands out the six buffers with consecutive frame times; the driver is
    // neither asked for a buffer nor started before the sixth is queued.
    for (uint64_t i = 0; i < 6; ++i) {
        uint64_t b = 0, e = 0, size = 0;
        uint8_t* data = nullptr;
        ASSERT_TRUE(dev.map(b, e, &data, size));
        EXPECT_EQ(b, i * kFrame);
        EXPECT_EQ(e, (i + 1) * kFrame);
        EXPECT_EQ(dev.frames_ahead(), i);  // the line starts with frame 0
        ASSERT_EQ(size, kBufferBytes);
        // Bytes beyond what the engine filled go out as idle words.
        std::memset(data, 0xA5, size);
        const size_t filled = 1000 * i + 1;
        dev.set_data_size(filled);
        EXPECT_EQ(counters().streamon, 0u);
        EXPECT_TRUE(dev.unmap());
        EXPECT_EQ(data[filled - 1], 0xA5);
        EXPECT_EQ(std::count(data + filled, data + size, 0), static_cast<long>(size - filled));
        EXPECT_EQ(counters().dqbuf, 0u);
        EXPECT_EQ(counters().qbuf, i + 1);
    }

    // Each map now dequeues; the frame time moves on by one frame plus the frames the
    // board sent idle (a paced board runs dry if this thread stalls for a whole ring).
    uint64_t last_begin = 5 * kFrame, last_skip = 0;
    for (int i = 0; i < 30; ++i) {
        uint64_t b = 0, e = 0, size = 0;
        uint8_t* data = nullptr;
        ASSERT_TRUE(dev.map(b, e, &data, size));
        const uint64_t skip = dev.get_skip_frame();
        // The first buffer back is frame 6, whatever its sequence number.
        EXPECT_EQ(b - last_begin, (1 + skip - last_skip) * kFrame) << i;
        EXPECT_EQ(e, b + kFrame);
        EXPECT_EQ(dev.frames_ahead(), 5u);  // the other five buffers are queued before it
        last_begin = b;
        last_skip = skip;
        EXPECT_TRUE(dev.unmap());
    }
    const kv_vboard_counters c = counters();
    EXPECT_EQ(c.streamon, 1u);
    EXPECT_EQ(c.dqbuf, 30u);
    EXPECT_EQ(c.qbuf, 36u);
    EXPECT_LE(dev.get_skip_frame(), GetParam().freerun ? 0u : c.idle_frames);

    dev.close_device();
    EXPECT_FALSE(dev.is_open());
    EXPECT_EQ(counters().streamoff, 1u);
    EXPECT_EQ(proc_self_count("fd"), fds);
    EXPECT_EQ(board_mapping_count(), 0);
}

// Whatever sequence number the driver gives the first buffer back, numbering goes on from
// the primed frames without a gap or a wrapped count; later gaps are frames the board
// sent idle. Stopping hands the ring back: it primes again and numbering goes on.
// Reopening starts over.
TEST_P(DeviceStreaming, NumberingFromTheFirstBufferBackSkipsStopAndReopen) {
    for (const uint32_t first_sequence : {0u, 1u, 2u, 1000u}) {
        SCOPED_TRACE(first_sequence);
        dev.close_device();
        add_board(first_sequence);
        ASSERT_TRUE(dev.open_device(kNode));
        ASSERT_TRUE(prime());
        uint64_t b = 0;
        CaptureStdout();
        ASSERT_TRUE(cycle(1, &b));
        ASSERT_TRUE(cycle(1, &b));
        EXPECT_EQ(GetCapturedStdout(), "");
        EXPECT_EQ(b, 7 * kFrame);
        EXPECT_EQ(dev.get_skip_frame(), 0u);
    }

    // One, then three frame slots go out idle while buffers wait: each gap shows once the
    // buffer sent after it comes back.
    uint64_t b = 0;
    uint64_t expected = 7 * kFrame;
    uint32_t gaps = 0;
    for (const uint32_t gap : {1u, 3u}) {
        gaps += gap;
        ASSERT_EQ(kv_vboard_insert_idle_frames(kNode, gap), 0);
        CaptureStdout();
        ASSERT_TRUE(cycle(8, &b));
        const std::string out = GetCapturedStdout();
        expected += (8 + gap) * kFrame;
        if (GetParam().freerun) {
            EXPECT_EQ(dev.get_skip_frame(), gaps);
            EXPECT_EQ(b, expected);
            // The second line comes within a second of the first: it is held back.
            EXPECT_EQ(out.find(P + "skip frame = 1  ") != std::string::npos, gap == 1) << out;
        } else {
            EXPECT_GE(dev.get_skip_frame(), gaps);
        }
    }

    // The driver restarts its count at 0: a step back, taken up without a count or a wrap
    // (a paced board has moved on by some frames meanwhile).
    const uint64_t skipped = dev.get_skip_frame();
    ASSERT_EQ(kv_vboard_restart_sequence(kNode, 0), 0);
    CaptureStdout();
    const uint64_t before_restart = b;
    ASSERT_TRUE(cycle(8, &b));
    const std::string restart_out = GetCapturedStdout();
    if (GetParam().freerun) {
        EXPECT_EQ(restart_out.find("skip frame"), std::string::npos) << restart_out;
        EXPECT_EQ(dev.get_skip_frame(), skipped);
        EXPECT_EQ(b, before_restart + 8 * kFrame);
    } else {
        EXPECT_LT(dev.get_skip_frame() - skipped, 100u) << "no wrapped count";
        EXPECT_GE(b, before_restart + 8 * kFrame);
    }

    // Stop: the next six maps prime again without dequeuing, streaming starts once more,
    // and the frames go on after the last one handed out.
    dev.stop();
    EXPECT_FALSE(dev.is_streaming());
    const kv_vboard_counters before = counters();
    const uint64_t last = b;
    for (uint32_t i = 0; i < 6; ++i) {
        ASSERT_TRUE(cycle(1, &b));
        EXPECT_EQ(b, last + (i + 1) * kFrame);
        EXPECT_EQ(dev.frames_ahead(), i);
    }
    EXPECT_EQ(counters().dqbuf, before.dqbuf);
    EXPECT_EQ(counters().streamon, before.streamon + 1);
    ASSERT_TRUE(cycle(1, &b));
    EXPECT_EQ(b, last + 7 * kFrame);

    // Reopening starts over: skip count, clock, priming from frame 0 without dequeuing.
    ASSERT_EQ(kv_vboard_set_counter_value(kNode, 1000000), 0);
    dev.get_clock_time();
    const uint64_t dq = counters().dqbuf;
    ASSERT_TRUE(dev.open_device(kNode));
    EXPECT_EQ(dev.get_skip_frame(), 0u);
    ASSERT_EQ(kv_vboard_set_counter_value(kNode, 1485), 0);
    EXPECT_EQ(dev.get_clock_time(), 100);
    ASSERT_TRUE(cycle(1, &b));
    EXPECT_EQ(b, 0u);
    EXPECT_EQ(counters().dqbuf, dq);
}

TEST_P(DeviceStreaming, ClockWrapFrameFallbackAndShortBuffersRefused) {
    ASSERT_TRUE(dev.open_device(kNode));
    ASSERT_EQ(kv_vboard_set_counter_value(kNode, 0xFFFFFFF0u), 0);
    EXPECT_EQ(dev.get_clock_time(), static_cast<int64_t>(0xFFFFFFF0ull * 100 / 1485));
    // 0x20 ticks later, past 32 bits: a narrow accumulator or a signed delta loses them.
    ASSERT_EQ(kv_vboard_set_counter_value(kNode, 0x10), 0);
    EXPECT_EQ(dev.get_clock_time(), static_cast<int64_t>(0x100000010ull * 100 / 1485));

    // Without the counter the clock is the frame count: 6 primed frames = 120 ms.
    ASSERT_TRUE(prime());
    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_COUNTER, 1, 1, EIO), 0);
    CaptureStdout();
    EXPECT_EQ(dev.get_clock_time(), 1200000);
    EXPECT_EQ(GetCapturedStdout(), P + "-1 == nErr\n");

    // Driver buffers smaller than a frame: a line per buffer, and the device is refused
    // (every frame would be lost), saying why.
    add_board(2, 600000);
    CaptureStdout();
    EXPECT_FALSE(dev.open_device(kNode));
    std::string expected = P + "Open asi device: " + kNode + "\n";
    for (int i = 0; i < 6; ++i) {
        expected += P + "buffer[" + std::to_string(i) + "] has size 600000 < 675000=limit !!!!!\n";
    }
    EXPECT_EQ(GetCapturedStdout(), expected);
    EXPECT_FALSE(dev.is_open());
    EXPECT_EQ(dev.get_error(), "driver buffer 0 holds 600000 bytes, a frame needs 675000");
}

// The streaming thread reads the clock while the output thread cycles buffers: no data
// race, and each reader sees a clock that never goes back nor jumps a counter wrap ahead.
using DeviceConcurrency = BoardTest;

TEST_P(DeviceConcurrency, ClockReadersWhileStreaming) {
    ASSERT_TRUE(dev.open_device(kNode));
    std::atomic<bool> done{false}, monotonic{true};
    auto reader = [&] {
        for (int64_t last = 0, t = 0; !done; last = t) {
            t = dev.get_clock_time();
            monotonic = monotonic && t >= last;
        }
    };
    std::thread r1(reader), r2(reader);
    EXPECT_TRUE(cycle(40));
    done = true;
    r1.join();
    r2.join();
    EXPECT_TRUE(monotonic);
    // 40 frames take 0.8 s on a paced board; a misordered reading adds 28.9 s.
    EXPECT_LT(dev.get_clock_time(), 10 * 10000000);
}

INSTANTIATE_TEST_SUITE_P(Modes, DeviceStreaming, testing::ValuesIn(kAllModes), mode_name);
INSTANTIATE_TEST_SUITE_P(Modes, DeviceConcurrency, testing::ValuesIn(kAllModes), mode_name);

TEST(DeviceClosed, FrameTimesAndClosedDeviceBehaviour) {
    // The product leaves 32 bits long before the frame number wraps.
    EXPECT_EQ(kv_v4l2_asi_output_device::frame_to_unit(0xFFFFFFFFu), 0xFFFFFFFFull * 200000);
    kv_v4l2_asi_output_device dev;
    EXPECT_FALSE(dev.is_open());
    EXPECT_TRUE(dev.start());
    uint64_t b = 0, e = 0, size = 0;
    uint8_t* data = nullptr;
    EXPECT_FALSE(dev.map(b, e, &data, size));
    EXPECT_FALSE(dev.unmap());
    dev.close_device();
}
