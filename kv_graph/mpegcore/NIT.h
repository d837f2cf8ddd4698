#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

#include "mpegcore/BaseMpegTable.h"
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

    template <class IO>
    bool fields(IO& io);

    uint16_t transport_stream_id = 0;         // 16 bits
    uint16_t original_network_id = 0;         // 16
    uint8_t reserved_future_use = 0;          // 4
    uint16_t network_descriptors_length = 0;  // 12: the transport descriptors' length
    KVDescriptorList descriptors;
};

// One section of a Network Information Table (actual or other network).
//
// The transport streams are kept in section order in a list; duplicates stay. The
// transport stream loop is bounded by transport_stream_loop_length alone: fewer than 6
// bytes left in it end it, and past the data its entries read as zeros.
class CNIT : public table_of<CNIT, CLongSectionTable> {
public:
    using TransportStreamList = std::list<std::shared_ptr<CBaseTransportStream>>;

    explicit CNIT(uint8_t* buffer = nullptr, size_t size = 1024) : table_of(buffer, size) {}
    ~CNIT() override = default;

    // Empties the transport streams, the network descriptors and the scratch buffer.
    void Clear() override;
    template <class IO>
    bool fields(IO& io);

    // Sum of the transport streams' sizes.
    uint16_t calc_transport_stream_loop_length() const;

    // Writes the section into the scratch buffer, as write() does; GetBuffer()/
    // GetSizeBuffer() then hold it. The CRC is left out when it does not fit. Returns true
    // when the whole section fitted.
    bool RenderTable() { return render_into_buffer(); }
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
};

extern template class table_of<CNIT, CLongSectionTable>;

}  // namespace mpegcore
