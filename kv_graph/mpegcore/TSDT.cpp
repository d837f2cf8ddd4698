#include "mpegcore/TSDT.h"

namespace mpegcore {

CTSDT::CTSDT(uint8_t* buffer, unsigned long size) : CDescriptorLoopTable(buffer, size) {}

void CTSDT::copyTo(CTSDT* target) const {
    if (target == nullptr || target == this) {
        return;
    }
    copyLoopTableTo(*target);
    // calc_section_length() only looks at the table; it is not const because the base
    // declares it so.
    target->section_length = const_cast<CTSDT*>(this)->calc_section_length();
}

}  // namespace mpegcore
