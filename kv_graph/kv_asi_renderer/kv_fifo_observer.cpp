#include "kv_asi_renderer/kv_fifo_observer.h"

namespace {
using lock_t = std::lock_guard<std::mutex>;
}  // namespace

void kv_fifo_observer::init(uint64_t nLatencyMS, size_t nCapacity) {
    lock_t lock(m_cs);
    m_nLatencyMS = nLatencyMS;
    m_nCapacity = nCapacity;
    m_nDeviceTime = 0;
    m_nStreamTime = 0;
    m_nStreamTimeAfterPLL = 0;
    n_nSendTime = 0;
    m_bAddData = false;
    m_bSendData = false;
}

void kv_fifo_observer::add_data(uint64_t nDeviceTime, uint64_t nStreamTime,
                                uint64_t nStreamTimeAfterPLL) {
    lock_t lock(m_cs);
    m_nDeviceTime = nDeviceTime;
    m_nStreamTime = nStreamTime;
    m_nStreamTimeAfterPLL = nStreamTimeAfterPLL;
    m_bAddData = true;
    if (m_bSendData) {
        check();
    }
}

void kv_fifo_observer::send_data(uint64_t nSendTime) {
    lock_t lock(m_cs);
    n_nSendTime = nSendTime;
    m_bSendData = true;
    if (m_bAddData) {
        check();
    }
}

void kv_fifo_observer::reset() {
    lock_t lock(m_cs);
    m_bNeedReset = false;
    m_bAddData = false;
    m_bSendData = false;
    m_strLastError.clear();
}

void kv_fifo_observer::check() {
    if (n_nSendTime <= m_nStreamTimeAfterPLL) {
        m_bUnderflow = false;
        return;
    }
    const auto now = m_now();
    if (m_bUnderflow) {
        // Whole milliseconds, truncated: exactly the latency is still tolerated.
        const auto lasted =
            std::chrono::duration_cast<std::chrono::milliseconds>(now - m_tUnderflowStart);
        if (lasted.count() > 0 && static_cast<uint64_t>(lasted.count()) > m_nLatencyMS) {
            m_bNeedReset = true;
            m_strLastError = "Fifo underflow";
        }
    } else {
        m_tUnderflowStart = now;
    }
    m_bUnderflow = true;
}
