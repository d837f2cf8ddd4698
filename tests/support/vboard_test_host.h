#pragma once

// A minimal V4L2 output host driving the virtual board through raw ioctls, and a
// constant-rate stream laid out on the line word by word.

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "files.h"
#include "kv_vboard.h"
#include "kv_vboard_line.h"

namespace vboard_test {

// Every call returns 0 or the errno of the failing call.
struct host {
    int fd = -1;
    uint32_t type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    std::vector<uint8_t*> data;
    size_t length = 0;  // of every buffer
    v4l2_plane plane{};

    ~host() { close(); }
    bool mplane() const { return type == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE; }
    int call(unsigned long request, void* arg) {
        return ::ioctl(fd, request, arg) == 0 ? 0 : errno;
    }

    int open(const char* node, bool bMplane, int flags = O_RDWR) {
        type = bMplane ? V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE : V4L2_BUF_TYPE_VIDEO_OUTPUT;
        fd = ::open(node, flags);
        return fd >= 0 ? 0 : errno;
    }

    void prepare(v4l2_buffer& b, uint32_t index) {
        b = v4l2_buffer{};
        b.type = type;
        b.memory = V4L2_MEMORY_MMAP;
        b.index = index;
        plane = v4l2_plane{};
        if (mplane()) {
            b.m.planes = &plane;
            b.length = 1;
        }
    }

    // Format, REQBUFS, QUERYBUF and mmap of every buffer.
    int setup(uint32_t nRequest = 6) {
        v4l2_format f{};
        f.type = type;
        v4l2_requestbuffers r{};
        r.count = nRequest;
        r.type = type;
        r.memory = V4L2_MEMORY_MMAP;
        int e = call(VIDIOC_G_FMT, &f);
        (mplane() ? f.fmt.pix_mp.pixelformat : f.fmt.pix.pixelformat) =
            v4l2_fourcc('K', 'V', 'R', 'A');
        e = e ? e : call(VIDIOC_S_FMT, &f);
        e = e ? e : call(VIDIOC_REQBUFS, &r);
        for (uint32_t i = 0; e == 0 && i < r.count; ++i) {
            v4l2_buffer b;
            prepare(b, i);
            if ((e = call(VIDIOC_QUERYBUF, &b)) != 0) {
                break;
            }
            length = mplane() ? plane.length : b.length;
            void* p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                           mplane() ? plane.m.mem_offset : b.m.offset);
            if (p == MAP_FAILED) {
                return errno;
            }
            data.push_back(static_cast<uint8_t*>(p));
        }
        return e;
    }

    int qbuf(uint32_t index, uint32_t bytesused = kvvb::kBytesPerFrame) {
        v4l2_buffer b;
        prepare(b, index);
        (mplane() ? plane.bytesused : b.bytesused) = bytesused;
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

    // Unmaps the buffers and closes the descriptor; the close's result.
    int close() {
        for (uint8_t* p : data) {
            munmap(p, length);
        }
        data.clear();
        const int e = fd >= 0 && ::close(fd) != 0 ? errno : 0;
        fd = -1;
        return e;
    }
};

// A constant-rate stream: packet k starts at line word k * spacing. Every pcr_every-th
// packet is on PID 0x100 with a PCR equal to its start word (the word clock is the 27 MHz
// clock) plus pcr_offset; the others are on PID 0x101. Continuity counters run per PID.
struct cbr_line {
    uint32_t spacing = 1000;
    uint32_t pcr_every = 20;
    uint64_t pcr_offset = 0;

    void packet(uint64_t k, uint8_t* p) const {
        const bool bPcr = k % pcr_every == 0;
        const uint64_t index = bPcr ? k / pcr_every : k - (k + pcr_every - 1) / pcr_every;
        const uint8_t head[4] = {0x47, 0x01, uint8_t(bPcr ? 0 : 1),
                                 uint8_t((bPcr ? 0x30 : 0x10) | (index & 0x0f))};
        memcpy(p, head, 4);
        size_t i = 4;
        if (bPcr) {  // length 7, PCR_flag, then 33-bit base, 6 reserved ones, 9-bit extension
            const uint64_t pcr = k * spacing + pcr_offset;
            const uint64_t field = (pcr / 300 % (uint64_t(1) << 33)) << 15 | 0x7e00 | pcr % 300;
            p[4] = 7;
            p[5] = 0x10;
            for (i = 6; i < 12; ++i) {
                p[i] = uint8_t(field >> (8 * (11 - i)));
            }
        }
        for (; i < 188; ++i) {
            p[i] = uint8_t(k * 31 + i);
        }
    }

    // The packed words of line frame f, each written straight into its five-byte group.
    void frame(uint64_t f, uint8_t* out) const {
        memset(out, 0, kvvb::kBytesPerFrame);
        const uint64_t first = f * kvvb::kWordsPerFrame, last = first + kvvb::kWordsPerFrame;
        uint8_t p[188];
        for (uint64_t k = first >= 187 ? (first - 187 + spacing - 1) / spacing : 0;
             k * spacing < last; ++k) {
            packet(k, p);
            for (uint64_t j = 0, w = k * spacing; j < 188; ++j, ++w) {
                if (w >= first && w < last) {
                    const unsigned bit = unsigned((w - first) % 4) * 10;
                    const uint32_t v = uint32_t(0x100 | p[j]) << (bit % 8);
                    uint8_t* g = out + (w - first) / 4 * 5 + bit / 8;
                    g[0] |= uint8_t(v);
                    g[1] |= uint8_t(v >> 8);
                }
            }
        }
    }
};

inline kv_vboard_config config(const char* node, bool freerun = false, bool mplane = false) {
    kv_vboard_config c;
    kv_vboard_default_config(&c);
    snprintf(c.node, sizeof(c.node), "%s", node);
    c.freerun = freerun;
    c.mplane = mplane;
    return c;
}

using kvtest::read_file;
using kvtest::temp_path;

}  // namespace vboard_test
