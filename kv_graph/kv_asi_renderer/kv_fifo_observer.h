#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

// A watchdog for an output FIFO. The producer reports the newest stream time it has
// stored (before and after the PLL), the consumer the time up to which it has sent; once
// the sender has been ahead of the stored data for longer than the latency, the observer
// asks for a reset ("Fifo underflow"). The owner polls isReset() and get_last_error().
//
// Times are in 100 ns units and only compared. The producer and the consumer may
// report from different threads: m_cs guards every member.
class kv_fifo_observer {
public:
    using clock_fn = std::function<std::chrono::steady_clock::time_point()>;

    // `now` measures how long an underflow lasts; tests hand in a clock of their own.
    explicit kv_fifo_observer(clock_fn now = &std::chrono::steady_clock::now)
        : m_now(std::move(now)) {}

    kv_fifo_observer(const kv_fifo_observer&) = delete;
    kv_fifo_observer& operator=(const kv_fifo_observer&) = delete;

    // Stores the latency and the capacity and forgets the reported times. An underflow
    // in progress, a pending reset request and the error text are kept.
    void init(uint64_t nLatencyMS, size_t nCapacity);
    void add_data(uint64_t nDeviceTime, uint64_t nStreamTime, uint64_t nStreamTimeAfterPLL);
    void send_data(uint64_t nSendTime);
    // Clears the reset request, the error text and the reported-data flags. An underflow
    // in progress goes on; only a report with the sender behind the stored data ends it.
    void reset();

    void set_reset() {
        std::lock_guard<std::mutex> lock(m_cs);
        m_bNeedReset = true;
    }
    bool isReset() const {
        std::lock_guard<std::mutex> lock(m_cs);
        return m_bNeedReset;
    }
    std::string get_last_error() const {
        std::lock_guard<std::mutex> lock(m_cs);
        return m_strLastError;
    }

private:
    // Call with m_cs held, once both sides have reported.
    void check();

    mutable std::mutex m_cs;
    clock_fn m_now;
    uint64_t m_nLatencyMS = 0;
    size_t m_nCapacity = 0;
    uint64_t m_nDeviceTime = 0;
    uint64_t m_nStreamTime = 0;
    uint64_t m_nStreamTimeAfterPLL = 0;
    uint64_t n_nSendTime = 0;
    bool m_bAddData = false;
    bool m_bSendData = false;
    bool m_bUnderflow = false;
    std::chrono::steady_clock::time_point m_tUnderflowStart{};
    bool m_bNeedReset = false;
    std::string m_strLastError;
};
