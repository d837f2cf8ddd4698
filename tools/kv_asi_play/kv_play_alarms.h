#pragma once

// The player's alarm manager: it holds the alarms the element registers and, polled by
// the player, reports each alarm that became active or inactive since the last poll.

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kv_asi_renderer/kv_i_alarm_manager.h"

namespace kv_asi_play {

// One alarm that changed its state.
struct alarm_change {
    bool bActive = false;
    std::string strMessage;  // the alarm's log line
};

// register_alarm and unregister_alarm come from the element (with its dispatcher lock
// held) on the application thread; poll comes from the player's thread. They meet under
// m_cs only; nothing here calls back into the element.
class play_alarm_manager : public kv_i_alarm_manager {
public:
    void register_alarm(std::shared_ptr<kv_i_alarm_event> alarm) override;
    // Unknown alarms are ignored: the element may unregister one twice.
    void unregister_alarm(std::shared_ptr<kv_i_alarm_event> alarm) override;

    // Re-evaluates every held alarm (check, then active) and returns those whose active
    // state differs from the last poll, in key order. An alarm registered while active
    // is reported at the first poll.
    std::vector<alarm_change> poll();

    size_t size() const;
    // Occurrences counted so far by the held alarms of this source and code.
    uint32_t count(const std::string& source, KVAlarmCode code) const;

private:
    struct entry {
        std::shared_ptr<kv_i_alarm_event> alarm;
        bool bActive = false;  // as last reported
    };

    mutable std::mutex m_cs;
    std::map<std::string, entry> m_alarms;  // by the alarm's hash key
};

}  // namespace kv_asi_play
