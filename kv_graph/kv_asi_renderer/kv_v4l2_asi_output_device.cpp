#include "kv_asi_renderer/kv_v4l2_asi_output_device.h"

#include <fcntl.h>
#include <poll.h>
#include <glib.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// ioctl that restarts when a signal interrupts it (DQBUF blocks for up to a frame).
int xioctl(int fd, unsigned long request, void* arg) {
    int r;
    do {
        r = ::ioctl(fd, request, arg);
    } while (r == -1 && errno == EINTR);
    return r;
}

// The board's driver takes ten-bit ASI words in this pixel format.
constexpr uint32_t kPixelFormat = v4l2_fourcc('K', 'V', 'R', 'A');
// Driver-private control in the DV class: the board's free-running 32-bit counter.
constexpr uint32_t kCounterControl = 0x00a01c02;
constexpr uint64_t kCounterHz = 148500000;
constexpr uint64_t kUnitsPerSecond = 10000000;  // 100 ns units
constexpr uint64_t kFramesPerSecond = 50;

// Four ten-bit words pack into five bytes.
size_t byte_limit(uint64_t samples) {
    return samples / 4 * 5;
}

// The pixel format of either buffer type, reduced to the single-plane form.
v4l2_pix_format pix_format_of(const v4l2_format& fmt) {
    if (fmt.type != V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE) {
        return fmt.fmt.pix;
    }
    const v4l2_pix_format_mplane& mp = fmt.fmt.pix_mp;
    v4l2_pix_format pix{};
    pix.width = mp.width;
    pix.height = mp.height;
    pix.pixelformat = mp.pixelformat;
    pix.field = mp.field;
    pix.colorspace = mp.colorspace;
    if (mp.num_planes > 0) {
        pix.bytesperline = mp.plane_fmt[0].bytesperline;
        pix.sizeimage = mp.plane_fmt[0].sizeimage;
    }
    return pix;
}

// Reads the board's free-running counter.
bool read_counter(int fd, uint32_t& value) {
    v4l2_ext_control ctrl{};
    ctrl.id = kCounterControl;
    ctrl.size = sizeof(value);
    ctrl.p_u32 = &value;
    v4l2_ext_controls ctrls{};
    ctrls.ctrl_class = 0;
    ctrls.count = 1;
    ctrls.controls = &ctrl;
    return xioctl(fd, VIDIOC_G_EXT_CTRLS, &ctrls) != -1;
}

}  // namespace

kv_v4l2_asi_output_device::~kv_v4l2_asi_output_device() {
    close_device();
}

uint64_t kv_v4l2_asi_output_device::frame_to_unit(uint32_t nFrame) {
    return static_cast<uint64_t>(static_cast<unsigned __int128>(nFrame) * kUnitsPerSecond /
                                 kFramesPerSecond);
}

bool kv_v4l2_asi_output_device::open_device(const std::string& name) {
    close_device();
    m_bStarted = false;
    m_nTimeStamp = 0;
    m_nLastTimeStamp = 0;
    m_seq_frame = 0;
    m_bSeqKnown = false;
    m_bRequeue = false;
    m_retryDelay = std::chrono::milliseconds(0);
    m_tRetry = {};
    m_curr_buff_index = 0;
    m_nSkipFrame = 0;

    m_nErrno = 0;
    m_strError.clear();
    const int fd = ::open(name.c_str(), O_RDWR);
    if (fd == -1) {
        set_error("open", errno);
        g_print("kv_asi_renderer: Can't open asi device: %s\n", name.c_str());
        return false;
    }
    m_hASI = fd;
    g_print("kv_asi_renderer: Open asi device: %s\n", name.c_str());

    if (set_video_format(fd) && mmap_buffers(fd)) {
        m_strASIName = name;
        return true;
    }
    close_device();
    return false;
}

void kv_v4l2_asi_output_device::close_device() {
    if (m_bStarted) {
        stop();
    }
    unmmap_buffers();
    // Descriptor 0 is deliberately left open: it is the host's stdin far more often
    // than a device node.
    const int fd = m_hASI.exchange(-1);
    if (fd > 0) {
        ::close(fd);
    }
}

