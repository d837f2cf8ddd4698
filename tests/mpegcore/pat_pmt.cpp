// PAT and PMT sections: written and read back, the PAT keyed by PID, the PMT's checks of
// table id and loop lengths.

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "kvcore/kv_bitstream.h"
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

// PAT body: transport_stream_id 3000, version 2, then (program, PID) entries.
Bytes pat_body(std::initializer_list<std::pair<uint16_t, uint16_t>> programs) {
    Bytes body{0x0B, 0xB8, 0xC5, 0x00, 0x00};
    for (const auto& p : programs) {
        body = cat({body,
                    {uint8_t(p.first >> 8), uint8_t(p.first), uint8_t(0xE0 | p.second >> 8),
                     uint8_t(p.second)}});
    }
    return body;
}

Bytes loop_length(size_t n) {
    return {uint8_t(0xF0 | n >> 8), uint8_t(n)};
}

// PMT body: program 0x0102, version 5, PCR PID 0x0100.
Bytes pmt_body(const Bytes& program_info, const Bytes& streams) {
    return cat({{0x01, 0x02, 0xCB, 0x00, 0x00, 0xE1, 0x00},
                loop_length(program_info.size()),
                program_info,
                streams});
}

Bytes stream(uint8_t type, uint16_t pid, const Bytes& es_info) {
    return cat(
        {{type, uint8_t(0xE0 | pid >> 8), uint8_t(pid)}, loop_length(es_info.size()), es_info});
}

const Bytes kCa = {0x09, 0x04, 0x0B, 0x00, 0xFF, 0xF0};  // system 0x0B00, PID 0x1FF0
const Bytes kLanguage = {0x0A, 0x04, 'e', 'n', 'g', 0x00};

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
    ASSERT_TRUE(read(back, section(0x55, 0xB0, pat_body({{5, 0x1FFF}, {6, 0x1FFF}, {7, 0x20}}))));
    EXPECT_EQ(back.transport_stream_id, 3000);
    ASSERT_EQ(back.program_map.size(), 2u);
    EXPECT_EQ(back.find(0x1FFF)->program_number, 6);
}

TEST(PMT, WrittenAndReadBack) {
    CPMT pmt;
    pmt.table_id = 0x02;
    pmt.program_number = 0x0203;
    pmt.version_number = 17;
    pmt.PCR_PID = 0x1ABC;
    for (uint16_t pid : {0x1FFE, 0x0044, 0x0100}) {
        auto& s = pmt.stream_map[pid] = std::make_shared<CBaseStreamTypeMap>();
        s->stream_type = uint8_t(pid);
        s->elementary_PID = pid;
    }
    CPMT back;
    ASSERT_TRUE(read(back, write(pmt)));
    EXPECT_EQ(back.section_length, 13 + 3 * 5);
    EXPECT_TRUE(back == pmt);

    // Descriptors are read by the list and count into both info lengths when written.
    const Bytes raw = section(
        0x02, 0xB0,
        pmt_body(kCa, cat({stream(0x02, 0x101, {}), stream(0x04, 0x102, cat({kLanguage, kCa}))})));
    ASSERT_TRUE(read(back, raw));
    EXPECT_EQ(back.descriptors.descriptor.size(), 1u);
    EXPECT_EQ(back.find(0x102)->descriptors.descriptor.size(), 2u);
    EXPECT_EQ(back.find(0x102)->getSize(), 5 + 12);
    EXPECT_EQ(write(back), raw);
}

TEST(PMT, StreamLoopBounds) {
    CPMT pmt;
    ASSERT_TRUE(read(pmt, section(0x02, 0xB0, pmt_body({}, {}))));
    EXPECT_TRUE(pmt.stream_map.empty());
    // Two streams on one PID: the second stays.
    ASSERT_TRUE(
        read(pmt, section(0x02, 0xB0,
                          pmt_body({}, cat({stream(0x02, 0x101, {}), stream(0x0F, 0x101, {})})))));
    ASSERT_EQ(pmt.stream_map.size(), 1u);
    EXPECT_EQ(pmt.find(0x101)->stream_type, 0x0F);
    // Fewer than 5 spare bytes after an entry end the loop.
    ASSERT_TRUE(
        read(pmt, section(0x02, 0xB0, pmt_body({}, cat({stream(2, 0x101, {}), Bytes(4, 1)})))));
    EXPECT_EQ(pmt.stream_map.size(), 1u);

    // Right CRC, wrong table id or zero bit.
    const Bytes good = pmt_body(kCa, stream(0x02, 0x101, kLanguage));
    ASSERT_TRUE(read(pmt, section(0x02, 0xB0, good)));
    EXPECT_FALSE(read(pmt, section(0x03, 0xB0, good)));
    EXPECT_FALSE(read(pmt, section(0x02, 0xF0, good)));
    // Loops longer than the data, or a descriptor longer than its loop.
    Bytes body = good;
    body[8] = 0xFF;  // program_info_length 255
    EXPECT_FALSE(read(pmt, section(0x02, 0xB0, body)));
    body = pmt_body({}, stream(0x02, 0x101, kLanguage));
    body[13] = 0x30;  // ES_info_length 48
    EXPECT_FALSE(read(pmt, section(0x02, 0xB0, body)));
    Bytes long_ca = kCa;
    long_ca[1] = 0x09;
    EXPECT_FALSE(read(pmt, section(0x02, 0xB0, pmt_body(long_ca, {}))));
    EXPECT_FALSE(read(pmt, section(0x02, 0xB0, pmt_body({}, stream(0x02, 0x101, long_ca)))));
    expect_prefixes_refused<CPMT>(section(0x02, 0xB0, good));
}
