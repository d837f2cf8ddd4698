// The section base: CRC, header bit widths, the scratch buffer, sections over many packets
// and refusal of corrupt or cut sections, which keeps the previous table.

#include <gtest/gtest.h>

#include <vector>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/BasePID.h"
#include "mpegcore/PAT.h"
#include "ts_test_util.h"

using namespace mpegcore;
using namespace ts_test;

namespace {

// A PAT section with `programs` entries: program i + 1 on PID 0x100 + i.
Bytes pat_section(int programs, uint8_t version) {
    Bytes body{0x00, 0x01, uint8_t(0xC1 | version << 1), 0x00, 0x00};
    for (int i = 0; i < programs; ++i) {
        body = cat({body, {uint8_t((i + 1) >> 8), uint8_t(i + 1), 0xE1, uint8_t(i)}});
    }
    return section(0x00, 0xB0, body);
}

// Sends a section through the PID state in packets of PID 0 and, like the parser, tries
// the unit so far behind its pointer field after each one. Returns, per packet, whether the
// section was taken.
std::vector<bool> feed(CBasePID& state, CPacketWrapper<CPAT>& wrapper, const Bytes& section,
                       uint8_t& cc) {
    std::vector<bool> taken;
    for (const Bytes& packet : packetize(0, cat({{0x00}, section}), cc)) {
        transport_packet p;
        p.decode_header(packet.data());
        state.putPacket(p);
        const CDataAccumulator* unit = state.getCurData();
        KVSDK::KVBSReader r(unit->get(), unit->getLength());
        r.skipBytes(1);
        taken.push_back(wrapper.Parser(r));
    }
    return taken;
}

}  // namespace

TEST(BaseMpegTable, CrcHeaderAndScratchBuffer) {
    const uint8_t* check = reinterpret_cast<const uint8_t*>("123456789");
    EXPECT_EQ(crc32_mpeg2(check, 9), 0x0376E6E7u);
    EXPECT_EQ(crc32_mpeg2(check + 4, 5, crc32_mpeg2(check, 4)), 0x0376E6E7u);

    // 8-bit table id, 1 + 1 + 2 flag bits, 12-bit section length.
    CBaseMpegTable table, back;
    table.table_id = 0xA5;
    table.section_syntax_indicator = 1;
    table.reserved = 2;
    table.section_length = 0xABC;
    uint8_t buf[3];
    KVSDK::KVBSWriter w(buf, sizeof buf);
    ASSERT_TRUE(table.write(w));
    w.flush();
    EXPECT_EQ(buf[0] << 16 | buf[1] << 8 | buf[2], 0xA5AABC);
    KVSDK::KVBSReader r(buf, sizeof buf);
    ASSERT_TRUE(back.read(r));
    EXPECT_EQ((std::vector<unsigned>{back.section_syntax_indicator, back.zero, back.reserved,
                                     back.section_length}),
              (std::vector<unsigned>{1, 0, 2, 0xABC}));

    // At most size - 1 bytes fit.
    Bytes data(1024, 0x5A);
    EXPECT_TRUE(table.AddData(data.data(), 1000));
    EXPECT_TRUE(table.AddData(data.data(), 23));
    EXPECT_FALSE(table.AddData(data.data(), 1));
    EXPECT_EQ(table.GetSizeBuffer(), 1023u);
    table.Clear();
    EXPECT_EQ(table.GetSizeBuffer(), 0u);
}

TEST(BaseMpegTable, SectionOverManyPacketsIsTakenWhenComplete) {
    CBasePID state;
    CPacketWrapper<CPAT> wrapper;
    uint8_t cc = 0;
    const Bytes section = pat_section(250, 7);
    ASSERT_EQ(section.size(), 3u + 9u + 1000u);
    EXPECT_EQ(feed(state, wrapper, section, cc),
              (std::vector<bool>{false, false, false, false, false, true}));
    ASSERT_TRUE(wrapper.IsValid());
    EXPECT_EQ(wrapper.GetLast()->version_number, 7);
    ASSERT_EQ(wrapper.GetLast()->program_map.size(), 250u);
    EXPECT_EQ(wrapper.GetLast()->find(0x100 + 249)->program_number, 250);

    // The next unit start begins a new unit, which replaces the table whatever its
    // version.
    EXPECT_EQ(feed(state, wrapper, pat_section(2, 3), cc), std::vector<bool>{true});
    EXPECT_EQ(wrapper.GetLast()->version_number, 3);
    EXPECT_EQ(wrapper.GetLast()->program_map.size(), 2u);
    EXPECT_EQ(state.continuity_counter_error, 0);
}

TEST(BaseMpegTable, CorruptOrCutSectionsKeepThePreviousTable) {
    CPacketWrapper<CPAT> wrapper;
    const Bytes good = pat_section(3, 1);
    KVSDK::KVBSReader r(good.data(), good.size());
    ASSERT_TRUE(wrapper.Parser(r));

    // Any flipped bit, the CRC field's own included, is refused: a section_length grown
    // past the data as incomplete, any other change by the CRC.
    const Bytes newer = pat_section(4, 2);
    for (size_t bit = 0; bit < newer.size() * 8; ++bit) {
        Bytes bad = newer;
        bad[bit / 8] ^= static_cast<uint8_t>(0x80 >> (bit % 8));
        KVSDK::KVBSReader br(bad.data(), bad.size());
        EXPECT_FALSE(wrapper.Parser(br)) << "bit " << bit;
    }
    expect_prefixes_refused<CPAT>(newer);
    EXPECT_EQ(wrapper.GetLast()->version_number, 1);
    EXPECT_EQ(wrapper.GetLast()->program_map.size(), 3u);

    KVSDK::KVBSReader nr(newer.data(), newer.size());
    ASSERT_TRUE(wrapper.Parser(nr));
    EXPECT_EQ(wrapper.GetLast()->program_map.size(), 4u);
    wrapper.Clear();
    EXPECT_FALSE(wrapper.IsValid());
    EXPECT_TRUE(wrapper.GetLast()->program_map.empty());
}