bool kv_v4l2_asi_output_device::set_video_format(int fd) {
    if (fd == -1) {
        return false;
    }
    // Try the single-plane output type first; a driver that only knows multi-planar
    // output refuses it and is driven through that type from then on.
    v4l2_format fmt{};
    fmt.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    if (xioctl(fd, VIDIOC_G_FMT, &fmt) == -1) {
        fmt = v4l2_format{};
        m_eDeviceType = V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
        fmt.type = m_eDeviceType;
        if (xioctl(fd, VIDIOC_G_FMT, &fmt) == -1) {
            set_error("VIDIOC_G_FMT", errno);
            g_print("kv_asi_renderer: Can't get VIDIOC_G_FMT #1\n");
            return false;
        }
    } else {
        m_eDeviceType = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    }

    // Everything else (size, field, image size) stays as the driver reports it.
    if (m_eDeviceType == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE) {
        fmt.fmt.pix_mp.pixelformat = kPixelFormat;
    } else {
        fmt.fmt.pix.pixelformat = kPixelFormat;
    }
    if (xioctl(fd, VIDIOC_S_FMT, &fmt) == -1) {
        set_error("VIDIOC_S_FMT", errno);
        g_print("kv_asi_renderer: Can't get VIDIOC_S_FMT\n");
        return false;
    }
    return true;
}

bool kv_v4l2_asi_output_device::mmap_buffers(int fd) {
    v4l2_format fmt{};
    fmt.type = m_eDeviceType;
    if (xioctl(fd, VIDIOC_G_FMT, &fmt) == -1) {
        set_error("VIDIOC_G_FMT", errno);
        g_print("kv_asi_renderer: Can't get VIDIOC_G_FMT #2\n");
        return false;
    }
    m_fmtASI = pix_format_of(fmt);

    v4l2_requestbuffers req{};
    req.count = m_nBuffers;
    req.type = m_eDeviceType;
    req.memory = V4L2_MEMORY_MMAP;
    // A driver that grants no buffer at all cannot stream either.
    if (xioctl(fd, VIDIOC_REQBUFS, &req) == -1 || req.count == 0) {
        set_error("VIDIOC_REQBUFS", req.count == 0 ? ENOMEM : errno);
        g_print("kv_asi_renderer: Can't request asi buffers\n");
        return false;
    }
    const uint32_t count = req.count;
    const size_t limit = byte_limit(m_nSampesPerFrame);
    // Records point into themselves (buf.m.planes), so the vector must never grow
    // past what is reserved here.
    m_vASIBuf.reserve(count);

    for (uint32_t i = 0; i < count; ++i) {
        if (!map_buffer(fd, i, count, limit)) {
            return false;
        }
    }

    m_buffer_size = m_fmtASI.sizeimage;
    return buffers_whole(limit);
}

bool kv_v4l2_asi_output_device::map_buffer(int fd, uint32_t i, uint32_t count, size_t limit) {
    const bool bMplane = m_eDeviceType == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
    m_vASIBuf.emplace_back();
    kv_v4l2_buffers& rec = m_vASIBuf.back();
    rec.buf.type = m_eDeviceType;
    rec.buf.memory = V4L2_MEMORY_MMAP;
    rec.buf.index = i;
    if (bMplane) {
        rec.buf.length = 1;
        rec.buf.m.planes = rec.planes;
    }
    if (xioctl(fd, VIDIOC_QUERYBUF, &rec.buf) == -1) {
        set_error("VIDIOC_QUERYBUF", errno);
        m_vASIBuf.pop_back();
        g_print("kv_asi_renderer: Can't map asi %s buffer #%d/%d\n", bMplane ? "mplane" : "splane",
                static_cast<int>(i + 1), static_cast<int>(count));
        return false;
    }
    if (bMplane) {
        rec.buf.m.planes = rec.planes;
    }
    // One plane or the buffer itself. Never claim more bytes than it holds: the driver
    // refuses that.
    uint32_t& bytesused = bMplane ? rec.planes[0].bytesused : rec.buf.bytesused;
    const uint32_t length = bMplane ? rec.planes[0].length : rec.buf.length;
    const uint32_t offset = bMplane ? rec.planes[0].m.mem_offset : rec.buf.m.offset;
    bytesused = static_cast<uint32_t>(std::min<size_t>(limit, length));
    void* p = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
    // A failed mapping leaves an empty record; buffers_whole() refuses it.
    if (p == MAP_FAILED) {
        set_error("mmap", errno);
        if (bMplane) {
            g_print("kv_asi_renderer: Can't map field[0] for bufer[%d<%d]\n", static_cast<int>(i),
                    static_cast<int>(count));
        }
    } else {
        rec.nSize = length;
    }
    rec.pData = p == MAP_FAILED ? nullptr : static_cast<uint8_t*>(p);
    return true;
}

