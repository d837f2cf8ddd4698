#include "kv_asi_renderer/kv_asi_process_renderer.h"

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <utility>

#include "kv_asi_renderer/kv_data_provider.h"
#include "kvcore/kv_ring_queue.h"
#include "mpegcore/kv_clock.h"

namespace {

// Every packet goes out as one 188-byte item.
constexpr size_t kPacketSize = 188;

// Owns one mapped device buffer: whatever way a pass ends, the buffer is handed back to
// the provider exactly once.
class unmap_guard {
public:
    explicit unmap_guard(kv_data_provider& provider) : m_pProvider(&provider) {}
    ~unmap_guard() { release(); }

    unmap_guard(const unmap_guard&) = delete;
    unmap_guard& operator=(const unmap_guard&) = delete;

    void release() {
        if (m_pProvider != nullptr) {
            kv_data_provider* pProvider = m_pProvider;
            m_pProvider = nullptr;
            pProvider->unmap();
        }
    }

private:
    kv_data_provider* m_pProvider;
};

}  // namespace

kv_asi_process_renderer::kv_asi_process_renderer(kv_alarms_dispatcher& alarmDispatcher)
    : m_pDevice(std::make_shared<kv_v4l2_asi_output_device>()),
      m_alarmDispatcher(alarmDispatcher) {}

kv_asi_process_renderer::~kv_asi_process_renderer() {
    if (m_thread.joinable()) {
        stop();
    }
    deinit();
}

bool kv_asi_process_renderer::init(const std::string& name, size_t nCapacity, int64_t nLatencyMs,
                                   mpegcore::kv_fifo_time_control eTimeControl, bool bPLL,
                                   bool bResetWhenEmpty) {
    deinit();
    m_nRequestedLatency = nLatencyMs * 10000;
    m_nLatency = m_nRequestedLatency;
    m_filler.reset();
    m_strDeviceName = name;
    m_eTimeControl = eTimeControl;
    m_nCapacity = nCapacity;
    m_tLastStamp = mpegcore::kv_mpegts_fifo::kNoTime;
    m_watch = watch_state{};
    m_watch.nFaults = m_pDevice->get_fault_count();
    m_watch.nFaultBase = m_watch.nFaults;

    if (nCapacity < kPacketSize) {
        report(kv_asi_level::error, kv_asi_topic::settings,
               "\"buffer-size\" " + std::to_string(nCapacity) +
                   " bytes is below one transport packet of " + std::to_string(kPacketSize) +
                   " bytes",
               "buffer-size must hold the latency's worth of the stream");
        return false;
    }
    if (!m_pDevice->open_device(name)) {
        g_print("kv_asi_renderer: Can't open device, %s\n", name.c_str());
        if (name.empty()) {
            report(kv_asi_level::error, kv_asi_topic::settings, "\"v4l2\" is not set",
                   "name the ASI output's device node, e.g. v4l2=/dev/video0");
            deinit();
            return false;
        }
        const std::string& strError = m_pDevice->get_error();
        const int nErrno = m_pDevice->get_errno();
        const bool bOpen = strError.compare(0, 5, "open:") == 0;
        report(kv_asi_level::error, bOpen ? kv_asi_topic::device_open : kv_asi_topic::device_setup,
               (bOpen ? "Cannot open the ASI device \"" : "Cannot set up the ASI device \"") +
                   name + "\": " + (bOpen ? kv_errno_text(nErrno) : strError),
               kv_errno_hint(nErrno), nErrno);
        deinit();
        return false;
    }
    // The device plays its queued buffers before the one being filled: no packet can
    // reach the line sooner after its arrival than that.
    m_nLatency = std::max(m_nRequestedLatency, get_read_ahead_ms() * 10000);
    // With PLL pacing the FIFO locks stream time to the board's clock; it shares the
    // device's ownership because it may read the clock from the streaming thread.
    std::shared_ptr<mpegcore::kv_clock> pClock;
    if (bPLL) {
        pClock = m_pDevice;
    }
    m_fifo.set_pll_limit_ppm(m_dPllLimitPpm);
    if (!m_fifo.create(nCapacity, kPacketSize, pClock, eTimeControl, bResetWhenEmpty)) {
        g_print("kv_asi_renderer: Can't create fifo, %s\n", name.c_str());
        report(kv_asi_level::error, kv_asi_topic::fifo,
               "Cannot create the FIFO of " + std::to_string(nCapacity) + " bytes");
        deinit();
        return false;
    }
    if (logs(kv_asi_level::debug)) {
        report(kv_asi_level::debug, kv_asi_topic::state,
               "opened " + name + ": " + std::to_string(m_pDevice->get_buffer_count()) +
                   " buffers, latency " + std::to_string(m_nLatency / 10000) + " ms, FIFO " +
                   std::to_string(nCapacity) + " bytes");
    }
    return true;
}

