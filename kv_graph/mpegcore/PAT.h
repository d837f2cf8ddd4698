#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/BaseMpegProgram.h"
#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/LongSectionTable.h"
#include "mpegcore/table_view.h"

namespace mpegcore {

// Program Association Table. Its entries are keyed by their PID (PMT PID, or the network
// PID for program 0), so that a packet's PID can be looked up directly; two entries with
// the same PID collapse into one, the later winning. Whole entries only are read: a
// partial one in front of the CRC is ignored.
class CPAT : public table_of<CPAT, CLongSectionTable> {
public:
    explicit CPAT(uint8_t* buffer = nullptr, size_t size = 1024) : table_of(buffer, size) {}
    ~CPAT() override = default;

    void Clear() override;
    // As every table reads; the entries read are marked valid.
    bool read(KVSDK::KVBSReader& r) override;

    template <class IO>
    bool fields(IO& io);

    // Compares the header fields and the programs (not the CRC or the scratch buffer).
    bool operator!=(const CPAT& other) const;
    bool operator==(const CPAT& other) const { return !(*this != other); }
    void copyTo(CPAT& to) const;
    // One line for the fields and one per program.
    std::string RenderTable() const { return table_text("PAT", *this); }

    // Entry under `pid`, or nullptr.
    const CBaseMpegProgram* find(uint16_t pid) const;

    uint16_t transport_stream_id = 0;  // 16 bits
    std::map<uint16_t, CBaseMpegProgram> program_map;
    uint32_t CRC = 0;
};

extern template class table_of<CPAT, CLongSectionTable>;

}  // namespace mpegcore
