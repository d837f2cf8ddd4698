// The virtual board driven through raw V4L2 calls in free-running mode: the line
// decoder on hand-made frames, the format and buffer protocol with its errors, the
// frame sequence, counter and capture, injected faults, and the preloaded library with
// its wrapper script.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "kv_vboard_board.h"
#include "vboard_test_host.h"

using namespace vboard_test;

namespace {

const char* const kNode = "/dev/kvasi-test0";

class Vboard : public ::testing::Test {
protected:
    void SetUp() override { kv_vboard_remove_all(); }
    void TearDown() override { kv_vboard_remove_all(); }

    kv_vboard_config freerun(bool mplane = false) {
        kv_vboard_config c = config(kNode);
        c.freerun = 1;
        c.mplane = mplane ? 1 : 0;
        return c;
    }
};

uint32_t stamp_of(const uint8_t* record) {
    return uint32_t(record[0]) << 24 | uint32_t(record[1]) << 16 | uint32_t(record[2]) << 8 |
           record[3];
}

}  // namespace

TEST(VboardLine, PacksWordsLeastSignificantByteFirst) {
    // 0x147 + 0x100 << 10 + 0x2aa << 20 + 0x3ff << 30, written out by hand.
    const uint16_t words[4] = {0x147, 0x100, 0x2aa, 0x3ff};
    uint8_t out[5];
    kvvb::pack_words(words, 4, out);
    const uint8_t expected[5] = {0x47, 0x01, 0xa4, 0xea, 0xff};
    EXPECT_EQ(0, memcmp(out, expected, 5));
}

TEST(VboardLine, ReassemblesPacketsAcrossFramesAndCountsViolations) {
    FILE* out = tmpfile();
    ASSERT_NE(out, nullptr);
    kvvb::line_decoder d;
    d.set_output(out);
    uint8_t pkt[3][188];
    for (int n = 0; n < 3; ++n) {
        pkt[n][0] = 0x47;
        for (int i = 1; i < 188; ++i) {
            pkt[n][i] = uint8_t(n * 50 + i);
        }
    }
    std::vector<uint16_t> w(kvvb::kWordsPerFrame, 0);
    std::vector<uint8_t> bytes(kvvb::kBytesPerFrame);
    const auto put = [&](size_t at, const uint8_t* p, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            w[at + i] = uint16_t(0x100 | p[i]);
        }
    };
    // Frame 0: packet 0 at word 100, then packet 1 cut after 100 bytes at the frame end.
    // The line index of the first word is near the 30-bit wrap of the stamps.
    const uint64_t base = (uint64_t(1) << 30) - 1000;
    put(100, pkt[0], 188);
    put(kvvb::kWordsPerFrame - 100, pkt[1], 100);
    kvvb::pack_words(w.data(), w.size(), bytes.data());
    d.frame(bytes.data(), bytes.size(), base);
    // An all-idle frame in between leaves the cut packet waiting.
    std::fill(w.begin(), w.end(), 0);
    kvvb::pack_words(w.data(), w.size(), bytes.data());
    d.frame(bytes.data(), bytes.size(), base + kvvb::kWordsPerFrame);
    // Frame 2: the other 88 bytes, two idle words, a violation (bit 9 set), a packet
    // broken by a violation after 50 bytes, a stray data byte, then packet 2.
    put(0, pkt[1] + 100, 88);
    w[95] = 0x247;
    put(200, pkt[2], 50);
    w[250] = 0x3ff;
    w[300] = 0x1ab;
    put(400, pkt[2], 188);
    kvvb::pack_words(w.data(), w.size(), bytes.data());
    // Only the first 1000 bytes are sent: the rest of the frame counts as idle.
    d.frame(bytes.data(), 1000, base + 2 * kvvb::kWordsPerFrame);
    d.end_of_stream();

    EXPECT_EQ(d.counters().packets, 3u);
    EXPECT_EQ(d.counters().word_violations, 2u);
    EXPECT_EQ(d.counters().bytes_partial, 51u);  // the broken packet and the stray byte

    rewind(out);
    uint8_t rec[4][192];
    ASSERT_EQ(fread(rec, 192, 4, out), 3u);
    fclose(out);
    const uint32_t mask = (1u << 30) - 1;
    EXPECT_EQ(stamp_of(rec[0]), uint32_t(base + 100) & mask);
    EXPECT_EQ(stamp_of(rec[1]), uint32_t(base + kvvb::kWordsPerFrame - 100) & mask);
    EXPECT_EQ(stamp_of(rec[2]), uint32_t(base + 2 * kvvb::kWordsPerFrame + 400) & mask);
    EXPECT_EQ(rec[0][0] & 0xc0, 0);
    for (int n = 0; n < 3; ++n) {
        EXPECT_EQ(0, memcmp(rec[n] + 4, pkt[n], 188)) << "record " << n;
    }
}

