#include "mpegcore/TOT.h"

namespace mpegcore {

namespace {

// UTC_time and descriptors_loop_length (7 bytes) and the CRC.
constexpr int kFixedLength = 11;
constexpr uint64_t kUtcTimeMask = 0xFFFFFFFFFFull;

}  // namespace

CTOT::CTOT(uint8_t* buffer, size_t size) : CBaseMpegTable(buffer, size) {}

void CTOT::Clear() {
    descriptors.clear();
    CBaseMpegTable::Clear();
}

bool CTOT::read(KVSDK::KVBSReader& r) {
    if (!read_section_header(r)) {
        return false;
    }
    // A section_length too short for these fields leaves the reader to run out; whatever
    // lies beyond the data reads as 0.
    UTC_time = r.getBits(40) & kUtcTimeMask;
    reserved1 = static_cast<uint8_t>(r.getBits(4));
    descriptors_loop_length = static_cast<uint16_t>(r.getBits(12));
    descriptors.clear();
    if (!read_descriptor_loop(r, descriptors_loop_length, descriptors, true)) {
        return false;
    }
    CRC = static_cast<uint32_t>(r.getBits(32));
    return true;
}

uint16_t CTOT::calc_section_length() {
    return static_cast<uint16_t>(descriptors.getSize() + kFixedLength);
}

bool CTOT::RenderTable() {
    const size_t capacity = m_pDataTable != nullptr ? m_lMaxSize : 0;
    KVSDK::KVBSWriter w(m_pDataTable, capacity);
    bool ok = write(w);
    ok = w.putBits<uint64_t>(UTC_time & kUtcTimeMask, 40) && ok;
    ok = w.putBits<uint8_t>(reserved1 & 0xF, 4) && ok;
    descriptors_loop_length = descriptors.getSize();
    ok = w.putBits<uint16_t>(descriptors_loop_length & 0x0FFF, 12) && ok;
    ok = descriptors.write(w) && ok;
    ok =
        finish_rendered_section(w, m_pDataTable, capacity, section_length, CRC, m_lSizeTable) && ok;
    return ok;
}

void CTOT::copyTo(CTOT* target) const {
    if (target == nullptr || target == this) {
        return;
    }
    copyHeaderTo(*target);
    target->UTC_time = UTC_time;
    target->reserved1 = reserved1;
    descriptors.copyTo(target->descriptors);
    target->descriptors_loop_length = target->descriptors.getSize();
    target->CRC = CRC;
    target->section_length = static_cast<uint16_t>(target->descriptors_loop_length + kFixedLength);
}

}  // namespace mpegcore
