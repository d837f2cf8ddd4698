// The virtual board driven through raw V4L2 calls in free-running mode: the line decoder
// on hand-made frames, the buffer protocol with its errors, the frame sequence, counter
// and capture, injected faults, pass-through of other files, and the preloaded library.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>

#include "kv_vboard_board.h"
#include "vboard_test_host.h"

using namespace vboard_test;

namespace {

const char* const kNode = "/dev/kvasi-test0";

class Vboard : public ::testing::Test {
protected:
    void SetUp() override { kv_vboard_remove_all(); }
    void TearDown() override { kv_vboard_remove_all(); }
};

uint32_t stamp_of(const uint8_t* record) {
    return uint32_t(record[0]) << 24 | uint32_t(record[1]) << 16 | uint32_t(record[2]) << 8 |
           record[3];
}

}  // namespace

// Frames packed with the board's own packer; the capture test below checks the decoder
// against an independent packing.
TEST(VboardLine, ReassemblesPacketsAcrossFramesAndCountsViolations) {
    FILE* out = tmpfile();
    ASSERT_NE(out, nullptr);
    kvvb::line_decoder d;
    d.set_output(out);
    uint8_t pkt[3][188];
    for (int n = 0; n < 3; ++n) {
        for (int i = 0; i < 188; ++i) {
            pkt[n][i] = i == 0 ? 0x47 : uint8_t(n * 50 + i);
        }
    }
    std::vector<uint16_t> w(kvvb::kWordsPerFrame, 0);
    std::vector<uint8_t> bytes(kvvb::kBytesPerFrame);
    const auto put = [&](size_t at, const uint8_t* p, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            w[at + i] = uint16_t(0x100 | p[i]);
        }
    };
    const auto send = [&](uint64_t frame, size_t n) {
        kvvb::pack_words(w.data(), w.size(), bytes.data());
        d.frame(bytes.data(), n, frame * kvvb::kWordsPerFrame + (uint64_t(1) << 30) - 1000);
        std::fill(w.begin(), w.end(), 0);
    };
    // Stamps near the 30-bit wrap. Frame 0: packet 0 at word 100, packet 1 cut after 100
    // bytes at the frame end; frame 1 all idle leaves it waiting.
    put(100, pkt[0], 188);
    put(kvvb::kWordsPerFrame - 100, pkt[1], 100);
    send(0, kvvb::kBytesPerFrame);
    send(1, kvvb::kBytesPerFrame);
    // Frame 2: the other 88 bytes, a violation (bit 9 set), a packet broken by a violation
    // after 50 bytes, a stray data byte, then packet 2; only its first 1000 bytes are sent.
    put(0, pkt[1] + 100, 88);
    w[95] = 0x247;
    put(200, pkt[2], 50);
    w[250] = 0x3ff;
    w[300] = 0x1ab;
    put(400, pkt[2], 188);
    send(2, 1000);
    d.end_of_stream();

    EXPECT_EQ(d.counters().packets, 3u);
    EXPECT_EQ(d.counters().word_violations, 2u);
    EXPECT_EQ(d.counters().bytes_partial, 51u);  // the broken packet and the stray byte
    rewind(out);
    uint8_t rec[4][192];
    ASSERT_EQ(fread(rec, 192, 4, out), 3u);
    fclose(out);
    const uint64_t at[3] = {100, kvvb::kWordsPerFrame - 100, 2 * kvvb::kWordsPerFrame + 400};
    for (int n = 0; n < 3; ++n) {
        EXPECT_EQ(stamp_of(rec[n]), uint32_t(at[n] + (1u << 30) - 1000) & ((1u << 30) - 1)) << n;
        EXPECT_EQ(0, memcmp(rec[n] + 4, pkt[n], 188)) << "record " << n;
    }
}

