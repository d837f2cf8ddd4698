#pragma once

// One emulated board: the V4L2 output queue, the board's clock, the line and the
// capture, behind one mutex. The registry routes the calls of the descriptors opened on
// the board's node here; every operation returns 0 or a positive errno value.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kv_vboard.h"
#include "kv_vboard_line.h"

namespace kvvb {

constexpr uint32_t kFourccKVRA =
    uint32_t('K') | uint32_t('V') << 8 | uint32_t('R') << 16 | uint32_t('A') << 24;
constexpr uint32_t kCounterControlId = 0x00a01c02;
constexpr unsigned kCallKinds = KV_VB_COUNTER + 1;

struct board_config {
    std::string node = "/dev/kvasi0";
    bool mplane = false;
    uint32_t sizeimage = kBytesPerFrame;
    uint32_t buffers = 6;
    uint32_t first_sequence = 2;
    double ppm = 0.0;
    bool freerun = false;
    uint32_t counter_start = 0;
    uint32_t sequence_restart = 0;  // frame slot of the first streaming period, 0 for none
    std::string capture;  // "%i" already replaced
    std::string stats;    // "%i" already replaced
};

// A failure injected into one kind of call: calls number from .. from + count - 1
// (counted since the rule was set, 1-based) fail with err; count 0 means for ever.
struct fault_rule {
    bool active = false;
    uint32_t from = 1;
    uint32_t count = 1;
    int err = 5;  // EIO
    uint64_t calls = 0;
};

// Faults read from the environment ("dqbuf:from=5:count=3;streamon:always;open:once").
// vanish_from > 0 makes the node vanish on that DQBUF call.
struct fault_set {
    fault_rule rules[kCallKinds];
    uint32_t vanish_from = 0;
};

// Parses a fault list; unknown entries are reported in error (first one) and skipped.
bool parse_faults(const std::string& text, fault_set& out, std::string& error);

class board {
public:
    explicit board(const board_config& cfg);
    ~board();
    board(const board&) = delete;
    board& operator=(const board&) = delete;

    const board_config& config() const { return m_cfg; }

    // Descriptor life. open_check runs the open fault and the vanished test.
    int open_check();
    void opened(int fd, bool bNonBlocking);
    void closed(int fd);

    int ioctl(int fd, unsigned long request, void* arg);
    // Maps buffer memory for a host mmap; *pGeneration and *pIndex identify the
    // mapping for unmapped().
    int mmap(void* addr, size_t len, int prot, int flags, off_t offset, void** pOut,
             uint64_t* pGeneration, int* pIndex);
    void unmapped(uint64_t nGeneration, int nIndex);

    // Control API.
    void set_fault(unsigned call, uint32_t from, uint32_t count, int err);
    void set_faults(const fault_set& faults);
    void clear_faults();
    void vanish();
    kv_vboard_counters counters();
    void set_counter_value(uint32_t value);
    void insert_idle_frames(uint32_t n);
    void restart_sequence(uint32_t value);
    // poll() on a descriptor of the node: POLLOUT once a sent buffer can be dequeued,
    // POLLERR when the node is gone or not streaming, 0 after timeout_ms (negative: no
    // limit).
    short poll(short events, int timeout_ms);
    // Writes the capture out and, while the node is open, the counters file (called at
    // process exit).
    void flush();

private:
    enum class buf_state { dequeued, queued, active, done };
    struct buffer {
        buf_state state = buf_state::dequeued;
        uint32_t bytesused = 0;
        uint32_t sequence = 0;
        uint64_t done_ticks = 0;
        int mapped = 0;
    };
    using lock = std::unique_lock<std::mutex>;

    bool fault(unsigned call, int& err);
    bool valid_type(uint32_t type) const;
    bool busy_for(int fd) const { return m_owner >= 0 && m_owner != fd; }

    int g_fmt(void* arg);
    int s_fmt(int fd, void* arg, bool bTry);
    int reqbufs(int fd, void* arg);
    int querybuf(void* arg);
    int qbuf(int fd, void* arg);
    int dqbuf(int fd, void* arg, lock& lk);
    int streamon(int fd, void* arg);
    int streamoff(int fd, void* arg);
    int g_ext_ctrls(void* arg);
    int g_ctrl(void* arg);
    int querycap(void* arg);
    int enum_fmt(void* arg);

    void fill_format(void* arg) const;
    void fill_buffer(void* arg, uint32_t index) const;
    bool allocate(uint32_t count);
    void release_buffers();
    void stop_line();
    void vanish_locked();
    void write_stats_locked();

    // Board clock, in 148.5 MHz ticks since the node was opened.
    uint64_t now_ticks() const;
    std::chrono::steady_clock::time_point time_of_ticks(uint64_t ticks) const;
    uint32_t read_counter();
    // Sends every frame whose start has come (real time) or every queued buffer
    // (free-running).
    void advance();
    // Puts the next frame on the line: the oldest queued buffer, or idle words.
    void start_frame();
    void complete_active();
    void send_idle(uint64_t n);
    // Driver sequence of frame slot `frame` of this streaming period.
    uint32_t sequence_of(uint64_t frame) const;
    bool open_capture();

    const board_config m_cfg;
    std::mutex m_cs;
    std::condition_variable m_cv;

    // Descriptors.
    int m_nOpen = 0;
    int m_owner = -1;  // descriptor that owns the queue (REQBUFS), -1 for none
    bool m_bVanished = false;
    std::vector<int> m_nonblocking;

    // Clock.
    std::chrono::steady_clock::time_point m_tOpen;
    long double m_ticksPerNs;
    uint64_t m_nVirtualTicks = 0;  // free-running clock
    uint32_t m_nCounterBase = 0;
    bool m_bCounterPending = false;
    uint32_t m_nCounterPending = 0;

    // Format and buffers.
    uint32_t m_pixelformat = kFourccKVRA;
    std::vector<buffer> m_bufs;
    size_t m_nStride = 0;  // sizeimage rounded up to pages
    int m_memfd = -1;
    uint8_t* m_pView = nullptr;
    size_t m_nViewSize = 0;
    uint64_t m_nGeneration = 0;  // bumped whenever buffers are allocated or freed
    std::deque<uint32_t> m_queue;
    std::deque<uint32_t> m_done;
    bool m_bWaiting = false;  // a DQBUF is blocked

    // Line.
    bool m_bStreaming = false;
    uint64_t m_nStartTicks = 0;  // board time of frame 0 of this streaming period
    uint64_t m_nNextFrame = 0;   // frames started since STREAMON
    int m_nActive = -1;          // buffer on the line, -1 for none or idle
    uint64_t m_nActiveFrame = 0;
    uint64_t m_nLineWords = 0;  // words sent since the board first streamed
    uint32_t m_nIdlePending = 0;
    // From frame slot m_nSeqRestartFrame on, the sequence counts from m_nSeqRestartValue.
    uint64_t m_nSeqRestartFrame = UINT64_MAX;
    uint32_t m_nSeqRestartValue = 0;
    bool m_bFirstStreamon = true;
    line_decoder m_decoder;
    FILE* m_pCapture = nullptr;
    // The capture's stdio buffer; outlives m_pCapture (closed in the destructor's body).
    std::unique_ptr<char[]> m_captureBuf;
    bool m_bCaptureTried = false;

    kv_vboard_counters m_counters = {};
    fault_rule m_faults[kCallKinds];
    uint32_t m_nVanishFrom = 0;
    uint64_t m_nDqbufCalls = 0;
};

}  // namespace kvvb
