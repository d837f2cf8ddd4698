#pragma once

#include <cstdint>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/kvdescriptorlist.h"

namespace mpegcore {

// A section that is a header followed by one descriptor loop and the CRC: the CAT (CA
// descriptors) and the TSDT (transport stream descriptors) share this layout and all of
// its handling; they differ only in their copyTo. The loop runs up to the CRC; a
// descriptor refused inside it ends it without refusing the section.
class CDescriptorLoopTable : public table_of<CDescriptorLoopTable> {
public:
    explicit CDescriptorLoopTable(uint8_t* buffer = nullptr, unsigned long size = 1024)
        : table_of(buffer, size) {}
    ~CDescriptorLoopTable() override = default;

    // Empties the descriptors and the scratch buffer.
    void Clear() override;
    template <class IO>
    bool fields(IO& io);

    // Writes the section into the scratch buffer, as write() does; GetBuffer()/
    // GetSizeBuffer() then hold it. Returns true when the whole section, CRC included,
    // fitted.
    bool RenderTable() { return render_into_buffer(); }

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

extern template class table_of<CDescriptorLoopTable>;

}  // namespace mpegcore
