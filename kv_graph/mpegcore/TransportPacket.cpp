#include "mpegcore/TransportPacket.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "kvcore/kv_bitstream.h"

namespace mpegcore {

namespace {

template <class T>
T bits(KVSDK::KVBSReader& r, size_t n) {
    return static_cast<T>(r.getBits(n));
}

}  // namespace

void adaptation_field::clear() {
    static_assert(std::is_standard_layout<adaptation_field>::value &&
                      std::is_trivially_copyable<adaptation_field>::value,
                  "cleared bytewise");
    auto* bytes = reinterpret_cast<unsigned char*>(this);
    const size_t begin = offsetof(adaptation_field, private_data_byte);
    const size_t end = begin + sizeof(private_data_byte);
    std::memset(bytes, 0, begin);
    std::memset(bytes + end, 0, sizeof(*this) - end);
}

namespace {

// The adaptation field's extension, behind its flag.
void read_extension(KVSDK::KVBSReader& r, adaptation_field& af) {
    af.adaptation_field_extension_length = bits<uint8_t>(r, 8);
    af.ltw_flag = bits<uint8_t>(r, 1);
    af.piecewise_rate_flag = bits<uint8_t>(r, 1);
    af.seamless_splice_flag = bits<uint8_t>(r, 1);
    af.reserved2 = bits<uint8_t>(r, 5);
    if (af.ltw_flag) {
        af.ltw_valid_flag = bits<uint8_t>(r, 1);
        af.ltw_offset = bits<uint16_t>(r, 15);
    }
    if (af.piecewise_rate_flag) {
        af.reserved3 = bits<uint8_t>(r, 2);
        af.piecewise_rate = bits<uint32_t>(r, 22);
    }
    if (af.seamless_splice_flag) {
        af.splice_type = bits<uint8_t>(r, 4);
        af.DTS_next_AU = bits<uint8_t>(r, 3);
        af.marker_bit = bits<uint8_t>(r, 1);
        af.DTS_next_AU1 = bits<uint16_t>(r, 15);
        af.marker_bit1 = bits<uint8_t>(r, 1);
        af.DTS_next_AU2 = bits<uint16_t>(r, 15);
        af.marker_bit2 = bits<uint8_t>(r, 1);
    }
}

}  // namespace

bool adaptation_field::read(const uint8_t* data, size_t size, adaptation_field& out) {
    KVSDK::KVBSReader r(data, size);
    adaptation_field af;

    af.adaptation_field_length = bits<uint8_t>(r, 8);
    if (af.adaptation_field_length > 183) {
        return false;
    }
    if (af.adaptation_field_length == 0) {
        out = af;
        return true;
    }

    af.discontinuity_indicator = bits<uint8_t>(r, 1);
    af.random_access_indicator = bits<uint8_t>(r, 1);
    af.elementary_stream_priority_indicator = bits<uint8_t>(r, 1);
    af.PCR_flag = bits<uint8_t>(r, 1);
    af.OPCR_flag = bits<uint8_t>(r, 1);
    af.splicing_point_flag = bits<uint8_t>(r, 1);
    af.transport_private_data_flag = bits<uint8_t>(r, 1);
    af.adaptation_field_extension_flag = bits<uint8_t>(r, 1);

    if (af.PCR_flag) {
        af.program_clock_reference_base = bits<uint64_t>(r, 33);
        af.reserved = bits<uint8_t>(r, 6);
        af.program_clock_reference_extension = bits<uint16_t>(r, 9);
    }
    if (af.OPCR_flag) {
        af.original_program_clock_reference_base = bits<int64_t>(r, 33);
        af.reserved1 = bits<uint8_t>(r, 6);
        af.original_program_clock_reference_extension = bits<uint16_t>(r, 9);
    }
    if (af.splicing_point_flag) {
        af.splice_countdown = bits<uint8_t>(r, 8);
    }
    if (af.transport_private_data_flag) {
        af.transport_private_data_length = bits<uint8_t>(r, 8);
        // A length byte cannot exceed 255; only 189..255 are refused, while 188 is read
        // into the whole array with any bytes past the packet reading as 0.
        if (af.transport_private_data_length > sizeof(af.private_data_byte)) {
            return false;
        }
        for (size_t i = 0; i < af.transport_private_data_length; ++i) {
            af.private_data_byte[i] = bits<uint8_t>(r, 8);
        }
    }
    if (af.adaptation_field_extension_flag) {
        read_extension(r, af);
    }

    out = af;
    return true;
}

namespace packet_bytes {

uint64_t pcr(const uint8_t* p) {
    const uint8_t* f = p + 6;
    const uint64_t base = (uint64_t(f[0]) << 25) | (uint64_t(f[1]) << 17) | (uint64_t(f[2]) << 9) |
                          (uint64_t(f[3]) << 1) | (f[4] >> 7);
    return base * 300 + ((uint64_t(f[4] & 0x01) << 8) | f[5]);
}

void set_pcr(uint8_t* p, uint64_t ticks) {
    const uint64_t base = ticks / 300;
    const uint64_t ext = ticks % 300;
    uint8_t* f = p + 6;
    f[0] = static_cast<uint8_t>(base >> 25);
    f[1] = static_cast<uint8_t>(base >> 17);
    f[2] = static_cast<uint8_t>(base >> 9);
    f[3] = static_cast<uint8_t>(base >> 1);
    f[4] = static_cast<uint8_t>(((base & 1) << 7) | (f[4] & 0x7E) | ((ext >> 8) & 1));
    f[5] = static_cast<uint8_t>(ext);
}

}  // namespace packet_bytes

void transport_packet::decode_header(const uint8_t* packet) {
    const uint8_t b1 = packet[1];
    const uint8_t b3 = packet[3];
    sync_byte = packet[0];
    transport_error_indicator = (b1 >> 7) & 1;
    payload_unit_start_indicator = (b1 >> 6) & 1;
    transport_priority = (b1 >> 5) & 1;
    PID = static_cast<uint16_t>(((b1 & 0x1F) << 8) | packet[2]);
    transport_scrambling_control = (b3 >> 6) & 3;
    adaptation_field_control = (b3 >> 4) & 3;
    continuity_counter = b3 & 0x0F;
    af.clear();
    pStartDataPkt = packet;
    lSizePkt = static_cast<int64_t>(TS_PACKET_SIZE);
    pCurrDataPkt = packet + 4;
    lCurrSizePkt = static_cast<int64_t>(TS_PACKET_SIZE) - 4;
}

}  // namespace mpegcore
