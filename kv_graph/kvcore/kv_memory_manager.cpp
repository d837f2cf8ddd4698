#include "kvcore/kv_memory_manager.h"

#include <new>
#include <utility>

namespace KVSDK {

namespace {
constexpr size_t kAlignment = 8;
}

KVMemoryManager::KVMemoryManager(KVMemoryManager&& other) noexcept {
    takeOver(other);
}

KVMemoryManager& KVMemoryManager::operator=(KVMemoryManager&& other) noexcept {
    if (this != &other) {
        takeOver(other);
    }
    return *this;
}

void KVMemoryManager::takeOver(KVMemoryManager& other) noexcept {
    // The array itself does not move, so the positions stay valid in the new owner.
    m_pData = std::move(other.m_pData);
    m_Begin = std::exchange(other.m_Begin, nullptr);
    m_End = std::exchange(other.m_End, nullptr);
    m_curStart = std::exchange(other.m_curStart, nullptr);
    m_curStop = std::exchange(other.m_curStop, nullptr);
    m_Size = std::exchange(other.m_Size, 0);
}

void KVMemoryManager::reset(size_t size) {
    // alloc only refuses a size whose byte count cannot be represented; treat that as the
    // allocation failure it is.
    if (!m_pData.alloc(size, kAlignment)) {
        throw std::bad_alloc();
    }
    m_Begin = m_pData.data();
    m_End = m_Begin + m_pData.size();
    m_Size = m_pData.size();
    m_curStart = m_curStop = m_Begin;
}

void KVMemoryManager::reset() {
    m_curStart = m_curStop = m_Begin;
}

size_t KVMemoryManager::length() const {
    if (m_curStart < m_curStop) {
        return static_cast<size_t>(m_curStop - m_curStart);
    }
    if (m_curStart == m_curStop) {
        return 0;
    }
    return static_cast<size_t>(m_curStop - m_Begin) + static_cast<size_t>(m_End - m_curStart);
}

// All comparisons use distances rather than "pointer + n", which keeps them defined for an
// empty manager (null pointers) and for any n.
uint8_t* KVMemoryManager::place(size_t n) const {
    const size_t tail = static_cast<size_t>(m_End - m_curStop);
    if (m_curStop < m_curStart) {
        // Wrapped: the block must end strictly before the read position.
        return static_cast<size_t>(m_curStart - m_curStop) > n ? m_curStop : nullptr;
    }
    // Not wrapped (or empty): write at the stop if the tail is long enough, otherwise at
    // the beginning, provided a byte of gap remains before the read position.
    if (tail >= n) {
        return m_curStop;
    }
    if (static_cast<size_t>(m_curStart - m_Begin) > n) {
        return m_Begin;
    }
    return nullptr;
}

uint8_t* KVMemoryManager::lock(size_t n) {
    uint8_t* p = place(n);
    if (p) {
        m_curStop = p;
    }
    return p;
}

bool KVMemoryManager::tryLock(size_t n) const {
    return place(n) != nullptr;
}

void KVMemoryManager::commit(size_t n) {
    m_curStop += n;
}

uint8_t* KVMemoryManager::get(size_t n) {
    uint8_t* p = place(n);
    if (p) {
        m_curStop = p + n;
    }
    return p;
}

void KVMemoryManager::put(uint8_t* address, size_t n) {
    m_curStart = address + n;
}

}  // namespace KVSDK
