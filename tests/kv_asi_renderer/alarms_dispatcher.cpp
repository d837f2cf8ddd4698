#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "kv_asi_renderer/kv_alarms_dispatcher.h"

namespace {

using alarm_ptr = std::shared_ptr<kv_i_alarm_event>;

// Writes every call as "+u" / "-o" (register / unregister, underflow / overflow) and
// keeps the alarm last seen under each letter.
struct recorder : kv_i_alarm_manager {
    void register_alarm(alarm_ptr alarm) override { last[note('+', alarm)] = alarm; }
    void unregister_alarm(alarm_ptr alarm) override { last[note('-', alarm)] = alarm; }

    char note(char sign, const alarm_ptr& alarm) {
        const char name = alarm->get_data().code == eAlarmRemuxerOutputUnderflow ? 'u' : 'o';
        calls += {sign, name};
        return name;
    }
    std::string take() { return std::exchange(calls, ""); }
    // Calls for the whole set, which goes in key order.
    std::string all(char sign) {
        return last['u']->hash() < last['o']->hash() ? std::string{sign, 'u', sign, 'o'}
                                                     : std::string{sign, 'o', sign, 'u'};
    }

    std::string calls;
    std::map<char, alarm_ptr> last;
};

struct dispatcher : kv_alarms_dispatcher {
    explicit dispatcher(kv_i_alarm_manager* manager) {
        set_source_name("out1");
        set_alarm_manager(manager);
    }
};

}  // namespace

TEST(AlarmsDispatcher, ManagerSetBeforeStartAcrossRestarts) {
    recorder host;
    dispatcher alarms(&host);
    alarms.start();
    EXPECT_EQ(host.take(), "+u+o");
    const alarm_ptr u = host.last['u'];
    EXPECT_EQ(u->get_data().source, "out1");
    EXPECT_EQ(u->get_data().level, kv_error_alarm);

    alarms.fifo_underflow_event();
    alarms.fifo_underflow_event();
    alarms.fifo_overflow_event();
    EXPECT_EQ(u->get_data().count, 2u);
    EXPECT_EQ(host.last['o']->get_data().count, 1u);

    // Each slot is unregistered, then the whole set: both counters twice.
    alarms.stop();
    EXPECT_EQ(host.take(), "-u-o" + host.all('-'));
    alarms.fifo_underflow_event();  // ignored while stopped
    EXPECT_FALSE(u->check());
    EXPECT_EQ(u->get_data().count, 0u);

    // The same counters come back, reset, registered as a set.
    alarms.start();
    EXPECT_EQ(host.take(), host.all('+'));
    EXPECT_EQ(host.last['u'], u);
    EXPECT_FALSE(u->active());

    alarms.set_alarm_manager(&host);  // the same manager again changes nothing
    EXPECT_EQ(host.take(), "");

    // Starting again replaces each counter under its key; the set still holds two.
    alarms.start();
    EXPECT_EQ(host.take(), "-u+u-o+o");
    EXPECT_NE(host.last['u'], u);
    EXPECT_EQ(host.last['u']->hash(), u->hash());
    alarms.stop();
    EXPECT_EQ(host.take(), "-u-o" + host.all('-'));
}

TEST(AlarmsDispatcher, ManagerReplacedClearedSetAfterStartOrNoSourceName) {
    recorder a, b;
    dispatcher alarms(&a);
    alarms.start();
    a.take();

    alarms.set_alarm_manager(&b);
    EXPECT_EQ(a.take(), a.all('-'));
    EXPECT_EQ(b.take(), b.all('+'));
    alarms.set_alarm_manager(nullptr);
    EXPECT_EQ(b.take(), b.all('-'));
    alarms.stop();
    EXPECT_EQ(a.take() + b.take(), "");

    // Started without a manager, the set counts as handed over: a manager set now gets
    // nothing but the unregistrations of the next stop, and the set on the next start.
    alarms.start();
    alarms.set_alarm_manager(&a);
    EXPECT_EQ(a.take(), "");
    alarms.stop();
    EXPECT_EQ(a.take(), "-u-o" + a.all('-'));
    alarms.start();
    EXPECT_EQ(a.take(), a.all('+'));

    // Without a source name there are no alarms; a name set later counts from next start.
    dispatcher unnamed(&b);
    unnamed.set_source_name("");
    unnamed.start();
    unnamed.fifo_underflow_event();
    unnamed.stop();
    EXPECT_EQ(b.take(), "");
    unnamed.set_source_name("out2");
    unnamed.start();
    EXPECT_EQ(b.take(), b.all('+'));
    EXPECT_EQ(b.last['u']->get_data().source, "out2");
}
