#pragma once

#include <cstdint>

#include "mpegcore/DescriptorLoopTable.h"

namespace mpegcore {

// Conditional Access Table section. The parser routes EMM packets by its CA descriptors.
class CCAT : public CDescriptorLoopTable {
public:
    explicit CCAT(uint8_t* buffer = nullptr, unsigned long size = 1024);
    ~CCAT() override = default;

    // Copies everything (descriptors deep) into `target`, whose section_length becomes this
    // table's descriptor size + 9. A null target (or this table itself) is ignored.
    void copyTo(CCAT* target) const;
    void copyTo(CCAT& target) const { copyTo(&target); }
};

}  // namespace mpegcore
