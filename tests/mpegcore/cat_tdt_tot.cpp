// CAT, TSDT, TDT and TOT sections: bit widths, refusal of broken sections, the TDT without
// CRC and the TOT reading zeros past the data.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "mpegcore/CAT.h"
#include "mpegcore/TDT.h"
#include "mpegcore/TOT.h"
#include "mpegcore/TSDT.h"
#include "mpegcore/descriptors_mpeg.h"

#include "ts_test_util.h"

using namespace mpegcore;
using namespace ts_test;

namespace {

// reserved 0x2B3C5 (18 bits), version 21, not current, section 1 of 2.
const Bytes kLoopHeader{0xAC, 0xF1, 0x6A, 0x01, 0x02};
const Bytes kCa1{0x09, 4, 0x0B, 0x00, 0xE1, 0x23};  // system 0x0B00, PID 0x123
const Bytes kCa2{0x09, 6, 0x18, 0x11, 0xF4, 0x56, 0xAA, 0xBB};
const Bytes kCat = section(0x01, 0xB0, cat({kLoopHeader, kCa1, kCa2}));

template <class T>
class DescriptorLoopTable : public ::testing::Test {};
using LoopTables = ::testing::Types<CCAT, CTSDT>;
TYPED_TEST_SUITE(DescriptorLoopTable, LoopTables);

}  // namespace

TYPED_TEST(DescriptorLoopTable, ReadsFieldsAndWritesBack) {
    TypeParam t;
    ASSERT_TRUE(read(t, kCat));
    EXPECT_EQ((std::vector<uint64_t>{t.section_syntax_indicator, t.zero, t.reserved1,
                                     t.version_number, t.current_next_indicator, t.section_number,
                                     t.last_section_number, t.descriptors.descriptor.size()}),
              (std::vector<uint64_t>{1, 0, 0x2B3C5, 21, 0, 1, 2, 2}));
    auto ca = std::dynamic_pointer_cast<CA_descriptor>(t.descriptors.descriptor.front());
    ASSERT_TRUE(ca);
    EXPECT_EQ(ca->CA_PID, 0x123);
    EXPECT_EQ(render(t), kCat);
    expect_prefixes_refused<TypeParam>(kCat);

    Bytes bad = kCat;
    bad[12] ^= 0x01;  // one bit of the first CA PID
    EXPECT_FALSE(read(t, bad));
    // section_length 9: no descriptors, the CRC right behind the header.
    ASSERT_TRUE(read(t, section(0x01, 0xB0, kLoopHeader)));
    EXPECT_TRUE(t.descriptors.descriptor.empty());
    // A descriptor cut short inside the loop ends the list without refusing the section.
    ASSERT_TRUE(read(t, section(0x01, 0xB0, cat({kLoopHeader, kCa1, {0x09, 8, 0x0B, 0x00}}))));
    EXPECT_EQ(t.descriptors.descriptor.size(), 1u);
}

TEST(TdtSection, NoCrcAndFixedLength) {
    const Bytes expected{0x70, 0x30, 0x05, 0xB0, 0xA2, 0x12, 0x34, 0x56};
    CTDT built(0xB0A2123456), tdt;
    EXPECT_EQ(render(built), expected);
    EXPECT_FALSE(read(tdt, Bytes(expected.begin(), expected.end() - 1)));
    // Nothing vouches for the bytes and section_length is not checked.
    ASSERT_TRUE(read(tdt, {0x70, 0x7F, 0xFF, 0xC0, 0xFF, 0xEE, 0xDD, 0xCC}));
    EXPECT_EQ(tdt.section_length, 0xFFF);
    EXPECT_EQ(tdt.UTC_time, 0xC0FFEEDDCCu);
}

namespace {

// Two local time offset entries: GBR +01:00 changing at MJD 0xB0A2 02:00:00 to +00:00,
// then FRA (region 3) -00:30.
const Bytes kOffsets{0x58, 26,   'G',  'B',  'R',  0x02, 0x01, 0x00, 0xB0, 0xA2,
                     0x02, 0x00, 0x00, 0x00, 0x00, 'F',  'R',  'A',  0x0F, 0x00,
                     0x30, 0xB0, 0xA2, 0x02, 0x00, 0x00, 0x00, 0x30};
const Bytes kUtc{0xB0, 0xA2, 0x12, 0x34, 0x56};
const Bytes kTot = section(0x73, 0x70, cat({kUtc, {0xF0, uint8_t(kOffsets.size())}, kOffsets}));

}  // namespace

TEST(TotSection, LoopBoundsAndZeroFill) {
    CTOT tot;
    ASSERT_TRUE(read(tot, kTot));
    EXPECT_EQ(tot.reserved1, 0xF);
    tot.descriptors_loop_length = 0;  // recounted on writing
    EXPECT_EQ(render(tot), kTot);
    EXPECT_EQ(tot.descriptors_loop_length, kOffsets.size());
    expect_prefixes_refused<CTOT>(kTot);
    Bytes bad = kTot;
    bad[4] ^= 0x80;
    EXPECT_FALSE(read(tot, bad));
    // A loop longer than the data refuses; an empty loop has the CRC right behind it.
    EXPECT_FALSE(read(tot, section(0x73, 0x70, cat({kUtc, {0xFF, 0xFF}}))));
    const Bytes empty = section(0x73, 0x70, cat({kUtc, {0xF0, 0x00}}));
    ASSERT_TRUE(read(tot, empty));
    EXPECT_TRUE(tot.descriptors.descriptor.empty());
    EXPECT_EQ(tot.CRC, crc32_mpeg2(empty.data(), empty.size() - 4));

    // section_length 4, whose four bytes are the CRC of the header: the fields behind them
    // lie past the data and read as 0, replacing what the table held.
    ASSERT_TRUE(read(tot, kTot));
    ASSERT_TRUE(read(tot, section(0x73, 0x70, {})));
    EXPECT_EQ((std::vector<uint64_t>{tot.UTC_time, tot.reserved1, tot.descriptors_loop_length,
                                     tot.descriptors.descriptor.size(), tot.CRC}),
              (std::vector<uint64_t>{0, 0, 0, 0, 0}));
}
