#pragma once

// A minimal V4L2 output host for driving the virtual board through raw ioctls, and a
// constant-rate stream laid out on the line word by word.

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "kv_vboard.h"
#include "kv_vboard_line.h"

namespace vboard_test {

constexpr uint32_t kFourcc = v4l2_fourcc('K', 'V', 'R', 'A');

struct host {
    int fd = -1;
    bool mplane = false;
    uint32_t type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    std::vector<uint8_t*> data;
    std::vector<size_t> lengths;
    v4l2_plane plane{};

    ~host() { close(); }

    // Returns 0 or the errno of the failing call.
    int call(unsigned long request, void* arg) {
        return ::ioctl(fd, request, arg) == 0 ? 0 : errno;
    }

    int open(const char* node, bool bMplane, int flags = O_RDWR) {
        mplane = bMplane;
        type = bMplane ? V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE : V4L2_BUF_TYPE_VIDEO_OUTPUT;
        fd = ::open(node, flags);
        return fd >= 0 ? 0 : errno;
    }

    void prepare(v4l2_buffer& b, uint32_t index) {
        memset(&b, 0, sizeof(b));
        b.type = type;
        b.memory = V4L2_MEMORY_MMAP;
        b.index = index;
        if (mplane) {
            memset(&plane, 0, sizeof(plane));
            b.m.planes = &plane;
            b.length = 1;
        }
    }

    // Format, REQBUFS, QUERYBUF and mmap of every buffer.
    int setup(uint32_t nRequest = 6) {
        v4l2_format f{};
        f.type = type;
        if (int e = call(VIDIOC_G_FMT, &f)) {
            return e;
        }
        (mplane ? f.fmt.pix_mp.pixelformat : f.fmt.pix.pixelformat) = kFourcc;
        if (int e = call(VIDIOC_S_FMT, &f)) {
            return e;
        }
        v4l2_requestbuffers r{};
        r.count = nRequest;
        r.type = type;
        r.memory = V4L2_MEMORY_MMAP;
        if (int e = call(VIDIOC_REQBUFS, &r)) {
            return e;
        }
        for (uint32_t i = 0; i < r.count; ++i) {
            v4l2_buffer b;
            prepare(b, i);
            if (int e = call(VIDIOC_QUERYBUF, &b)) {
                return e;
            }
            const size_t len = mplane ? plane.length : b.length;
            const off_t off = mplane ? plane.m.mem_offset : b.m.offset;
            void* p = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, off);
            if (p == MAP_FAILED) {
                return errno;
            }
            data.push_back(static_cast<uint8_t*>(p));
            lengths.push_back(len);
        }
        return 0;
    }

    int qbuf(uint32_t index, uint32_t bytesused = kvvb::kBytesPerFrame) {
        v4l2_buffer b;
        prepare(b, index);
        (mplane ? plane.bytesused : b.bytesused) = bytesused;
        return call(VIDIOC_QBUF, &b);
    }

    int dqbuf(v4l2_buffer& b) {
        prepare(b, 0);
        return call(VIDIOC_DQBUF, &b);
    }

    int stream(bool bOn) {
        int t = int(type);
        return call(bOn ? VIDIOC_STREAMON : VIDIOC_STREAMOFF, &t);
    }

    int counter(uint32_t& value) {
        v4l2_ext_control c{};
        c.id = 0x00a01c02;
        c.size = sizeof(uint32_t);
        c.p_u32 = &value;
        v4l2_ext_controls cs{};
        cs.count = 1;
        cs.controls = &c;
        return call(VIDIOC_G_EXT_CTRLS, &cs);
    }

    void unmap() {
        for (size_t i = 0; i < data.size(); ++i) {
            munmap(data[i], lengths[i]);
        }
        data.clear();
        lengths.clear();
    }

    void close() {
        unmap();
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }
};

// A constant-rate stream: packet k starts at line word k * spacing. Every pcr_every-th
// packet is on PID 0x100 and carries a PCR equal to its start word (the word clock is
// the 27 MHz clock) plus pcr_offset; the others are on PID 0x101. Continuity counters
// run per PID.
struct cbr_line {
    uint32_t spacing = 1000;
    uint32_t pcr_every = 20;
    uint64_t pcr_offset = 0;

    void packet(uint64_t k, uint8_t* p) const {
        const bool bPcr = k % pcr_every == 0;
        const uint64_t index = bPcr ? k / pcr_every : k - (k + pcr_every - 1) / pcr_every;
        p[0] = 0x47;
        p[1] = 0x01;
        p[2] = bPcr ? 0x00 : 0x01;
        p[3] = uint8_t((bPcr ? 0x30 : 0x10) | (index & 0x0f));
        size_t i = 4;
        if (bPcr) {
            const uint64_t pcr = k * spacing + pcr_offset;
            const uint64_t base = (pcr / 300) & ((uint64_t(1) << 33) - 1);
            const uint64_t ext = pcr % 300;
            p[4] = 7;
            p[5] = 0x10;
            p[6] = uint8_t(base >> 25);
            p[7] = uint8_t(base >> 17);
            p[8] = uint8_t(base >> 9);
            p[9] = uint8_t(base >> 1);
            p[10] = uint8_t((base & 1) << 7 | 0x7e | (ext >> 8));
            p[11] = uint8_t(ext);
            i = 12;
        }
        for (; i < 188; ++i) {
            p[i] = uint8_t(k * 31 + i);
        }
    }

    // The packed words of line frame f (675000 bytes), written word by word straight
    // into the five-byte groups.
    void frame(uint64_t f, uint8_t* out) const {
        memset(out, 0, kvvb::kBytesPerFrame);
        const uint64_t first = f * kvvb::kWordsPerFrame;
        const uint64_t last = first + kvvb::kWordsPerFrame;
        uint64_t k = first >= 187 ? (first - 187 + spacing - 1) / spacing : 0;
        uint8_t p[188];
        for (; k * spacing < last; ++k) {
            packet(k, p);
            for (uint64_t j = 0; j < 188; ++j) {
                const uint64_t w = k * spacing + j;
                if (w >= first && w < last) {
                    const uint64_t i = w - first;
                    const unsigned bit = unsigned(i % 4) * 10;
                    const uint32_t v = uint32_t(0x100 | p[j]) << (bit % 8);
                    uint8_t* g = out + i / 4 * 5 + bit / 8;
                    g[0] |= uint8_t(v);
                    g[1] |= uint8_t(v >> 8);
                }
            }
        }
    }
};

inline kv_vboard_config config(const char* node) {
    kv_vboard_config c;
    kv_vboard_default_config(&c);
    snprintf(c.node, sizeof(c.node), "%s", node);
    return c;
}

inline std::string temp_path(const std::string& name) {
    const char* dir = getenv("TMPDIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/kv_vboard_test_" + std::to_string(getpid()) +
           "_" + name;
}

inline std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

}  // namespace vboard_test
