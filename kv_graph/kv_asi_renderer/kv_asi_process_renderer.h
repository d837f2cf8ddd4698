#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "kv_asi_renderer/kv_alarms_dispatcher.h"
#include "kv_asi_renderer/kv_asi_frame_filler.h"
#include "kv_asi_renderer/kv_asi_messages.h"
#include "kv_asi_renderer/kv_asi_renderer_statistics.h"
#include "kv_asi_renderer/kv_v4l2_asi_output_device.h"
#include "mpegcore/fifo/kv_mpegts_fifo.h"
#include "mpegcore/fifo/kv_mpegts_item.h"

// The output engine behind the element. It owns the ASI device and the timed FIFO. The
// streaming thread pushes time-stamped transport-stream bytes into the FIFO; the output
// thread waits until the FIFO holds the configured latency, anchors the FIFO's time line
// to the device's frame clock and then, one device frame (1/50 s) at a time, takes the
// packets due in the frame from the FIFO and lays them out as ten-bit ASI words. It also
// watches the FIFO's health, raises the underflow and overflow alarms and keeps the
// statistics.
//
// Latency is the time from a packet's arrival to the line. The device keeps a ring of
// buffers queued ahead of the line (its read-ahead, six frames of 20 ms), so the anchor
// places the output time line that far back, and a latency below the read-ahead cannot
// be honoured: it is raised to the read-ahead (0 asks for the smallest latency that
// plays every packet on time). Because an item's time is known only once the next PCR
// (or buffer stamp) has arrived, the output waits for at least the read-ahead plus the
// longest anchor interval seen plus one frame.
//
// The output thread runs from the first start() to stop(). While paused, flushing or
// refilling after a FIFO reset it keeps the line fed with idle frames and the device
// streaming; it re-anchors on what the FIFO holds when output may go on, so nothing
// buffered is lost and the line is paced again from the first frame after. A device that
// has not streamed yet is not started before there is something to play.
//
// What goes wrong is told through the message callback: an error when init cannot open
// the device, map its buffers or make the FIFO (and for settings that cannot work); a
// warning, once per episode, for what output survives: device faults (retried, and
// counted in the statistics' last error), a node that went away, skipped frames and
// packets, resets with their reason, the underflow alarm, no PCR (or no usable time
// stamp) for 2 s while data arrives, a stream faster than the line, and a FIFO too
// small for the latency at the stream's rate. An episode ends after 10 s without the
// event, or when the condition clears. Retries, anchoring and the like go out at debug
// level, per-frame detail at log level.
//
// Threads: init, deinit, start, pause, stop and the statistics reset come from the
// application thread, serialised, and init/deinit only while stopped; push_data,
// end_of_stream and the flush calls come from the streaming thread (the FIFO locks
// itself); the output thread runs work_thread, fill_asi_data and reset. The carry state
// of the fill and the anchor belong to the output thread while it runs.
class kv_asi_process_renderer {
public:
    // Output thread polls while the FIFO is filling, empty or failing, and after a
    // failed map.
    static constexpr std::chrono::milliseconds kPollInterval{5};
    // A device that keeps failing is retried at most this far apart.
    static constexpr std::chrono::milliseconds kMaxRetryInterval{1000};
    // Data arriving without a PCR (or usable time stamp) for this long is reported.
    static constexpr std::chrono::seconds kTimingTimeout{2};
    // Events of one kind less than this far apart are one episode, reported once.
    static constexpr std::chrono::seconds kEpisodeGap{10};
    // What the line carries at most: 27,000,000 words a second, 188 words and two idle
    // words a packet, in bits per second of 188-byte packets.
    static constexpr int64_t kLineRate = int64_t{27000000} * 188 * 8 / 190;
    // For this long after each start no underflow alarm is raised (the bound is
    // included: 31 s minus 1 ns).
    static constexpr std::chrono::nanoseconds kWarmUp{30'999'999'999};

    // The dispatcher must outlive the engine.
    explicit kv_asi_process_renderer(kv_alarms_dispatcher& alarmDispatcher);
    // One frame of the device, in 100 ns units.
    static constexpr int64_t kFrameTime = 200000;

    // Stops a running output thread and closes FIFO and device.
    ~kv_asi_process_renderer();

    kv_asi_process_renderer(const kv_asi_process_renderer&) = delete;
    kv_asi_process_renderer& operator=(const kv_asi_process_renderer&) = delete;

    // Opens the device (nLatencyMs of stream must be buffered before output starts)
    // and creates the FIFO with nCapacity bytes. The device is the FIFO's clock when
    // bPLL is set. False, with a message, when either fails; nothing stays open then.
    bool init(const std::string& name, size_t nCapacity, int64_t nLatencyMs,
              mpegcore::kv_fifo_time_control eTimeControl, bool bPLL, bool bResetWhenEmpty);
    // Destroys the FIFO and closes the device.
    void deinit();

    // Starts the output thread and the alarms, or resumes output after pause(). False,
    // with a message, when the device is not open.
    bool start();
    // Output stops taking packets: what the device has queued plays out, then the line
    // goes idle; the FIFO keeps what it holds and goes on filling. The alarms stop. The
    // next start() re-anchors on what the FIFO holds.
    void pause();
    // Stops the alarms and joins the output thread; the device stops streaming (its ring
    // primes afresh at the next start). The FIFO keeps its content.
    void stop();

    // The FIFO asked for a reset: resets the FIFO and the fill's carry state, counts the
    // reset; output re-anchors once the latency has built up again while the line stays
    // idle. Called by the output thread.
    void reset();

    // End of stream, from the streaming thread: the packets after the last anchor are
    // timed at the last interval's rate and played; once the last packet is on the line
    // the end-of-stream callback runs (on the output thread), once.
    void end_of_stream();
    void set_eos_callback(std::function<void()> fn) { m_onEos = std::move(fn); }
    // Where messages go (see above); called from the thread that hit the event. Set it
    // before init. Messages above the given level are not even formatted.
    void set_message_callback(kv_asi_message_fn fn) { m_onMessage = std::move(fn); }
    void set_log_level(kv_asi_level eLevel) { m_eLogLevel = static_cast<int>(eLevel); }
    // A flush: from flush_start() to flush_stop() output takes nothing; flush_stop()
    // empties the FIFO and forgets the end of stream, and output re-anchors on what
    // comes next.
    void flush_start();
    void flush_stop();
    // Statistics back to zero (when a new stream begins, not at every resume).
    void reset_statistics() { m_statistics.reset(); }

    // Largest change of the PLL's correction, in ppm; takes effect at the next init.
    void set_pll_limit_ppm(double ppm) { m_dPllLimitPpm = ppm; }
    // The device's read-ahead in milliseconds (ring buffers x 20 ms), known once init
    // succeeded; the smallest latency the engine honours.
    int64_t get_read_ahead_ms() const;
    // Latency in use, in 100 ns units: the requested one raised to the read-ahead.
    int64_t get_latency() const { return m_nLatency; }
    // Packets that went out in a later frame than the one their time falls in.
    uint64_t get_late_packets() const { return m_nLate.load(std::memory_order_relaxed); }

    // Stream bytes with their time in 100 ns units.
    void push_data(int64_t tTime, const uint8_t* pData, size_t nSize);

    // The live statistics; the element hands this pointer to the host.
    kv_asi_renderer_statistics* statistics() { return &m_statistics; }

    // Time of word nIndex of a frame [tBegin, tEnd).
    uint64_t index_to_time(uint64_t tBegin, uint64_t tEnd, size_t nIndex);

    // Fills one device frame [tBegin, tEnd) of nSize bytes with the items, continuing
    // the carry of the previous frame; packets that miss the frame are counted in the
    // statistics. Returns false, writing nothing and dropping the items, when the
    // buffer is too small for a frame.
    bool fill_asi_data(uint64_t tBegin, uint64_t tEnd, uint8_t* pData, size_t nSize,
                       mpegcore::kv_mpegts_items& items);

    // Length of the underflow alarm's silence after each start; kWarmUp unless changed.
    // Takes effect at the next start.
    void set_warm_up(std::chrono::nanoseconds tWarmUp) { m_tWarmUp = tWarmUp; }

    // The origin of the output time line: the FIFO time of device time 0 (the oldest
    // packet's time when output started on a fresh device; 0 until the output thread
    // has anchored). Read while stopped.
    int64_t get_start_fifo_time() const { return m_tStartFifo; }

private:
    void work_thread(std::future<void>&& fExit);
    // Plays the next device buffer: maps it, anchors the time line when it may, fills it
    // with the FIFO's packets of its frame and hands it back. Returns how long the thread
    // waits before the next one (0, or a back-off while the device fails).
    std::chrono::milliseconds play_frame(int64_t nFullness, bool bHold, bool bEnding,
                                         std::chrono::milliseconds& errorWait,
                                         mpegcore::kv_mpegts_items& items);
    // Latency the anchor needs now: the requested one, or more when items become
    // visible too late to leave on time at it.
    int64_t effective_latency() const;
    // Places the output time line so that frame [tBegin, ...), which the line starts
    // nAhead frames from now, carries what is due then.
    void anchor(uint64_t tBegin, uint32_t nAhead);
    // Output may anchor on nFullness of stream when the next frame starts on the line
    // nAhead frames from now: not while held, at once when the stream has ended.
    bool may_anchor(int64_t nFullness, uint32_t nAhead, bool bHold, bool bEnding) const;
    // After the end of the stream: its last packet is on the line.
    bool is_played_out(uint64_t tBegin, uint32_t nAhead, uint64_t tFrameEnd) const;
    void unanchor();
    // The FIFO's state as bus messages, statistics and alarms; a failed FIFO is reset.
    // False when the FIFO was reset.
    bool check_fifo();
    // The node is gone: closes it and tries to open it again.
    void reopen_device();
    bool logs(kv_asi_level eLevel) const {
        return static_cast<int>(eLevel) <= m_eLogLevel.load(std::memory_order_relaxed);
    }
    void report(kv_asi_level eLevel, kv_asi_topic eTopic, std::string strText,
                std::string strDetail = std::string(), int nErrno = 0);
    // Output thread, every pass: turns what the device, the fill and the stream did since
    // the last pass into statistics, alarms and messages.
    void watch(bool bEos);
    // Output thread, when the device handed no buffer back: reports a node gone (and
    // reopens it) or a fault, grows errorWait up to once a second and returns how long to
    // wait before the next try.
    std::chrono::milliseconds after_map_failed(std::chrono::milliseconds& errorWait);
    // Running dry: at most 1 % of the latency left. Not while warming up, paused, flushing
    // or after the end of the stream (`bQuiet`).
    void check_underflow(int64_t nFullness, bool bQuiet);
    // Device faults and skipped frames or packets.
    void watch_device(std::chrono::steady_clock::time_point now);
    // Data that arrives but cannot be timed (no PCR, no usable stamp).
    void watch_timing(std::chrono::steady_clock::time_point now, bool bEos);
    // A stream faster than the line, and a FIFO too small for the latency at its rate.
    void watch_rate();

    // One kind of event, reported once per episode.
    struct episode {
        std::chrono::steady_clock::time_point tLast{};
        bool bSeen = false;
        // True for the first event of an episode.
        bool begins(std::chrono::steady_clock::time_point now) {
            const bool bNew = !bSeen || now - tLast >= kEpisodeGap;
            bSeen = true;
            tLast = now;
            return bNew;
        }
    };

    std::shared_ptr<kv_v4l2_asi_output_device> m_pDevice;
    mpegcore::kv_mpegts_fifo m_fifo;
    std::thread m_thread;
    std::shared_ptr<std::promise<void>> m_fExit;
    kv_alarms_dispatcher& m_alarmDispatcher;
    kv_asi_renderer_statistics m_statistics;
    int64_t m_nLatency = 0;  // 100 ns units
    // Carry state between frames: the packet cut at the end of the previous frame and
    // the idle words still owed after it.
    kv_asi_frame_filler m_filler;
    std::atomic<uint64_t> m_nSkipped{0};  // packets the current fill dropped
    int64_t m_tStartFifo = 0;             // origin of the output time line
    int64_t m_tStartTime = 0;             // device clock when output started
    std::string m_strDeviceName;
    std::chrono::nanoseconds m_tWarmUp = kWarmUp;
    double m_dPllLimitPpm = 100.0;
    int64_t m_nRequestedLatency = 0;  // 100 ns units, as asked for (0: as soon as possible)
    bool m_bAnchored = false;         // output thread: the time line is placed
    uint64_t m_tLastDataEnd = 0;      // output thread: device time after the last data frame
    bool m_bEosPosted = false;        // output thread
    std::atomic<bool> m_bPaused{false};
    std::atomic<bool> m_bEos{false};
    std::atomic<bool> m_bFlushing{false};
    std::atomic<uint32_t> m_nFlush{0};  // flushes begun, so a short one is not missed
    std::atomic<uint64_t> m_nLate{0};
    std::function<void()> m_onEos;
    kv_asi_message_fn m_onMessage;
    std::atomic<int> m_eLogLevel{static_cast<int>(kv_asi_level::debug)};
    kv_print_limiter m_print;
    mpegcore::kv_fifo_time_control m_eTimeControl = mpegcore::pcr_time_type;
    size_t m_nCapacity = 0;

    // Streaming thread: buffers pushed, and stamps that moved time on (stamp pacing).
    std::atomic<uint64_t> m_nPushes{0};
    std::atomic<uint64_t> m_nUsableStamps{0};
    int64_t m_tLastStamp = mpegcore::kv_mpegts_fifo::kNoTime;

    // Output thread: what watch() has seen so far.
    struct watch_state {
        uint64_t nFaults = 0;
        uint64_t nFaultBase = 0;  // the device's count at init
        uint64_t nSkipFrames = 0;
        uint64_t nSkipPackets = 0;
        uint64_t nTimed = 0;
        uint64_t nPushes = 0;
        std::chrono::steady_clock::time_point tUntimedSince{};  // data without timing since
        bool bUntimed = false;
        bool bNoTiming = false;
        bool bTooFast = false;
        bool bFaulty = false;
        bool bGone = false;
        bool bCapacityChecked = false;
        episode faults, skipFrames, skipPackets, resets, underflow;
    } m_watch;
    uint64_t m_nSkipPackets = 0;  // output thread: packets the fill dropped, ever
};
