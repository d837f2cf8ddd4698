#include <algorithm>
#include <atomic>
#include <thread>

#include "board_fixture.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

using DeviceStreaming = BoardTest;

TEST_P(DeviceStreaming, PrimesWithoutDequeueThenStreamsOnceWithFrameTimes) {
    const int fds = open_fd_count();
    CaptureStdout();
    ASSERT_TRUE(dev.open_device(kNode));
    EXPECT_EQ(GetCapturedStdout(),
              std::string("kv_asi_renderer: Open asi device: ") + kNode + "\n");
    EXPECT_EQ(dev.get_device_type(),
              GetParam().mplane ? V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE : V4L2_BUF_TYPE_VIDEO_OUTPUT);
    ASSERT_EQ(dev.get_buffer_count(), 6u);
    EXPECT_EQ(dev.get_buffer_size(), kBufferBytes);
    EXPECT_EQ(dev.get_samples_per_frame(), 540000u);
    EXPECT_GT(board_mapping_count(), 0);

    // Priming hands out the six buffers in order with consecutive frame times; the
    // driver is neither asked for a buffer nor started before the sixth is queued.
    for (uint64_t i = 0; i < 6; ++i) {
        uint64_t b = 0, e = 0, size = 0;
        uint8_t* data = nullptr;
        ASSERT_TRUE(dev.map(b, e, &data, size));
        EXPECT_EQ(b, i * kFrame);
        EXPECT_EQ(e, (i + 1) * kFrame);
        ASSERT_EQ(size, kBufferBytes);
        ASSERT_NE(data, nullptr);
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
    EXPECT_EQ(counters().streamon, 1u);

    // Streaming: each map dequeues; the frame time moves on by one frame plus any
    // frames the board had to send idle (a paced board may run dry when this
    // thread is descheduled for the length of the ring).
    uint64_t last_begin = 5 * kFrame, last_skip = 0;
    for (int i = 0; i < 30; ++i) {
        uint64_t b = 0, e = 0, size = 0;
        uint8_t* data = nullptr;
        ASSERT_TRUE(dev.map(b, e, &data, size));
        const uint64_t skip = dev.get_skip_frame();
        // The first buffer back carries sequence 2 and is numbered 2 + 6 - 1 = 7:
        // frame 6 is never handed out.
        const uint64_t expected_step = (i == 0 ? 2 : 1) + (skip - last_skip);
        EXPECT_EQ(b - last_begin, expected_step * kFrame) << "frame " << i;
        EXPECT_EQ(e, b + kFrame);
        EXPECT_EQ(size, kBufferBytes);
        last_begin = b;
        last_skip = skip;
        EXPECT_TRUE(dev.unmap());
    }
    const kv_vboard_counters c = counters();
    EXPECT_EQ(c.streamon, 1u);
    EXPECT_EQ(c.dqbuf, 30u);
    EXPECT_EQ(c.qbuf, 36u);
    EXPECT_LE(dev.get_skip_frame(), c.idle_frames);
    if (GetParam().freerun) {
        EXPECT_EQ(dev.get_skip_frame(), 0u);
    }

    dev.close_device();
    EXPECT_FALSE(dev.is_open());
    EXPECT_EQ(counters().streamoff, 1u);
    EXPECT_EQ(open_fd_count(), fds);
    EXPECT_EQ(board_mapping_count(), 0);
}

TEST_P(DeviceStreaming, SequenceJumpCountsSkippedFramesAndReopenResets) {
    // The first buffer back carries sequence 4 instead of 2: the board sent two
    // frames of its own.
    add_board(4);
    ASSERT_TRUE(dev.open_device(kNode));
    ASSERT_TRUE(prime());
    uint64_t b = 0, e = 0, size = 0;
    uint8_t* data = nullptr;
    CaptureStdout();
    ASSERT_TRUE(dev.map(b, e, &data, size));
    EXPECT_EQ(GetCapturedStdout(), "kv_asi_renderer: skip frame = 2  6->9/6\n");
    EXPECT_EQ(dev.get_skip_frame(), 2u);
    EXPECT_EQ(b, 9 * kFrame);
    EXPECT_EQ(e, 10 * kFrame);
    ASSERT_TRUE(dev.unmap());
    ASSERT_TRUE(dev.map(b, e, &data, size));
    EXPECT_EQ(b, 10 * kFrame);
    EXPECT_EQ(dev.get_skip_frame(), 2u);
    ASSERT_TRUE(dev.unmap());

    // Three frame slots go out idle while buffers wait: the gap shows up once the
    // buffer sent after them comes back. A paced board may add idle frames of its
    // own if this thread stalls for a whole ring.
    ASSERT_EQ(kv_vboard_insert_idle_frames(kNode, 3), 0);
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(dev.map(b, e, &data, size));
        ASSERT_TRUE(dev.unmap());
    }
    if (GetParam().freerun) {
        EXPECT_EQ(dev.get_skip_frame(), 5u);
        EXPECT_EQ(b, (10 + 8 + 3) * kFrame);
    } else {
        EXPECT_GE(dev.get_skip_frame(), 5u);
    }

    ASSERT_EQ(kv_vboard_set_counter_value(kNode, 1000000), 0);
    dev.get_clock_time();

    // Reopening starts over: counters, clock, priming from frame 0 without dequeuing.
    const uint64_t dq = counters().dqbuf;
    ASSERT_TRUE(dev.open_device(kNode));
    EXPECT_EQ(dev.get_skip_frame(), 0u);
    ASSERT_EQ(kv_vboard_set_counter_value(kNode, 1485), 0);
    EXPECT_EQ(dev.get_clock_time(), 100);
    ASSERT_TRUE(dev.map(b, e, &data, size));
    EXPECT_EQ(b, 0u);
    EXPECT_EQ(counters().dqbuf, dq);
    ASSERT_TRUE(dev.unmap());
}

