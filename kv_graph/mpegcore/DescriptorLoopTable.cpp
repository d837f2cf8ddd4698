#include "mpegcore/DescriptorLoopTable.h"

namespace mpegcore {

namespace {

// Fields after section_length up to the descriptor loop (5 bytes) and the CRC.
constexpr int kFixedLength = 9;

}  // namespace

CDescriptorLoopTable::CDescriptorLoopTable(uint8_t* buffer, unsigned long size)
    : CBaseMpegTable(buffer, size) {}

void CDescriptorLoopTable::Clear() {
    descriptors.clear();
    CBaseMpegTable::Clear();
}

bool CDescriptorLoopTable::read(KVSDK::KVBSReader& r) {
    if (!read_section_header(r)) {
        return false;
    }
    reserved1 = static_cast<uint32_t>(r.getBits(18));
    version_number = static_cast<uint8_t>(r.getBits(5));
    current_next_indicator = static_cast<uint8_t>(r.getBits(1));
    section_number = static_cast<uint8_t>(r.getBits(8));
    last_section_number = static_cast<uint8_t>(r.getBits(8));

    descriptors.clear();
    const int32_t loop_length = body_length(r);
    if (loop_length >= 1 &&
        !read_descriptor_loop(r, static_cast<uint16_t>(loop_length), descriptors, true)) {
        return false;
    }
    CRC = static_cast<uint32_t>(r.getBits(32));
    return true;
}

uint16_t CDescriptorLoopTable::calc_section_length() {
    return static_cast<uint16_t>(descriptors.getSize() + kFixedLength);
}

bool CDescriptorLoopTable::RenderTable() {
    const size_t capacity = m_pDataTable != nullptr ? m_lMaxSize : 0;
    KVSDK::KVBSWriter w(m_pDataTable, capacity);
    bool ok = write(w);
    ok = w.putBits<uint32_t>(reserved1 & 0x3FFFF, 18) && ok;
    ok = w.putBits<uint8_t>(version_number & 0x1F, 5) && ok;
    ok = w.putBits<uint8_t>(current_next_indicator & 1, 1) && ok;
    ok = w.putBits<uint8_t>(section_number, 8) && ok;
    ok = w.putBits<uint8_t>(last_section_number, 8) && ok;
    ok = descriptors.write(w) && ok;
    ok =
        finish_rendered_section(w, m_pDataTable, capacity, section_length, CRC, m_lSizeTable) && ok;
    return ok;
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
