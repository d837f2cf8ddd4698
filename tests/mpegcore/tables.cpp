// The PSI/SI tables: golden sections read, viewed by field name and written back by every
// table class, with refusals, loop bounds and each table's storage rules; then what
// golden lines cannot show (a buffer too small for the CRC, writing behind other bytes,
// tables built by hand, a loop trusted past the data) and the EIT's time conversions.

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "mpegcore/BAT.h"
#include "mpegcore/CAT.h"
#include "mpegcore/EIT.h"
#include "mpegcore/NIT.h"
#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "mpegcore/SDT.h"
#include "mpegcore/TDT.h"
#include "mpegcore/TOT.h"
#include "mpegcore/TSDT.h"
#include "mpegcore/descriptors_dvb.h"
#include "mpegcore/descriptors_mpeg.h"
#include "ts_test_util.h"

using namespace mpegcore;
using namespace ts_test;

namespace {

std::string hex_text(const Bytes& b) {
    std::string s;
    char byte[4];
    for (uint8_t x : b) {
        std::snprintf(byte, sizeof byte, s.empty() ? "%02X" : " %02X", x);
        s += byte;
    }
    return s;
}

// What write() gives for a table, in a buffer with room to spare.
template <class T>
Bytes written(T& table) {
    Bytes out(4200);
    KVSDK::KVBSWriter w(out.data(), out.size());
    EXPECT_TRUE(table.write(w));
    out.resize(w.getWritedBytes());
    return out;
}

// Columns of a golden line: class, section, outcome, fields, written back.
using Row = std::vector<std::string>;

// Reads a row's section into a fresh table and into one that read `previous` first: both
// give the same outcome and the same fields. A section read is refused in every prefix,
// accepted with bytes behind it, and written back.
template <class T>
void check(Row& c, const Bytes& previous, bool bUpdate) {
    const Bytes bytes = hex(c[1]);
    T fresh, reused;
    const bool bRead = read(fresh, bytes);
    // Fields that run past the section read whatever follows it.
    const bool bInside = fresh.calc_section_length() <= fresh.section_length;
    read(reused, previous);
    EXPECT_EQ(read(reused, bytes), bRead);
    const Row got = {c[0], c[1], bRead ? "read" : "refused", view_text(fresh),
                     bRead ? (written(fresh) == bytes ? "same" : hex_text(written(fresh))) : "-"};
    if (bUpdate) {
        c = got;
    }
    EXPECT_EQ(got, c);
    if (bRead) {
        EXPECT_EQ(view_text(reused), got[3]);
        expect_prefixes_refused<T>(bytes, bInside);
    }
}

const std::map<std::string, std::function<void(Row&, const Bytes&, bool)>> kClasses = {
    {"CPAT", check<CPAT>}, {"CPMT", check<CPMT>}, {"CSDT", check<CSDT>}, {"CNIT", check<CNIT>},
    {"CBAT", check<CBAT>}, {"CEIT", check<CEIT>}, {"CCAT", check<CCAT>}, {"CTSDT", check<CTSDT>},
    {"CTDT", check<CTDT>}, {"CTOT", check<CTOT>},
};

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

TEST(Tables, GoldenSectionsReadViewAndWriteBack) {
    const std::string path = KV_SOURCE_DIR "/tests/mpegcore/golden/sections.txt";
    const bool bUpdate = std::getenv("KV_UPDATE_GOLDEN") != nullptr;
    std::ifstream in(path);
    ASSERT_TRUE(in) << path;
    std::ostringstream updated;
    std::map<std::string, Bytes> previous;  // by class
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') {
            updated << line << '\n';
            continue;
        }
        SCOPED_TRACE(line.substr(0, 120));
        Row c;
        for (size_t from = 0;; from += 3) {
            const size_t to = line.find(" | ", from);
            c.push_back(line.substr(from, to - from));
            if (to == std::string::npos) {
                break;
            }
            from = to;
        }
        c.resize(5);
        const auto found = kClasses.find(c[0]);
        ASSERT_NE(found, kClasses.end());
        found->second(c, previous[c[0]], bUpdate);
        previous[c[0]] = hex(c[1]);
        updated << c[0] << " | " << c[1] << " | " << c[2] << " | " << c[3] << " | " << c[4] << '\n';
    }
    EXPECT_EQ(previous.size(), kClasses.size());
    if (bUpdate) {
        std::ofstream(path) << updated.str();
    }
}