// Calls out of order or out of range fail with the errno a driver gives, and change nothing.
TEST_F(Vboard, BufferProtocolErrors) {
    kv_vboard_config c = config(kNode, true);
    c.buffers = 4;
    c.sizeimage = 5000;  // two pages per buffer
    ASSERT_EQ(kv_vboard_add(&c), 0);
    host h, other;
    ASSERT_EQ(h.open(kNode, false, O_RDWR | O_NONBLOCK), 0);
    v4l2_format f{};
    f.type = h.type;
    ASSERT_EQ(h.call(VIDIOC_G_FMT, &f), 0);
    f.fmt.pix.pixelformat = v4l2_fourcc('Y', 'U', 'Y', 'V');
    EXPECT_EQ(h.call(VIDIOC_S_FMT, &f), EINVAL);
    v4l2_requestbuffers r{};
    r.count = 6;
    r.type = h.type;
    r.memory = V4L2_MEMORY_USERPTR;
    EXPECT_EQ(h.call(VIDIOC_REQBUFS, &r), EINVAL);
    ASSERT_EQ(h.setup(6), 0);
    EXPECT_EQ(h.data.size(), 4u);
    EXPECT_EQ(h.call(VIDIOC_S_FMT, &f), EBUSY);  // fixed while buffers exist
    v4l2_buffer b;
    h.prepare(b, 4);
    EXPECT_EQ(h.call(VIDIOC_QUERYBUF, &b), EINVAL);
    h.prepare(b, 3);
    ASSERT_EQ(h.call(VIDIOC_QUERYBUF, &b), 0);
    EXPECT_TRUE(b.length == 5000u && b.m.offset == 3u * 8192);
    // Mappings off a buffer's start, private, or over two buffers are refused.
    EXPECT_EQ(mmap(nullptr, 5000, PROT_READ | PROT_WRITE, MAP_SHARED, h.fd, 4096), MAP_FAILED);
    EXPECT_EQ(mmap(nullptr, 5000, PROT_READ | PROT_WRITE, MAP_PRIVATE, h.fd, 0), MAP_FAILED);
    EXPECT_EQ(mmap(nullptr, 3 * 4096, PROT_READ | PROT_WRITE, MAP_SHARED, h.fd, 0), MAP_FAILED);
    // A second descriptor may read the counter but not take the queue; mapped buffers stay.
    uint32_t value = 0;
    ASSERT_EQ(other.open(kNode, false), 0);
    r.memory = V4L2_MEMORY_MMAP;
    EXPECT_EQ(other.call(VIDIOC_REQBUFS, &r), EBUSY);
    EXPECT_EQ(other.counter(value), 0);
    r.count = 0;
    EXPECT_EQ(h.call(VIDIOC_REQBUFS, &r), EBUSY);
    // Queue: a bad index, more bytes than a buffer, twice the same buffer, DQBUF before
    // STREAMON; then one frame out and nothing more to take without blocking.
    const std::vector<int> results = {h.qbuf(4, 100), h.qbuf(0, 5001), h.qbuf(0, 100),
                                      h.qbuf(0, 100), h.dqbuf(b),      h.stream(true),
                                      h.dqbuf(b),     h.dqbuf(b)};
    EXPECT_EQ(results, (std::vector<int>{EINVAL, EINVAL, 0, EINVAL, EINVAL, 0, 0, EAGAIN}));
}