void kv_asi_process_renderer::deinit() {
    m_fifo.destroy();
    if (m_pDevice->is_open()) {
        m_pDevice->close_device();
    }
    m_bEos = false;
}

int64_t kv_asi_process_renderer::get_read_ahead_ms() const {
    return static_cast<int64_t>(m_pDevice->get_buffer_count()) * (kFrameTime / 10000);
}

bool kv_asi_process_renderer::start() {
    const bool bResume = m_thread.joinable();
    if (!bResume) {
        m_filler.reset();
        m_bAnchored = false;
        m_bEosPosted = false;
        m_tLastDataEnd = 0;
        m_tStartFifo = 0;
        m_tStartTime = 0;
    }
    if (!m_pDevice->is_open()) {
        g_print("kv_asi_renderer: The device has not been opened\n");
        report(kv_asi_level::error, kv_asi_topic::device_open,
               "The ASI device is not open: output cannot start");
        return false;
    }
    // The alarms first: the thread's first pass may already raise one, for instance
    // for a FIFO that overflowed while the element was paused.
    m_alarmDispatcher.start();
    m_bPaused = false;
    if (bResume) {
        return true;  // the output thread re-anchors
    }
    m_fExit = std::make_shared<std::promise<void>>();
    m_thread = std::thread(&kv_asi_process_renderer::work_thread, this, m_fExit->get_future());
    return true;
}

void kv_asi_process_renderer::pause() {
    m_alarmDispatcher.stop();
    m_bPaused = true;
}

void kv_asi_process_renderer::stop() {
    m_alarmDispatcher.stop();
    if (m_thread.joinable()) {
        m_fExit->set_value();
        m_thread.join();
        m_fExit.reset();
    }
    // What the ring still holds is given up; the next start primes it afresh.
    if (m_pDevice->is_open() && m_pDevice->has_queued()) {
        m_pDevice->stop();
    }
    m_bPaused = false;
    m_bAnchored = false;
    // Cleared once the thread is gone, which owned it until now.
    m_filler.clear_carry();
}

void kv_asi_process_renderer::reset() {
    m_fifo.reset();
    m_statistics.set_reset();
    unanchor();
}

void kv_asi_process_renderer::unanchor() {
    m_filler.reset();
    m_bAnchored = false;
}

void kv_asi_process_renderer::push_data(int64_t tTime, const uint8_t* pData, size_t nSize) {
    m_nPushes.fetch_add(1, std::memory_order_relaxed);
    // A stamp is of use when it moves time on; missing and backward ones are not.
    if (tTime != mpegcore::kv_mpegts_fifo::kNoTime &&
        (m_tLastStamp == mpegcore::kv_mpegts_fifo::kNoTime || tTime > m_tLastStamp)) {
        m_tLastStamp = tTime;
        m_nUsableStamps.fetch_add(1, std::memory_order_relaxed);
    }
    m_fifo.push_data(tTime, pData, nSize);
}

void kv_asi_process_renderer::report(kv_asi_level eLevel, kv_asi_topic eTopic, std::string strText,
                                     std::string strDetail, int nErrno) {
    if (m_onMessage) {
        kv_asi_message msg;
        msg.eLevel = eLevel;
        msg.eTopic = eTopic;
        msg.nErrno = nErrno;
        msg.strText = std::move(strText);
        msg.strDetail = std::move(strDetail);
        m_onMessage(msg);
    }
}

void kv_asi_process_renderer::end_of_stream() {
    m_fifo.end_of_stream();
    m_bEos = true;
}

