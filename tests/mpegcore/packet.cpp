// The transport packet header and adaptation field: every field at its bit position under
// every flag combination, and lengths that would run past the packet.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/BaseMpegParser.h"

using namespace mpegcore;

namespace {

// The adaptation field in wire order. A field is present when bit `gate` of the layout
// number is set (always when -1); a flag takes its value from bit `flag_of`. Values fill
// their widths unevenly, so a wrong width or order shows up in a neighbour.
struct Field {
    size_t bits;
    int gate, flag_of;
    uint64_t value;
    uint64_t (*get)(const adaptation_field&);
};
#define F(bits, gate, flag_of, value, member)                                                    \
    {                                                                                            \
        bits, gate, flag_of, value, [](const adaptation_field& a) { return uint64_t(a.member); } \
    }
const Field kFields[] = {
    F(8, -1, -1, 183, adaptation_field_length),
    F(1, -1, 0, 0, discontinuity_indicator),
    F(1, -1, 1, 0, random_access_indicator),
    F(1, -1, 2, 0, elementary_stream_priority_indicator),
    F(1, -1, 3, 0, PCR_flag),
    F(1, -1, 4, 0, OPCR_flag),
    F(1, -1, 5, 0, splicing_point_flag),
    F(1, -1, 6, 0, transport_private_data_flag),
    F(1, -1, 7, 0, adaptation_field_extension_flag),
    F(33, 3, -1, 0x1FFFFFFFF, program_clock_reference_base),
    F(6, 3, -1, 0x2A, reserved),
    F(9, 3, -1, 299, program_clock_reference_extension),
    F(33, 4, -1, 0x123456789, original_program_clock_reference_base),
    F(6, 4, -1, 0x15, reserved1),
    F(9, 4, -1, 0x1AB, original_program_clock_reference_extension),
    F(8, 5, -1, 0xF3, splice_countdown),
    F(8, 6, -1, 3, transport_private_data_length),
    F(8, 6, -1, 0xDE, private_data_byte[0]),
    F(8, 6, -1, 0x00, private_data_byte[1]),
    F(8, 6, -1, 0xEF, private_data_byte[2]),
    F(8, 7, -1, 11, adaptation_field_extension_length),
    F(1, 7, 8, 0, ltw_flag),
    F(1, 7, 9, 0, piecewise_rate_flag),
    F(1, 7, 10, 0, seamless_splice_flag),
    F(5, 7, -1, 0x15, reserved2),
    F(1, 8, -1, 1, ltw_valid_flag),
    F(15, 8, -1, 0x5ABC, ltw_offset),
    F(2, 9, -1, 2, reserved3),
    F(22, 9, -1, 0x2ABCDE, piecewise_rate),
    F(4, 10, -1, 0xA, splice_type),
    F(3, 10, -1, 5, DTS_next_AU),
    F(1, 10, -1, 1, marker_bit),
    F(15, 10, -1, 0x6FFE, DTS_next_AU1),
    F(1, 10, -1, 0, marker_bit1),
    F(15, 10, -1, 0x1234, DTS_next_AU2),
    F(1, 10, -1, 1, marker_bit2),
};
#undef F

bool present(const Field& f, unsigned layout) {
    return f.gate < 0 || (layout >> f.gate) & 1;
}
uint64_t expected(const Field& f, unsigned layout) {
    return !present(f, layout) ? 0 : f.flag_of >= 0 ? (layout >> f.flag_of) & 1 : f.value;
}

// A packet with adaptation field only, stuffed with 0xFF after the fields.
std::vector<uint8_t> packet(unsigned layout) {
    std::vector<uint8_t> pkt(TS_PACKET_SIZE, 0xFF);
    pkt[0] = 0x47, pkt[1] = 0x01, pkt[2] = 0x00, pkt[3] = 0x20;
    KVSDK::KVBSWriter w(pkt.data() + 4, TS_PACKET_SIZE - 4);
    for (const Field& f : kFields) {
        if (present(f, layout)) {
            w.putBits(expected(f, layout), f.bits);
        }
    }
    w.flush();
    return pkt;
}

}  // namespace