bool kv_v4l2_asi_output_device::buffers_whole(size_t limit) {
    // A buffer that failed to map or cannot hold a frame would silently cost every frame
    // it carries: the device is refused instead.
    bool bWhole = true;
    for (size_t i = 0; i < m_vASIBuf.size(); ++i) {
        if (m_vASIBuf[i].nSize < limit) {
            g_print("kv_asi_renderer: buffer[%ld] has size %ld < %ld=limit !!!!!\n",
                          static_cast<long>(i), static_cast<long>(m_vASIBuf[i].nSize),
                          static_cast<long>(limit));
            if (bWhole && m_vASIBuf[i].pData != nullptr) {
                m_nErrno = 0;
                m_strError = "driver buffer " + std::to_string(i) + " holds " +
                             std::to_string(m_vASIBuf[i].nSize) + " bytes, a frame needs " +
                             std::to_string(limit);
            }
            bWhole = false;
        }
    }
    return bWhole;
}

void kv_v4l2_asi_output_device::unmmap_buffers() {
    for (kv_v4l2_buffers& rec : m_vASIBuf) {
        if (rec.pData != nullptr) {
            ::munmap(rec.pData, rec.nSize);
        }
    }
    m_vASIBuf.clear();
}

bool kv_v4l2_asi_output_device::start() {
    if (m_hASI < 1) {
        return true;
    }
    int type = m_eDeviceType;
    if (xioctl(m_hASI, VIDIOC_STREAMON, &type) == -1) {
        m_bGone = errno == ENODEV;
        count_fault("VIDIOC_STREAMON", errno);
        m_print.print("kv_asi_renderer: Can't stream on, device = %s\n", m_strASIName.c_str());
        return false;
    }
    m_bStarted = true;
    return true;
}

void kv_v4l2_asi_output_device::stop() {
    m_bStarted = false;
    if (m_hASI != -1) {
        int type = m_eDeviceType;
        if (xioctl(m_hASI, VIDIOC_STREAMOFF, &type) == -1) {
            m_print.print("kv_asi_renderer: Can't stream off, device = %s\n", m_strASIName.c_str());
        }
    }
    // Every buffer is ours again: the next maps prime the ring, continuing the frame
    // numbers after the current frame.
    if (m_bSeqKnown) {
        m_seq_frame.fetch_add(1);  // it numbered the current frame, not the next one
    }
    m_curr_buff_index = 0;
    m_bSeqKnown = false;
    m_bRequeue = false;
    m_retryDelay = std::chrono::milliseconds(0);
    m_tRetry = {};
}

uint32_t kv_v4l2_asi_output_device::frame_of_sequence(uint32_t seq, uint32_t records) {
    // The first buffer back after priming is the frame after the primed ones,
    // whatever sequence number the driver gave it; later numbers follow the driver's
    // sequence. A gap means the driver sent frames of its own in between; a step
    // back means it restarted its count, and the numbering is taken up again from
    // this buffer.
    uint32_t n = m_seq_frame;  // after priming: the next frame
    if (m_bSeqKnown) {
        const uint32_t last = n;
        n = seq + m_nSeqOffset;
        const int32_t step = static_cast<int32_t>(n - last);
        if (step > 1) {
            const uint32_t skipped = static_cast<uint32_t>(step - 1);
            m_print.print("kv_asi_renderer: skip frame = %u  %u->%u/%u\n", skipped, last, n, records);
            m_nSkipFrame += skipped;
        } else if (step < 1) {
            n = last + 1;
        }
    }
    m_nSeqOffset = n - seq;
    m_bSeqKnown = true;
    m_seq_frame = n;
    return n;
}