TEST_F(Vboard, FormatPerBufferTypeAndProtocolErrors) {
    kv_vboard_config c = freerun(true);
    ASSERT_EQ(kv_vboard_add(&c), 0);
    host m;
    ASSERT_EQ(m.open(kNode, true), 0);
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(m.call(VIDIOC_G_FMT, &f), EINVAL);  // multi-planar only
    f.type = V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
    ASSERT_EQ(m.call(VIDIOC_G_FMT, &f), 0);
    EXPECT_EQ(f.fmt.pix_mp.plane_fmt[0].sizeimage, 675000u);
    f.fmt.pix_mp.pixelformat = v4l2_fourcc('Y', 'U', 'Y', 'V');
    EXPECT_EQ(m.call(VIDIOC_S_FMT, &f), EINVAL);
    ASSERT_EQ(m.setup(), 0);
    EXPECT_EQ(m.call(VIDIOC_S_FMT, &f), EBUSY);  // fixed while buffers exist
    m.close();

    c = freerun(false);
    c.buffers = 4;
    c.sizeimage = 5000;  // two pages per buffer
    ASSERT_EQ(kv_vboard_add(&c), 0);
    host h;
    ASSERT_EQ(h.open(kNode, false, O_RDWR | O_NONBLOCK), 0);
    f.type = V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
    EXPECT_EQ(h.call(VIDIOC_G_FMT, &f), EINVAL);
    v4l2_requestbuffers r{};
    r.count = 6;
    r.type = h.type;
    r.memory = V4L2_MEMORY_USERPTR;
    EXPECT_EQ(h.call(VIDIOC_REQBUFS, &r), EINVAL);
    r.memory = V4L2_MEMORY_MMAP;
    ASSERT_EQ(h.call(VIDIOC_REQBUFS, &r), 0);
    EXPECT_EQ(r.count, 4u);
    v4l2_buffer b;
    h.prepare(b, 4);
    EXPECT_EQ(h.call(VIDIOC_QUERYBUF, &b), EINVAL);
    h.prepare(b, 3);
    ASSERT_EQ(h.call(VIDIOC_QUERYBUF, &b), 0);
    EXPECT_EQ(b.length, 5000u);
    EXPECT_EQ(b.m.offset, 3u * 8192);
    EXPECT_EQ(mmap(nullptr, 5000, PROT_READ | PROT_WRITE, MAP_SHARED, h.fd, 4096), MAP_FAILED);
    EXPECT_EQ(mmap(nullptr, 5000, PROT_READ | PROT_WRITE, MAP_PRIVATE, h.fd, 0), MAP_FAILED);
    EXPECT_EQ(mmap(nullptr, 3 * 4096, PROT_READ | PROT_WRITE, MAP_SHARED, h.fd, 0), MAP_FAILED);

    // A second descriptor may read the counter but not take the queue.
    host other;
    ASSERT_EQ(other.open(kNode, false), 0);
    EXPECT_EQ(other.call(VIDIOC_REQBUFS, &r), EBUSY);
    uint32_t value = 0;
    EXPECT_EQ(other.counter(value), 0);
    other.close();

    r.count = 0;
    ASSERT_EQ(h.call(VIDIOC_REQBUFS, &r), 0);
    ASSERT_EQ(h.setup(4), 0);
    EXPECT_EQ(h.call(VIDIOC_REQBUFS, &r), EBUSY);  // mapped buffers stay
    EXPECT_EQ(h.qbuf(4, 100), EINVAL);
    EXPECT_EQ(h.qbuf(0, 5001), EINVAL);
    ASSERT_EQ(h.qbuf(0, 100), 0);
    EXPECT_EQ(h.qbuf(0, 100), EINVAL);  // already queued
    EXPECT_EQ(h.dqbuf(b), EINVAL);      // not streaming
    ASSERT_EQ(h.stream(true), 0);
    EXPECT_EQ(h.call(VIDIOC_REQBUFS, &r), EBUSY);
    ASSERT_EQ(h.dqbuf(b), 0);
    EXPECT_EQ(h.dqbuf(b), EAGAIN);  // non-blocking and nothing sent
}

