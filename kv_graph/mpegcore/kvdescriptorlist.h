#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/base_descriptor.h"

namespace mpegcore {

// Kind of a descriptor loop. Splice descriptors reuse small tag numbers with meanings of
// their own, so a loop must know which table of tags applies.
enum KVDescriptorType { e_ts_desc_type = 0, e_scte35_desc_type = 1 };

// The descriptors of one descriptor loop, in stream order.
class KVDescriptorList {
public:
    explicit KVDescriptorList(KVDescriptorType t = e_ts_desc_type);
    virtual ~KVDescriptorList();

    // Copies share the descriptor objects; copyTo() makes a deep copy.
    KVDescriptorList(const KVDescriptorList&) = default;
    KVDescriptorList& operator=(const KVDescriptorList&) = default;
    KVDescriptorList(KVDescriptorList&&) = default;
    KVDescriptorList& operator=(KVDescriptorList&&) = default;

    // Reads descriptors until fewer than 3 bytes are left, appending them to the list (the
    // list is not emptied first). The reader must be bounded to exactly the loop. Fails at
    // the first descriptor that is refused (one that runs past the loop, or a body that does
    // not fit its class); the descriptors read before it stay in the list. Trailing bytes
    // fewer than 3 (a lone empty descriptor among them) are ignored.
    bool read(KVSDK::KVBSReader& r);
    // Writes every descriptor in list order; false when the writer runs out of room or a
    // descriptor cannot be written.
    bool write(KVSDK::KVBSWriter& w);
    // Replaces the contents of `to` (and its kind) by a deep copy of this list.
    void copyTo(KVDescriptorList& to) const;
    void clear();

    // Bytes write() produces: the sum of 2 + body size over the list, computed from the
    // fields as write() computes descriptor_length (so it equals the stored lengths of
    // descriptors read from a stream). Truncated to 16 bits.
    uint16_t getSize() const;
    // First descriptor with this tag, or an empty pointer.
    std::shared_ptr<base_descriptor> find(uint8_t tag) const;
    KVDescriptorType getType() const { return m_type; }

    std::list<std::shared_ptr<base_descriptor>> descriptor;

private:
    bool readTS(KVSDK::KVBSReader& r);
    bool readSCTE35(KVSDK::KVBSReader& r);
    // Reads one descriptor of class T and appends it on success.
    template <class T>
    bool add(KVSDK::KVBSReader& r);

    KVDescriptorType m_type;
};

}  // namespace mpegcore
