#include "mpegcore/PAT.h"

#include "mpegcore/table_io.h"

namespace mpegcore {

template <class IO>
bool CPAT::fields(IO& io) {
    return long_header(io, "transport_stream_id", transport_stream_id) &&
           io.entries("programs", program_map, 4,
                      [](const CBaseMpegProgram& p) { return p.getPID(); }) &&
           io.crc(CRC);
}

template class table_of<CPAT, CLongSectionTable>;

void CPAT::Clear() {
    program_map.clear();
    CBaseMpegTable::Clear();
}

bool CPAT::read(KVSDK::KVBSReader& r) {
    if (!table_of::read(r)) {
        return false;
    }
    for (auto& entry : program_map) {
        entry.second.SetValid();
    }
    return true;
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

}  // namespace mpegcore