bool kv_v4l2_asi_output_device::map(uint64_t& tBegin, uint64_t& tEnd, uint8_t** pData,
                                    uint64_t& nSize) {
    m_bWaited = false;
    m_bGone = false;
    if (!is_open()) {
        return false;
    }
    m_cur_buffer = v4l2_buffer{};
    m_cur_planes[0] = v4l2_plane{};
    m_cur_buffer.memory = V4L2_MEMORY_MMAP;
    m_cur_buffer.type = m_eDeviceType;

    const uint32_t records = static_cast<uint32_t>(m_vASIBuf.size());
    kv_v4l2_buffers* rec = nullptr;
    if (!heal()) {
        m_bWaited = !m_bGone;  // a node that is gone will not heal by waiting
        return false;
    }
    if (m_curr_buff_index < records) {
        // Priming: the buffer has never been queued, so it is ours without asking.
        rec = &m_vASIBuf[m_curr_buff_index];
        m_cur_buffer = rec->buf;
        m_nFramesAhead = static_cast<uint32_t>(m_curr_buff_index);
        const uint32_t frame = m_seq_frame.fetch_add(1);
        tBegin = frame_to_unit(frame);
        tEnd = frame_to_unit(frame + 1);
    } else {
        if (m_eDeviceType == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE) {
            m_cur_buffer.m.planes = m_cur_planes;
            m_cur_buffer.length = 1;
        }
        // Wait for a sent buffer a bounded time, so that the caller can stop even when
        // the driver never hands one back.
        pollfd pfd{m_hASI, POLLOUT, 0};
        const int ready = ::poll(&pfd, 1, kWaitMs);
        if (ready == 0 || (ready == -1 && errno == EINTR)) {
            m_bWaited = true;
            return false;
        }
        if (xioctl(m_hASI, VIDIOC_DQBUF, &m_cur_buffer) == -1 || m_cur_buffer.index >= records) {
            const int err = m_cur_buffer.index >= records ? EINVAL : errno;
            m_bGone = err == ENODEV;
            count_fault("VIDIOC_DQBUF", err);
            m_print.print("kv_asi_renderer: Can't DQBUF\n");
            return false;
        }
        rec = &m_vASIBuf[m_cur_buffer.index];
        rec->buf = m_cur_buffer;
        if (m_eDeviceType == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE) {
            rec->planes[0] = m_cur_planes[0];
            rec->buf.m.planes = rec->planes;
        }

        const uint32_t n = frame_of_sequence(m_cur_buffer.sequence, records);
        m_nFramesAhead = records - 1;
        tBegin = frame_to_unit(n);
        tEnd = frame_to_unit(n + 1);
    }

    *pData = rec->pData;
    nSize = rec->nSize;
    m_cur_data_size = 0;
    return true;
}

bool kv_v4l2_asi_output_device::unmap() {
    if (!is_open() || m_cur_buffer.index >= m_vASIBuf.size()) {
        return false;
    }
    kv_v4l2_buffers& rec = m_vASIBuf[m_cur_buffer.index];
    // Whatever the engine did not fill goes out as idle (all-zero) words.
    if (m_cur_data_size < rec.nSize) {
        std::memset(rec.pData + m_cur_data_size, 0, rec.nSize - m_cur_data_size);
    }
    ++m_curr_buff_index;

    if (xioctl(m_hASI, VIDIOC_QBUF, &m_cur_buffer) == -1) {
        m_bGone = errno == ENODEV;
        count_fault("VIDIOC_QBUF", errno);
        m_print.print("kv_asi_renderer: -1 == ::xioctl(m_hASI, VIDIOC_QBUF, &m_cur_buffer)\n");
        // The buffer stays ours: it is queued again before the next one is handed out,
        // so the ring stays whole.
        m_bRequeue = true;
        m_nRequeueIndex = m_cur_buffer.index;
        back_off();
        return false;
    }
    // Streaming starts once the whole ring is queued; a driver that granted fewer
    // buffers than asked for gets its smaller ring.
    const uint64_t ring = std::min<uint64_t>(m_nBuffers, m_vASIBuf.size());
    if (m_curr_buff_index < ring) {
        return true;
    }
    if (!m_bStarted && !start()) {
        back_off();
        return false;
    }
    return true;
}

