#include "kv_asi_renderer/kv_alarm_event.h"

#include <functional>

#include "kvcore/kv_string.h"

std::chrono::steady_clock::time_point kv_alarm_clock::steady_now() const {
    return std::chrono::steady_clock::now();
}

time_t kv_alarm_clock::wall_now() const {
    return time(nullptr);
}

const kv_alarm_clock& kv_alarm_clock::system() {
    static const kv_alarm_clock clock;
    return clock;
}

kv_alarm_counter::kv_alarm_counter(const std::chrono::seconds& period, KVAlarmCode code,
                                   KVAlarmLevel level, const std::string& source,
                                   const std::string& description, uint32_t stream_type,
                                   uint32_t stream_pid, const kv_alarm_clock& clock)
    : m_time_point(clock.steady_now()), m_duration(period), m_pClock(&clock) {
    const std::string key = std::to_string(static_cast<int32_t>(code)) +
                            std::to_string(static_cast<int32_t>(level)) + source + description;
    m_data.hash = std::to_string(static_cast<uint64_t>(std::hash<std::string>{}(key)));
    m_data.code = code;
    m_data.level = level;
    m_data.source = source;
    m_data.description = description;
    m_data.stream_type = stream_type;
    m_data.stream_pid = stream_pid;
}

bool kv_alarm_counter::check() {
    if (!m_bAlarm.load()) {
        return false;
    }
    // Taken under the lock so that an event() cannot slip in between reading its time
    // and clearing `active`.
    std::lock_guard<std::mutex> lock(m_csData);
    const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(m_pClock->steady_now() -
                                                                          m_time_point.load());
    if (elapsed > m_duration) {
        m_data.active = false;
    }
    return m_bAlarm.load();
}

void kv_alarm_counter::reset() {
    std::lock_guard<std::mutex> lock(m_csData);
    m_time_point.exchange(m_pClock->steady_now());
    m_data.active = false;
    m_data.count = 0;
    m_bAlarm.exchange(false);
}

void kv_alarm_counter::event(long n) {
    std::lock_guard<std::mutex> lock(m_csData);
    m_time_point.exchange(m_pClock->steady_now());
    m_bAlarm.exchange(true);
    if (!m_data.active) {
        // Marks the start of an active spell, not each occurrence.
        m_data.reg_time = KVSDK::toString("dd.MM.yyyy hh:mm:ss", m_pClock->wall_now(), true);
    }
    m_data.count += static_cast<uint32_t>(n);
    m_data.active = true;
}

bool kv_alarm_counter::active() {
    std::lock_guard<std::mutex> lock(m_csData);
    return m_data.active;
}

// Set once by the constructor and never written again, so no lock is needed.
std::string kv_alarm_counter::hash() {
    return m_data.hash;
}

std::string kv_alarm_counter::get_log_message() {
    const kv_alarm_data data = get_data();
    return "code=" + std::to_string(static_cast<int32_t>(data.code)) +
           ", level=" + std::to_string(static_cast<int32_t>(data.level)) +
           ", reg_time=" + data.reg_time + ", source=" + data.source +
           ", description=" + data.description + ", count=" + std::to_string(data.count);
}
