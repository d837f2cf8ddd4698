#pragma once

#include <cstdint>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/kvdescriptorlist.h"

namespace mpegcore {

// A section that is a header followed by one descriptor loop and the CRC: the CAT (CA
// descriptors) and the TSDT (transport stream descriptors) share this layout and all of
// its handling; they differ only in their copyTo.
class CDescriptorLoopTable : public CBaseMpegTable {
public:
    explicit CDescriptorLoopTable(uint8_t* buffer = nullptr, unsigned long size = 1024);
    ~CDescriptorLoopTable() override = default;

    // Empties the descriptors and the scratch buffer.
    void Clear() override;
    // Refuses an incomplete section and one with a bad CRC (the table id is not checked),
    // and one whose descriptor loop (section_length - 9 bytes) runs past the data. A
    // descriptor refused inside the loop is not a refusal. Fields that run past the
    // reader's data read as 0.
    bool read(KVSDK::KVBSReader& r) override;
    // The descriptors' size + 9.
    uint16_t calc_section_length() override;

    // Writes the section into the scratch buffer: the common header (section_length from
    // calc_section_length()), the header fields, the descriptors and the CRC if it still
    // fits. GetBuffer()/GetSizeBuffer() then hold the section. Returns true when the whole
    // section, CRC included, fitted.
    bool RenderTable();

    uint32_t reserved1 = 0;              // 18 bits
    uint8_t version_number = 0;          // 5
    uint8_t current_next_indicator = 0;  // 1
    uint8_t section_number = 0;          // 8
    uint8_t last_section_number = 0;     // 8
    KVDescriptorList descriptors;
    uint32_t CRC = 0;

protected:
    // Copies the header fields, a deep copy of the descriptors and the CRC. The target's
    // section_length is left for the caller to set.
    void copyLoopTableTo(CDescriptorLoopTable& to) const;
};

}  // namespace mpegcore
