#include "kv_vboard_board.h"

#include <linux/videodev2.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kv_vboard_real.h"

namespace kvvb {

namespace {

// About 1 MiB of whole capture records.
constexpr size_t kCaptureBufferSize = kRecordSize * ((size_t(1) << 20) / kRecordSize);

template <typename T>
T* as(void* arg) {
    return static_cast<T*>(arg);
}

}  // namespace

board::board(const board_config& cfg)
    : m_cfg(cfg),
      m_tOpen(std::chrono::steady_clock::now()),
      m_ticksPerNs(static_cast<long double>(kTicksPerSecond) / 1e9L * (1.0L + cfg.ppm / 1e6L)) {}

board::~board() {
    release_buffers();
    if (m_pCapture) {
        fclose(m_pCapture);
    }
}

// ---------------------------------------------------------------------------------
// Descriptors

bool board::fault(unsigned call, int& err) {
    fault_rule& r = m_faults[call];
    if (!r.active) {
        return false;
    }
    ++r.calls;
    if (r.calls >= r.from && (r.count == 0 || r.calls - r.from < r.count)) {
        err = r.err;
        return true;
    }
    return false;
}

int board::open_check() {
    std::lock_guard<std::mutex> lk(m_cs);
    if (m_bVanished) {
        return ENOENT;
    }
    int err = 0;
    if (fault(KV_VB_OPEN, err)) {
        return err;
    }
    return 0;
}

void board::opened(int fd, bool bNonBlocking) {
    std::lock_guard<std::mutex> lk(m_cs);
    if (m_nOpen++ == 0) {
        // The board's clock counts from the moment the node is opened.
        m_tOpen = std::chrono::steady_clock::now();
        m_nVirtualTicks = 0;
        m_nCounterBase = 0;
    }
    if (bNonBlocking) {
        m_nonblocking.push_back(fd);
    }
}

void board::closed(int fd) {
    std::lock_guard<std::mutex> lk(m_cs);
    if (m_owner == fd) {
        stop_line();
        release_buffers();
        m_owner = -1;
    }
    m_nonblocking.erase(std::remove(m_nonblocking.begin(), m_nonblocking.end(), fd),
                        m_nonblocking.end());
    --m_nOpen;
    if (m_pCapture) {
        fflush(m_pCapture);
    }
    write_stats_locked();
}

void board::write_stats_locked() {
    if (m_cfg.stats.empty()) {
        return;
    }
    FILE* f = fopen(m_cfg.stats.c_str(), "w");
    if (!f) {
        return;
    }
    const line_counters& lc = m_decoder.counters();
    std::string node;
    for (char c : m_cfg.node) {
        if (c == '"' || c == '\\') {
            node += '\\';
        }
        node += c;
    }
    fprintf(f,
            "{\"node\": \"%s\", \"frames_sent\": %llu, \"idle_frames\": %llu, "
            "\"word_violations\": %llu, \"packets\": %llu, \"bytes_partial\": %llu, "
            "\"qbuf\": %llu, \"dqbuf\": %llu, \"streamon\": %llu, \"streamoff\": %llu, "
            "\"line_words\": %llu}\n",
            node.c_str(), (unsigned long long)m_counters.frames_sent,
            (unsigned long long)m_counters.idle_frames, (unsigned long long)lc.word_violations,
            (unsigned long long)lc.packets, (unsigned long long)lc.bytes_partial,
            (unsigned long long)m_counters.qbuf, (unsigned long long)m_counters.dqbuf,
            (unsigned long long)m_counters.streamon, (unsigned long long)m_counters.streamoff,
            (unsigned long long)m_nLineWords);
    fclose(f);
}

// ---------------------------------------------------------------------------------
// ioctl

int board::ioctl(int fd, unsigned long request, void* arg) {
    lock lk(m_cs);
    if (m_bVanished) {
        return ENODEV;
    }
    switch (uint32_t(request)) {
        case uint32_t(VIDIOC_QUERYCAP):
            return arg ? querycap(arg) : EFAULT;
        case uint32_t(VIDIOC_ENUM_FMT):
            return arg ? enum_fmt(arg) : EFAULT;
        case uint32_t(VIDIOC_G_FMT):
            return arg ? g_fmt(arg) : EFAULT;
        case uint32_t(VIDIOC_S_FMT):
            return arg ? s_fmt(fd, arg, false) : EFAULT;
        case uint32_t(VIDIOC_TRY_FMT):
            return arg ? s_fmt(fd, arg, true) : EFAULT;
        case uint32_t(VIDIOC_REQBUFS):
            return arg ? reqbufs(fd, arg) : EFAULT;
        case uint32_t(VIDIOC_QUERYBUF):
            return arg ? querybuf(arg) : EFAULT;
        case uint32_t(VIDIOC_QBUF):
            return arg ? qbuf(fd, arg) : EFAULT;
        case uint32_t(VIDIOC_DQBUF):
            return arg ? dqbuf(fd, arg, lk) : EFAULT;
        case uint32_t(VIDIOC_STREAMON):
            return arg ? streamon(fd, arg) : EFAULT;
        case uint32_t(VIDIOC_STREAMOFF):
            return arg ? streamoff(fd, arg) : EFAULT;
        case uint32_t(VIDIOC_G_EXT_CTRLS):
            return arg ? g_ext_ctrls(arg) : EFAULT;
        case uint32_t(VIDIOC_G_CTRL):
            return arg ? g_ctrl(arg) : EFAULT;
        default:
            return ENOTTY;
    }
}

bool board::valid_type(uint32_t type) const {
    return type == (m_cfg.mplane ? V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE : V4L2_BUF_TYPE_VIDEO_OUTPUT);
}

int board::querycap(void* arg) {
    v4l2_capability* c = as<v4l2_capability>(arg);
    memset(c, 0, sizeof(*c));
    snprintf(reinterpret_cast<char*>(c->driver), sizeof(c->driver), "kv_vboard");
    snprintf(reinterpret_cast<char*>(c->card), sizeof(c->card), "Virtual ASI output");
    snprintf(reinterpret_cast<char*>(c->bus_info), sizeof(c->bus_info), "platform:kv_vboard");
    c->version = 0x00010000;
    c->device_caps =
        (m_cfg.mplane ? V4L2_CAP_VIDEO_OUTPUT_MPLANE : V4L2_CAP_VIDEO_OUTPUT) | V4L2_CAP_STREAMING;
    c->capabilities = c->device_caps | V4L2_CAP_DEVICE_CAPS;
    return 0;
}

int board::enum_fmt(void* arg) {
    v4l2_fmtdesc* d = as<v4l2_fmtdesc>(arg);
    if (!valid_type(d->type) || d->index != 0) {
        return EINVAL;
    }
    const uint32_t type = d->type;
    memset(d, 0, sizeof(*d));
    d->type = type;
    d->pixelformat = kFourccKVRA;
    snprintf(reinterpret_cast<char*>(d->description), sizeof(d->description), "ASI words");
    return 0;
}

void board::fill_format(void* arg) const {
    v4l2_format* f = as<v4l2_format>(arg);
    const uint32_t type = f->type;
    memset(&f->fmt, 0, sizeof(f->fmt));
    if (type == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE) {
        v4l2_pix_format_mplane& p = f->fmt.pix_mp;
        p.width = m_cfg.sizeimage;
        p.height = 1;
        p.pixelformat = m_pixelformat;
        p.field = V4L2_FIELD_NONE;
        p.num_planes = 1;
        p.plane_fmt[0].sizeimage = m_cfg.sizeimage;
        p.plane_fmt[0].bytesperline = m_cfg.sizeimage;
    } else {
        v4l2_pix_format& p = f->fmt.pix;
        p.width = m_cfg.sizeimage;
        p.height = 1;
        p.pixelformat = m_pixelformat;
        p.field = V4L2_FIELD_NONE;
        p.bytesperline = m_cfg.sizeimage;
        p.sizeimage = m_cfg.sizeimage;
    }
}

int board::g_fmt(void* arg) {
    int err = 0;
    if (fault(KV_VB_G_FMT, err)) {
        return err;
    }
    if (!valid_type(as<v4l2_format>(arg)->type)) {
        return EINVAL;
    }
    fill_format(arg);
    return 0;
}

int board::s_fmt(int fd, void* arg, bool bTry) {
    int err = 0;
    if (!bTry && fault(KV_VB_S_FMT, err)) {
        return err;
    }
    v4l2_format* f = as<v4l2_format>(arg);
    if (!valid_type(f->type)) {
        return EINVAL;
    }
    if (!bTry && (busy_for(fd) || !m_bufs.empty())) {
        return EBUSY;  // the format is fixed while buffers exist
    }
    const uint32_t fourcc = f->type == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE ? f->fmt.pix_mp.pixelformat
                                                                         : f->fmt.pix.pixelformat;
    if (fourcc != kFourccKVRA) {
        return EINVAL;
    }
    if (!bTry) {
        m_pixelformat = fourcc;
    }
    fill_format(arg);
    return 0;
}

// ---------------------------------------------------------------------------------
// Buffers

bool board::allocate(uint32_t count) {
    const long page = sysconf(_SC_PAGESIZE);
    const size_t nPage = page > 0 ? size_t(page) : 4096;
    m_nStride = (size_t(m_cfg.sizeimage) + nPage - 1) / nPage * nPage;
    m_nViewSize = m_nStride * count;
    m_memfd = memfd_create("kv_vboard_buffers", MFD_CLOEXEC);
    if (m_memfd < 0) {
        return false;
    }
    if (ftruncate(m_memfd, off_t(m_nViewSize)) != 0) {
        release_buffers();
        return false;
    }
    void* p = real().mmap(nullptr, m_nViewSize, PROT_READ, MAP_SHARED, m_memfd, 0);
    if (p == MAP_FAILED) {
        release_buffers();
        return false;
    }
    m_pView = static_cast<uint8_t*>(p);
    m_bufs.assign(count, buffer());
    ++m_nGeneration;
    return true;
}

void board::release_buffers() {
    if (m_pView) {
        real().munmap(m_pView, m_nViewSize);
        m_pView = nullptr;
    }
    if (m_memfd >= 0) {
        real().close(m_memfd);
        m_memfd = -1;
    }
    m_bufs.clear();
    m_queue.clear();
    m_done.clear();
    m_nActive = -1;
    ++m_nGeneration;  // mappings still held by the host no longer count
}

int board::reqbufs(int fd, void* arg) {
    int err = 0;
    if (fault(KV_VB_REQBUFS, err)) {
        return err;
    }
    v4l2_requestbuffers* r = as<v4l2_requestbuffers>(arg);
    if (!valid_type(r->type) || r->memory != V4L2_MEMORY_MMAP) {
        return EINVAL;
    }
    if (busy_for(fd) || m_bStreaming) {
        return EBUSY;
    }
    for (const buffer& b : m_bufs) {
        if (b.mapped > 0) {
            return EBUSY;
        }
    }
    release_buffers();
    r->capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP;
    r->flags = 0;
    memset(r->reserved, 0, sizeof(r->reserved));
    if (r->count == 0) {
        m_owner = -1;
        return 0;
    }
    if (!allocate(m_cfg.buffers)) {
        return ENOMEM;
    }
    r->count = m_cfg.buffers;
    m_owner = fd;
    return 0;
}

void board::fill_buffer(void* arg, uint32_t index) const {
    v4l2_buffer* b = as<v4l2_buffer>(arg);
    const buffer& s = m_bufs[index];
    v4l2_plane* planes = b->type == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE ? b->m.planes : nullptr;
    const uint32_t type = b->type;
    memset(b, 0, sizeof(*b));
    b->index = index;
    b->type = type;
    b->memory = V4L2_MEMORY_MMAP;
    b->field = V4L2_FIELD_NONE;
    b->flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    if (s.mapped > 0) {
        b->flags |= V4L2_BUF_FLAG_MAPPED;
    }
    if (s.state == buf_state::queued || s.state == buf_state::active) {
        b->flags |= V4L2_BUF_FLAG_QUEUED;
    } else if (s.state == buf_state::done) {
        b->flags |= V4L2_BUF_FLAG_DONE;
    }
    b->sequence = s.sequence;
    // Time on the board's clock at which the buffer finished going out.
    const uint64_t ns = uint64_t(static_cast<long double>(s.done_ticks) * 1e9L / kTicksPerSecond);
    b->timestamp.tv_sec = time_t(ns / 1000000000u);
    b->timestamp.tv_usec = suseconds_t(ns % 1000000000u / 1000u);
    const uint32_t offset = uint32_t(m_nStride * index);
    if (planes) {
        b->m.planes = planes;
        b->length = 1;
        memset(&planes[0], 0, sizeof(planes[0]));
        planes[0].bytesused = s.bytesused;
        planes[0].length = m_cfg.sizeimage;
        planes[0].m.mem_offset = offset;
    } else {
        b->bytesused = s.bytesused;
        b->length = m_cfg.sizeimage;
        b->m.offset = offset;
    }
}

int board::querybuf(void* arg) {
    int err = 0;
    if (fault(KV_VB_QUERYBUF, err)) {
        return err;
    }
    v4l2_buffer* b = as<v4l2_buffer>(arg);
    if (!valid_type(b->type) || b->index >= m_bufs.size()) {
        return EINVAL;
    }
    if (b->type == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE && (!b->m.planes || b->length < 1)) {
        return EINVAL;
    }
    fill_buffer(arg, b->index);
    return 0;
}

int board::mmap(void* addr, size_t len, int prot, int flags, off_t offset, void** pOut,
                uint64_t* pGeneration, int* pIndex) {
    std::lock_guard<std::mutex> lk(m_cs);
    if (m_bVanished) {
        return ENODEV;
    }
    int err = 0;
    if (fault(KV_VB_MMAP, err)) {
        return err;
    }
    if (m_bufs.empty() || !(flags & MAP_SHARED) || !(prot & PROT_WRITE) || len == 0 ||
        len > m_nStride || offset < 0 || size_t(offset) % m_nStride != 0 ||
        size_t(offset) / m_nStride >= m_bufs.size()) {
        return EINVAL;
    }
    void* p = real().mmap(addr, len, prot, flags, m_memfd, offset);
    if (p == MAP_FAILED) {
        return errno;
    }
    const int index = int(size_t(offset) / m_nStride);
    ++m_bufs[index].mapped;
    *pOut = p;
    *pGeneration = m_nGeneration;
    *pIndex = index;
    return 0;
}

void board::unmapped(uint64_t nGeneration, int nIndex) {
    std::lock_guard<std::mutex> lk(m_cs);
    if (nGeneration == m_nGeneration && nIndex >= 0 && size_t(nIndex) < m_bufs.size() &&
        m_bufs[nIndex].mapped > 0) {
        --m_bufs[nIndex].mapped;
    }
}

int board::qbuf(int fd, void* arg) {
    int err = 0;
    if (fault(KV_VB_QBUF, err)) {
        return err;
    }
    v4l2_buffer* b = as<v4l2_buffer>(arg);
    if (busy_for(fd)) {
        return EBUSY;
    }
    if (!valid_type(b->type) || b->memory != V4L2_MEMORY_MMAP || b->index >= m_bufs.size()) {
        return EINVAL;
    }
    uint32_t bytesused = b->bytesused;
    if (b->type == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE) {
        if (!b->m.planes || b->length < 1) {
            return EINVAL;
        }
        bytesused = b->m.planes[0].bytesused;
    }
    if (bytesused > m_cfg.sizeimage) {
        return EINVAL;
    }
    buffer& s = m_bufs[b->index];
    if (s.state != buf_state::dequeued) {
        return EINVAL;
    }
    // Frames that began before this call went out with what was queued then.
    advance();
    s.state = buf_state::queued;
    s.bytesused = bytesused == 0 ? m_cfg.sizeimage : bytesused;  // 0 means the whole buffer
    m_queue.push_back(b->index);
    ++m_counters.qbuf;
    advance();
    fill_buffer(arg, b->index);
    m_cv.notify_all();
    return 0;
}

int board::dqbuf(int fd, void* arg, lock& lk) {
    int err = 0;
    if (fault(KV_VB_DQBUF, err)) {
        return err;
    }
    if (m_nVanishFrom > 0 && ++m_nDqbufCalls == m_nVanishFrom) {
        vanish_locked();
        return ENODEV;
    }
    v4l2_buffer* b = as<v4l2_buffer>(arg);
    if (busy_for(fd)) {
        return EBUSY;
    }
    if (!valid_type(b->type) || b->memory != V4L2_MEMORY_MMAP) {
        return EINVAL;
    }
    if (b->type == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE && (!b->m.planes || b->length < 1)) {
        return EINVAL;
    }
    if (m_bWaiting) {
        return EBUSY;  // one waiter at a time, as V4L2 queues allow
    }
    const bool bNonBlocking =
        std::find(m_nonblocking.begin(), m_nonblocking.end(), fd) != m_nonblocking.end();
    for (;;) {
        if (m_bVanished) {
            return ENODEV;
        }
        if (!m_bStreaming) {
            return EINVAL;
        }
        advance();
        if (!m_done.empty()) {
            break;
        }
        if (bNonBlocking) {
            return EAGAIN;
        }
        m_bWaiting = true;
        if (m_cfg.freerun) {
            // Nothing moves until another thread queues a buffer or stops the line.
            m_cv.wait(lk);
        } else {
            m_cv.wait_until(lk, time_of_ticks(m_nStartTicks + m_nNextFrame * kTicksPerFrame));
        }
        m_bWaiting = false;
    }
    const uint32_t index = m_done.front();
    m_done.pop_front();
    m_bufs[index].state = buf_state::dequeued;
    fill_buffer(arg, index);
    ++m_counters.dqbuf;
    return 0;
}

int board::streamon(int fd, void* arg) {
    int err = 0;
    if (fault(KV_VB_STREAMON, err)) {
        return err;
    }
    if (busy_for(fd)) {
        return EBUSY;
    }
    if (!valid_type(uint32_t(*as<int>(arg))) || m_bufs.empty()) {
        return EINVAL;
    }
    if (m_bStreaming) {
        return 0;
    }
    if (!m_bCaptureTried) {
        m_bCaptureTried = true;
        if (!open_capture()) {
            fprintf(stderr, "kv_vboard: can't write capture %s: %s\n", m_cfg.capture.c_str(),
                    strerror(errno));
        }
    }
    m_bStreaming = true;
    m_nStartTicks = now_ticks();
    m_nNextFrame = 0;
    m_nActive = -1;
    // The count starts over at every STREAMON; the configured restart happens once.
    m_nSeqRestartFrame = UINT64_MAX;
    if (m_bFirstStreamon && m_cfg.sequence_restart > 0) {
        m_nSeqRestartFrame = m_cfg.sequence_restart;
        m_nSeqRestartValue = m_cfg.first_sequence;
    }
    m_bFirstStreamon = false;
    ++m_counters.streamon;
    advance();
    return 0;
}

int board::streamoff(int fd, void* arg) {
    if (busy_for(fd)) {
        return EBUSY;
    }
    if (!valid_type(uint32_t(*as<int>(arg)))) {
        return EINVAL;
    }
    stop_line();
    ++m_counters.streamoff;
    return 0;
}

bool board::open_capture() {
    if (m_cfg.capture.empty()) {
        return true;
    }
    m_pCapture = fopen(m_cfg.capture.c_str(), "wb");
    if (!m_pCapture) {
        return false;
    }
    // A buffer of whole records, so that the file only ever grows by whole records; the
    // C library would otherwise pick its own size (4 KiB) for a null buffer.
    m_captureBuf.reset(new (std::nothrow) char[kCaptureBufferSize]);
    if (m_captureBuf) {
        setvbuf(m_pCapture, m_captureBuf.get(), _IOFBF, kCaptureBufferSize);
    }
    m_decoder.set_output(m_pCapture);
    return true;
}

void board::stop_line() {
    if (m_bStreaming) {
        advance();  // frames that began before the stop did go out
        m_decoder.end_of_stream();
    }
    m_bStreaming = false;
    // Every buffer comes back to the host, sent or not.
    for (buffer& b : m_bufs) {
        b.state = buf_state::dequeued;
    }
    m_queue.clear();
    m_done.clear();
    m_nActive = -1;
    if (m_pCapture) {
        fflush(m_pCapture);
    }
    m_cv.notify_all();
}

// ---------------------------------------------------------------------------------
// Clock and line

uint64_t board::now_ticks() const {
    if (m_cfg.freerun) {
        return m_nVirtualTicks;
    }
    const auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(
                             std::chrono::steady_clock::now() - m_tOpen)
                             .count();
    return elapsed <= 0 ? 0 : uint64_t(static_cast<long double>(elapsed) * m_ticksPerNs);
}

std::chrono::steady_clock::time_point board::time_of_ticks(uint64_t ticks) const {
    const long double ns = std::ceil(static_cast<long double>(ticks) / m_ticksPerNs);
    return m_tOpen + std::chrono::nanoseconds(int64_t(ns) + 1);
}

uint32_t board::read_counter() {
    const uint32_t raw = uint32_t(m_cfg.counter_start + now_ticks());
    if (m_bCounterPending) {
        m_bCounterPending = false;
        m_nCounterBase = m_nCounterPending - raw;
    }
    return raw + m_nCounterBase;
}

void board::complete_active() {
    if (m_nActive < 0) {
        return;
    }
    buffer& b = m_bufs[m_nActive];
    b.state = buf_state::done;
    b.sequence = sequence_of(m_nActiveFrame);
    b.done_ticks = m_nStartTicks + (m_nActiveFrame + 1) * kTicksPerFrame;
    m_done.push_back(uint32_t(m_nActive));
    m_nActive = -1;
    m_cv.notify_all();
}

uint32_t board::sequence_of(uint64_t frame) const {
    if (frame >= m_nSeqRestartFrame) {
        return m_nSeqRestartValue + uint32_t(frame - m_nSeqRestartFrame);
    }
    return m_cfg.first_sequence + uint32_t(frame);
}

void board::send_idle(uint64_t n) {
    m_nLineWords += n * kWordsPerFrame;
    m_nNextFrame += n;
    m_counters.idle_frames += n;
}

void board::start_frame() {
    if (m_nIdlePending > 0 || m_queue.empty()) {
        if (m_nIdlePending > 0) {
            --m_nIdlePending;
        }
        send_idle(1);
        return;
    }
    const uint32_t index = m_queue.front();
    m_queue.pop_front();
    buffer& b = m_bufs[index];
    b.state = buf_state::active;
    m_nActive = int(index);
    m_nActiveFrame = m_nNextFrame;
    const size_t nBytes = std::min<size_t>(b.bytesused, kBytesPerFrame);
    m_decoder.frame(m_pView + m_nStride * index, nBytes, m_nLineWords);
    m_nLineWords += kWordsPerFrame;
    ++m_nNextFrame;
    ++m_counters.frames_sent;
}

void board::advance() {
    if (!m_bStreaming) {
        return;
    }
    if (m_cfg.freerun) {
        // A frame leaves as soon as a buffer is queued; the clock moves by whole frames.
        while (m_nIdlePending > 0 || !m_queue.empty()) {
            const uint64_t start = m_nStartTicks + m_nNextFrame * kTicksPerFrame;
            start_frame();
            complete_active();
            m_nVirtualTicks = start + kTicksPerFrame;
        }
        return;
    }
    const uint64_t now = now_ticks();
    for (;;) {
        const uint64_t start = m_nStartTicks + m_nNextFrame * kTicksPerFrame;
        if (start > now) {
            return;
        }
        // The frame on the line ends where this one begins.
        complete_active();
        if (m_nIdlePending == 0 && m_queue.empty()) {
            // Nothing queued: every frame from here to now goes out idle.
            send_idle((now - start) / kTicksPerFrame + 1);
            continue;
        }
        start_frame();
    }
}

// ---------------------------------------------------------------------------------
// Controls

int board::g_ext_ctrls(void* arg) {
    int err = 0;
    if (fault(KV_VB_COUNTER, err)) {
        return err;
    }
    v4l2_ext_controls* c = as<v4l2_ext_controls>(arg);
    if (c->which != V4L2_CTRL_WHICH_CUR_VAL && c->which != V4L2_CTRL_CLASS_DV) {
        return EINVAL;
    }
    if (c->count == 0) {
        return 0;
    }
    if (!c->controls) {
        return EFAULT;
    }
    for (uint32_t i = 0; i < c->count; ++i) {
        if (c->controls[i].id != kCounterControlId) {
            c->error_idx = c->count;
            return EINVAL;
        }
    }
    advance();
    const uint32_t value = read_counter();
    for (uint32_t i = 0; i < c->count; ++i) {
        v4l2_ext_control& ctl = c->controls[i];
        if (ctl.size == 0) {
            ctl.value = int32_t(value);
        } else if (ctl.size < sizeof(uint32_t)) {
            ctl.size = sizeof(uint32_t);
            c->error_idx = i;
            return ENOSPC;
        } else if (!ctl.p_u32) {
            c->error_idx = i;
            return EFAULT;
        } else {
            *ctl.p_u32 = value;
        }
    }
    return 0;
}

int board::g_ctrl(void* arg) {
    v4l2_control* c = as<v4l2_control>(arg);
    if (c->id != kCounterControlId) {
        return EINVAL;
    }
    int err = 0;
    if (fault(KV_VB_COUNTER, err)) {
        return err;
    }
    advance();
    c->value = int32_t(read_counter());
    return 0;
}

// ---------------------------------------------------------------------------------
// Control API

void board::set_fault(unsigned call, uint32_t from, uint32_t count, int err) {
    std::lock_guard<std::mutex> lk(m_cs);
    fault_rule& r = m_faults[call];
    r.active = true;
    r.from = from == 0 ? 1 : from;
    r.count = count;
    r.err = err;
    r.calls = 0;
}

void board::set_faults(const fault_set& faults) {
    std::lock_guard<std::mutex> lk(m_cs);
    for (unsigned i = 0; i < kCallKinds; ++i) {
        m_faults[i] = faults.rules[i];
    }
    m_nVanishFrom = faults.vanish_from;
    m_nDqbufCalls = 0;
}

void board::clear_faults() {
    std::lock_guard<std::mutex> lk(m_cs);
    for (fault_rule& r : m_faults) {
        r = fault_rule();
    }
    m_nVanishFrom = 0;
}

void board::vanish() {
    std::lock_guard<std::mutex> lk(m_cs);
    vanish_locked();
}

void board::vanish_locked() {
    if (m_bStreaming) {
        advance();
        m_decoder.end_of_stream();
        m_bStreaming = false;
    }
    m_bVanished = true;
    if (m_pCapture) {
        fflush(m_pCapture);
    }
    m_cv.notify_all();
}

kv_vboard_counters board::counters() {
    std::lock_guard<std::mutex> lk(m_cs);
    advance();
    kv_vboard_counters c = m_counters;
    const line_counters& lc = m_decoder.counters();
    c.word_violations = lc.word_violations;
    c.packets = lc.packets;
    c.bytes_partial = lc.bytes_partial;
    return c;
}

void board::set_counter_value(uint32_t value) {
    std::lock_guard<std::mutex> lk(m_cs);
    m_bCounterPending = true;
    m_nCounterPending = value;
}

void board::insert_idle_frames(uint32_t n) {
    std::lock_guard<std::mutex> lk(m_cs);
    advance();
    m_nIdlePending += n;
    advance();
}

short board::poll(short events, int timeout_ms) {
    using clock = std::chrono::steady_clock;
    std::unique_lock<std::mutex> lk(m_cs);
    const bool bLimited = timeout_ms >= 0;
    const clock::time_point limit = clock::now() + std::chrono::milliseconds(bLimited ? timeout_ms : 0);
    for (;;) {
        if (m_bVanished || !m_bStreaming) {
            return POLLERR;
        }
        advance();
        if (!m_done.empty()) {
            return short(events & (POLLOUT | POLLWRNORM));
        }
        if (bLimited && clock::now() >= limit) {
            return 0;
        }
        // Until something changes, the next frame slot ends (paced), or the limit.
        if (m_cfg.freerun && !bLimited) {
            m_cv.wait(lk);
        } else if (m_cfg.freerun) {
            m_cv.wait_until(lk, limit);
        } else {
            const clock::time_point slot =
                time_of_ticks(m_nStartTicks + m_nNextFrame * kTicksPerFrame);
            m_cv.wait_until(lk, bLimited ? std::min(slot, limit) : slot);
        }
    }
}

void board::restart_sequence(uint32_t value) {
    std::lock_guard<std::mutex> lk(m_cs);
    if (!m_bStreaming) {
        return;
    }
    advance();  // slots that began by now keep their numbers
    m_nSeqRestartFrame = m_nNextFrame;
    m_nSeqRestartValue = value;
}

void board::flush() {
    std::lock_guard<std::mutex> lk(m_cs);
    if (m_pCapture) {
        fflush(m_pCapture);
    }
    if (m_nOpen > 0) {
        write_stats_locked();
    }
}

}  // namespace kvvb
