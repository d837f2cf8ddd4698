#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kv_asi_renderer/kv_alarm_types.h"
#include "kv_asi_renderer/kv_i_alarm_manager.h"

// A keyed set of alarms and its link to the host's alarm manager. While a manager is
// set and the set counts as handed over (m_bRegistered), every alarm of the set is
// registered with the manager; alarms added or removed meanwhile are registered or
// unregistered one by one.
//
// m_cs guards every member and is held across each call into the manager.
class kv_base_alarms_helper {
public:
    kv_base_alarms_helper() = default;
    kv_base_alarms_helper(const kv_base_alarms_helper&) = delete;
    kv_base_alarms_helper& operator=(const kv_base_alarms_helper&) = delete;

    // Hands the set over: registers it with the manager if one is set. Without a manager
    // the set still counts as handed over, so a manager set later gets nothing until the
    // next stop() and start().
    void start();
    // Takes the set back from the manager.
    void stop();

    // Adds an alarm unless one with the same key is present; returns the one kept.
    std::shared_ptr<kv_i_alarm_event> add_alarm(std::shared_ptr<kv_i_alarm_event> alarm);
    // Makes a counter and adds it; an existing alarm with the same key wins and the new
    // counter is dropped.
    std::shared_ptr<kv_i_alarm_event> add_alarm_counter(const std::chrono::seconds& period,
                                                        KVAlarmCode code, KVAlarmLevel level,
                                                        const std::string& source,
                                                        const std::string& description,
                                                        uint32_t stream_type, uint32_t stream_pid);
    void remove_alarm(std::shared_ptr<kv_i_alarm_event> alarm);

    // Moves the set from the old manager to the new one; null is allowed.
    void set_alarm_manager(kv_i_alarm_manager* manager);

    // Registers or unregisters one alarm with the current manager, if any, whatever
    // the state of the set.
    void reg_alarm(std::shared_ptr<kv_i_alarm_event> alarm);
    void unreg_alarm(std::shared_ptr<kv_i_alarm_event> alarm);

    // The log lines of all alarms, in key order.
    std::vector<std::string> get_log() const;

private:
    // Call with m_cs held and a manager set.
    void reg_alarms();
    void unreg_alarms();
    std::shared_ptr<kv_i_alarm_event> insert_locked(std::shared_ptr<kv_i_alarm_event> alarm);

    mutable std::mutex m_cs;
    std::map<std::string, std::shared_ptr<kv_i_alarm_event>> m_mapAlarms;
    bool m_bRegistered = false;
    kv_i_alarm_manager* m_p_alarm_manager = nullptr;
};

// The renderer's alarms: an output-buffer underflow and an output-buffer overflow
// counter, made by start() and handed to the host's alarm manager.
//
// set_source_name, start and stop come from the element's property setters and state
// changes, which the element serialises. The two event calls come from the output
// thread and may race with start and stop.
class kv_alarms_dispatcher {
public:
    kv_alarms_dispatcher() = default;
    kv_alarms_dispatcher(const kv_alarms_dispatcher&) = delete;
    kv_alarms_dispatcher& operator=(const kv_alarms_dispatcher&) = delete;

    // Applies to counters made by later start() calls.
    void set_source_name(const std::string& name) { m_strSourceName = name; }
    std::string get_source_name() const { return m_strSourceName; }

    void set_alarm_manager(kv_i_alarm_manager* manager) {
        m_alarm_helper.set_alarm_manager(manager);
    }

    // Makes both counters and hands the set to the manager. Does nothing without a source
    // name. Counters kept from an earlier start are reused (they were reset by stop).
    void start();
    // Takes the counters back from the manager and resets them; they stay in the set.
    // A counter may be unregistered twice.
    void stop();

    // One occurrence each; nothing happens outside start() ... stop().
    void fifo_underflow_event();
    void fifo_overflow_event();

private:
    void add_alarm_counter(const std::chrono::seconds& period, KVAlarmCode code, KVAlarmLevel level,
                           const std::string& source, const std::string& description,
                           std::shared_ptr<kv_i_alarm_event>& slot);
    void release_slot(std::shared_ptr<kv_i_alarm_event>& slot);

    std::string m_strSourceName;
    kv_base_alarms_helper m_alarm_helper;
    // Read by the output thread and written by start()/stop(): accessed only through
    // std::atomic_load/std::atomic_store.
    std::shared_ptr<kv_i_alarm_event> m_aUnderflow;
    std::shared_ptr<kv_i_alarm_event> m_aOverflow;
};
