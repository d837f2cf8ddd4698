#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <utility>

#include "kv_asi_renderer/kv_alarm_event.h"

namespace {

using namespace std::chrono_literals;

// A clock the test moves by hand; the wall clock reads 05.03.2024 14:07:09 UTC at start.
struct manual_clock : kv_alarm_clock {
    std::chrono::steady_clock::time_point steady_now() const override { return now; }
    time_t wall_now() const override {
        return 1709647629 + std::chrono::duration_cast<std::chrono::seconds>(now - start).count();
    }
    const std::chrono::steady_clock::time_point start{std::chrono::hours(1)};
    std::chrono::steady_clock::time_point now{start};
};

}  // namespace

TEST(AlarmCounter, HoldPeriodCountStampAndReset) {
    manual_clock clock;
    kv_alarm_counter alarm(1s, eAlarmRemuxerOutputOverflow, kv_warning_alarm, "out1",
                           "Output buffer overflow", 0x1B, 0x1FFF, clock);
    EXPECT_FALSE(alarm.check());
    alarm.event(0);  // activates and stamps, counts nothing
    EXPECT_TRUE(alarm.active());
    EXPECT_EQ(alarm.get_data().count, 0u);

    // The stamp marks the start of the spell; each occurrence restarts the hold period,
    // which counts whole seconds.
    clock.now += 800ms;
    alarm.event(3);
    EXPECT_EQ(alarm.get_log_message(),
              "code=122, level=1, reg_time=05.03.2024 14:07:09, source=out1, "
              "description=Output buffer overflow, count=3");
    for (auto [after, active] : {std::pair{1500ms, true}, {1999ms, true}, {2100ms, false}}) {
        clock.now = clock.start + 800ms + after;
        EXPECT_TRUE(alarm.check()) << "a fired alarm answers true until reset";
        EXPECT_EQ(alarm.active(), active) << after.count() << " ms";
    }
    alarm.event(1);  // a new spell
    EXPECT_EQ(alarm.get_data().reg_time, "05.03.2024 14:07:11");
    alarm.event(0xFFFFFFFFL);  // the count wraps modulo 2^32
    EXPECT_EQ(alarm.get_data().count, 3u);

    alarm.reset();
    EXPECT_FALSE(alarm.check() || alarm.active());
    const kv_alarm_data data = alarm.get_data();
    EXPECT_EQ(data.count, 0u);
    EXPECT_EQ(data.reg_time, "05.03.2024 14:07:11") << "reset keeps the last stamp";
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