TEST_F(Vboard, SequencesCounterAndCaptureOfAFreeRunningLine) {
    const std::string capture = temp_path("capture_%i.bin");
    for (bool mplane : {false, true}) {
        SCOPED_TRACE(mplane ? "multi-planar" : "single-plane");
        kv_vboard_remove_all();
        kv_vboard_config c = freerun(mplane);
        c.counter_start = 1000;
        snprintf(c.capture, sizeof(c.capture), "%s", capture.c_str());
        ASSERT_EQ(kv_vboard_add(&c), 0);
        const std::string path = temp_path("capture_0.bin");

        const cbr_line line{997, 20, 0};  // packets cross frame borders
        const uint32_t nFrames = 20, nGapAt = 10, nGap = 3;
        host h;
        ASSERT_EQ(h.open(kNode, mplane), 0);
        ASSERT_EQ(h.setup(), 0);
        ASSERT_EQ(h.data.size(), 6u);
        for (uint32_t i = 0; i < 6; ++i) {
            line.frame(i, h.data[i]);
            ASSERT_EQ(h.qbuf(i), 0);
        }
        uint32_t value = 0;
        ASSERT_EQ(h.counter(value), 0);
        EXPECT_EQ(value, 1000u);  // nothing has gone out before STREAMON
        ASSERT_EQ(h.stream(true), 0);
        ASSERT_EQ(h.counter(value), 0);
        EXPECT_EQ(value, 1000u + 6 * 2970000u);  // 148.5 MHz, one frame per queued buffer

        for (uint32_t i = 6; i < nFrames; ++i) {
            const uint32_t m = i - 6;
            v4l2_buffer b;
            ASSERT_EQ(h.dqbuf(b), 0);
            EXPECT_EQ(b.sequence, 2 + m + (m >= nGapAt ? nGap : 0)) << "dequeue " << m;
            EXPECT_EQ(b.index, m % 6);
            if (i == nGapAt) {
                // Host frame 10 reaches the line three frames late.
                ASSERT_EQ(kv_vboard_insert_idle_frames(kNode, nGap), 0);
            }
            line.frame(i, h.data[b.index]);
            ASSERT_EQ(h.qbuf(b.index), 0);
        }
        // The counter wraps through 32 bits.
        ASSERT_EQ(kv_vboard_set_counter_value(kNode, 0xfffffff0u), 0);
        ASSERT_EQ(h.counter(value), 0);
        EXPECT_EQ(value, 0xfffffff0u);
        v4l2_buffer b;
        ASSERT_EQ(h.dqbuf(b), 0);
        EXPECT_EQ(b.sequence, 2 + (nFrames - 6) + nGap);
        ASSERT_EQ(h.qbuf(b.index), 0);  // stale content: an old frame again
        ASSERT_EQ(h.counter(value), 0);
        EXPECT_EQ(value, 0xfffffff0u + 2970000u);

        kv_vboard_counters n{};
        ASSERT_EQ(kv_vboard_get_counters(kNode, &n), 0);
        EXPECT_EQ(n.frames_sent, nFrames + 1);
        EXPECT_EQ(n.idle_frames, nGap);
        EXPECT_EQ(n.word_violations, 0u);
        EXPECT_EQ(n.qbuf, nFrames + 1);
        EXPECT_EQ(n.dqbuf, nFrames - 6 + 1);
        EXPECT_EQ(n.streamon, 1u);
        h.close();

        // Every packet whose bytes all went out, at its word on the line: host frames
        // from the gap on start nGap frames later.
        const std::vector<uint8_t> cap = read_file(path);
        ASSERT_EQ(cap.size() % 192, 0u);
        const uint64_t end = uint64_t(nFrames) * kvvb::kWordsPerFrame;
        uint64_t k = 0;
        uint8_t p[188];
        size_t r = 0;
        for (; (k * line.spacing + 187) < end; ++k, ++r) {
            ASSERT_LT(r * 192, cap.size()) << "packet " << k << " missing";
            const uint64_t at = k * line.spacing;
            const uint64_t shift = at >= nGapAt * uint64_t(kvvb::kWordsPerFrame) ? nGap : 0;
            EXPECT_EQ(stamp_of(&cap[r * 192]), uint32_t(at + shift * kvvb::kWordsPerFrame))
                << "packet " << k;
            line.packet(k, p);
            ASSERT_EQ(0, memcmp(&cap[r * 192 + 4], p, 188)) << "packet " << k;
        }
        // Then the packets of the frame sent again.
        EXPECT_GT(cap.size() / 192, r);
        EXPECT_EQ(n.packets, cap.size() / 192);
        remove(path.c_str());
    }
}

