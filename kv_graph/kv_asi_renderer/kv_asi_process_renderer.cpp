#include "kv_asi_renderer/kv_asi_process_renderer.h"

#include <glib.h>

#include <algorithm>
#include <exception>
#include <utility>

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

    if (!m_pDevice->open_device(name)) {
        g_print("kv_asi_renderer: Can't open device, %s\n", name.c_str());
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
        deinit();
        return false;
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
    m_fifo.push_data(tTime, pData, nSize);
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
    if (m_fifo.take_time_base_notice()) {
        // The FIFO carried the stream across the jump; the jump is reported all the same.
        const std::string strError = m_fifo.get_error();
        g_print("kv_asi_renderer: %s\n", strError.c_str());
        m_statistics.set_last_error(strError);
        m_statistics.set_reset();
    }
    if (!m_fifo.is_reset()) {
        return true;
    }
    const std::string strError = m_fifo.get_error();
    g_print("kv_asi_renderer: %s\n", strError.c_str());
    m_statistics.set_last_error(strError);
    if (m_fifo.is_underflow()) {
        m_alarmDispatcher.fifo_underflow_event();
    }
    if (m_fifo.is_overflow()) {
        m_alarmDispatcher.fifo_overflow_event();
    }
    reset();
    return false;
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
    kv_data_provider& provider = *m_pDevice;

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
        // Running dry: at most 1 % of the latency left. Checked on every pass, also
        // while the FIFO is filling up again, but not once the stream has ended.
        if (nFullness <= m_nLatency / 100 && !bWarmUp && !bHold && !bEos) {
            m_alarmDispatcher.fifo_underflow_event();
        }
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

        uint64_t tBegin = 0;
        uint64_t tEnd = 0;
        uint64_t nSize = 0;
        uint8_t* pData = nullptr;
        if (!provider.map(tBegin, tEnd, &pData, nSize)) {
            // Nothing handed back yet, or a fault being retried: look again soon. A
            // failing driver is asked again less and less often, up to once a second.
            if (m_pDevice->map_waited()) {
                wait = kPollInterval;
                continue;
            }
            if (m_pDevice->is_open() || m_pDevice->is_gone()) {
                g_print("kv_asi_renderer: m_pDevice->map() ERROR\n");
            }
            errorWait = std::min(kMaxRetryInterval, std::max(kPollInterval, errorWait * 2));
            wait = errorWait;
            if (m_pDevice->is_gone() || !m_pDevice->is_open()) {
                reopen_device();
            }
            continue;
        }
        errorWait = std::chrono::milliseconds{0};
        m_statistics.set_skip_hw_frame(m_pDevice->get_skip_frame());
        m_statistics.set_device_time(tEnd);
        unmap_guard guard(provider);
        const uint32_t nAhead = m_pDevice->frames_ahead();

        if (!m_bAnchored) {
            if (!may_anchor(nFullness, nAhead, bHold, bEnding)) {
                continue;  // the buffer goes out idle and keeps the line fed
            }
            anchor(tBegin, nAhead);
        }

        // The frame on the FIFO's time line; unsigned so that a wrap is defined.
        const uint64_t tFrameBegin = static_cast<uint64_t>(m_tStartFifo) + tBegin;
        const uint64_t tFrameEnd = static_cast<uint64_t>(m_tStartFifo) + tEnd;
        if (!bHold) {
            m_fifo.get_data(static_cast<int64_t>(tFrameBegin), static_cast<int64_t>(tFrameEnd),
                            items);
        }
        m_statistics.set_stream_time(static_cast<uint64_t>(m_fifo.get_back_time()));

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
    }
}