// Host frame 10 reaches the line three frames late; every packet whose bytes all went out
// is captured at its word on the line, and the capture file only ever holds whole records.
TEST_F(Vboard, SequencesCounterAndCaptureOfAFreeRunningLine) {
    const std::string path = temp_path("capture_0.bin");
    for (bool mplane : {false, true}) {
        SCOPED_TRACE(mplane ? "multi-planar" : "single-plane");
        kv_vboard_remove_all();
        kv_vboard_config c = config(kNode, true, mplane);
        c.counter_start = 1000;
        snprintf(c.capture, sizeof(c.capture), "%s", temp_path("capture_%i.bin").c_str());
        ASSERT_EQ(kv_vboard_add(&c), 0);

        const cbr_line line{997, 20, 0};  // packets cross frame borders
        const uint32_t nFrames = 20, nGapAt = 10, nGap = 3;
        host h;
        ASSERT_EQ(h.open(kNode, mplane), 0);
        ASSERT_EQ(h.setup(), 0);
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
            struct stat st;
            ASSERT_EQ(stat(path.c_str(), &st), 0);
            EXPECT_EQ(st.st_size % 192, 0) << "a record cut in the capture";
            if (i == nGapAt) {
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
        h.close();

        const std::vector<uint8_t> cap = read_file(path);
        ASSERT_EQ(cap.size() % 192, 0u);
        EXPECT_EQ(n.packets, cap.size() / 192);
        const uint64_t end = uint64_t(nFrames) * kvvb::kWordsPerFrame;
        uint8_t p[188];
        uint64_t k = 0;
        for (; k * line.spacing + 187 < end; ++k) {
            ASSERT_LT(k * 192, cap.size()) << "packet " << k << " missing";
            const uint64_t at = k * line.spacing;
            const uint64_t shift = at >= nGapAt * uint64_t(kvvb::kWordsPerFrame) ? nGap : 0;
            EXPECT_EQ(stamp_of(&cap[k * 192]), uint32_t(at + shift * kvvb::kWordsPerFrame)) << k;
            line.packet(k, p);
            ASSERT_EQ(0, memcmp(&cap[k * 192 + 4], p, 188)) << "packet " << k;
        }
        EXPECT_GT(cap.size() / 192, k);  // then the packets of the frame sent again
        remove(path.c_str());
    }
}

// The configured restart of the driver's count happens once, in the first streaming
// period; STREAMOFF hands every buffer back (sent or not) and the count starts over at
// the first sequence with the next STREAMON.
TEST_F(Vboard, SequenceRestartStreamoffAndStreamonAgain) {
    kv_vboard_config c = config(kNode, true);
    c.first_sequence = 1000;
    c.sequence_restart = 3;
    ASSERT_EQ(kv_vboard_add(&c), 0);
    host h;
    ASSERT_EQ(h.open(kNode, false), 0);
    ASSERT_EQ(h.setup(), 0);
    const auto sequences = [&](int n) {
        std::vector<uint32_t> seq;
        v4l2_buffer b;
        for (int i = 0; i < n && h.dqbuf(b) == 0; ++i) {
            seq.push_back(b.sequence);
        }
        return seq;
    };
    for (uint32_t i = 0; i < 6; ++i) {
        ASSERT_EQ(h.qbuf(i), 0);
    }
    ASSERT_EQ(h.stream(true), 0);
    EXPECT_EQ(sequences(6), (std::vector<uint32_t>{1000, 1001, 1002, 1000, 1001, 1002}));
    ASSERT_EQ(h.qbuf(0), 0);
    ASSERT_EQ(h.qbuf(1), 0);
    // Sent and done but not dequeued: still handed back by STREAMOFF.
    ASSERT_EQ(h.stream(false), 0);
    v4l2_buffer b;
    EXPECT_EQ(h.dqbuf(b), EINVAL);
    for (uint32_t i = 0; i < 6; ++i) {
        ASSERT_EQ(h.qbuf(i), 0) << i;
    }
    ASSERT_EQ(h.stream(true), 0);
    EXPECT_EQ(sequences(6), (std::vector<uint32_t>{1000, 1001, 1002, 1003, 1004, 1005}));
    // A step back on demand, from the next slot.
    ASSERT_EQ(kv_vboard_restart_sequence(kNode, 7), 0);
    ASSERT_EQ(h.qbuf(0), 0);
    ASSERT_EQ(h.qbuf(1), 0);
    EXPECT_EQ(sequences(2), (std::vector<uint32_t>{7, 8}));
}

TEST_F(Vboard, InjectedFaultsAndVanishingNode) {
    kvvb::fault_set f;
    std::string error;
    ASSERT_TRUE(kvvb::parse_faults("dqbuf:from=5:count=3; streamon:always", f, error)) << error;
    const kvvb::fault_rule& d = f.rules[KV_VB_DQBUF];
    EXPECT_TRUE(d.active && d.from == 5 && d.count == 3 && d.err == EIO);
    EXPECT_TRUE(f.rules[KV_VB_STREAMON].active && f.rules[KV_VB_STREAMON].count == 0);
    // An unknown entry is reported and skipped; the others still apply.
    EXPECT_FALSE(kvvb::parse_faults("qbuf:sometimes;dqbuf:once", f = {}, error));
    EXPECT_NE(error.find("qbuf:sometimes"), std::string::npos);
    EXPECT_TRUE(f.rules[KV_VB_DQBUF].active && !f.rules[KV_VB_QBUF].active);

    kv_vboard_config c = config(kNode, true);
    ASSERT_EQ(kv_vboard_add(&c), 0);
    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_OPEN, 1, 1, EBUSY), 0);
    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_MMAP, 2, 1, ENOMEM), 0);
    host h;
    EXPECT_EQ(h.open(kNode, false), EBUSY);
    ASSERT_EQ(h.open(kNode, false), 0);
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
    // DQBUF calls 2 and 3 fail and lose no buffer; one counter reading times out.
    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_DQBUF, 2, 2, EIO), 0);
    ASSERT_EQ(kv_vboard_set_fault(kNode, KV_VB_COUNTER, 1, 1, ETIMEDOUT), 0);
    uint32_t value = 0;
    v4l2_buffer b;
    const std::vector<int> results = {h.dqbuf(b), h.dqbuf(b),       h.dqbuf(b),
                                      h.dqbuf(b), h.counter(value), h.counter(value)};
    EXPECT_EQ(results, (std::vector<int>{0, EIO, EIO, 0, ETIMEDOUT, 0}));
    EXPECT_TRUE(b.index == 1 && b.sequence == 3);
    // A vanished node fails every call but close, and cannot be opened again.
    ASSERT_EQ(kv_vboard_vanish(kNode), 0);
    EXPECT_EQ(h.dqbuf(b), ENODEV);
    EXPECT_EQ(h.counter(value), ENODEV);
    host again;
    EXPECT_EQ(again.open(kNode, false), ENOENT);
    EXPECT_EQ(h.close(), 0);
}

