#pragma once

#include <linux/videodev2.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "kv_asi_renderer/kv_asi_messages.h"
#include "kv_asi_renderer/kv_data_provider.h"
#include "mpegcore/kv_clock.h"

// One driver buffer mapped into our address space.
struct kv_v4l2_buffers {
    uint8_t* pData = nullptr;  // the mapping, null when mapping failed
    size_t nSize = 0;          // mapped length in bytes
    v4l2_buffer buf{};         // the buffer as last exchanged with the driver
    // Its plane in multi-planar mode; buf.m.planes points here, so a record must
    // not move once it has been filled in.
    v4l2_plane planes[1]{};
};

// One DVB-ASI output port driven through its V4L2 output node. The output line runs
// at 27,000,000 ten-bit words per second, cut into frames of 1/50 s; one driver buffer
// carries one frame (540000 words packed into 675000 bytes). The engine takes buffers
// with map(), fills them and gives them back with unmap(); the first unmap() calls
// prime the ring without dequeuing and the one that completes the ring turns
// streaming on. Frames are numbered from 0 at open: the primed buffers first, then every
// dequeued buffer goes on from there, whatever sequence number the driver starts from;
// later gaps in the driver's sequence are frames the driver sent without us. The board's free-running 148.5 MHz counter makes the device the
// system's reference clock.
//
// map, unmap and set_data_size belong to the output thread; get_clock_time may be
// called from any thread; open_device and close_device only while no output thread
// runs.
class kv_v4l2_asi_output_device : public kv_data_provider, public mpegcore::kv_clock {
public:
    kv_v4l2_asi_output_device() = default;
    ~kv_v4l2_asi_output_device() override;

    kv_v4l2_asi_output_device(const kv_v4l2_asi_output_device&) = delete;
    kv_v4l2_asi_output_device& operator=(const kv_v4l2_asi_output_device&) = delete;

    // kv_data_provider
    bool start() override;
    // Stops streaming; the driver hands every buffer back, so the ring primes afresh
    // and frame numbers go on from the last one handed out.
    void stop() override;
    bool map(uint64_t& tBegin, uint64_t& tEnd, uint8_t** pData, uint64_t& nSize) override;
    bool unmap() override;
    uint64_t get_samples_per_frame() override { return m_nSampesPerFrame; }

    // mpegcore::kv_clock: the board clock in 100 ns since the node was opened.
    int64_t get_clock_time() override;

    // Closes whatever is open, resets every counter (the clock accumulator too),
    // opens and formats the node and maps its buffers. False when a step fails, with
    // get_error() saying which and why; a buffer that cannot be mapped or is shorter
    // than a frame fails the open too, as it would cost every frame it carries.
    bool open_device(const std::string& name);
    void close_device();
    bool is_open() const { return m_hASI >= 0; }

    // Bytes of the current buffer the engine filled; unmap zeroes the rest.
    void set_data_size(size_t size) { m_cur_data_size = size; }

    // The last map() failed only because there is nothing to hand out yet: no buffer has
    // come back within kWaitMs, or a fault is waiting for its next retry. Not an error.
    bool map_waited() const { return m_bWaited; }
    // Longest a map() waits for the driver, so that the caller can look up in between.
    static constexpr int kWaitMs = 100;
    // The last map() failed because the node is gone (unplugged, driver unloaded): only
    // opening it again can help.
    bool is_gone() const { return m_bGone; }

    // The last failure: the call and the OS error text ("VIDIOC_DQBUF: Input/output
    // error"), or what was wrong with the driver's buffers; its errno (0 when the
    // failure was not the OS's). Kept until the next open.
    const std::string& get_error() const { return m_strError; }
    int get_errno() const { return m_nErrno; }
    // Driver calls that failed while playing (STREAMON, QBUF, DQBUF), since the device
    // object was made (reopening does not start the count again).
    uint64_t get_fault_count() const { return m_nFaults; }

