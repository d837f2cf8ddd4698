#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/LongSectionTable.h"
#include "mpegcore/kvdescriptorlist.h"

namespace mpegcore {

// One transport stream of a NIT section.
class CBaseTransportStream {
public:
    CBaseTransportStream() = default;
    virtual ~CBaseTransportStream() = default;

    CBaseTransportStream(const CBaseTransportStream&) = delete;
    CBaseTransportStream& operator=(const CBaseTransportStream&) = delete;

    // Copies the scalar fields and a deep copy of the descriptors; the target's
    // network_descriptors_length becomes the copied list's size.
    void copyTo(CBaseTransportStream& to) const;
    // Size in the section: the 6 fixed bytes and the descriptors.
    uint16_t getSize() const { return static_cast<uint16_t>(6 + descriptors.getSize()); }

    uint16_t transport_stream_id = 0;         // 16 bits
    uint16_t original_network_id = 0;         // 16
    uint8_t reserved_future_use = 0;          // 4
    uint16_t network_descriptors_length = 0;  // 12: the transport descriptors' length
    KVDescriptorList descriptors;
};

// One section of a Network Information Table (actual or other network).
//
// The transport streams are kept in section order in a list; duplicates stay.
class CNIT : public CLongSectionTable {
public:
    using TransportStreamList = std::list<std::shared_ptr<CBaseTransportStream>>;

    explicit CNIT(uint8_t* buffer = nullptr, size_t size = 1024);
    ~CNIT() override = default;

    // Empties the transport streams, the network descriptors and the scratch buffer.
    void Clear() override;
    // Refuses an incomplete section, one with a bad CRC and one whose descriptor loops run
    // past the data. The table id is not checked. The transport stream loop is bounded by
    // transport_stream_loop_length alone. Fields read before a refusal stay as read.
    bool read(KVSDK::KVBSReader& r) override;
    // 13 + the network descriptors + every transport stream, sizes recomputed from the
    // descriptor lists.
    uint16_t calc_section_length() override;
    // Sum of the transport streams' sizes.
    uint16_t calc_transport_stream_loop_length() const;

    // Writes the section into the scratch buffer: the common header (section_length from
    // calc_section_length()), the header fields, network_descriptors_length and
    // transport_stream_loop_length recomputed and stored back, the transport streams in
    // order with their lengths recomputed, and the CRC if it still fits. Fields that do not
    // fit the buffer are dropped. Returns true when the whole section fitted.
    bool RenderTable();

    // Copies the header fields, the network descriptors, the CRC and appends a deep copy of
    // every transport stream to the target's list (which is not emptied first). The
    // target's transport_stream_loop_length counts the appended streams only; its
    // section_length is this table's. A null target (or this table itself) is ignored.
    void copyTo(CNIT* target) const;
    void copyTo(CNIT& target) const { copyTo(&target); }

    uint16_t network_id = 0;                    // 16 bits
    uint8_t reserved_future_use = 0;            // 4
    uint16_t network_descriptors_length = 0;    // 12
    KVDescriptorList descriptors;               // network descriptors
    uint8_t reserved_future_use1 = 0;           // 4
    uint16_t transport_stream_loop_length = 0;  // 12
    TransportStreamList transport_stream;
    uint32_t CRC = 0;

private:
    uint16_t section_length_of_contents() const;
};

}  // namespace mpegcore
