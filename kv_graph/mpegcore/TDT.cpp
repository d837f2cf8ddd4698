#include "mpegcore/TDT.h"

namespace mpegcore {

namespace {

constexpr uint8_t kTdtTableId = 0x70;
// UTC_time is all that follows section_length.
constexpr uint16_t kSectionLength = 5;
constexpr uint64_t kUtcTimeMask = 0xFFFFFFFFFFull;

}  // namespace

CTDT::CTDT(uint8_t* buffer, size_t size) : CBaseMpegTable(buffer, size) {}

CTDT::CTDT(uint64_t utc_time, uint8_t* buffer, size_t size)
    : CBaseMpegTable(buffer, size), UTC_time(utc_time) {
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
    UTC_time = r.getBits(40) & kUtcTimeMask;
    return true;
}

uint16_t CTDT::calc_section_length() {
    return kSectionLength;
}

bool CTDT::RenderTable() {
    const size_t capacity = m_pDataTable != nullptr ? m_lMaxSize : 0;
    KVSDK::KVBSWriter w(m_pDataTable, capacity);
    bool ok = write(w);
    ok = w.putBits<uint64_t>(UTC_time & kUtcTimeMask, 40) && ok;
    w.flush();
    m_lSizeTable = section_length + size_t(3);
    if (m_lSizeTable > capacity) {
        m_lSizeTable = capacity;
    }
    return ok;
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
