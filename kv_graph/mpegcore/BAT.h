#pragma once

#include <cstddef>
#include <cstdint>
#include <list>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/LongSectionTable.h"
#include "mpegcore/kvdescriptorlist.h"

namespace mpegcore {

// One transport stream of a BAT section. It is itself a descriptor list, which is not used;
// its descriptors are in `descriptors`.
class CBouquetAssociationStream : public KVDescriptorList {
public:
    CBouquetAssociationStream() = default;
    ~CBouquetAssociationStream() override = default;

    CBouquetAssociationStream(const CBouquetAssociationStream&) = delete;
    CBouquetAssociationStream& operator=(const CBouquetAssociationStream&) = delete;

    // Copies the scalar fields and a deep copy of the descriptors. The target's
    // transport_descriptors_length becomes the copied list's size plus the 6 bytes of the
    // entry's own header.
    void copyTo(CBouquetAssociationStream& to) const;
    // Size in the section: the 6 fixed bytes and the descriptors.
    uint16_t getSize() const { return static_cast<uint16_t>(6 + descriptors.getSize()); }

    // transport_descriptors_length is written as it stands, not recomputed.
    template <class IO>
    bool fields(IO& io);

    uint16_t transport_stream_id = 0;           // 16 bits
    uint16_t original_network_id = 0;           // 16
    uint8_t reserved_future_use = 0;            // 4
    uint16_t transport_descriptors_length = 0;  // 12
    KVDescriptorList descriptors;
};

// One section of a Bouquet Association Table.
//
// The transport descriptors of every entry are read into the table's own `descriptors`,
// behind the bouquet descriptors, and the entries' lists stay empty: consumers find all
// descriptors of a section in `descriptors`. The entries are owned by the table. The
// transport stream loop is bounded by transport_stream_loop_length alone: fewer than 6
// bytes left in it end it.
class CBAT : public table_of<CBAT, CLongSectionTable> {
public:
    using StreamList = std::list<CBouquetAssociationStream*>;

    explicit CBAT(uint8_t* buffer = nullptr, long size = 1024);
    ~CBAT() override;

    // Deletes the entries, empties the descriptors and the scratch buffer.
    void Clear() override;
    // As every table reads, the transport descriptors then moved into `descriptors`.
    bool read(KVSDK::KVBSReader& r) override;

    template <class IO>
    bool fields(IO& io);

    // Sum of the entries' sizes (6 + their own descriptors each).
    uint16_t calc_transport_stream_loop_length() const;

    // Writes the section into the scratch buffer, as write() does: all descriptors as
    // bouquet descriptors, the entries with their stored transport_descriptors_length and
    // their own (normally empty) descriptors. The CRC is left out when it does not fit.
    // Returns true when the whole section fitted.
    bool RenderTable() { return render_into_buffer(); }
    // Copies the header fields, the descriptors, the CRC and appends a copy of every entry
    // to the target's list (which is not emptied first). The target's
    // transport_stream_loop_length counts the appended entries only; its section_length is
    // this table's. A null target (or this table itself) is ignored.
    void copyTo(CBAT* target) const;
    void copyTo(CBAT& target) const { copyTo(&target); }

    uint16_t bouquet_id = 0;                    // 16 bits
    uint8_t reserved_future_use2 = 0;           // 4
    uint16_t bouquet_descriptors_length = 0;    // 12
    KVDescriptorList descriptors;               // bouquet and transport descriptors
    uint8_t reserved_future_use3 = 0;           // 4
    uint16_t transport_stream_loop_length = 0;  // 12
    StreamList BouquetAssociationStreamList;    // owned
    uint32_t CRC = 0;

private:
    void deleteStreams();
};

extern template class table_of<CBAT, CLongSectionTable>;

}  // namespace mpegcore
