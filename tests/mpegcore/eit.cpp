// EIT sections: the event loop bounds, refusal of broken sections, writing, and
// the start-time and duration conversions.

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <iterator>
#include <memory>
#include <vector>

#include "mpegcore/EIT.h"

#include "ts_test_util.h"

using namespace mpegcore;
using namespace ts_test;

namespace {

// Service 0x1234, version 5, current, section 0 of 1, ts 0x0456, network 0x0789, segment
// last 1, last table 0x4F.
const Bytes kHeader{0x12, 0x34, 0xCB, 0x00, 0x01, 0x04, 0x56, 0x07, 0x89, 0x01, 0x4F};
const Bytes kShortEvent{0x4D, 8, 'e', 'n', 'g', 3, 'N', 'e', 'w', 0};
// Event 0xBEEF at MJD 0xB0A2 12:34:56 for 1:30:00, running 4, scrambled, one descriptor.
const Bytes kEvent1 = cat({{0xBE, 0xEF, 0xB0, 0xA2, 0x12, 0x34, 0x56, 0x01, 0x30, 0x00, 0x90,
                            uint8_t(kShortEvent.size())},
                           kShortEvent});
// Event 1 with undefined start and duration, running 1, free, no descriptors: 12 bytes.
const Bytes kEvent2{0x00, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x20, 0x00};
const Bytes kEit = section(0x4E, cat({kHeader, kEvent1, kEvent2}));

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
int64_t days_from_civil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

uint32_t bcd(unsigned h, unsigned m, unsigned s) {
    return (h / 10) << 20 | (h % 10) << 16 | (m / 10) << 12 | (m % 10) << 8 | (s / 10) << 4 |
           (s % 10);
}

}  // namespace

TEST(EitSection, EventLoopBoundsWritingAndRefusals) {
    CEIT eit;
    ASSERT_TRUE(read(eit, kEit));
    EXPECT_EQ((std::vector<uint64_t>{eit.service_id, eit.reserved1, eit.version_number,
                                     eit.current_next_indicator, eit.segment_last_section_number,
                                     eit.last_table_id}),
              (std::vector<uint64_t>{0x1234, 3, 5, 1, 1, 0x4F}));
    // The second event fills the loop's last 12 bytes exactly and must still be read.
    ASSERT_EQ(eit.eventInfo.size(), 2u);
    const CEventInfo& e1 = *eit.eventInfo.front();
    const CEventInfo& e2 = *eit.eventInfo.back();
    EXPECT_EQ(
        (std::vector<uint64_t>{e1.start_time, e1.duration, e1.running_status, e1.free_CA_mode,
                               e2.start_time, e2.duration, e2.running_status, e2.free_CA_mode}),
        (std::vector<uint64_t>{0xB0A2123456, 0x013000, 4, 1, 0xFFFFFFFFFF, 0xFFFFFF, 1, 0}));
    EXPECT_EQ(render(eit), kEit);
    expect_prefixes_refused<CEIT>(kEit);

    // Written behind other bytes, the CRC covers the section alone.
    Bytes out(kEit.size() + 8, 0xEE);
    KVSDK::KVBSWriter w(out.data(), out.size());
    w.putBits<uint8_t>(0xAA, 8);
    ASSERT_TRUE(eit.write(w));
    EXPECT_EQ(Bytes(out.begin() + 1, out.begin() + 1 + kEit.size()), kEit);
    EXPECT_EQ(out[1 + kEit.size()], 0xEE);
    ASSERT_TRUE(read(eit, kEit));
    EXPECT_EQ(eit.eventInfo.size(), 2u) << "a second read starts a fresh event list";

    // No events; 11 spare bytes cannot hold one.
    ASSERT_TRUE(read(eit, section(0x4F, cat({kHeader, Bytes(11, 0)}))));
    EXPECT_TRUE(eit.eventInfo.empty());
    Bytes bad = kEit;
    bad[20] ^= 0x10;  // one bit of the first start time
    EXPECT_FALSE(read(eit, bad));
    // An event loop longer than all the data refuses the section.
    Bytes overlong = kEvent2;
    overlong[10] = 0x2F;
    overlong[11] = 0xFF;
    EXPECT_FALSE(read(eit, section(0x4E, cat({kHeader, overlong}))));
    // A descriptor running past its event's loop does not: the event keeps what was read
    // before it, and the events after it are read.
    Bytes cut = kEvent1;
    cut[11] = 4;
    cut.resize(12 + 4);
    ASSERT_TRUE(read(eit, section(0x4E, cat({kHeader, cut, kEvent2}))));
    ASSERT_EQ(eit.eventInfo.size(), 2u);
    EXPECT_TRUE(eit.eventInfo.front()->descriptors.descriptor.empty());
    EXPECT_EQ(eit.eventInfo.back()->event_id, 1);
}

TEST(EventInfoTime, DurationsAndStartTimes) {
    EXPECT_EQ(CEventInfo::time_to_duration(1, 2, 3), 0x010203u);
    EXPECT_EQ(CEventInfo::time_to_duration(123, 0, 0), 0x1230000u);  // spills over
    EXPECT_EQ(CEventInfo::time_to_duration(0, 60, 99), 0x6099u);
    EXPECT_EQ(CEventInfo::sec_to_duration(5400), 0x013000u);
    EXPECT_EQ(CEventInfo::sec_to_duration(86399), 0x235959u);
    EXPECT_EQ(CEventInfo::sec_to_duration(360000), 0x1000000u);

    // The date formula holds from 1900-03-01 to 2100-02-28; January and February take
    // its other branch. Steps of a week and an odd number of seconds vary the time of day.
    for (int64_t t = -2203891200; t < 4107456000 + 86400; t += 7 * 86400 + 3671) {
        const int64_t days = (t >= 0 ? t : t - 86399) / 86400;
        const unsigned sec = static_cast<unsigned>(t - days * 86400);
        const uint64_t expected =
            uint64_t(days + 40587) << 24 | bcd(sec / 3600, sec / 60 % 60, sec % 60);
        ASSERT_EQ(CEventInfo::time_t_to_start_time(static_cast<time_t>(t)), expected) << t;
    }

    // Decoding puts M' - 12K into the month field and the full year into the year field:
    // 1982-09-06 comes back as 3882-11-06. A December date lands in month 13 and rolls
    // into February of the next year; a January date takes K = 1.
    EXPECT_EQ(CEventInfo::start_time_to_time_t(0xB0A2123456),
              days_from_civil(3882, 11, 6) * 86400 + 12 * 3600 + 34 * 60 + 56);
    EXPECT_EQ(CEventInfo::start_time_to_time_t(uint64_t(45328) << 24),  // 1982-12-25
              days_from_civil(3883, 2, 25) * 86400);
    // The time bytes are read as hexadecimal text taken as decimal: 0x1A gives 1 and
    // 0xA5 gives 0; 0x99 seconds are 99 seconds.
    EXPECT_EQ(CEventInfo::start_time_to_time_t(uint64_t(60324) << 24 | 0x1AA599),  // 2024-01-15
              days_from_civil(3924, 3, 15) * 86400 + 3600 + 99);
}
