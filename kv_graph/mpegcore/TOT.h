#pragma once

#include <cstddef>
#include <cstdint>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/kvdescriptorlist.h"

namespace mpegcore {

// Time Offset Table section: the current UTC time (16-bit Modified Julian Date and BCD time
// of day, converted by CEventInfo) and a descriptor loop, normally local time offset
// descriptors, followed by the CRC. A descriptor refused inside the loop ends the loop
// without refusing the section. Fields that the reader's data does not reach read as 0 and
// the section is still accepted.
class CTOT : public table_of<CTOT> {
public:
    explicit CTOT(uint8_t* buffer = nullptr, size_t size = 1024) : table_of(buffer, size) {}
    ~CTOT() override = default;

    // Empties the descriptors and the scratch buffer.
    void Clear() override;
    template <class IO>
    bool fields(IO& io);

    // Writes the section into the scratch buffer, as write() does; GetBuffer()/
    // GetSizeBuffer() then hold it. Returns true when the whole section, CRC included,
    // fitted.
    bool RenderTable() { return render_into_buffer(); }
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

extern template class table_of<CTOT>;

}  // namespace mpegcore
