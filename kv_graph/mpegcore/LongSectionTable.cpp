#include "mpegcore/LongSectionTable.h"

namespace mpegcore {

uint16_t CLongSectionTable::read_long_header(KVSDK::KVBSReader& r) {
    const auto id = static_cast<uint16_t>(r.getBits(16));
    reserved1 = static_cast<uint8_t>(r.getBits(2));
    version_number = static_cast<uint8_t>(r.getBits(5));
    current_next_indicator = static_cast<uint8_t>(r.getBits(1));
    section_number = static_cast<uint8_t>(r.getBits(8));
    last_section_number = static_cast<uint8_t>(r.getBits(8));
    return id;
}

bool CLongSectionTable::write_long_header(KVSDK::KVBSWriter& w, uint16_t id) const {
    bool ok = w.putBits<uint16_t>(id, 16);
    ok = w.putBits<uint8_t>(reserved1 & 3, 2) && ok;
    ok = w.putBits<uint8_t>(version_number & 0x1F, 5) && ok;
    ok = w.putBits<uint8_t>(current_next_indicator & 1, 1) && ok;
    ok = w.putBits<uint8_t>(section_number, 8) && ok;
    ok = w.putBits<uint8_t>(last_section_number, 8) && ok;
    return ok;
}

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
