#pragma once

#include <cstddef>
#include <cstdint>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/kvdescriptorlist.h"

namespace mpegcore {

// Time Offset Table section: the current UTC time (16-bit Modified Julian Date and BCD time
// of day, converted by CEventInfo) and a descriptor loop, normally local time offset
// descriptors, followed by the CRC.
class CTOT : public CBaseMpegTable {
public:
    explicit CTOT(uint8_t* buffer = nullptr, size_t size = 1024);
    ~CTOT() override = default;

    // Empties the descriptors and the scratch buffer.
    void Clear() override;
    // Refuses an incomplete section, one with a bad CRC (the table id is not checked) and
    // one whose descriptor loop runs past the data; a descriptor refused inside the loop is
    // not a refusal. Fields that the reader's data does not reach read as 0 and the section
    // is still accepted.
    bool read(KVSDK::KVBSReader& r) override;
    // The descriptors' size + 11.
    uint16_t calc_section_length() override;

    // Writes the section into the scratch buffer: the common header (section_length from
    // calc_section_length()), UTC_time, descriptors_loop_length recomputed from the
    // descriptors and stored back, the descriptors and the CRC if it still fits.
    // GetBuffer()/GetSizeBuffer() then hold the section. Returns true when the whole
    // section, CRC included, fitted.
    bool RenderTable();

    // Copies the header fields, UTC_time, the CRC and a deep copy of the descriptors into
    // `target`; its descriptors_loop_length and section_length are recomputed from the
    // copied descriptors. A null target (or this table itself) is ignored.
    void copyTo(CTOT* target) const;
    void copyTo(CTOT& target) const { copyTo(&target); }

    uint64_t UTC_time = 0;                 // 40 bits
    uint8_t reserved1 = 0;                 // 4
    uint16_t descriptors_loop_length = 0;  // 12
    KVDescriptorList descriptors;
    uint32_t CRC = 0;
};

}  // namespace mpegcore