TEST_F(Vboard, InjectedFaultsAndVanishingNode) {
    kv_vboard_config c = freerun();
    ASSERT_EQ(kv_vboard_add(&c), 0);
    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_OPEN, 1, 1, EBUSY), 0);
    host h;
    EXPECT_EQ(h.open(kNode, false), EBUSY);
    ASSERT_EQ(h.open(kNode, false), 0);

    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_MMAP, 2, 1, ENOMEM), 0);
    EXPECT_EQ(h.setup(), ENOMEM);
    h.close();
    ASSERT_EQ(h.open(kNode, false), 0);
    ASSERT_EQ(h.setup(), 0);
    for (uint32_t i = 0; i < 6; ++i) {
        ASSERT_EQ(h.qbuf(i), 0);
    }
    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_STREAMON, 1, 0, EIO), 0);
    EXPECT_EQ(h.stream(true), EIO);
    EXPECT_EQ(h.stream(true), EIO);  // always
    kv_vboard_clear_faults(kNode);
    ASSERT_EQ(h.stream(true), 0);

    // DQBUF calls 2 and 3 fail; a failed call loses no buffer.
    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_DQBUF, 2, 2, EIO), 0);
    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_COUNTER, 1, 1, ETIMEDOUT), 0);
    v4l2_buffer b;
    std::vector<int> results;
    for (int i = 0; i < 4; ++i) {
        results.push_back(h.dqbuf(b));
    }
    EXPECT_EQ(results, (std::vector<int>{0, EIO, EIO, 0}));
    EXPECT_EQ(b.index, 1u);
    EXPECT_EQ(b.sequence, 3u);
    uint32_t value = 0;
    EXPECT_EQ(h.counter(value), ETIMEDOUT);
    EXPECT_EQ(h.counter(value), 0);

    ASSERT_EQ(kv_vboard_vanish(kNode), 0);
    EXPECT_EQ(h.dqbuf(b), ENODEV);
    EXPECT_EQ(h.counter(value), ENODEV);
    host again;
    EXPECT_EQ(again.open(kNode, false), ENOENT);
    h.unmap();
    EXPECT_EQ(close(h.fd), 0);
    h.fd = -1;
}