TEST(TransportPacket, HeaderFieldsDecodeFromTheirBits) {
    const uint8_t bytes[TS_PACKET_SIZE] = {0x47, 0xBF, 0xFE, 0x9A};
    transport_packet p;
    p.decode_header(bytes);
    EXPECT_EQ((std::vector<unsigned>{p.transport_error_indicator, p.payload_unit_start_indicator,
                                     p.transport_priority, p.PID, p.transport_scrambling_control,
                                     p.adaptation_field_control, p.continuity_counter}),
              (std::vector<unsigned>{1, 0, 1, 0x1FFE, 2, 1, 10}));
    EXPECT_EQ(p.pCurrDataPkt, bytes + 4);
    EXPECT_EQ(p.lCurrSizePkt, 184);
}

TEST(TransportPacket, EveryFlagCombinationReadsBackExactly) {
    // 8 flags, and under the extension flag its 3 own: 128 + 128 * 8 layouts.
    for (unsigned layout = 0; layout < (1u << 11); ++layout) {
        if (!(layout & 0x80) && layout >> 8) {
            continue;
        }
        const std::vector<uint8_t> pkt = packet(layout);
        transport_packet p;
        p.decode_header(pkt.data());
        ASSERT_TRUE(CBaseMpegParser::ParserAdaptationField(p));
        for (const Field& f : kFields) {
            ASSERT_EQ(f.get(p.af), expected(f, layout))
                << "layout " << layout << " field " << (&f - kFields);
        }
        if (p.af.PCR_flag) {
            EXPECT_EQ(p.af.pcr(), 0x1FFFFFFFFll * 300 + 299);
        }
        // The in-place accessors read the same fields, and a PCR written in place reads
        // back without touching the reserved bits.
        namespace pb = mpegcore::packet_bytes;
        ASSERT_EQ(pb::pid(pkt.data()), p.PID);
        ASSERT_EQ(pb::continuity_counter(pkt.data()), p.continuity_counter);
        ASSERT_EQ(pb::has_payload(pkt.data()), p.has_payload());
        ASSERT_EQ(pb::discontinuity(pkt.data()), p.af.discontinuity_indicator != 0);
        ASSERT_EQ(pb::has_pcr(pkt.data()), p.af.PCR_flag != 0);
        if (p.af.PCR_flag) {
            ASSERT_EQ(int64_t(pb::pcr(pkt.data())), p.af.pcr());
            std::vector<uint8_t> moved = pkt;
            for (const uint64_t pcr : {0ull, 300 * 0x1FFFFFFFFull + 299, 12345678901ull}) {
                pb::set_pcr(moved.data(), pcr);
                ASSERT_EQ(pb::pcr(moved.data()), pcr);
                ASSERT_EQ(moved[10] & 0x7E, pkt[10] & 0x7E);
            }
        }
    }
}

TEST(TransportPacket, AdaptationFieldLengthsAreBounded) {
    adaptation_field sentinel;
    sentinel.splice_countdown = 0x77;
    std::vector<uint8_t> pkt = packet(0);
    transport_packet p;
    for (int length : {0, 183, 184, 255}) {
        pkt[4] = static_cast<uint8_t>(length);
        p.decode_header(pkt.data());
        p.af = sentinel;
        EXPECT_EQ(CBaseMpegParser::ParserAdaptationField(p), length <= 183) << length;
        EXPECT_EQ(p.af.splice_countdown, length <= 183 ? 0 : 0x77) << length;
    }

    // Private data of 188 bytes is read, those past the packet as 0; 189 is refused.
    pkt = packet(0x40);
    std::fill(pkt.begin() + 7, pkt.end(), 0xAB);
    for (int length : {188, 189}) {
        pkt[6] = static_cast<uint8_t>(length);
        p.decode_header(pkt.data());
        p.af = sentinel;
        ASSERT_EQ(CBaseMpegParser::ParserAdaptationField(p), length == 188) << length;
        EXPECT_EQ(p.af.private_data_byte[180], length == 188 ? 0xAB : 0);  // last in packet
        EXPECT_EQ(p.af.private_data_byte[181], 0);
    }

    // A PCR cut off by the end of the data reads as 0, without reading past it.
    const uint8_t cut[3] = {7, 0x10, 0xFF};
    p.pCurrDataPkt = cut;
    p.lCurrSizePkt = sizeof cut;
    ASSERT_TRUE(CBaseMpegParser::ParserAdaptationField(p));
    EXPECT_EQ(p.af.PCR_flag, 1);
    EXPECT_EQ(p.af.program_clock_reference_base, 0u);
}
