// PAT and PMT sections: written and read back, the PAT keyed by PID, the PMT's checks of
// table id and loop lengths.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "ts_test_util.h"

using namespace mpegcore;
using namespace ts_test;

namespace {

template <class Table>
Bytes write(Table& table) {
    Bytes out(1100);
    KVSDK::KVBSWriter w(out.data(), out.size());
    EXPECT_TRUE(table.write(w));
    out.resize(w.getWritedBytes());
    EXPECT_EQ(crc32_mpeg2(out.data(), out.size()), 0u);
    return out;
}

// PMT of program 0x0102, version 5, PCR PID 0x0100; `loops` starts at program_info_length.
Bytes pmt(const std::string& loops, uint8_t table_id = 0x02, uint8_t flags = 0xB0) {
    return section(table_id, flags, hex("01 02 CB 00 00 E1 00 " + loops));
}
const std::string kCa = "09 04 0B 00 FF F0 ";  // system 0x0B00, PID 0x1FF0
const std::string kLongCa = "09 09 0B 00 FF F0 ";
const std::string kLanguage = "0A 04 " + txt("eng") + "00 ";

}  // namespace

TEST(PAT, WrittenAndReadBackKeyedByPid) {
    CPAT pat;
    pat.section_syntax_indicator = 1;
    pat.transport_stream_id = 0xBEEF;
    pat.version_number = 31;
    pat.current_next_indicator = 1;
    pat.last_section_number = 2;
    for (auto entry : {std::pair<int, int>{0, 0x10}, {7, 0x1FF7}, {0xFFFF, 0x1FFE}}) {
        pat.program_map[uint16_t(entry.second)].program_number = uint16_t(entry.first);
        pat.program_map[uint16_t(entry.second)].map_PID.program_map_PID = uint16_t(entry.second);
    }
    CPAT back;
    ASSERT_TRUE(read(back, write(pat)));
    EXPECT_EQ(pat.section_length, 9 + 3 * 4);
    EXPECT_TRUE(back == pat);
    EXPECT_TRUE(back.find(0x10)->isNetwork());

    // No check of the table id; of two programs on one PID the later one stays.
    ASSERT_TRUE(read(back, section(0x55, 0xB0,
                                   hex("0B B8 C5 00 00 00 05 FF FF 00 06 FF FF "
                                       "00 07 E0 20"))));
    EXPECT_EQ(back.transport_stream_id, 3000);
    ASSERT_EQ(back.program_map.size(), 2u);
    EXPECT_EQ(back.find(0x1FFF)->program_number, 6);
}

TEST(PMT, WrittenAndReadBack) {
    CPMT pmt_table;
    pmt_table.table_id = 0x02;
    pmt_table.program_number = 0x0203;
    pmt_table.version_number = 17;
    pmt_table.PCR_PID = 0x1ABC;
    for (uint16_t pid : {0x1FFE, 0x0044, 0x0100}) {
        auto& s = pmt_table.stream_map[pid] = std::make_shared<CBaseStreamTypeMap>();
        s->stream_type = uint8_t(pid);
        s->elementary_PID = pid;
    }
    CPMT back;
    ASSERT_TRUE(read(back, write(pmt_table)));
    EXPECT_EQ(back.section_length, 13 + 3 * 5);
    EXPECT_TRUE(back == pmt_table);

    // Descriptors are read by the list and count into both info lengths when written.
    const Bytes raw = pmt("F0 06 " + kCa + "02 E1 01 F0 00 04 E1 02 F0 0C " + kLanguage + kCa);
    ASSERT_TRUE(read(back, raw));
    EXPECT_EQ(back.descriptors.descriptor.size(), 1u);
    EXPECT_EQ(back.find(0x102)->descriptors.descriptor.size(), 2u);
    EXPECT_EQ(back.find(0x102)->getSize(), 5 + 12);
    EXPECT_EQ(write(back), raw);
}

TEST(PMT, StreamLoopBounds) {
    CPMT t;
    ASSERT_TRUE(read(t, pmt("F0 00")));
    EXPECT_TRUE(t.stream_map.empty());
    // Two streams on one PID: the second stays.
    ASSERT_TRUE(read(t, pmt("F0 00 02 E1 01 F0 00 0F E1 01 F0 00")));
    ASSERT_EQ(t.stream_map.size(), 1u);
    EXPECT_EQ(t.find(0x101)->stream_type, 0x0F);
    // Fewer than 5 spare bytes after an entry end the loop.
    ASSERT_TRUE(read(t, pmt("F0 00 02 E1 01 F0 00 01 01 01 01")));
    EXPECT_EQ(t.stream_map.size(), 1u);

    // Right CRC, wrong table id or zero bit.
    const std::string good = "F0 06 " + kCa + "02 E1 01 F0 06 " + kLanguage;
    ASSERT_TRUE(read(t, pmt(good)));
    EXPECT_FALSE(read(t, pmt(good, 0x03)));
    EXPECT_FALSE(read(t, pmt(good, 0x02, 0xF0)));
    // Loops longer than the data (program_info_length 255, ES_info_length 48), or a
    // descriptor longer than its loop.
    for (const std::string& bad :
         {"F0 FF " + kCa + "02 E1 01 F0 06 " + kLanguage, "F0 00 02 E1 01 F0 30 " + kLanguage,
          "F0 06 " + kLongCa, "F0 00 02 E1 01 F0 06 " + kLongCa}) {
        EXPECT_FALSE(read(t, pmt(bad))) << bad;
    }
    expect_prefixes_refused<CPMT>(pmt(good));
}
