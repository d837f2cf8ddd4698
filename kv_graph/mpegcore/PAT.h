#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/BaseMpegProgram.h"
#include "mpegcore/LongSectionTable.h"

namespace mpegcore {

// Program Association Table. Its entries are keyed by their PID (PMT PID, or the network
// PID for program 0), so that a packet's PID can be looked up directly; two entries with
// the same PID collapse into one, the later winning.
class CPAT : public CLongSectionTable {
public:
    explicit CPAT(uint8_t* buffer = nullptr, size_t size = 1024);
    ~CPAT() override = default;

    void Clear() override;
    // Refuses an incomplete section or one with a bad CRC. The table id is not checked.
    bool read(KVSDK::KVBSReader& r) override;
    // Writes the whole section, CRC included.
    bool write(KVSDK::KVBSWriter& w) override;
    uint16_t calc_section_length() override;

    // Compares the header fields and the programs (not the CRC or the scratch buffer).
    bool operator!=(const CPAT& other) const;
    bool operator==(const CPAT& other) const { return !(*this != other); }
    void copyTo(CPAT& to) const;
    // One line per field and per program.
    std::string RenderTable() const;

    // Entry under `pid`, or nullptr.
    const CBaseMpegProgram* find(uint16_t pid) const;

    uint16_t transport_stream_id = 0;    // 16 bits
    std::map<uint16_t, CBaseMpegProgram> program_map;
    uint32_t CRC = 0;
};

}  // namespace mpegcore
