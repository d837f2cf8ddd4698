#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "board_fixture.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {
const std::string P = "kv_asi_renderer: ";
}

using DeviceFaults = BoardTest;

// Every failure while opening gives its message and leaves nothing behind (a failed
// mapping leaves the device open, with that buffer reported too small and handed out
// empty).
TEST_P(DeviceFaults, OpenFailuresReportAndLeakNothing) {
    const bool mp = GetParam().mplane;
    const struct {
        kv_vboard_call call;
        uint32_t from_nth, count;
        bool opens;
        std::string out;  // after the open line
    } cases[] = {
        {KV_VB_G_FMT, 1, 0, false, P + "Can't get VIDIOC_G_FMT #1\n"},
        // A multi-planar board refuses the single-plane query first.
        {KV_VB_G_FMT, mp ? 3u : 2u, 1, false, P + "Can't get VIDIOC_G_FMT #2\n"},
        {KV_VB_S_FMT, 1, 1, false, P + "Can't get VIDIOC_S_FMT\n"},
        {KV_VB_REQBUFS, 1, 1, false, P + "Can't request asi buffers\n"},
        {KV_VB_QUERYBUF, 3, 1, false,
         P + "Can't map asi " + (mp ? "mplane" : "splane") + " buffer #3/6\n"},
        {KV_VB_MMAP, 2, 1, true,
         (mp ? P + "Can't map field[0] for bufer[1<6]\n" : "") + P +
             "buffer[1] has size 0 < 675000=limit !!!!!\n"},
        {KV_VB_OPEN, 1, 1, false, ""},
    };
    const int fds = proc_self_count("fd");
    for (const auto& f : cases) {
        SCOPED_TRACE(testing::Message() << "call " << f.call << " from " << f.from_nth);
        kv_vboard_clear_faults(kNode);
        ASSERT_EQ(kv_vboard_set_fault(kNode, f.call, f.from_nth, f.count, EIO), 0);
        CaptureStdout();
        EXPECT_EQ(dev.open_device(kNode), f.opens);
        EXPECT_EQ(GetCapturedStdout(), P + (f.call == KV_VB_OPEN ? "Can't open" : "Open") +
                                           " asi device: " + kNode + "\n" + f.out);
        EXPECT_EQ(dev.is_open(), f.opens);
        if (f.opens) {
            kv_vboard_clear_faults(kNode);
            ASSERT_TRUE(prime());
        }
        dev.close_device();
        EXPECT_FALSE(dev.is_open());
        EXPECT_EQ(proc_self_count("fd"), fds);
        EXPECT_EQ(board_mapping_count(), 0);
    }
}

// Failures while streaming leave the device open; the next call works again.
TEST_P(DeviceFaults, StreamingFailuresReportAndRecover) {
    const int fds = proc_self_count("fd");
    ASSERT_TRUE(dev.open_device(kNode));
    auto fails = [&](kv_vboard_call call, const std::string& out) {
        ASSERT_EQ(kv_vboard_set_fault(kNode, call, 1, 1, call == KV_VB_QBUF ? EINVAL : EIO), 0);
        CaptureStdout();
        EXPECT_FALSE(cycle(1));
        EXPECT_EQ(GetCapturedStdout(), out);
        EXPECT_TRUE(dev.is_open());
    };
    fails(KV_VB_QBUF, P + "-1 == ::xioctl(m_hASI, VIDIOC_QBUF, &m_cur_buffer)\n");
    // The refused buffer stays ours: after a short wait it is queued again before the
    // next one is handed out. Five more complete the ring; starting it fails once.
    EXPECT_FALSE(cycle(1));
    EXPECT_TRUE(dev.map_waited());
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(cycle(4));
    EXPECT_EQ(counters().qbuf, 5u);
    fails(KV_VB_STREAMON, P + "Can't stream on, device = " + kNode + "\n");
    EXPECT_EQ(counters().streamon, 0u);
    EXPECT_TRUE(dev.start());
    EXPECT_EQ(counters().streamon, 1u);
    fails(KV_VB_DQBUF, P + "Can't DQBUF\n");
    ASSERT_TRUE(cycle(1));

    // The board disappears: no buffer can be taken, and closing still releases
    // everything although streaming cannot be turned off.
    ASSERT_EQ(kv_vboard_vanish(kNode), 0);
    CaptureStdout();
    EXPECT_FALSE(cycle(1));
    EXPECT_TRUE(dev.is_gone());
    EXPECT_FALSE(dev.map_waited());
    dev.close_device();
    EXPECT_EQ(GetCapturedStdout(),
              P + "Can't DQBUF\n" + P + "Can't stream off, device = " + kNode + "\n");
    EXPECT_EQ(proc_self_count("fd"), fds);
    EXPECT_EQ(board_mapping_count(), 0);
    CaptureStdout();
    EXPECT_FALSE(dev.open_device(kNode));
    EXPECT_EQ(GetCapturedStdout(), P + "Can't open asi device: " + kNode + "\n");
}

INSTANTIATE_TEST_SUITE_P(Modes, DeviceFaults, testing::ValuesIn(kAllModes), mode_name);
