#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <utility>

#include "kv_asi_renderer/kv_alarm_event.h"

namespace {

using namespace std::chrono_literals;

// A clock the test moves by hand; the wall clock follows the steady one and reads
// 05.03.2024 14:07:09 UTC at the start.
struct manual_clock : kv_alarm_clock {
    std::chrono::steady_clock::time_point steady_now() const override { return now; }
    time_t wall_now() const override {
        return 1709647629 + std::chrono::duration_cast<std::chrono::seconds>(now - start).count();
    }
    const std::chrono::steady_clock::time_point start{std::chrono::hours(1)};
    std::chrono::steady_clock::time_point now{start};
};

}  // namespace

// Hosts know the codes by value, one of them by its odd spelling.
static_assert(sizeof(KVAlarmCode) == 4 && eAlarmRemuxerOutputBuferOverflow == 110 &&
                  eAlarmRemuxerOutputUnderflow == 120 && eAlarmRemuxerOutputOverflow == 122 &&
                  kv_error_alarm == 2,
              "alarm codes and levels are fixed");

TEST(AlarmCounter, HoldPeriodCountsWholeSeconds) {
    manual_clock clock;
    kv_alarm_counter alarm(1s, eAlarmRemuxerOutputUnderflow, kv_error_alarm, "out1",
                           "Output buffer underflow", 0, 0, clock);
    EXPECT_FALSE(alarm.check());
    EXPECT_FALSE(alarm.active());

    alarm.event(1);
    for (auto [after, active] : {std::pair{1500ms, true}, {1999ms, true}, {2100ms, false}}) {
        clock.now = clock.start + after;
        EXPECT_TRUE(alarm.check()) << "a fired alarm answers true until reset";
        EXPECT_EQ(alarm.active(), active) << after.count() << " ms";
    }

    // A new occurrence opens a new active spell; each one restarts the hold period.
    alarm.event(1);
    EXPECT_EQ(alarm.get_data().reg_time, "05.03.2024 14:07:11");
    clock.now += 1900ms;
    alarm.event(1);
    clock.now += 1900ms;
    alarm.check();
    EXPECT_TRUE(alarm.active());
}

TEST(AlarmCounter, CountsStampsAndDescribesItself) {
    manual_clock clock;
    kv_alarm_counter alarm(1s, eAlarmRemuxerOutputOverflow, kv_warning_alarm, "out1",
                           "Output buffer overflow", 0x1B, 0x1FFF, clock);
    alarm.event(0);  // activates and stamps, counts nothing
    EXPECT_TRUE(alarm.active());
    EXPECT_EQ(alarm.get_data().count, 0u);

    // The stamp marks the start of the spell, not each occurrence.
    clock.now += 800ms;
    alarm.event(2);
    clock.now += 900ms;
    alarm.event(1);
    EXPECT_EQ(alarm.get_log_message(),
              "code=122, level=1, reg_time=05.03.2024 14:07:09, source=out1, "
              "description=Output buffer overflow, count=3");

    alarm.event(0xFFFFFFFFL);  // the count wraps modulo 2^32
    EXPECT_EQ(alarm.get_data().count, 2u);

    alarm.reset();
    EXPECT_FALSE(alarm.check());
    EXPECT_FALSE(alarm.active());
    const kv_alarm_data data = alarm.get_data();
    EXPECT_EQ(data.count, 0u);
    EXPECT_EQ(data.reg_time, "05.03.2024 14:07:09") << "reset keeps the last stamp";
    EXPECT_EQ(data.stream_pid, 0x1FFFu);

    // The key covers code, level, source and description only.
    auto key = [&](KVAlarmLevel level, const char* source, uint32_t pid) {
        return kv_alarm_counter(3s, eAlarmRemuxerOutputOverflow, level, source,
                                "Output buffer overflow", 0, pid, clock)
            .hash();
    };
    EXPECT_EQ(key(kv_warning_alarm, "out1", 0), data.hash);
    EXPECT_NE(key(kv_error_alarm, "out1", 0x1FFF), data.hash);
    EXPECT_NE(key(kv_warning_alarm, "out2", 0x1FFF), data.hash);
    EXPECT_EQ(data.hash.find_first_not_of("0123456789"), std::string::npos);
}