    // Frames the driver sent without new data from us, seen as sequence gaps.
    uint64_t get_skip_frame() const { return m_nSkipFrame; }
    // After a successful map(): whole frames the line plays before the buffer handed out
    // begins. A primed buffer waits for those primed before it (the line starts with the
    // first at STREAMON, which follows the last priming unmap at once); a dequeued one
    // for the ring's other buffers, still queued.
    uint32_t frames_ahead() const { return m_nFramesAhead; }
    bool is_streaming() const { return m_bStarted; }
    // Buffers were queued since the device was opened or last stopped.
    bool has_queued() const { return m_bStarted || m_curr_buff_index > 0; }
    // The next map() hands out a buffer without dequeuing it.
    bool is_priming() const { return m_curr_buff_index < m_vASIBuf.size(); }

    // Buffer type in use (single-plane or multi-planar output), number of mapped
    // driver buffers and the negotiated image size.
    v4l2_buf_type get_device_type() const { return m_eDeviceType; }
    size_t get_buffer_count() const { return m_vASIBuf.size(); }
    size_t get_buffer_size() const { return m_buffer_size; }

    // Device time of the start of frame nFrame, in 100 ns.
    static uint64_t frame_to_unit(uint32_t nFrame);

    bool set_video_format(int fd);
    bool mmap_buffers(int fd);
    // The frame number of a buffer the driver handed back with sequence number `seq`,
    // counting skipped frames (gaps in the driver's count).
    uint32_t frame_of_sequence(uint32_t seq, uint32_t records);
    // Queries and maps buffer i of count into a new record; false (record dropped) when the
    // driver refuses the query. A failed mapping leaves the record without data.
    bool map_buffer(int fd, uint32_t i, uint32_t count, size_t limit);
    // Whether every buffer is mapped and holds a frame of `limit` bytes.
    bool buffers_whole(size_t limit);
    void unmmap_buffers();

private:
    // Retries what a fault left undone: queues a buffer the driver refused, turns
    // streaming on when that failed. False while that is not done yet (the next try
    // waits longer after each failure, up to a second).
    bool heal();
    void back_off();
    void set_error(const char* op, int err);
    // A failed driver call while playing.
    void count_fault(const char* op, int err);

    // Atomic because the streaming thread reads the clock through it while the output
    // thread may be reopening the node after a FIFO reset.
    std::atomic<int> m_hASI{-1};
    v4l2_buf_type m_eDeviceType = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    v4l2_pix_format m_fmtASI{};
    const uint32_t m_nBuffers = 6;
    std::vector<kv_v4l2_buffers> m_vASIBuf;
    const uint64_t m_nSampesPerFrame = 540000;
    size_t m_buffer_size = 0;
    std::string m_strASIName;
    uint64_t m_nSkipFrame = 0;
    v4l2_buffer m_cur_buffer{};
    v4l2_plane m_cur_planes[1]{};
    size_t m_cur_data_size = 0;
    uint64_t m_curr_buff_index = 0;
    std::atomic<uint32_t> m_seq_frame{0};  // number of the next primed frame, or of the current one
    uint32_t m_nSeqOffset = 0;             // our frame number minus the driver's sequence
    bool m_bSeqKnown = false;              // m_nSeqOffset was taken since the ring was primed
    uint32_t m_nFramesAhead = 0;
    bool m_bStarted = false;
    bool m_bWaited = false;
    bool m_bGone = false;
    bool m_bRequeue = false;     // the buffer at m_nRequeueIndex still has to be queued
    uint32_t m_nRequeueIndex = 0;
    std::chrono::steady_clock::time_point m_tRetry{};
    std::chrono::milliseconds m_retryDelay{0};
    std::string m_strError;
    int m_nErrno = 0;
    uint64_t m_nFaults = 0;
    kv_print_limiter m_print;
    std::mutex m_csTimeStamp;  // not taken: the clock path is lock-free
    std::atomic<uint64_t> m_nTimeStamp{0};
    std::atomic<uint32_t> m_nLastTimeStamp{0};
};
