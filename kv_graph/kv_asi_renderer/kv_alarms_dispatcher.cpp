#include "kv_asi_renderer/kv_alarms_dispatcher.h"

#include <utility>

#include "kv_asi_renderer/kv_alarm_event.h"

namespace {

using lock_t = std::lock_guard<std::mutex>;

const std::chrono::seconds kHoldPeriod{1};

}  // namespace

void kv_base_alarms_helper::start() {
    lock_t lock(m_cs);
    if (m_bRegistered) {
        return;
    }
    if (m_p_alarm_manager != nullptr) {
        reg_alarms();
    }
    m_bRegistered = true;
}

void kv_base_alarms_helper::stop() {
    lock_t lock(m_cs);
    if (!m_bRegistered) {
        return;
    }
    if (m_p_alarm_manager != nullptr) {
        unreg_alarms();
    }
    m_bRegistered = false;
}

std::shared_ptr<kv_i_alarm_event> kv_base_alarms_helper::add_alarm(
    std::shared_ptr<kv_i_alarm_event> alarm) {
    lock_t lock(m_cs);
    return insert_locked(std::move(alarm));
}

std::shared_ptr<kv_i_alarm_event> kv_base_alarms_helper::add_alarm_counter(
    const std::chrono::seconds& period, KVAlarmCode code, KVAlarmLevel level,
    const std::string& source, const std::string& description, uint32_t stream_type,
    uint32_t stream_pid) {
    // Built outside the lock; dropped again if the key is already taken.
    auto alarm = std::make_shared<kv_alarm_counter>(period, code, level, source, description,
                                                    stream_type, stream_pid);
    lock_t lock(m_cs);
    return insert_locked(std::move(alarm));
}

std::shared_ptr<kv_i_alarm_event> kv_base_alarms_helper::insert_locked(
    std::shared_ptr<kv_i_alarm_event> alarm) {
    std::string key = alarm->hash();
    auto found = m_mapAlarms.find(key);
    if (found != m_mapAlarms.end()) {
        return found->second;
    }
    if (m_bRegistered && m_p_alarm_manager != nullptr) {
        m_p_alarm_manager->register_alarm(alarm);
    }
    m_mapAlarms.emplace(std::move(key), alarm);
    return alarm;
}

void kv_base_alarms_helper::remove_alarm(std::shared_ptr<kv_i_alarm_event> alarm) {
    lock_t lock(m_cs);
    auto found = m_mapAlarms.find(alarm->hash());
    if (found == m_mapAlarms.end()) {
        return;
    }
    if (m_bRegistered && m_p_alarm_manager != nullptr) {
        m_p_alarm_manager->unregister_alarm(alarm);
    }
    m_mapAlarms.erase(found);
}

void kv_base_alarms_helper::set_alarm_manager(kv_i_alarm_manager* manager) {
    lock_t lock(m_cs);
    if (manager == m_p_alarm_manager) {
        return;
    }
    if (m_p_alarm_manager != nullptr && m_bRegistered) {
        unreg_alarms();
        m_bRegistered = false;
    }
    m_p_alarm_manager = manager;
    if (m_p_alarm_manager != nullptr && !m_bRegistered) {
        reg_alarms();
        m_bRegistered = true;
    }
}

void kv_base_alarms_helper::reg_alarm(std::shared_ptr<kv_i_alarm_event> alarm) {
    lock_t lock(m_cs);
    if (m_p_alarm_manager != nullptr) {
        m_p_alarm_manager->register_alarm(std::move(alarm));
    }
}

void kv_base_alarms_helper::unreg_alarm(std::shared_ptr<kv_i_alarm_event> alarm) {
    lock_t lock(m_cs);
    if (m_p_alarm_manager != nullptr) {
        m_p_alarm_manager->unregister_alarm(std::move(alarm));
    }
}

std::vector<std::string> kv_base_alarms_helper::get_log() const {
    lock_t lock(m_cs);
    std::vector<std::string> lines;
    lines.reserve(m_mapAlarms.size());
    for (const auto& item : m_mapAlarms) {
        lines.push_back(item.second->get_log_message());
    }
    return lines;
}

void kv_base_alarms_helper::reg_alarms() {
    for (const auto& item : m_mapAlarms) {
        m_p_alarm_manager->register_alarm(item.second);
    }
}

void kv_base_alarms_helper::unreg_alarms() {
    for (const auto& item : m_mapAlarms) {
        m_p_alarm_manager->unregister_alarm(item.second);
    }
}

void kv_alarms_dispatcher::start() {
    if (m_strSourceName.empty()) {
        return;
    }
    add_alarm_counter(kHoldPeriod, eAlarmRemuxerOutputUnderflow, kv_error_alarm, m_strSourceName,
                      "Output buffer underflow", m_aUnderflow);
    add_alarm_counter(kHoldPeriod, eAlarmRemuxerOutputOverflow, kv_error_alarm, m_strSourceName,
                      "Output buffer overflow", m_aOverflow);
    m_alarm_helper.start();
}

void kv_alarms_dispatcher::stop() {
    release_slot(m_aUnderflow);
    release_slot(m_aOverflow);
    m_alarm_helper.stop();
}

void kv_alarms_dispatcher::fifo_underflow_event() {
    if (auto alarm = std::atomic_load(&m_aUnderflow)) {
        alarm->event(1);
    }
}

void kv_alarms_dispatcher::fifo_overflow_event() {
    if (auto alarm = std::atomic_load(&m_aOverflow)) {
        alarm->event(1);
    }
}

void kv_alarms_dispatcher::add_alarm_counter(const std::chrono::seconds& period, KVAlarmCode code,
                                             KVAlarmLevel level, const std::string& source,
                                             const std::string& description,
                                             std::shared_ptr<kv_i_alarm_event>& slot) {
    if (auto previous = std::atomic_load(&slot)) {
        m_alarm_helper.remove_alarm(std::move(previous));
    }
    std::atomic_store(
        &slot, m_alarm_helper.add_alarm_counter(period, code, level, source, description, 0, 0));
}

void kv_alarms_dispatcher::release_slot(std::shared_ptr<kv_i_alarm_event>& slot) {
    // Emptied first so that the output thread stops raising events on a counter that
    // is about to be reset.
    auto alarm = std::atomic_exchange(&slot, std::shared_ptr<kv_i_alarm_event>());
    if (!alarm) {
        return;
    }
    m_alarm_helper.unreg_alarm(alarm);
    alarm->reset();
}