TEST(VboardFaults, ParsesTheEnvironmentSyntax) {
    kvvb::fault_set f;
    std::string error;
    ASSERT_TRUE(kvvb::parse_faults(
        "dqbuf:from=5:count=3; streamon:always;qbuf:from=2:err=EBUSY;vanish:from=9", f, error))
        << error;
    const kvvb::fault_rule& d = f.rules[KV_VB_DQBUF];
    EXPECT_TRUE(d.active && d.from == 5 && d.count == 3 && d.err == EIO);
    EXPECT_EQ(f.rules[KV_VB_STREAMON].count, 0u);
    EXPECT_EQ(f.rules[KV_VB_QBUF].count, 1u);  // from= alone fails one call
    EXPECT_EQ(f.rules[KV_VB_QBUF].err, EBUSY);
    EXPECT_EQ(f.vanish_from, 9u);
    EXPECT_FALSE(f.rules[KV_VB_MMAP].active);
    kvvb::fault_set g;
    EXPECT_FALSE(kvvb::parse_faults("qbuf:sometimes;dqbuf:once", g, error));
    EXPECT_NE(error.find("qbuf:sometimes"), std::string::npos);
    EXPECT_TRUE(g.rules[KV_VB_DQBUF].active && !g.rules[KV_VB_QBUF].active);
}

TEST_F(Vboard, OtherFilesPassThrough) {
    const std::string path = temp_path("plain.txt");
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "hello", 5), 5);
    void* p = mmap(nullptr, 5, PROT_READ, MAP_SHARED, fd, 0);
    ASSERT_NE(p, MAP_FAILED);
    EXPECT_EQ(0, memcmp(p, "hello", 5));
    EXPECT_EQ(munmap(p, 5), 0);
    v4l2_format f{};
    EXPECT_EQ(ioctl(fd, VIDIOC_G_FMT, &f), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(close(fd), 0);
    fd = openat(AT_FDCWD, path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(unlink(path.c_str()), 0);
    // Not configured: the real file system answers.
    EXPECT_EQ(open("/dev/kvasi-not-configured", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KV_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KV_SANITIZED 1
#endif
#endif

TEST(VboardPreload, WrapperScriptConfiguresTheBoardFromOptions) {
#ifdef KV_SANITIZED
    GTEST_SKIP() << "a sanitized program keeps its own open/ioctl ahead of a preloaded library";
#else
    const std::string stats = temp_path("stats_%i.json");
    const std::string cmd = std::string(KV_VBOARD_RUN) +
                            " --nodes /dev/kvasi-a,/dev/kvasi-b --mplane --buffers 3 "
                            "--sizeimage 700000 --freerun --faults 'reqbufs:once:err=EAGAIN' "
                            "--stats '" +
                            stats + "' -- " + KV_VBOARD_PROBE + " /dev/kvasi-b";
    FILE* out = popen(cmd.c_str(), "r");
    ASSERT_NE(out, nullptr);
    char line[256] = {};
    std::string text;
    while (fgets(line, sizeof(line), out)) {
        text += line;
    }
    ASSERT_EQ(WEXITSTATUS(pclose(out)), 0) << text;
    EXPECT_EQ(text, "sizeimage 700000 reqbufs 11 buffers 3\n");
    const std::string json = temp_path("stats_1.json");
    std::ifstream in(json);
    std::stringstream s;
    s << in.rdbuf();
    EXPECT_NE(s.str().find("\"node\": \"/dev/kvasi-b\""), std::string::npos) << s.str();
    remove(json.c_str());
#endif
}
