#pragma once

// The host's alarm manager as the renderer sees it. The host implements it and hands
// it to the element through the "alarm-manager" property; the renderer never creates
// or destroys one. Installed for hosts; includes nothing but the standard library.

#include <memory>

#include "kv_asi_renderer/kv_alarm_types.h"

// The order of the virtual operations is part of the contract with separately built
// hosts: never reorder, insert or remove one. Both operations are called with the
// dispatcher's lock held, so a manager must not call back into the element from inside
// them.
class kv_i_alarm_manager {
public:
    // Never called by the renderer.
    virtual ~kv_i_alarm_manager() = default;
    // From now on the manager may poll the alarm whenever it likes; it shares ownership.
    virtual void register_alarm(std::shared_ptr<kv_i_alarm_event> alarm) = 0;
    // The manager must stop using the alarm and drop its references. It may be called
    // for an alarm the manager no longer holds and must tolerate that.
    virtual void unregister_alarm(std::shared_ptr<kv_i_alarm_event> alarm) = 0;
};
