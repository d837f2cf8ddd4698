#include "kv_play_alarms.h"

#include <utility>

namespace kv_asi_play {

void play_alarm_manager::register_alarm(std::shared_ptr<kv_i_alarm_event> alarm) {
    if (!alarm) {
        return;
    }
    std::string key = alarm->hash();
    std::lock_guard<std::mutex> lock(m_cs);
    entry& e = m_alarms[std::move(key)];
    if (e.alarm != alarm) {
        e.alarm = std::move(alarm);
        e.bActive = false;
    }
}

void play_alarm_manager::unregister_alarm(std::shared_ptr<kv_i_alarm_event> alarm) {
    if (!alarm) {
        return;
    }
    const std::string key = alarm->hash();
    std::lock_guard<std::mutex> lock(m_cs);
    const auto it = m_alarms.find(key);
    if (it != m_alarms.end() && it->second.alarm == alarm) {
        m_alarms.erase(it);
    }
}

std::vector<alarm_change> play_alarm_manager::poll() {
    std::vector<alarm_change> changes;
    std::lock_guard<std::mutex> lock(m_cs);
    for (auto& item : m_alarms) {
        entry& e = item.second;
        // check() ends the active spell once the hold period has passed.
        e.alarm->check();
        const bool bActive = e.alarm->active();
        if (bActive != e.bActive) {
            e.bActive = bActive;
            changes.push_back({bActive, e.alarm->get_log_message()});
        }
    }
    return changes;
}

size_t play_alarm_manager::size() const {
    std::lock_guard<std::mutex> lock(m_cs);
    return m_alarms.size();
}

uint32_t play_alarm_manager::count(const std::string& source, KVAlarmCode code) const {
    std::lock_guard<std::mutex> lock(m_cs);
    uint32_t n = 0;
    for (const auto& item : m_alarms) {
        const kv_alarm_data d = item.second.alarm->get_data();
        if (d.source == source && d.code == code) {
            n += d.count;
        }
    }
    return n;
}

}  // namespace kv_asi_play
