#pragma once

#include <cstdint>

#include "mpegcore/DescriptorLoopTable.h"

namespace mpegcore {

// Transport Stream Description Table section: a header, transport stream descriptors and
// the CRC, handled as the CAT is.
class CTSDT : public CDescriptorLoopTable {
public:
    explicit CTSDT(uint8_t* buffer = nullptr, unsigned long size = 1024);
    ~CTSDT() override = default;

    // Copies everything (descriptors deep) into `target`, whose section_length becomes this
    // table's calc_section_length(), so that a subclass with a length rule of its own gets
    // that rule applied. A null target (or this table itself) is ignored.
    void copyTo(CTSDT* target) const;
    void copyTo(CTSDT& target) const { copyTo(&target); }
};

}  // namespace mpegcore
