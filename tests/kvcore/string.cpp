#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <ctime>

#include "kvcore/kv_string.h"

using namespace std::chrono;
using KVSDK::number_to_string;
using KVSDK::toString;

TEST(TextHelpers, NumberPaddingIsNeverTruncating) {
    EXPECT_EQ(number_to_string(2, 7), "07");
    EXPECT_EQ(number_to_string(2, 123), "123");
    EXPECT_EQ(number_to_string(3, -5), "0-5");
    EXPECT_EQ(number_to_string(0, 0u), "0");
    EXPECT_EQ(number_to_string(10, UINT32_MAX), "4294967295");
    EXPECT_EQ(number_to_string(12, INT32_MIN), "0-2147483648");
}

TEST(TextHelpers, DurationFields) {
    const std::string full = "hhh:mm:ss.ccc";
    // Each field takes only its own share of the duration.
    EXPECT_EQ(toString(full, hours(2) + minutes(59) + seconds(59) + milliseconds(999) +
                                 microseconds(999)),
              "002:59:59.999");
    EXPECT_EQ(toString(full, -(minutes(1) + milliseconds(5))), "-000:01:00.005");
    EXPECT_EQ(toString(full, nanoseconds(INT64_MIN)), "-2562047:47:16.854");

    // Two-letter forms: "cc" is the millisecond count, not hundredths.
    EXPECT_EQ(toString("hh:mm:ss.cc", milliseconds(7)), "00:00:00.07");
    EXPECT_EQ(toString("hh:mm:ss.cc", milliseconds(123)), "00:00:00.123");
    // A long form present leaves the short form untouched; only first occurrences change.
    EXPECT_EQ(toString("hhh hh ccc cc", hours(5) + milliseconds(7)), "005 hh 007 cc");
    EXPECT_EQ(toString("ss ss", seconds(3)), "03 ss");
}

TEST(TextHelpers, TimeStamp) {
    // 2024-03-05 14:07:09 UTC
    const time_t t = 1709647629;
    EXPECT_EQ(toString("dd dd hhh hh", t, true), "05 dd 014 hh");
    EXPECT_EQ(toString("yyyy-MM-dd", time_t(0), true), "1970-01-01");

    // Local time agrees with the C library's own broken-down local time.
    struct tm local {};
    ASSERT_NE(localtime_r(&t, &local), nullptr);
    EXPECT_EQ(toString("hh:mm", t, false),
              number_to_string(2, local.tm_hour) + ":" + number_to_string(2, local.tm_min));
}
