#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "kvcore/kv_ring_queue.h"

namespace mpegcore {

// One block of stored stream bytes with its due time (100 ns units). The block comes
// from the FIFO's memory manager and is not owned by the item; the item itself is owned
// through a unique pointer while it moves between the FIFO's queues and the output side.
struct kv_mpegts_item {
    bool m_bSetTime = false;     // the item carries a time (anchor or interpolated)
    int64_t m_tStamp = 0;        // due time
    uint8_t* m_pData = nullptr;  // the block, m_nSize bytes
    size_t m_nSize = 0;          // capacity of the block
    size_t m_nLength = 0;        // bytes filled so far

    kv_mpegts_item() = default;
    kv_mpegts_item(uint8_t* pData, size_t nSize) : m_pData(pData), m_nSize(nSize) {}

    bool has_time() const { return m_bSetTime; }
    void set_time(int64_t tStamp) {
        m_tStamp = tStamp;
        m_bSetTime = true;
    }
    // Empties the item for reuse; the old stamp stays until a new one is set.
    void clear() {
        m_bSetTime = false;
        m_nLength = 0;
    }
    // Appends as many bytes as still fit and returns how many were taken.
    size_t copy_from(const uint8_t* pData, size_t nLength) {
        const size_t n = std::min(m_nSize - m_nLength, nLength);
        if (n > 0) {
            std::memcpy(m_pData + m_nLength, pData, n);
            m_nLength += n;
        }
        return n;
    }
    bool is_full() const { return m_nLength == m_nSize; }
    int64_t time() const { return m_tStamp; }
    uint8_t* get_data() const { return m_pData; }
    size_t get_length() const { return m_nLength; }
};

// Item queues: the FIFO reserves room for all its items in each of its own, so moving
// items between them never allocates.
using kv_mpegts_items = KVSDK::kv_ring_queue<std::unique_ptr<kv_mpegts_item>>;

}  // namespace mpegcore
