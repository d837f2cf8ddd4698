#include "mpegcore/DescriptorLoopTable.h"

#include "mpegcore/table_io.h"

namespace mpegcore {

template <class IO>
bool CDescriptorLoopTable::fields(IO& io) {
    return io.reserved(reserved1, 18) && io("version_number", version_number, 5) &&
           io("current_next_indicator", current_next_indicator, 1) &&
           io("section_number", section_number, 8) &&
           io("last_section_number", last_section_number, 8) &&
           io.rest_descriptors("descriptors", descriptors) && io.crc(CRC);
}

template class table_of<CDescriptorLoopTable>;

void CDescriptorLoopTable::Clear() {
    descriptors.clear();
    CBaseMpegTable::Clear();
}

void CDescriptorLoopTable::copyLoopTableTo(CDescriptorLoopTable& to) const {
    copyHeaderTo(to);
    to.reserved1 = reserved1;
    to.version_number = version_number;
    to.current_next_indicator = current_next_indicator;
    to.section_number = section_number;
    to.last_section_number = last_section_number;
    descriptors.copyTo(to.descriptors);
    to.CRC = CRC;
}

}  // namespace mpegcore