void kv_asi_process_renderer::flush_start() {
    m_bFlushing = true;
    m_nFlush.fetch_add(1);
}

void kv_asi_process_renderer::flush_stop() {
    // The streaming thread is quiet between the two flush events; the output thread
    // may be taking items, which the FIFO's locks allow.
    m_fifo.reset();
    m_tLastStamp = mpegcore::kv_mpegts_fifo::kNoTime;
    m_bEos = false;
    m_bFlushing = false;
}

uint64_t kv_asi_process_renderer::index_to_time(uint64_t tBegin, uint64_t tEnd, size_t nIndex) {
    return kv_asi_frame_filler::index_to_time(tBegin, tEnd, nIndex,
                                              m_pDevice->get_samples_per_frame());
}

bool kv_asi_process_renderer::fill_asi_data(uint64_t tBegin, uint64_t tEnd, uint8_t* pData,
                                            size_t nSize, mpegcore::kv_mpegts_items& items) {
    const uint64_t nSamples = m_pDevice->get_samples_per_frame();
    if (nSamples / 4 * 5 > nSize) {
        // The fill writes whole frames; a short driver buffer would be overrun.
        m_statistics.add_skip_ts_packets(items.size());
        return false;
    }
    // Items come in time order: those due before the frame are late.
    uint64_t nLate = 0;
    for (const auto& item : items) {
        if (static_cast<uint64_t>(item->time()) >= tBegin) {
            break;
        }
        ++nLate;
    }
    if (nLate > 0) {
        m_nLate.fetch_add(nLate, std::memory_order_relaxed);
    }
    m_filler.fill_asi_data(tBegin, tEnd, pData, nSize, nSamples, items, m_nSkipped);
    const uint64_t nSkipped = m_nSkipped.exchange(0, std::memory_order_relaxed);
    if (nSkipped > 0) {
        m_statistics.add_skip_ts_packets(nSkipped);
        m_nSkipPackets += nSkipped;
    }
    return true;
}

int64_t kv_asi_process_renderer::effective_latency() const {
    const int64_t nNeeded = get_read_ahead_ms() * 10000 + m_fifo.get_anchor_interval() + kFrameTime;
    return std::max(m_nLatency, nNeeded);
}

void kv_asi_process_renderer::anchor(uint64_t tBegin, uint32_t nAhead) {
    // The frame starts on the line nAhead frames from now. Packets arriving now leave
    // the latency later, so the frame carries what is due the latency minus that lead
    // before the newest packet; never later than the oldest one, so nothing already
    // stored turns late.
    const int64_t nLead = effective_latency() - static_cast<int64_t>(nAhead) * kFrameTime;
    const int64_t tFrame = std::min(m_fifo.get_front_time(), m_fifo.get_back_time() - nLead);
    m_tStartFifo = tFrame - static_cast<int64_t>(tBegin);
    m_tStartTime = m_pDevice->get_clock_time();
    // The PLL's phase reference becomes the FIFO depth from here on.
    m_fifo.relock_clock();
    m_bAnchored = true;
    if (logs(kv_asi_level::debug)) {
        report(kv_asi_level::debug, kv_asi_topic::state,
               "anchored: frame at device time " + std::to_string(tBegin) + " carries FIFO time " +
                   std::to_string(tFrame) + ", " + std::to_string(nAhead) +
                   " frames ahead, latency " + std::to_string(effective_latency() / 10000) + " ms");
    }
}

void kv_asi_process_renderer::reopen_device() {
    // The node went away: let it go, and open it again once it is back (each try at
    // the retry interval). The FIFO keeps what it holds; output anchors anew, as the
    // new device primes and counts its frames from 0.
    if (m_pDevice->is_open()) {
        m_pDevice->close_device();
    }
    if (m_pDevice->open_device(m_strDeviceName)) {
        m_statistics.set_reset();
        unanchor();
        m_watch.bGone = false;
        report(kv_asi_level::info, kv_asi_topic::device_gone,
               "The ASI device " + m_strDeviceName + " is back and open again");
    } else if (logs(kv_asi_level::debug)) {
        report(kv_asi_level::debug, kv_asi_topic::device_gone,
               "reopening " + m_strDeviceName + ": " + m_pDevice->get_error());
    }
}

