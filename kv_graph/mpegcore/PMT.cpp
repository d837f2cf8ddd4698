#include "mpegcore/PMT.h"

#include "kvcore/kv_string.h"

namespace mpegcore {

namespace {

constexpr uint8_t kPmtTableId = 0x02;
// Fields after section_length up to the program descriptors (9 bytes) and the CRC.
constexpr int kFixedLength = 13;
// stream_type, elementary_PID and ES_info_length with their reserved bits.
constexpr int kStreamHeaderSize = 5;

}  // namespace

void CBaseStreamTypeMap::copyTo(CBaseStreamTypeMap& to) const {
    to.stream_type = stream_type;
    to.reserved1 = reserved1;
    to.elementary_PID = elementary_PID;
    to.reserved2 = reserved2;
    to.ES_info_length = ES_info_length;
    to.descriptors.clear();
    descriptors.copyTo(to.descriptors);
}

CPMT::CPMT(uint8_t* buffer, size_t size) : CLongSectionTable(buffer, size) {}

void CPMT::Clear() {
    descriptors.clear();
    stream_map.clear();
    CBaseMpegTable::Clear();
}

bool CPMT::read(KVSDK::KVBSReader& r) {
    KVSDK::KVBSReader header = r;
    CBaseMpegTable::read(header);
    if (table_id != kPmtTableId || zero != 0) {
        return false;
    }
    if (!read_section_header(r)) {
        return false;
    }
    program_number = read_long_header(r);
    reserved2 = static_cast<uint8_t>(r.getBits(3));
    PCR_PID = static_cast<uint16_t>(r.getBits(13));
    reserved3 = static_cast<uint8_t>(r.getBits(4));
    program_info_length = static_cast<uint16_t>(r.getBits(12));

    descriptors.clear();
    stream_map.clear();
    if (!read_descriptor_loop(r, program_info_length, descriptors)) {
        return false;
    }

    // Fewer than 5 bytes cannot hold a stream and end the loop, as does an ES_info_length
    // that overshoots the section.
    while (body_length(r) >= kStreamHeaderSize) {
        auto stream = std::make_shared<CBaseStreamTypeMap>();
        stream->stream_type = static_cast<uint8_t>(r.getBits(8));
        stream->reserved1 = static_cast<uint8_t>(r.getBits(3));
        stream->elementary_PID = static_cast<uint16_t>(r.getBits(13));
        stream->reserved2 = static_cast<uint8_t>(r.getBits(4));
        stream->ES_info_length = static_cast<uint16_t>(r.getBits(12));
        if (!read_descriptor_loop(r, stream->ES_info_length, stream->descriptors)) {
            return false;
        }
        stream_map[stream->elementary_PID] = std::move(stream);
    }
    CRC = static_cast<uint32_t>(r.getBits(32));
    return true;
}

uint16_t CPMT::calc_section_length() {
    size_t length = kFixedLength + descriptors.getSize();
    for (const auto& entry : stream_map) {
        length += entry.second->getSize();
    }
    return static_cast<uint16_t>(length);
}

bool CPMT::write(KVSDK::KVBSWriter& w) {
    w.flush();
    const uint8_t* start = w.getData();
    program_info_length = descriptors.getSize();
    bool ok = CBaseMpegTable::write(w);
    ok = write_long_header(w, program_number) && ok;
    ok = w.putBits<uint8_t>(reserved2 & 7, 3) && ok;
    ok = w.putBits<uint16_t>(PCR_PID & 0x1FFF, 13) && ok;
    ok = w.putBits<uint8_t>(reserved3 & 0xF, 4) && ok;
    ok = w.putBits<uint16_t>(program_info_length & 0x0FFF, 12) && ok;
    ok = descriptors.write(w) && ok;
    for (const auto& entry : stream_map) {
        CBaseStreamTypeMap& stream = *entry.second;
        stream.ES_info_length = stream.descriptors.getSize();
        ok = w.putBits<uint8_t>(stream.stream_type, 8) && ok;
        ok = w.putBits<uint8_t>(stream.reserved1 & 7, 3) && ok;
        ok = w.putBits<uint16_t>(entry.first & 0x1FFF, 13) && ok;
        ok = w.putBits<uint8_t>(stream.reserved2 & 0xF, 4) && ok;
        ok = w.putBits<uint16_t>(stream.ES_info_length & 0x0FFF, 12) && ok;
        ok = stream.descriptors.write(w) && ok;
    }
    ok = write_crc(w, start, CRC) && ok;
    return ok;
}

bool CPMT::operator!=(const CPMT& other) const {
    if (!sameHeader(other) || program_number != other.program_number ||
        !same_versions(other) || PCR_PID != other.PCR_PID ||
        program_info_length != other.program_info_length ||
        descriptors.getSize() != other.descriptors.getSize() ||
        descriptors.descriptor.size() != other.descriptors.descriptor.size() ||
        stream_map.size() != other.stream_map.size()) {
        return true;
    }
    for (auto a = stream_map.begin(), b = other.stream_map.begin(); a != stream_map.end();
         ++a, ++b) {
        const CBaseStreamTypeMap& x = *a->second;
        const CBaseStreamTypeMap& y = *b->second;
        if (a->first != b->first || x.stream_type != y.stream_type ||
            x.elementary_PID != y.elementary_PID || x.ES_info_length != y.ES_info_length ||
            x.descriptors.getSize() != y.descriptors.getSize() ||
            x.descriptors.descriptor.size() != y.descriptors.descriptor.size()) {
            return true;
        }
    }
    return false;
}

void CPMT::copyTo(CPMT& to) const {
    copyHeaderTo(to);
    to.program_number = program_number;
    copy_versions_to(to);
    to.reserved2 = reserved2;
    to.PCR_PID = PCR_PID;
    to.reserved3 = reserved3;
    to.program_info_length = program_info_length;
    to.descriptors.clear();
    descriptors.copyTo(to.descriptors);
    to.stream_map.clear();
    for (const auto& entry : stream_map) {
        auto stream = std::make_shared<CBaseStreamTypeMap>();
        entry.second->copyTo(*stream);
        to.stream_map[entry.first] = std::move(stream);
    }
    to.CRC = CRC;
}

const CBaseStreamTypeMap* CPMT::find(uint16_t pid) const {
    const auto it = stream_map.find(pid);
    return it != stream_map.end() ? it->second.get() : nullptr;
}

std::string CPMT::RenderTable() const {
    using KVSDK::number_to_string;
    std::string text =
        "PMT table_id=" + number_to_string(0, unsigned(table_id)) +
        " section_length=" + number_to_string(0, unsigned(section_length)) +
        " program_number=" + number_to_string(0, unsigned(program_number)) +
        " version_number=" + number_to_string(0, unsigned(version_number)) +
        " current_next_indicator=" + number_to_string(0, unsigned(current_next_indicator)) +
        " section_number=" + number_to_string(0, unsigned(section_number)) +
        " last_section_number=" + number_to_string(0, unsigned(last_section_number)) +
        " PCR_PID=" + number_to_string(0, unsigned(PCR_PID)) +
        " program_info_length=" + number_to_string(0, unsigned(program_info_length)) +
        " descriptors=" + number_to_string(0, descriptors.descriptor.size()) +
        " CRC=" + number_to_string(0, CRC) + "\n";
    for (const auto& entry : stream_map) {
        const CBaseStreamTypeMap& stream = *entry.second;
        text += "  stream_type=" + number_to_string(0, unsigned(stream.stream_type)) +
                " elementary_PID=" + number_to_string(0, unsigned(entry.first)) +
                " ES_info_length=" + number_to_string(0, unsigned(stream.ES_info_length)) +
                " descriptors=" + number_to_string(0, stream.descriptors.descriptor.size()) + "\n";
    }
    return text;
}

}  // namespace mpegcore