void kv_v4l2_asi_output_device::back_off() {
    m_retryDelay = std::min(std::chrono::milliseconds(1000),
                            std::max(std::chrono::milliseconds(5), m_retryDelay * 2));
    m_tRetry = std::chrono::steady_clock::now() + m_retryDelay;
}

bool kv_v4l2_asi_output_device::heal() {
    const bool bPrimed = m_curr_buff_index >= m_vASIBuf.size();
    if (!m_bRequeue && (m_bStarted || !bPrimed)) {
        return true;
    }
    if (std::chrono::steady_clock::now() < m_tRetry) {
        return false;
    }
    if (m_bRequeue) {
        kv_v4l2_buffers& rec = m_vASIBuf[m_nRequeueIndex];
        v4l2_buffer b = rec.buf;
        if (m_eDeviceType == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE) {
            b.m.planes = rec.planes;
            b.length = 1;
        }
        if (xioctl(m_hASI, VIDIOC_QBUF, &b) == -1) {
            m_bGone = errno == ENODEV;
            count_fault("VIDIOC_QBUF", errno);
            m_print.print("kv_asi_renderer: -1 == ::xioctl(m_hASI, VIDIOC_QBUF, &m_cur_buffer)\n");
            back_off();
            return false;
        }
        m_bRequeue = false;
    }
    if (bPrimed && !m_bStarted && !start()) {
        back_off();
        return false;
    }
    m_retryDelay = std::chrono::milliseconds(0);
    return true;
}

void kv_v4l2_asi_output_device::set_error(const char* op, int err) {
    m_nErrno = err;
    m_strError = std::string(op) + ": " + kv_errno_text(err);
}

void kv_v4l2_asi_output_device::count_fault(const char* op, int err) {
    set_error(op, err);
    ++m_nFaults;
}

int64_t kv_v4l2_asi_output_device::get_clock_time() {
    // The counter is 32 bits wide and wraps about every 29 s; unsigned subtraction
    // gives the ticks elapsed since the previous reading across a wrap. Both the
    // output and the streaming thread read the clock, so a reading is accounted only
    // if no other thread accounted one after we loaded the total; otherwise the
    // counter is read again. An older reading accounted after a newer one would
    // look like a full wrap and throw the clock 29 s ahead. The low 32 bits of the
    // total always equal the last accounted reading, as both start from zero.
    uint64_t total = m_nTimeStamp.load();
    if (!is_open()) {
        // A node being reopened has no counter to read: the frame count stands in.
        return static_cast<int64_t>(frame_to_unit(m_seq_frame));
    }
    for (;;) {
        uint32_t counter = 0;
        if (!read_counter(m_hASI, counter)) {
            m_print.print("kv_asi_renderer: -1 == nErr\n");
            // Without the counter, fall back on the frame count.
            const float t =
                static_cast<float>(static_cast<uint64_t>(m_seq_frame) * kUnitsPerSecond);
            return static_cast<int64_t>(t / 50.0);
        }
        const uint32_t delta = counter - static_cast<uint32_t>(total);
        if (m_nTimeStamp.compare_exchange_strong(total, total + delta)) {
            m_nLastTimeStamp = counter;
            total += delta;
            break;
        }
    }
    return static_cast<int64_t>(static_cast<unsigned __int128>(total) * kUnitsPerSecond /
                                kCounterHz);
}