bool kv_asi_process_renderer::may_anchor(int64_t nFullness, uint32_t nAhead, bool bHold,
                                         bool bEnding) const {
    if (bHold) {
        return false;
    }
    // The frames queued ahead of the one handed out play first: they count as buffered.
    return bEnding || nFullness >= effective_latency() - static_cast<int64_t>(nAhead) * kFrameTime;
}

bool kv_asi_process_renderer::is_played_out(uint64_t tBegin, uint32_t nAhead,
                                            uint64_t tFrameEnd) const {
    // Everything stored has been handed out, and the frame that carried the last packet
    // has been handed back by the driver, and one frame more (a driver may hand a buffer
    // back while its last words are still going out).
    return m_fifo.is_ended() && m_filler.get_carry_size() == 0 &&
           m_fifo.get_back_time() <= static_cast<int64_t>(tFrameEnd) &&
           tBegin - uint64_t{nAhead} * kFrameTime >= m_tLastDataEnd + kFrameTime;
}

bool kv_asi_process_renderer::check_fifo() {
    const auto now = std::chrono::steady_clock::now();
    if (m_fifo.take_time_base_notice()) {
        // The FIFO carried the stream across the jump; the jump is reported all the same.
        const std::string strError = m_fifo.get_error();
        m_print.print("kv_asi_renderer: %s\n", strError.c_str());
        m_statistics.set_last_error(strError);
        m_statistics.set_reset();
        if (m_watch.resets.begins(now)) {
            report(kv_asi_level::warning, kv_asi_topic::reset,
                   "Stream time jumped (" + strError + "); output carried on without a gap",
                   "the source restarted or spliced its clock without marking it");
        }
    }
    if (!m_fifo.is_reset()) {
        return true;
    }
    const std::string strError = m_fifo.get_error();
    m_print.print("kv_asi_renderer: %s\n", strError.c_str());
    m_statistics.set_last_error(strError);
    std::string strHint;
    if (m_fifo.is_underflow()) {
        m_alarmDispatcher.fifo_underflow_event();
        strHint =
            "the input stopped delivering (\"reset-when-empty\" is set); the underflow "
            "alarm was raised";
    }
    if (m_fifo.is_overflow()) {
        m_alarmDispatcher.fifo_overflow_event();
        strHint = "the FIFO (\"buffer-size\" " + std::to_string(m_nCapacity) +
                  " bytes) filled up: the input came faster than it played out, or the FIFO is "
                  "too small for the latency; the overflow alarm was raised";
    }
    if (m_watch.resets.begins(now)) {
        report(kv_asi_level::warning, kv_asi_topic::reset,
               "Output reset: " + strError + "; what was buffered is dropped", strHint);
    } else if (logs(kv_asi_level::debug)) {
        report(kv_asi_level::debug, kv_asi_topic::reset, "output reset: " + strError);
    }
    reset();
    return false;
}

void kv_asi_process_renderer::watch(bool bEos) {
    const auto now = std::chrono::steady_clock::now();
    watch_device(now);
    watch_timing(now, bEos);
    watch_rate();
}

