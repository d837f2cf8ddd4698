#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/BasePID.h"
#include "mpegcore/PAT.h"

using namespace mpegcore;

namespace {

// A PAT section with `programs` entries, written by CPAT::write.
std::vector<uint8_t> pat_section(int programs, uint8_t version) {
    CPAT pat;
    pat.version_number = version;
    for (int i = 0; i < programs; ++i) {
        CBaseMpegProgram& program = pat.program_map[static_cast<uint16_t>(0x100 + i)];
        program.program_number = static_cast<uint16_t>(i + 1);
        program.map_PID.program_map_PID = static_cast<uint16_t>(0x100 + i);
    }
    std::vector<uint8_t> out(1100);
    KVSDK::KVBSWriter w(out.data(), out.size());
    EXPECT_TRUE(pat.write(w));
    out.resize(w.getWritedBytes());
    return out;
}

// Cuts a section into packets of PID 0 (pointer_field 0, 0xFF stuffing) and handles
// each as the parser does: collect the payload and try the unit so far behind its
// pointer field. Returns, per packet, whether the section was taken.
std::vector<bool> feed(CBasePID& state, CPacketWrapper<CPAT>& wrapper,
                       const std::vector<uint8_t>& section, uint8_t& cc) {
    std::vector<uint8_t> payload(1 + section.size(), 0);  // pointer_field 0
    std::copy(section.begin(), section.end(), payload.begin() + 1);
    std::vector<bool> taken;
    for (size_t off = 0; off < payload.size(); off += 184) {
        uint8_t pkt[188];
        std::memset(pkt, 0xFF, sizeof pkt);
        pkt[0] = 0x47, pkt[1] = off == 0 ? 0x40 : 0, pkt[2] = 0, pkt[3] = 0x10 | (cc++ & 0x0F);
        std::memcpy(pkt + 4, &payload[off], std::min<size_t>(184, payload.size() - off));
        transport_packet p;
        p.decode_header(pkt);
        state.putPacket(p);
        const CDataAccumulator* unit = state.getCurData();
        KVSDK::KVBSReader r(unit->get(), unit->getLength());
        r.skipBytes(1);
        taken.push_back(wrapper.Parser(r));
    }
    return taken;
}

}  // namespace

TEST(BaseMpegTable, Crc32Mpeg2) {
    EXPECT_EQ(g_MPEG2_PSI_CRC_32_Lookup[1], 0x04C11DB7u);
    EXPECT_EQ(g_MPEG2_PSI_CRC_32_Lookup[128], 0x690CE0EEu);
    EXPECT_EQ(g_MPEG2_PSI_CRC_32_Lookup[255], 0xB1F740B4u);
    const uint8_t* check = reinterpret_cast<const uint8_t*>("123456789");
    EXPECT_EQ(crc32_mpeg2(check, 9), 0x0376E6E7u);
    EXPECT_EQ(crc32_mpeg2(check + 4, 5, crc32_mpeg2(check, 4)), 0x0376E6E7u);
}

TEST(BaseMpegTable, HeaderAndScratchBuffer) {
    CBaseMpegTable table;
    table.table_id = 0xA5;
    table.section_syntax_indicator = 1;
    table.reserved = 2;
    table.section_length = 0xABC;
    uint8_t buf[3];
    KVSDK::KVBSWriter w(buf, sizeof buf);
    ASSERT_TRUE(table.write(w));
    w.flush();
    EXPECT_EQ(buf[0] << 16 | buf[1] << 8 | buf[2], 0xA5AABC);

    CBaseMpegTable back;
    KVSDK::KVBSReader r(buf, sizeof buf);
    ASSERT_TRUE(back.read(r));
    EXPECT_EQ(back.section_syntax_indicator, 1);
    EXPECT_EQ(back.zero, 0);
    EXPECT_EQ(back.reserved, 2);
    EXPECT_EQ(back.section_length, 0xABC);
    // At most size - 1 bytes fit.
    std::vector<uint8_t> data(1024, 0x5A);
    EXPECT_TRUE(table.AddData(data.data(), 1000));
    EXPECT_TRUE(table.AddData(data.data(), 23));
    EXPECT_FALSE(table.AddData(data.data(), 1));
    EXPECT_EQ(table.GetSizeBuffer(), 1023u);
    table.Clear();
    EXPECT_EQ(table.GetSizeBuffer(), 0u);
    EXPECT_EQ(table.GetBuffer()[0], 0);
}

TEST(BaseMpegTable, SectionOverManyPacketsIsTakenWhenComplete) {
    CBasePID state;
    CPacketWrapper<CPAT> wrapper;
    uint8_t cc = 0;
    const std::vector<uint8_t> section = pat_section(250, 7);
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
    const std::vector<uint8_t> good = pat_section(3, 1);
    KVSDK::KVBSReader r(good.data(), good.size());
    ASSERT_TRUE(wrapper.Parser(r));

    // Any flipped bit, the CRC field's own included, is refused: a section_length grown
    // past the data as incomplete, any other change by the CRC.
    const std::vector<uint8_t> newer = pat_section(4, 2);
    for (size_t bit = 0; bit < newer.size() * 8; ++bit) {
        std::vector<uint8_t> bad = newer;
        bad[bit / 8] ^= static_cast<uint8_t>(0x80 >> (bit % 8));
        KVSDK::KVBSReader br(bad.data(), bad.size());
        EXPECT_FALSE(wrapper.Parser(br)) << "bit " << bit;
    }
    // Every cut is incomplete; each buffer is exactly as long as the cut, so a read past
    // it is caught.
    for (size_t n = 0; n < newer.size(); ++n) {
        const std::vector<uint8_t> cut(newer.begin(), newer.begin() + n);
        KVSDK::KVBSReader cr(cut.data(), n);
        EXPECT_FALSE(wrapper.Parser(cr)) << n;
    }
    EXPECT_EQ(wrapper.GetLast()->version_number, 1);
    EXPECT_EQ(wrapper.GetLast()->program_map.size(), 3u);

    KVSDK::KVBSReader nr(newer.data(), newer.size());
    ASSERT_TRUE(wrapper.Parser(nr));
    EXPECT_EQ(wrapper.GetLast()->program_map.size(), 4u);
    wrapper.Clear();
    EXPECT_FALSE(wrapper.IsValid());
    EXPECT_TRUE(wrapper.GetLast()->program_map.empty());
}
