#pragma once

#include <cstddef>
#include <cstdint>

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
    // The extended header in a table's fields(), behind the table's own id.
    template <class IO>
    bool long_header(IO& io, const char* id_name, uint16_t& id) {
        return io(id_name, id, 16) && io.reserved(reserved1, 2) &&
               io("version_number", version_number, 5) &&
               io("current_next_indicator", current_next_indicator, 1) &&
               io("section_number", section_number, 8) &&
               io("last_section_number", last_section_number, 8);
    }
    // Copies the fields after the id (reserved1 .. last_section_number).
    void copy_versions_to(CLongSectionTable& to) const;
    bool same_versions(const CLongSectionTable& other) const;
};

}  // namespace mpegcore
