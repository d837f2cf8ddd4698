#include "mpegcore/CAT.h"

#include "mpegcore/kvdescriptorlist.h"

namespace mpegcore {

namespace {

// Fields after section_length up to the descriptor loop (5 bytes) and the CRC.
constexpr int kFixedLength = 9;

}  // namespace

CCAT::CCAT(uint8_t* buffer, unsigned long size) : CDescriptorLoopTable(buffer, size) {}

void CCAT::copyTo(CCAT* target) const {
    if (target == nullptr || target == this) {
        return;
    }
    copyLoopTableTo(*target);
    target->section_length = static_cast<uint16_t>(descriptors.getSize() + kFixedLength);
}

}  // namespace mpegcore
