#include "mpegcore/TDT.h"

#include "mpegcore/table_io.h"

namespace mpegcore {

namespace {

constexpr uint8_t kTdtTableId = 0x70;
// UTC_time is all that follows section_length.
constexpr uint16_t kSectionLength = 5;

}  // namespace

template class table_of<CTDT>;

CTDT::CTDT(uint8_t* buffer, size_t size) : table_of(buffer, size) {}

CTDT::CTDT(uint64_t utc_time, uint8_t* buffer, size_t size)
    : table_of(buffer, size), UTC_time(utc_time) {
    table_id = kTdtTableId;
    section_syntax_indicator = 0;
    zero = 0;
    reserved = 3;
    section_length = kSectionLength;
}

bool CTDT::read(KVSDK::KVBSReader& r) {
    CBaseMpegTable::read(r);
    if (r.getLength() < kSectionLength) {
        return false;
    }
    table_io::table_reader io(r, nullptr);
    return fields(io);
}

void CTDT::copyTo(CTDT* target) const {
    if (target == nullptr) {
        return;
    }
    copyHeaderTo(*target);
    target->section_length = kSectionLength;
    target->UTC_time = UTC_time;
}

}  // namespace mpegcore
