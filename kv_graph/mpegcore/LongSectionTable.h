#pragma once

#include <cstddef>
#include <cstdint>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/BaseMpegTable.h"

namespace mpegcore {

// A table with the extended section header: after section_length a 16-bit id whose name
// each table gives (transport_stream_id, program_number, network_id, ...), then
// reserved (2), version_number (5), current_next_indicator (1), section_number (8) and
// last_section_number (8). PAT, PMT, NIT, SDT, BAT and EIT share it.
class CLongSectionTable : public CBaseMpegTable {
public:
    explicit CLongSectionTable(uint8_t* buffer = nullptr, size_t size = 1024)
        : CBaseMpegTable(buffer, size) {}

    uint8_t reserved1 = 0;               // 2 bits
    uint8_t version_number = 0;          // 5
    uint8_t current_next_indicator = 0;  // 1
    uint8_t section_number = 0;          // 8
    uint8_t last_section_number = 0;     // 8

protected:
    // Reads the extended header at the reader's position; returns the table's id.
    uint16_t read_long_header(KVSDK::KVBSReader& r);
    // Writes the extended header with `id`; false when the writer ran out of room.
    bool write_long_header(KVSDK::KVBSWriter& w, uint16_t id) const;
    // Copies the fields after the id (reserved1 .. last_section_number).
    void copy_versions_to(CLongSectionTable& to) const;
    bool same_versions(const CLongSectionTable& other) const;
};

}  // namespace mpegcore
