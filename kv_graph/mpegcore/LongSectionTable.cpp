#include "mpegcore/LongSectionTable.h"

namespace mpegcore {

void CLongSectionTable::copy_versions_to(CLongSectionTable& to) const {
    to.reserved1 = reserved1;
    to.version_number = version_number;
    to.current_next_indicator = current_next_indicator;
    to.section_number = section_number;
    to.last_section_number = last_section_number;
}

bool CLongSectionTable::same_versions(const CLongSectionTable& other) const {
    return reserved1 == other.reserved1 && version_number == other.version_number &&
           current_next_indicator == other.current_next_indicator &&
           section_number == other.section_number &&
           last_section_number == other.last_section_number;
}

}  // namespace mpegcore
