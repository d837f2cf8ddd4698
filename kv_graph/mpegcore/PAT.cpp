#include "mpegcore/PAT.h"

#include "kvcore/kv_string.h"

namespace mpegcore {

namespace {

// Fields after section_length up to the program loop, plus the CRC.
constexpr uint16_t kFixedLength = 9;
constexpr uint16_t kEntrySize = 4;

}  // namespace

CPAT::CPAT(uint8_t* buffer, size_t size) : CLongSectionTable(buffer, size) {}

void CPAT::Clear() {
    program_map.clear();
    CBaseMpegTable::Clear();
}

bool CPAT::read(KVSDK::KVBSReader& r) {
    if (!read_section_header(r)) {
        return false;
    }
    transport_stream_id = read_long_header(r);

    program_map.clear();
    // Whole entries only: a partial one in front of the CRC is ignored.
    while (body_length(r) >= kEntrySize) {
        CBaseMpegProgram program;
        program.program_number = static_cast<uint16_t>(r.getBits(16));
        program.reserved = static_cast<uint8_t>(r.getBits(3));
        const uint16_t pid = static_cast<uint16_t>(r.getBits(13));
        if (program.program_number == 0) {
            program.map_PID.network_PID = pid;
        } else {
            program.map_PID.program_map_PID = pid;
        }
        program.SetValid();
        program_map[pid] = program;
    }
    CRC = static_cast<uint32_t>(r.getBits(32));
    return true;
}

uint16_t CPAT::calc_section_length() {
    return static_cast<uint16_t>(kFixedLength + kEntrySize * program_map.size());
}

bool CPAT::write(KVSDK::KVBSWriter& w) {
    w.flush();
    const uint8_t* start = w.getData();
    bool ok = CBaseMpegTable::write(w);
    ok = write_long_header(w, transport_stream_id) && ok;
    for (const auto& entry : program_map) {
        const CBaseMpegProgram& program = entry.second;
        ok = w.putBits<uint16_t>(program.program_number, 16) && ok;
        ok = w.putBits<uint8_t>(program.reserved & 7, 3) && ok;
        ok = w.putBits<uint16_t>(entry.first & 0x1FFF, 13) && ok;
    }
    ok = write_crc(w, start, CRC) && ok;
    return ok;
}

bool CPAT::operator!=(const CPAT& other) const {
    if (!sameHeader(other) || transport_stream_id != other.transport_stream_id ||
        !same_versions(other) || program_map.size() != other.program_map.size()) {
        return true;
    }
    for (auto a = program_map.begin(), b = other.program_map.begin(); a != program_map.end();
         ++a, ++b) {
        if (a->first != b->first || a->second.program_number != b->second.program_number ||
            a->second.getPID() != b->second.getPID()) {
            return true;
        }
    }
    return false;
}

void CPAT::copyTo(CPAT& to) const {
    copyHeaderTo(to);
    to.transport_stream_id = transport_stream_id;
    copy_versions_to(to);
    to.program_map = program_map;
    to.CRC = CRC;
}

const CBaseMpegProgram* CPAT::find(uint16_t pid) const {
    const auto it = program_map.find(pid);
    return it != program_map.end() ? &it->second : nullptr;
}

std::string CPAT::RenderTable() const {
    using KVSDK::number_to_string;
    std::string text =
        "PAT table_id=" + number_to_string(0, unsigned(table_id)) +
        " section_length=" + number_to_string(0, unsigned(section_length)) +
        " transport_stream_id=" + number_to_string(0, unsigned(transport_stream_id)) +
        " version_number=" + number_to_string(0, unsigned(version_number)) +
        " current_next_indicator=" + number_to_string(0, unsigned(current_next_indicator)) +
        " section_number=" + number_to_string(0, unsigned(section_number)) +
        " last_section_number=" + number_to_string(0, unsigned(last_section_number)) +
        " CRC=" + number_to_string(0, CRC) + "\n";
    for (const auto& entry : program_map) {
        text += "  program_number=" + number_to_string(0, unsigned(entry.second.program_number)) +
                (entry.second.isNetwork() ? " network_PID=" : " program_map_PID=") +
                number_to_string(0, unsigned(entry.first)) + "\n";
    }
    return text;
}

}  // namespace mpegcore
