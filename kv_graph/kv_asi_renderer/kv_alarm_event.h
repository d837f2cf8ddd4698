#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>

#include "kv_asi_renderer/kv_alarm_types.h"

// Where alarm counters read the time: a steady clock for hold periods and the wall
// clock for registration stamps. Tests hand counters a clock of their own.
class kv_alarm_clock {
public:
    virtual ~kv_alarm_clock() = default;
    virtual std::chrono::steady_clock::time_point steady_now() const;
    virtual time_t wall_now() const;

    // The system clocks; lives for the whole process.
    static const kv_alarm_clock& system();
};

// An alarm that counts occurrences and stays active for a hold period after the last
// one. Once fired, check() answers true until reset(); only `active` lapses.
//
// event() comes from the output engine's thread, the other operations from the host's.
class kv_alarm_counter : public kv_i_alarm_event {
public:
    // The key is a hash of code, level, source and description, so equal arguments
    // give equal keys. `clock` must outlive the counter.
    kv_alarm_counter(const std::chrono::seconds& period, KVAlarmCode code, KVAlarmLevel level,
                     const std::string& source, const std::string& description,
                     uint32_t stream_type, uint32_t stream_pid,
                     const kv_alarm_clock& clock = kv_alarm_clock::system());
    ~kv_alarm_counter() override = default;

    bool check() override;
    void reset() override;
    void event(long n) override;
    bool active() override;
    std::string hash() override;
    // "code=120, level=2, reg_time=05.03.2024 14:07:09, source=out1,
    // description=Output buffer underflow, count=3" (one line).
    std::string get_log_message() override;

    bool is_alarm() const { return m_bAlarm.load(); }
    std::chrono::seconds duration() const { return m_duration; }

private:
    std::atomic<std::chrono::steady_clock::time_point> m_time_point;
    std::chrono::seconds m_duration;
    std::atomic<bool> m_bAlarm{false};
    const kv_alarm_clock* m_pClock;
};

// A sibling of kv_alarm_counter for other components, with the same behaviour. The
// renderer itself only creates counters.
class kv_alarm_event : public kv_alarm_counter {
public:
    using kv_alarm_counter::kv_alarm_counter;
};
