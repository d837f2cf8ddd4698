#include "mpegcore/BaseMpegTable.h"

#include "mpegcore/kvdescriptorlist.h"

#include <cstring>

namespace mpegcore {

namespace {

constexpr uint32_t kCrcPolynomial = 0x04C11DB7;

constexpr std::array<uint32_t, 256> make_crc_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t crc = i << 24;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x80000000u) ? (crc << 1) ^ kCrcPolynomial : crc << 1;
        }
        table[i] = crc;
    }
    return table;
}

// table_id, the flags with section_length: the bytes up to and including section_length.
constexpr size_t kHeaderSize = 3;

}  // namespace

const std::array<uint32_t, 256> g_MPEG2_PSI_CRC_32_Lookup = make_crc_table();

uint32_t crc32_mpeg2(const uint8_t* data, size_t size, uint32_t crc) {
    for (size_t i = 0; i < size; ++i) {
        crc = (crc << 8) ^ g_MPEG2_PSI_CRC_32_Lookup[((crc >> 24) ^ data[i]) & 0xFF];
    }
    return crc;
}

CBaseMpegTable::CBaseMpegTable(uint8_t* buffer, size_t size) : m_lMaxSize(size) {
    if (buffer == nullptr) {
        m_pDataTable = size != 0 ? new uint8_t[size]() : nullptr;
        m_bSelfAlloc = true;
    } else {
        m_pDataTable = buffer;
    }
}

CBaseMpegTable::~CBaseMpegTable() {
    if (m_bSelfAlloc) {
        delete[] m_pDataTable;
    }
}

void CBaseMpegTable::Clear() {
    if (m_pDataTable != nullptr && m_lMaxSize != 0) {
        std::memset(m_pDataTable, 0, m_lMaxSize);
    }
    m_lSizeTable = 0;
}

bool CBaseMpegTable::AddData(const uint8_t* data, size_t n) {
    if (m_pDataTable == nullptr || n >= m_lMaxSize - m_lSizeTable) {
        return false;
    }
    if (n != 0) {
        std::memcpy(m_pDataTable + m_lSizeTable, data, n);
    }
    m_lSizeTable += n;
    return true;
}

bool CBaseMpegTable::read(KVSDK::KVBSReader& r) {
    if (r.getLength() < 1) {
        return true;
    }
    table_id = static_cast<uint8_t>(r.getBits(8));
    if (r.getLength() < 2) {
        return true;
    }
    section_syntax_indicator = static_cast<uint8_t>(r.getBits(1));
    zero = static_cast<uint8_t>(r.getBits(1));
    reserved = static_cast<uint8_t>(r.getBits(2));
    section_length = static_cast<uint16_t>(r.getBits(12) & 0x0FFF);
    return true;
}

bool CBaseMpegTable::write(KVSDK::KVBSWriter& w) {
    bool ok = w.putBits<uint8_t>(table_id, 8);
    ok = w.putBits<uint8_t>(section_syntax_indicator & 1, 1) && ok;
    ok = w.putBits<uint8_t>(zero & 1, 1) && ok;
    ok = w.putBits<uint8_t>(reserved & 3, 2) && ok;
    section_length = static_cast<uint16_t>(calc_section_length() & 0x0FFF);
    ok = w.putBits<uint16_t>(section_length, 12) && ok;
    return ok;
}

void CBaseMpegTable::copyHeaderTo(CBaseMpegTable& to) const {
    to.table_id = table_id;
    to.section_syntax_indicator = section_syntax_indicator;
    to.zero = zero;
    to.reserved = reserved;
    to.section_length = section_length;
}

bool CBaseMpegTable::sameHeader(const CBaseMpegTable& other) const {
    return table_id == other.table_id &&
           section_syntax_indicator == other.section_syntax_indicator && zero == other.zero &&
           reserved == other.reserved && section_length == other.section_length;
}

bool CBaseMpegTable::read_section_header(KVSDK::KVBSReader& r) {
    const uint8_t* start = r.getData();
    const size_t available = r.getLength();
    // A header cut short would leave section_length from an earlier section.
    if (available < kHeaderSize) {
        return false;
    }
    CBaseMpegTable::read(r);
    // Not all of the section has arrived yet.
    if (section_length > available - kHeaderSize) {
        return false;
    }
    m_pSectionEnd = start + kHeaderSize + section_length;
    // The CRC over the whole section, its CRC field included, is 0 when it is intact.
    return crc32_mpeg2(start, kHeaderSize + section_length) == 0;
}

bool read_descriptor_loop(KVSDK::KVBSReader& r, uint16_t length, KVDescriptorList& list,
                          bool lenient) {
    if (length == 0) {
        return true;
    }
    if (r.getLength() < length) {
        return false;
    }
    KVSDK::KVBSReader loop(r.getData(), length);
    if (!list.read(loop) && !lenient) {
        return false;
    }
    r.skipBytes(length);
    return true;
}

bool finish_rendered_section(KVSDK::KVBSWriter& w, const uint8_t* buffer, size_t capacity,
                             uint16_t section_length, uint32_t& crc, size_t& size) {
    w.flush();
    // The section is section_length + 3 bytes long; all but its last 4 are covered.
    size_t covered = section_length > 0 ? section_length - 1u : 0u;
    if (covered > capacity) {
        covered = capacity;
    }
    crc = crc32_mpeg2(buffer, covered);
    bool written = false;
    if (w.getLength() >= size_t(4)) {
        written = w.putBits<uint32_t>(crc, 32);
        w.flush();
    }
    // Never claim more bytes than the buffer holds, or AddData would write past it.
    size = section_length + size_t(3);
    if (size > capacity) {
        size = capacity;
    }
    return written;
}

}  // namespace mpegcore
