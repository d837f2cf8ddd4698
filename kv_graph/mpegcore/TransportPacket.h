#pragma once

#include <cstddef>
#include <cstdint>

namespace mpegcore {

// Size of one transport packet in bytes.
constexpr size_t TS_PACKET_SIZE = 188;
constexpr uint8_t TS_SYNC_BYTE = 0x47;
constexpr uint16_t TS_NULL_PID = 0x1FFF;
constexpr uint16_t TS_MAX_PID = 0x1FFF;

// Adaptation field of one transport packet, fields in wire order. A field whose flag is
// clear is zero; stuffing bytes after the last field are not kept.
struct adaptation_field {
    uint8_t adaptation_field_length = 0;               // 8 bits
    uint8_t discontinuity_indicator = 0;               // 1
    uint8_t random_access_indicator = 0;               // 1
    uint8_t elementary_stream_priority_indicator = 0;  // 1
    uint8_t PCR_flag = 0;                              // 1
    uint8_t OPCR_flag = 0;                             // 1
    uint8_t splicing_point_flag = 0;                   // 1
    uint8_t transport_private_data_flag = 0;           // 1
    uint8_t adaptation_field_extension_flag = 0;       // 1

    uint64_t program_clock_reference_base = 0;       // 33
    uint8_t reserved = 0;                            // 6
    uint16_t program_clock_reference_extension = 0;  // 9

    int64_t original_program_clock_reference_base = 0;        // 33
    uint8_t reserved1 = 0;                                    // 6
    uint16_t original_program_clock_reference_extension = 0;  // 9

    uint8_t splice_countdown = 0;  // 8

    uint8_t transport_private_data_length = 0;  // 8
    uint8_t private_data_byte[188] = {};        // first transport_private_data_length used

    uint8_t adaptation_field_extension_length = 0;  // 8
    uint8_t ltw_flag = 0;                           // 1
    uint8_t piecewise_rate_flag = 0;                // 1
    uint8_t seamless_splice_flag = 0;               // 1
    uint8_t reserved2 = 0;                          // 5

    uint8_t ltw_valid_flag = 0;  // 1
    uint16_t ltw_offset = 0;     // 15

    uint8_t reserved3 = 0;        // 2
    uint32_t piecewise_rate = 0;  // 22

    uint8_t splice_type = 0;    // 4
    uint8_t DTS_next_AU = 0;    // 3, bits 32..30
    uint8_t marker_bit = 0;     // 1
    uint16_t DTS_next_AU1 = 0;  // 15, bits 29..15
    uint8_t marker_bit1 = 0;    // 1
    uint16_t DTS_next_AU2 = 0;  // 15, bits 14..0
    uint8_t marker_bit2 = 0;    // 1

    // PCR in 27 MHz ticks: base * 300 + extension.
    int64_t pcr() const {
        return static_cast<int64_t>(program_clock_reference_base) * 300 +
               program_clock_reference_extension;
    }
    // OPCR in 27 MHz ticks.
    int64_t opcr() const {
        return original_program_clock_reference_base * 300 +
               original_program_clock_reference_extension;
    }

    // Zeroes every field but the private data bytes, which count only up to
    // transport_private_data_length (zeroed too): cheaper than a fresh field per packet.
    void clear();

    // Reads an adaptation field that starts at `data` (its length byte), reading no more
    // than `size` bytes; a field running past `size` reads as 0. The optional fields are
    // read as their flags announce, without checking them against the declared length.
    // Fails, leaving `out` unchanged, when the length is above 183 or the private data
    // length is above 188.
    static bool read(const uint8_t* data, size_t size, adaptation_field& out);
};

// One transport packet taken apart. It points into the caller's buffer and owns nothing.
struct transport_packet {
    uint8_t sync_byte = 0;                     // 8 bits
    uint8_t transport_error_indicator = 0;     // 1
    uint8_t payload_unit_start_indicator = 0;  // 1
    uint8_t transport_priority = 0;            // 1
    uint16_t PID = 0;                          // 13
    uint8_t transport_scrambling_control = 0;  // 2
    uint8_t adaptation_field_control = 0;      // 2: 1 payload, 2 adaptation field, 3 both
    uint8_t continuity_counter = 0;            // 4

    adaptation_field af;  // all zero when absent (private data bytes past a 0 length aside)

    const uint8_t* pStartDataPkt = nullptr;  // first byte of the packet
    int64_t lSizePkt = 0;                    // 188
    const uint8_t* pCurrDataPkt = nullptr;   // first byte not yet consumed
    int64_t lCurrSizePkt = 0;                // bytes from pCurrDataPkt to the packet's end

    bool has_adaptation_field() const { return (adaptation_field_control & 2) != 0; }
    bool has_payload() const { return (adaptation_field_control & 1) != 0; }

    // Decodes the four header bytes of the 188-byte packet at `packet`, clears the
    // adaptation field and points the payload cursor behind the header. The sync byte is
    // stored as found, not checked.
    void decode_header(const uint8_t* packet);
};

// Fields read from and written to a packet's 188 bytes in place, for code that looks at a
// field or two of every packet and has no use for a whole transport_packet.
namespace packet_bytes {

inline uint16_t pid(const uint8_t* p) {
    return static_cast<uint16_t>(((p[1] & 0x1F) << 8) | p[2]);
}
inline bool transport_error(const uint8_t* p) {
    return (p[1] & 0x80) != 0;
}
inline uint8_t continuity_counter(const uint8_t* p) {
    return p[3] & 0x0F;
}
inline void set_continuity_counter(uint8_t* p, unsigned cc) {
    p[3] = static_cast<uint8_t>((p[3] & 0xF0) | (cc & 0x0F));
}
inline bool has_payload(const uint8_t* p) {
    return (p[3] & 0x10) != 0;
}
inline bool has_adaptation_field(const uint8_t* p) {
    return (p[3] & 0x20) != 0;
}
// The adaptation field's discontinuity_indicator; false without a field or with an empty one.
inline bool discontinuity(const uint8_t* p) {
    return has_adaptation_field(p) && p[4] > 0 && (p[5] & 0x80) != 0;
}
// An adaptation field long enough for a PCR, with its PCR_flag set.
inline bool has_pcr(const uint8_t* p) {
    return has_adaptation_field(p) && p[4] >= 7 && (p[5] & 0x10) != 0;
}
// The PCR of a packet with has_pcr(), in 27 MHz ticks: base * 300 + extension.
uint64_t pcr(const uint8_t* p);
// Writes the PCR of a packet with has_pcr() (ticks below 2^33 * 300), leaving the reserved
// bits as they are.
void set_pcr(uint8_t* p, uint64_t ticks);

}  // namespace packet_bytes

}  // namespace mpegcore