TEST_P(DeviceStreaming, ClockAccumulatesAcrossCounterWrapAndFallsBackOnFrames) {
    ASSERT_TRUE(dev.open_device(kNode));
    ASSERT_EQ(kv_vboard_set_counter_value(kNode, 0xFFFFFFF0u), 0);
    EXPECT_EQ(dev.get_clock_time(), static_cast<int64_t>(0xFFFFFFF0ull * 100 / 1485));
    ASSERT_EQ(kv_vboard_set_counter_value(kNode, 0x10), 0);
    // 0x20 ticks later, past the 32-bit range: a narrower accumulator or a signed
    // delta would lose the upper bits here.
    EXPECT_EQ(dev.get_clock_time(), static_cast<int64_t>(0x100000010ull * 100 / 1485));

    // Without the counter the clock is the frame count: 6 primed frames = 120 ms.
    ASSERT_TRUE(prime());
    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_COUNTER, 1, 1, EIO), 0);
    CaptureStdout();
    EXPECT_EQ(dev.get_clock_time(), 1200000);
    EXPECT_EQ(GetCapturedStdout(), "kv_asi_renderer: -1 == nErr\n");
}

TEST_P(DeviceStreaming, SmallerDriverBuffersWarnButStillStream) {
    add_board(2, 600000);
    CaptureStdout();
    ASSERT_TRUE(dev.open_device(kNode));
    std::string expected = std::string("kv_asi_renderer: Open asi device: ") + kNode + "\n";
    for (int i = 0; i < 6; ++i) {
        expected += "kv_asi_renderer: buffer[" + std::to_string(i) +
                    "] has size 600000 < 675000=limit !!!!!\n";
    }
    EXPECT_EQ(GetCapturedStdout(), expected);
    EXPECT_EQ(dev.get_buffer_size(), 600000u);
    ASSERT_TRUE(prime());
    uint64_t b = 0, e = 0, size = 0;
    uint8_t* data = nullptr;
    ASSERT_TRUE(dev.map(b, e, &data, size));
    EXPECT_EQ(size, 600000u);
    EXPECT_TRUE(dev.unmap());
}

// The streaming thread reads the clock while the output thread cycles buffers: no
// data race, each reader sees a clock that never goes back, and no reading is
// accounted out of order (which would look like a counter wrap, 29 s ahead).
using DeviceConcurrency = BoardTest;

TEST_P(DeviceConcurrency, ClockReadersWhileStreaming) {
    ASSERT_TRUE(dev.open_device(kNode));
    std::atomic<bool> done{false};
    std::atomic<bool> monotonic{true};
    auto reader = [&] {
        int64_t last = 0;
        while (!done) {
            const int64_t t = dev.get_clock_time();
            if (t < last) {
                monotonic = false;
            }
            last = t;
        }
    };
    std::thread r1(reader), r2(reader);
    for (int i = 0; i < 40; ++i) {
        uint64_t b = 0, e = 0, size = 0;
        uint8_t* data = nullptr;
        ASSERT_TRUE(dev.map(b, e, &data, size));
        dev.set_data_size(size / 2);
        ASSERT_TRUE(dev.unmap());
    }
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
    EXPECT_EQ(kv_v4l2_asi_output_device::frame_to_unit(0), 0u);
    EXPECT_EQ(kv_v4l2_asi_output_device::frame_to_unit(1), 200000u);
    EXPECT_EQ(kv_v4l2_asi_output_device::frame_to_unit(50), 10000000u);
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
