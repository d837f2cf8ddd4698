#include "kv_asi_renderer/kv_asi_process_renderer.h"

#include <glib.h>

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
    m_nLatency = nLatencyMs * 10000;
    m_filler.reset();
    m_strDeviceName = name;

    if (!m_pDevice->open_device(name)) {
        g_print("kv_asi_renderer: Can't open device, %s\n", name.c_str());
        deinit();
        return false;
    }
    // With PLL pacing the FIFO locks stream time to the board's clock; it shares the
    // device's ownership because it may read the clock from the streaming thread.
    std::shared_ptr<mpegcore::kv_clock> pClock;
    if (bPLL) {
        pClock = m_pDevice;
    }
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
}

bool kv_asi_process_renderer::start() {
    if (m_thread.joinable()) {
        // The running thread owns the state cleared below.
        std::terminate();
    }
    m_filler.reset();
    m_tStartFifo = 0;
    m_tStartTime = 0;
    m_statistics.reset();

    if (!m_pDevice->is_open()) {
        g_print("kv_asi_renderer: The device has not been opened\n");
        return false;
    }
    // The alarms first: the thread's first pass may already raise one, for instance
    // for a FIFO that overflowed while the element was paused.
    m_alarmDispatcher.start();
    m_fExit = std::make_shared<std::promise<void>>();
    m_thread = std::thread(&kv_asi_process_renderer::work_thread, this, m_fExit->get_future());
    return true;
}

void kv_asi_process_renderer::stop() {
    m_alarmDispatcher.stop();
    if (m_thread.joinable()) {
        m_fExit->set_value();
        m_thread.join();
        m_fExit.reset();
    }
    // Cleared once the thread is gone, which owned it until now; the next start
    // clears it again anyway.
    m_filler.clear_carry();
}

void kv_asi_process_renderer::reset() {
    if (m_pDevice->is_open()) {
        // A fresh device: counters and frame numbers from 0, streaming at once so that
        // priming starts over.
        m_pDevice->close_device();
        m_pDevice->open_device(m_strDeviceName);
        m_pDevice->start();
    }
    m_fifo.reset();
    m_statistics.set_reset();
    m_filler.reset();
    m_tStartFifo = 0;
    m_tStartTime = 0;
}

void kv_asi_process_renderer::push_data(int64_t tTime, const uint8_t* pData, size_t nSize) {
    m_fifo.push_data(tTime, pData, nSize);
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
    m_filler.fill_asi_data(tBegin, tEnd, pData, nSize, nSamples, items, m_nSkipped);
    const uint64_t nSkipped = m_nSkipped.exchange(0, std::memory_order_relaxed);
    if (nSkipped > 0) {
        m_statistics.add_skip_ts_packets(nSkipped);
    }
    return true;
}

void kv_asi_process_renderer::work_thread(std::future<void>&& fExit) {
    using steady = std::chrono::steady_clock;
    const steady::time_point t0 = steady::now();
    const std::chrono::nanoseconds tWarmUp = m_tWarmUp;
    bool bWarmUp = true;
    bool bStarted = false;
    std::chrono::milliseconds wait{0};
    mpegcore::kv_mpegts_items items;
    kv_data_provider& provider = *m_pDevice;

    for (;;) {
        if (fExit.wait_for(wait) == std::future_status::ready) {
            break;
        }
        if (bWarmUp) {
            bWarmUp = steady::now() - t0 <= tWarmUp;
        }

        const int64_t nFullness = m_fifo.get_fullness();
        m_statistics.set_fullnes_fifo_time(static_cast<uint64_t>(nFullness));
        // Running dry: at most 1 % of the latency left. Checked on every pass, also
        // while the FIFO is filling up again.
        if (nFullness <= m_nLatency / 100 && !bWarmUp) {
            m_alarmDispatcher.fifo_underflow_event();
        }

        if (m_fifo.is_reset()) {
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
            bStarted = false;
            wait = kPollInterval;
            continue;
        }

        if (!bStarted) {
            if (m_nLatency > nFullness) {
                wait = kPollInterval;  // still filling
                continue;
            }
            m_tStartFifo = m_fifo.get_front_time();
            m_tStartTime = m_pDevice->get_clock_time();
        }

        uint64_t tBegin = 0;
        uint64_t tEnd = 0;
        uint64_t nSize = 0;
        uint8_t* pData = nullptr;
        const bool bMapped = provider.map(tBegin, tEnd, &pData, nSize);
        bStarted = true;
        if (!bMapped) {
            g_print("kv_asi_renderer: m_pDevice->map() ERROR\n");
            wait = kPollInterval;
            continue;
        }
        m_statistics.set_skip_hw_frame(m_pDevice->get_skip_frame());
        unmap_guard guard(provider);

        // The frame on the FIFO's time line; unsigned so that a wrap is defined.
        const uint64_t tFrameBegin = static_cast<uint64_t>(m_tStartFifo) + tBegin;
        const uint64_t tFrameEnd = static_cast<uint64_t>(m_tStartFifo) + tEnd;
        m_fifo.get_data(static_cast<int64_t>(tFrameBegin), static_cast<int64_t>(tFrameEnd), items);
        m_statistics.set_device_time(tEnd);
        m_statistics.set_stream_time(static_cast<uint64_t>(m_fifo.get_back_time()));

        if (items.empty()) {
            // Nothing due: the buffer goes out idle (unmap zeroes what was not filled).
            // A carried packet waits for the next frame with data.
            guard.release();
            wait = kPollInterval;
            continue;
        }

        if (fill_asi_data(tFrameBegin, tFrameEnd, pData, nSize, items)) {
            m_pDevice->set_data_size(nSize);
        }
        m_fifo.revert(items);
        guard.release();
        wait = std::chrono::milliseconds{0};
    }
}