void kv_asi_process_renderer::watch_device(std::chrono::steady_clock::time_point now) {
    watch_state& w = m_watch;
    // Device faults: each one counted, the last in the statistics' last error.
    const uint64_t nFaults = m_pDevice->get_fault_count();
    if (nFaults != w.nFaults) {
        w.nFaults = nFaults;
        w.bFaulty = true;
        const uint64_t n = nFaults - w.nFaultBase;
        const std::string strError = m_pDevice->get_error() + " (" + std::to_string(n) +
                                     " device fault" + (n == 1 ? ")" : "s)");
        m_statistics.set_last_error(strError);
        const int nErrno = m_pDevice->get_errno();
        // A node that went away has a warning of its own.
        if (!w.bGone && nErrno != ENODEV && w.faults.begins(now)) {
            report(kv_asi_level::warning, kv_asi_topic::device_fault,
                   "The ASI device failed: " + m_pDevice->get_error() +
                       "; retrying, at most a second apart",
                   kv_errno_hint(nErrno), nErrno);
        } else if (logs(kv_asi_level::debug)) {
            report(kv_asi_level::debug, kv_asi_topic::device_fault, strError + "; retrying");
        }
    }

    // Frames the board sent without data from us (the count restarts when the node is
    // opened again).
    const uint64_t nSkipFrames = m_pDevice->get_skip_frame();
    if (nSkipFrames > w.nSkipFrames && w.skipFrames.begins(now)) {
        report(kv_asi_level::warning, kv_asi_topic::skipped,
               "The board sent " + std::to_string(nSkipFrames - w.nSkipFrames) +
                   " frame(s) without data: output fell behind the line",
               "the machine is overloaded or the output thread was held up; more in the "
               "statistics (\"Skip HW frames\")");
    }
    w.nSkipFrames = nSkipFrames;
    if (m_nSkipPackets > w.nSkipPackets && w.skipPackets.begins(now)) {
        report(kv_asi_level::warning, kv_asi_topic::skipped,
               std::to_string(m_nSkipPackets - w.nSkipPackets) +
                   " transport packet(s) missed their frame and were dropped",
               "the stream is denser than the line at those moments, or output fell behind; "
               "more in the statistics (\"Skip TS packets\")");
    }
    w.nSkipPackets = m_nSkipPackets;
}

void kv_asi_process_renderer::watch_timing(std::chrono::steady_clock::time_point now, bool bEos) {
    watch_state& w = m_watch;
    // Data that cannot be timed: it arrives, but no PCR (or no usable stamp) comes.
    const bool bStamp = m_eTimeControl == mpegcore::stamp_time_type;
    const uint64_t nTimed =
        bStamp ? m_nUsableStamps.load(std::memory_order_relaxed) : m_fifo.get_anchor_count();
    const uint64_t nPushes = m_nPushes.load(std::memory_order_relaxed);
    if (nTimed != w.nTimed) {
        w.nTimed = nTimed;
        w.bUntimed = false;
        if (w.bNoTiming) {
            w.bNoTiming = false;
            report(kv_asi_level::info, kv_asi_topic::timing,
                   bStamp ? "Usable time stamps again" : "PCRs again");
        }
    } else if (nPushes != w.nPushes && !w.bUntimed) {
        w.bUntimed = true;
        w.tUntimedSince = now;
    }
    const bool bArriving = nPushes != w.nPushes;
    w.nPushes = nPushes;
    if (w.bUntimed && bArriving && !w.bNoTiming && !bEos &&
        now - w.tUntimedSince >= kTimingTimeout) {
        w.bNoTiming = true;
        if (bStamp) {
            report(kv_asi_level::warning, kv_asi_topic::timing,
                   "No usable time stamp for 2 s: buffers arrive without time stamps, or with "
                   "time stamps that do not move on; nothing can be played",
                   "put a time-stamping parser upstream (tsparse set-timestamps=true), or pace "
                   "by PCR (\"time-control\" 0)");
        } else {
            report(kv_asi_level::warning, kv_asi_topic::timing,
                   "No PCR for 2 s: the stream cannot be timed and nothing is played",
                   "play a stream that carries PCRs, or pace by buffer time stamps "
                   "(\"time-control\" 1)");
        }
    }
    if (w.bNoTiming) {
        m_alarmDispatcher.fifo_underflow_event();  // the line goes without the stream
    }
}