// Every call on other files reaches the C library, the creation mode included; a node's
// name relative to a directory descriptor other than the working directory is not the board.
TEST_F(Vboard, OtherFilesPassThrough) {
    kv_vboard_config c = config(kNode, true);
    ASSERT_EQ(kv_vboard_add(&c), 0);
    const std::string path = temp_path("plain.txt");
    const mode_t mask = umask(0);
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0640);
    umask(mask);
    ASSERT_GE(fd, 0);
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    ASSERT_EQ(write(fd, "hello", 5), 5);
    void* p = mmap(nullptr, 5, PROT_READ, MAP_SHARED, fd, 0);
    ASSERT_NE(p, MAP_FAILED);
    EXPECT_EQ(0, memcmp(p, "hello", 5));
    EXPECT_EQ(munmap(p, 5), 0);
    v4l2_format f{};
    EXPECT_EQ(ioctl(fd, VIDIOC_G_FMT, &f), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(unlink(path.c_str()), 0);
    // Not configured, or relative to another directory: the real file system answers.
    EXPECT_EQ(open("/dev/kvasi-not-configured", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    const int dev = open("/", O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dev, 0);
    EXPECT_EQ(openat(dev, kNode + 1, O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_GE(fd = openat(dev, kNode, O_RDWR), 0);  // an absolute path is the board's
    close(fd);
    close(dev);
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
    char text[256] = {};
    const size_t n = fread(text, 1, sizeof(text) - 1, out);
    ASSERT_EQ(WEXITSTATUS(pclose(out)), 0) << text;
    EXPECT_EQ(std::string(text, n), "sizeimage 700000 reqbufs 11 buffers 3\n");
    const std::string json = temp_path("stats_1.json");
    const std::vector<uint8_t> s = read_file(json);
    EXPECT_NE(std::string(s.begin(), s.end()).find("\"node\": \"/dev/kvasi-b\""),
              std::string::npos);
    remove(json.c_str());
#endif
}
