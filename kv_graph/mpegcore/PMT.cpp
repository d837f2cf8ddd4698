#include "mpegcore/PMT.h"

#include "mpegcore/table_io.h"

namespace mpegcore {

namespace {

constexpr uint8_t kPmtTableId = 0x02;

}  // namespace

template <class IO>
bool CBaseStreamTypeMap::fields(IO& io) {
    return io("stream_type", stream_type, 8) && io.reserved(reserved1, 3) &&
           io("elementary_PID", elementary_PID, 13) && io.reserved(reserved2, 4) &&
           io.length("ES_info_length", ES_info_length, 12, [&] { return descriptors.getSize(); }) &&
           io.descriptors("descriptors", descriptors, ES_info_length);
}

template <class IO>
bool CPMT::fields(IO& io) {
    return long_header(io, "program_number", program_number) && io.reserved(reserved2, 3) &&
           io("PCR_PID", PCR_PID, 13) && io.reserved(reserved3, 4) &&
           io.length("program_info_length", program_info_length, 12,
                     [&] { return descriptors.getSize(); }) &&
           io.descriptors("descriptors", descriptors, program_info_length) &&
           io.entries("streams", stream_map, 5,
                      [](const CBaseStreamTypeMap& s) { return s.elementary_PID; }) &&
           io.crc(CRC);
}

template class table_of<CPMT, CLongSectionTable>;

void CBaseStreamTypeMap::copyTo(CBaseStreamTypeMap& to) const {
    to.stream_type = stream_type;
    to.reserved1 = reserved1;
    to.elementary_PID = elementary_PID;
    to.reserved2 = reserved2;
    to.ES_info_length = ES_info_length;
    to.descriptors.clear();
    descriptors.copyTo(to.descriptors);
}

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
    return table_of::read(r);
}

bool CPMT::operator!=(const CPMT& other) const {
    if (!sameHeader(other) || program_number != other.program_number || !same_versions(other) ||
        PCR_PID != other.PCR_PID || program_info_length != other.program_info_length ||
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

}  // namespace mpegcore