void kv_asi_process_renderer::watch_rate() {
    watch_state& w = m_watch;
    // A stream faster than the line loses packets whatever the latency.
    const int64_t nRate = m_fifo.get_rate();
    if (nRate > kLineRate) {
        m_alarmDispatcher.fifo_overflow_event();
        if (!w.bTooFast) {
            w.bTooFast = true;
            char text[160];
            std::snprintf(text, sizeof(text),
                          "The stream runs at %.3f Mbit/s, faster than the %.3f Mbit/s the line "
                          "carries: packets are dropped",
                          static_cast<double>(nRate) / 1e6, static_cast<double>(kLineRate) / 1e6);
            report(kv_asi_level::warning, kv_asi_topic::rate, text,
                   "the stream must be re-multiplexed to a lower rate");
        }
    } else if (nRate > 0 && w.bTooFast) {
        w.bTooFast = false;
        report(kv_asi_level::info, kv_asi_topic::rate,
               "The stream's rate is within the line's again");
    }

    // Once the rate is known: the FIFO must hold the latency's worth of it, plus the
    // packets still waiting for their time.
    if (!w.bCapacityChecked && nRate > 0) {
        w.bCapacityChecked = true;
        const int64_t nHold = m_nLatency + m_fifo.get_anchor_interval();
        const double dNeeded = static_cast<double>(nRate) / 8.0 * static_cast<double>(nHold) / 1e7;
        const size_t nUsable = m_nCapacity / kPacketSize * kPacketSize;
        if (static_cast<double>(nUsable) < dNeeded) {
            char text[256];
            std::snprintf(
                text, sizeof(text),
                "\"buffer-size\" %zu bytes holds %.0f ms of this %.1f Mbit/s stream, "
                "less than the %lld ms of latency: the FIFO overflows before output "
                "starts",
                m_nCapacity, static_cast<double>(nUsable) * 8e3 / static_cast<double>(nRate),
                static_cast<double>(nRate) / 1e6, static_cast<long long>(m_nLatency / 10000));
            char hint[128];
            std::snprintf(hint, sizeof(hint),
                          "set \"buffer-size\" to at least %.0f bytes, or lower \"latency\"",
                          dNeeded * 1.1);
            report(kv_asi_level::warning, kv_asi_topic::settings, text, hint);
        }
    }
}

std::chrono::milliseconds kv_asi_process_renderer::after_map_failed(
    std::chrono::milliseconds& errorWait) {
    // Nothing handed back yet, or a fault being retried: look again soon. A
    // failing driver is asked again less and less often, up to once a second.
    if (m_pDevice->map_waited()) {
        return kPollInterval;
    }
    if (m_pDevice->is_open() || m_pDevice->is_gone()) {
        m_print.print("kv_asi_renderer: m_pDevice->map() ERROR\n");
    }
    errorWait = std::min(kMaxRetryInterval, std::max(kPollInterval, errorWait * 2));
    if (m_pDevice->is_gone() || !m_pDevice->is_open()) {
        if (!m_watch.bGone) {
            m_watch.bGone = true;
            const int nErrno = m_pDevice->is_open() ? m_pDevice->get_errno() : ENODEV;
            report(kv_asi_level::warning, kv_asi_topic::device_gone,
                   "The ASI device " + m_strDeviceName + " went away (" + kv_errno_text(nErrno) +
                       "); it is opened again as soon as it is back",
                   kv_errno_hint(nErrno), nErrno);
        }
        // A node that went away is looked for once a second.
        errorWait = kMaxRetryInterval;
        reopen_device();
    } else if (logs(kv_asi_level::debug)) {
        report(kv_asi_level::debug, kv_asi_topic::device_fault,
               "device not ready (" + m_pDevice->get_error() + "); next try in " +
                   std::to_string(errorWait.count()) + " ms");
    }
    return errorWait;
}

void kv_asi_process_renderer::check_underflow(int64_t nFullness, bool bQuiet) {
    // Running dry: at most 1 % of the latency left. Checked on every pass, also
    // while the FIFO is filling up again, but not once the stream has ended.
    if (nFullness <= m_nLatency / 100 && !bQuiet) {
        m_alarmDispatcher.fifo_underflow_event();
        if (m_watch.underflow.begins(std::chrono::steady_clock::now())) {
            report(kv_asi_level::warning, kv_asi_topic::alarm,
                   "Output buffer underflow: the FIFO holds less than 1 % of the latency; "
                   "the underflow alarm was raised",
                   "the input is late or has stopped");
        }
    }
}

