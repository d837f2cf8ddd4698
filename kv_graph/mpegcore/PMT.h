#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/LongSectionTable.h"
#include "mpegcore/kvdescriptorlist.h"
#include "mpegcore/table_view.h"

namespace mpegcore {

// One elementary stream of a PMT.
class CBaseStreamTypeMap {
public:
    CBaseStreamTypeMap() = default;
    virtual ~CBaseStreamTypeMap() = default;

    CBaseStreamTypeMap(const CBaseStreamTypeMap&) = delete;
    CBaseStreamTypeMap& operator=(const CBaseStreamTypeMap&) = delete;

    // Encoded size: the 5 fixed bytes and the descriptors.
    uint16_t getSize() const { return static_cast<uint16_t>(5 + descriptors.getSize()); }
    void copyTo(CBaseStreamTypeMap& to) const;

    template <class IO>
    bool fields(IO& io);

    uint8_t stream_type = 0;      // 8 bits
    uint8_t reserved1 = 0;        // 3
    uint16_t elementary_PID = 0;  // 13
    uint8_t reserved2 = 0;        // 4
    uint16_t ES_info_length = 0;  // 12
    KVDescriptorList descriptors;
};

// Program Map Table of one program: PCR PID, program descriptors and the elementary
// streams keyed by their PID (a later entry with the same PID replaces an earlier one).
// Fewer than 5 bytes in front of the CRC cannot hold a stream and end the stream loop, as
// does an ES_info_length that overshoots the section.
class CPMT : public table_of<CPMT, CLongSectionTable> {
public:
    using StreamMap = std::map<uint16_t, std::shared_ptr<CBaseStreamTypeMap>>;

    explicit CPMT(uint8_t* buffer = nullptr, size_t size = 1024) : table_of(buffer, size) {}
    ~CPMT() override = default;

    void Clear() override;
    // Also refuses a section whose table id is not 0x02 or whose zero bit is set.
    bool read(KVSDK::KVBSReader& r) override;

    template <class IO>
    bool fields(IO& io);

    // Compares the header fields, the descriptor sizes and the streams (not the CRC).
    bool operator!=(const CPMT& other) const;
    bool operator==(const CPMT& other) const { return !(*this != other); }
    void copyTo(CPMT& to) const;
    // One line for the fields and one per stream.
    std::string RenderTable() const { return table_text("PMT", *this); }

    // Stream entry of `pid`, or nullptr.
    const CBaseStreamTypeMap* find(uint16_t pid) const;

    uint16_t program_number = 0;       // 16 bits
    uint8_t reserved2 = 0;             // 3
    uint16_t PCR_PID = 0;              // 13
    uint8_t reserved3 = 0;             // 4
    uint16_t program_info_length = 0;  // 12
    KVDescriptorList descriptors;
    StreamMap stream_map;
    uint32_t CRC = 0;
};

extern template class table_of<CPMT, CLongSectionTable>;

}  // namespace mpegcore
