#pragma once

#include <cstddef>
#include <cstdint>

#include "kvcore/kv_align_memory.h"

namespace KVSDK {

// Hands out contiguous blocks from one 8-byte aligned buffer used as a ring.
//
// A writer asks for room with lock(n), fills it and makes it count with commit(n) (or does
// both with get(n)); a reader releases everything before a point with put(). A block never
// straddles the end of the buffer: when the tail is too short, the block goes to the
// beginning and the tail stays unused until the reader passes it. One byte is always left
// between a wrapped write position and the read position, so a full ring never looks
// empty. An emptied ring is not rewound to its beginning.
//
// Not synchronised: the owner serialises all calls.
class KVMemoryManager {
public:
    KVMemoryManager() = default;
    ~KVMemoryManager() = default;

    KVMemoryManager(const KVMemoryManager&) = delete;
    KVMemoryManager& operator=(const KVMemoryManager&) = delete;
    KVMemoryManager(KVMemoryManager&& other) noexcept;
    KVMemoryManager& operator=(KVMemoryManager&& other) noexcept;

    // Gives the ring `size` bytes and empties it. The current buffer is reused when it is
    // large enough; otherwise a new one replaces it. An allocation failure propagates as
    // the allocator's exception, and the previous buffer stays.
    void reset(size_t size);
    // Empties the ring and keeps the buffer.
    void reset();

    // Bytes held, including a tail abandoned by a wrap.
    size_t length() const;

    // Where n contiguous bytes can be written, or nullptr. May move the write position to
    // the beginning of the buffer (wrap); the block counts only after commit(n).
    uint8_t* lock(size_t n);
    // Whether lock(n) would succeed; changes nothing.
    bool tryLock(size_t n) const;
    // Makes the n bytes at the write position count as used.
    void commit(size_t n);
    // lock(n) and commit(n) in one step.
    uint8_t* get(size_t n);
    // Releases everything before address + n.
    void put(uint8_t* address, size_t n);

private:
    // The address lock(n) would return, or nullptr.
    uint8_t* place(size_t n) const;
    void takeOver(KVMemoryManager& other) noexcept;

    KVAlignMemory<uint8_t> m_pData;
    uint8_t* m_Begin = nullptr;     // first usable byte
    uint8_t* m_End = nullptr;       // one past the last usable byte
    uint8_t* m_curStart = nullptr;  // oldest byte still held
    uint8_t* m_curStop = nullptr;   // where the next block goes
    size_t m_Size = 0;              // usable size
};

}  // namespace KVSDK