void kv_asi_process_renderer::work_thread(std::future<void>&& fExit) {
    using steady = std::chrono::steady_clock;
    const steady::time_point t0 = steady::now();
    const std::chrono::nanoseconds tWarmUp = m_tWarmUp;
    bool bWarmUp = true;
    std::chrono::milliseconds wait{0};
    std::chrono::milliseconds errorWait{0};  // grows while the device keeps failing
    uint32_t nFlushSeen = m_nFlush.load();
    mpegcore::kv_mpegts_items items;

    for (;;) {
        if (fExit.wait_for(wait) == std::future_status::ready) {
            break;
        }
        wait = std::chrono::milliseconds{0};
        if (bWarmUp) {
            bWarmUp = steady::now() - t0 <= tWarmUp;
        }
        // A flush drops the time line and the carry; the FIFO is emptied by flush_stop.
        const uint32_t nFlush = m_nFlush.load();
        if (nFlush != nFlushSeen || m_bFlushing) {
            nFlushSeen = nFlush;
            unanchor();
            m_bEosPosted = false;
            m_tLastDataEnd = 0;
        }
        const bool bEos = m_bEos;
        // Paused: finish a packet cut at the end of the last frame, then go idle.
        const bool bHold = m_bPaused || m_bFlushing;
        if (bHold && m_bAnchored && m_filler.get_carry_size() == 0) {
            unanchor();
        }

        const int64_t nFullness = m_fifo.get_fullness();
        m_statistics.set_fullnes_fifo_time(static_cast<uint64_t>(std::max<int64_t>(nFullness, 0)));
        check_underflow(nFullness, bWarmUp || bHold || bEos);
        watch(bEos);
        if (!check_fifo()) {
            wait = kPollInterval;
            continue;
        }

        const bool bEnding = bEos && !m_bEosPosted;
        if (!m_bAnchored && !m_pDevice->is_streaming() &&
            !may_anchor(nFullness, 0, bHold, bEnding)) {
            // Nothing to play yet: a device that has not started streaming waits too.
            wait = kPollInterval;
            continue;
        }

        wait = play_frame(nFullness, bHold, bEnding, errorWait, items);
    }
}

std::chrono::milliseconds kv_asi_process_renderer::play_frame(int64_t nFullness, bool bHold,
                                                              bool bEnding,
                                                              std::chrono::milliseconds& errorWait,
                                                              mpegcore::kv_mpegts_items& items) {
    kv_data_provider& provider = *m_pDevice;
    uint64_t tBegin = 0;
    uint64_t tEnd = 0;
    uint64_t nSize = 0;
    uint8_t* pData = nullptr;
    if (!provider.map(tBegin, tEnd, &pData, nSize)) {
        return after_map_failed(errorWait);
    }
    if (errorWait.count() > 0 || m_watch.bFaulty) {
        m_watch.bFaulty = false;
        report(kv_asi_level::info, kv_asi_topic::device_fault, "The ASI device works again");
    }
    errorWait = std::chrono::milliseconds{0};
    m_statistics.set_skip_hw_frame(m_pDevice->get_skip_frame());
    m_statistics.set_device_time(tEnd);
    unmap_guard guard(provider);
    const uint32_t nAhead = m_pDevice->frames_ahead();

    if (!m_bAnchored) {
        if (!may_anchor(nFullness, nAhead, bHold, bEnding)) {
            return {};  // the buffer goes out idle and keeps the line fed
        }
        anchor(tBegin, nAhead);
    }

    // The frame on the FIFO's time line; unsigned so that a wrap is defined.
    const uint64_t tFrameBegin = static_cast<uint64_t>(m_tStartFifo) + tBegin;
    const uint64_t tFrameEnd = static_cast<uint64_t>(m_tStartFifo) + tEnd;
    if (!bHold) {
        m_fifo.get_data(static_cast<int64_t>(tFrameBegin), static_cast<int64_t>(tFrameEnd), items);
    }
    m_statistics.set_stream_time(static_cast<uint64_t>(m_fifo.get_back_time()));

    if (logs(kv_asi_level::log)) {
        report(kv_asi_level::log, kv_asi_topic::state,
               "frame at " + std::to_string(tBegin) + ": " + std::to_string(items.size()) +
                   " packets, FIFO " + std::to_string(nFullness / 10000) + " ms");
    }
    if (!items.empty() || m_filler.get_carry_size() > 0) {
        if (fill_asi_data(tFrameBegin, tFrameEnd, pData, nSize, items)) {
            m_pDevice->set_data_size(nSize);
        }
        m_fifo.revert(items);
        m_tLastDataEnd = tEnd;
    }
    if (bEnding && is_played_out(tBegin, nAhead, tFrameEnd)) {
        m_bEosPosted = true;
        if (m_onEos) {
            m_onEos();
        }
    }
    return {};
}