TEST(Tables, WritingBeyondWhatGoldenLinesShow) {
    // Built by hand: every length is computed on writing, and the sections read back equal.
    CPAT pat;
    pat.section_syntax_indicator = 1;
    pat.transport_stream_id = 0xBEEF;
    pat.version_number = 31;
    for (auto entry : {std::pair<int, int>{0, 0x10}, {7, 0x1FF7}, {0xFFFF, 0x1FFE}}) {
        pat.program_map[uint16_t(entry.second)].program_number = uint16_t(entry.first);
        pat.program_map[uint16_t(entry.second)].map_PID.program_map_PID = uint16_t(entry.second);
    }
    CPAT pat_back;
    ASSERT_TRUE(read(pat_back, written(pat)));
    EXPECT_EQ(pat.section_length, 9 + 3 * 4);
    EXPECT_TRUE(pat_back == pat && pat_back.find(0x10)->isNetwork());
    CPMT pmt;
    pmt.table_id = 0x02;
    pmt.program_number = 0x0203;
    pmt.PCR_PID = 0x1ABC;
    for (uint16_t pid : {0x1FFE, 0x0044, 0x0100}) {
        auto& s = pmt.stream_map[pid] = std::make_shared<CBaseStreamTypeMap>();
        s->stream_type = uint8_t(pid);
        s->elementary_PID = pid;
    }
    pmt.stream_map[0x44]->descriptors.descriptor.push_back(std::make_shared<CA_descriptor>());
    CPMT pmt_back;
    ASSERT_TRUE(read(pmt_back, written(pmt)));
    EXPECT_EQ(pmt_back.section_length, 13 + 3 * 5 + 6);
    EXPECT_TRUE(pmt_back == pmt);

    // 11 header bytes and one 5-byte service fill 16 of 17 bytes: no room for the CRC.
    Bytes buffer(17, 0xEE);
    CSDT sdt(buffer.data(), buffer.size());
    sdt.sds[5] = std::make_shared<CServiceDescriptionSection>();
    EXPECT_FALSE(sdt.RenderTable());
    EXPECT_EQ(sdt.GetSizeBuffer(), buffer.size());
    EXPECT_EQ(sdt.CRC, crc32_mpeg2(buffer.data(), 16));
    EXPECT_EQ(buffer[16], 0xEE);

    // Written behind other bytes, the CRC covers the section alone.
    CTOT tot;
    tot.table_id = 0x73;
    tot.descriptors.descriptor.push_back(std::make_shared<local_time_offset_descriptor>());
    const Bytes section = written(tot);
    Bytes out(section.size() + 8, 0xEE);
    KVSDK::KVBSWriter w(out.data(), out.size());
    w.putBits<uint8_t>(0xAA, 8);
    ASSERT_TRUE(tot.write(w));
    EXPECT_EQ(Bytes(out.begin() + 1, out.begin() + 1 + long(section.size())), section);
    EXPECT_EQ(out[1 + section.size()], 0xEE);
    EXPECT_EQ(crc32_mpeg2(section.data(), section.size()), 0u);

    // A TDT built to be written: no CRC, section_length 5.
    CTDT tdt(0xB0A2123456);
    EXPECT_EQ(render(tdt), hex("70 30 05 B0 A2 12 34 56"));

    // The NIT's stream loop trusts its own length over the section's: past the data the
    // reader yields zeros, and nothing outside the buffer is touched.
    CNIT nit;
    EXPECT_TRUE(
        read(nit, ts_test::section(0x40, {0x30, 0x01, 0xC1, 0, 0, 0xF0, 0x00, 0xFF, 0xFF})));
    EXPECT_EQ(nit.transport_stream.size(), 4095u / 6);
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
