#include <cerrno>
#include <chrono>
#include <cstring>
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

// Every failure while opening gives its message, keeps the OS's reason and leaves
// nothing behind.
TEST_P(DeviceFaults, OpenFailuresReportAndLeakNothing) {
    const bool mp = GetParam().mplane;
    const struct {
        kv_vboard_call call;
        uint32_t from_nth, count;
        const char* op;   // the failed call, as get_error() names it
        std::string out;  // after the open line
    } cases[] = {
        {KV_VB_G_FMT, 1, 0, "VIDIOC_G_FMT", P + "Can't get VIDIOC_G_FMT #1\n"},
        // A multi-planar board refuses the single-plane query first.
        {KV_VB_G_FMT, mp ? 3u : 2u, 1, "VIDIOC_G_FMT", P + "Can't get VIDIOC_G_FMT #2\n"},
        {KV_VB_S_FMT, 1, 1, "VIDIOC_S_FMT", P + "Can't get VIDIOC_S_FMT\n"},
        {KV_VB_REQBUFS, 1, 1, "VIDIOC_REQBUFS", P + "Can't request asi buffers\n"},
        {KV_VB_QUERYBUF, 3, 1, "VIDIOC_QUERYBUF",
         P + "Can't map asi " + (mp ? "mplane" : "splane") + " buffer #3/6\n"},
        // One buffer that cannot be mapped would cost every frame it carries: refused.
        {KV_VB_MMAP, 2, 1, "mmap",
         (mp ? P + "Can't map field[0] for bufer[1<6]\n" : "") + P +
             "buffer[1] has size 0 < 675000=limit !!!!!\n"},
        {KV_VB_OPEN, 1, 1, "open", ""},
    };
    const int fds = proc_self_count("fd");
    for (const auto& f : cases) {
        SCOPED_TRACE(testing::Message() << "call " << f.call << " from " << f.from_nth);
        kv_vboard_clear_faults(kNode);
        ASSERT_EQ(kv_vboard_set_fault(kNode, f.call, f.from_nth, f.count, EIO), 0);
        CaptureStdout();
        EXPECT_FALSE(dev.open_device(kNode));
        EXPECT_EQ(GetCapturedStdout(), P + (f.call == KV_VB_OPEN ? "Can't open" : "Open") +
                                           " asi device: " + kNode + "\n" + f.out);
        // The OS's reason is kept for the messages above the device.
        EXPECT_EQ(dev.get_errno(), EIO);
        EXPECT_EQ(dev.get_error(), std::string(f.op) + ": " + std::strerror(EIO));
        EXPECT_FALSE(dev.is_open());
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
    // everything although streaming cannot be turned off. The second DQBUF line within a
    // second is held back and counted.
    ASSERT_EQ(kv_vboard_vanish(kNode), 0);
    CaptureStdout();
    EXPECT_FALSE(cycle(1));
    EXPECT_TRUE(dev.is_gone());
    EXPECT_FALSE(dev.map_waited());
    EXPECT_EQ(dev.get_fault_count(), 4u);  // QBUF, STREAMON, DQBUF, DQBUF
    EXPECT_EQ(dev.get_error(), std::string("VIDIOC_DQBUF: ") + std::strerror(ENODEV));
    dev.close_device();
    EXPECT_EQ(GetCapturedStdout(), P + "Can't stream off, device = " + kNode + "\n");
    EXPECT_EQ(proc_self_count("fd"), fds);
    EXPECT_EQ(board_mapping_count(), 0);
    CaptureStdout();
    EXPECT_FALSE(dev.open_device(kNode));
    EXPECT_EQ(GetCapturedStdout(), P + "Can't open asi device: " + kNode + "\n");
}

INSTANTIATE_TEST_SUITE_P(Modes, DeviceFaults, testing::ValuesIn(kAllModes), mode_name);
