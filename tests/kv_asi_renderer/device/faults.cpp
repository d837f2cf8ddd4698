#include <cerrno>
#include <string>
#include <vector>

#include "board_fixture.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

struct OpenFault {
    kv_vboard_call call;
    uint32_t from_nth;
    uint32_t count;
    bool opens;          // open_device still succeeds
    std::string splane;  // expected output after the open line, single-plane board
    std::string mplane;  // the same on a multi-planar board
};

const std::string P = "kv_asi_renderer: ";

}  // namespace

using DeviceFaults = BoardTest;

// Every failure while opening gives its message and leaves nothing behind: no
// descriptor, no mapping, the device closed (or, for a failed mapping, open with the
// buffer reported as too small).
TEST_P(DeviceFaults, OpenFailuresReportAndLeakNothing) {
    const bool mp = GetParam().mplane;
    // A multi-planar board refuses the single-plane format query first, so its
    // second successful query is its third call.
    const std::vector<OpenFault> cases = {
        {KV_VB_OPEN, 1, 1, false, "", ""},
        {KV_VB_G_FMT, 1, 0, false, P + "Can't get VIDIOC_G_FMT #1\n",
         P + "Can't get VIDIOC_G_FMT #1\n"},
        {KV_VB_G_FMT, mp ? 3u : 2u, 1, false, P + "Can't get VIDIOC_G_FMT #2\n",
         P + "Can't get VIDIOC_G_FMT #2\n"},
        {KV_VB_S_FMT, 1, 1, false, P + "Can't get VIDIOC_S_FMT\n", P + "Can't get VIDIOC_S_FMT\n"},
        {KV_VB_REQBUFS, 1, 1, false, P + "Can't request asi buffers\n",
         P + "Can't request asi buffers\n"},
        {KV_VB_QUERYBUF, 3, 1, false, P + "Can't map asi splane buffer #3/6\n",
         P + "Can't map asi mplane buffer #3/6\n"},
        {KV_VB_MMAP, 2, 1, true, P + "buffer[1] has size 0 < 675000=limit !!!!!\n",
         P + "Can't map field[0] for bufer[1<6]\n" + P +
             "buffer[1] has size 0 < 675000=limit !!!!!\n"},
    };
    const int fds = open_fd_count();
    for (const OpenFault& f : cases) {
        SCOPED_TRACE(testing::Message() << "call " << f.call << " from " << f.from_nth);
        kv_vboard_clear_faults(kNode);
        ASSERT_EQ(kv_vboard_set_fault(kNode, f.call, f.from_nth, f.count, EIO), 0);
        CaptureStdout();
        EXPECT_EQ(dev.open_device(kNode), f.opens);
        const std::string opened = P + "Open asi device: " + kNode + "\n";
        const std::string expected = f.call == KV_VB_OPEN
                                         ? P + "Can't open asi device: " + kNode + "\n"
                                         : opened + (mp ? f.mplane : f.splane);
        EXPECT_EQ(GetCapturedStdout(), expected);
        EXPECT_EQ(dev.is_open(), f.opens);
        if (f.opens) {
            // The buffer that failed to map is handed out empty and still queued.
            kv_vboard_clear_faults(kNode);
            ASSERT_TRUE(prime());
        }
        dev.close_device();
        EXPECT_FALSE(dev.is_open());
        EXPECT_EQ(open_fd_count(), fds);
        EXPECT_EQ(board_mapping_count(), 0);
    }
}

// Failures while streaming leave the device open; the next call works again.
TEST_P(DeviceFaults, StreamingFailuresReportAndRecover) {
    const int fds = open_fd_count();
    ASSERT_TRUE(dev.open_device(kNode));
    uint64_t b = 0, e = 0, size = 0;
    uint8_t* data = nullptr;

    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_QBUF, 1, 1, EINVAL), 0);
    ASSERT_TRUE(dev.map(b, e, &data, size));
    CaptureStdout();
    EXPECT_FALSE(dev.unmap());
    EXPECT_EQ(GetCapturedStdout(), P + "-1 == ::xioctl(m_hASI, VIDIOC_QBUF, &m_cur_buffer)\n");
    EXPECT_TRUE(dev.is_open());

    // Five more buffers complete the ring as counted; starting it fails once.
    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_STREAMON, 1, 1, EIO), 0);
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(dev.map(b, e, &data, size));
        ASSERT_TRUE(dev.unmap());
    }
    ASSERT_TRUE(dev.map(b, e, &data, size));
    CaptureStdout();
    EXPECT_FALSE(dev.unmap());
    EXPECT_EQ(GetCapturedStdout(), P + "Can't stream on, device = " + kNode + "\n");
    EXPECT_EQ(counters().streamon, 0u);
    EXPECT_TRUE(dev.start());
    EXPECT_EQ(counters().streamon, 1u);

    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_DQBUF, 1, 1, EIO), 0);
    CaptureStdout();
    EXPECT_FALSE(dev.map(b, e, &data, size));
    EXPECT_EQ(GetCapturedStdout(), P + "Can't DQBUF\n");
    ASSERT_TRUE(dev.map(b, e, &data, size));
    ASSERT_TRUE(dev.unmap());

    // The board disappears: buffers can no longer be taken, and closing still
    // releases everything although streaming cannot be turned off.
    ASSERT_EQ(kv_vboard_vanish(kNode), 0);
    CaptureStdout();
    EXPECT_FALSE(dev.map(b, e, &data, size));
    dev.close_device();
    EXPECT_EQ(GetCapturedStdout(),
              P + "Can't DQBUF\n" + P + "Can't stream off, device = " + kNode + "\n");
    EXPECT_EQ(open_fd_count(), fds);
    EXPECT_EQ(board_mapping_count(), 0);
    CaptureStdout();
    EXPECT_FALSE(dev.open_device(kNode));
    EXPECT_EQ(GetCapturedStdout(), P + "Can't open asi device: " + kNode + "\n");
}

INSTANTIATE_TEST_SUITE_P(Modes, DeviceFaults, testing::ValuesIn(kAllModes), mode_name);
