#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <type_traits>

namespace KVSDK {

// Shared holder of an array whose first element sits on a chosen byte boundary.
//
// Copies share one array; it is freed when the last holder lets go. Sizes are counted in
// elements of T, the alignment in bytes. The raw array is a byte array, so T must be a
// trivial type (plain bytes, integers, POD records).
template <class T>
class KVAlignMemory {
    static_assert(std::is_trivial<T>::value, "KVAlignMemory holds trivial types only");

public:
    KVAlignMemory() = default;
    KVAlignMemory(const KVAlignMemory&) = default;
    KVAlignMemory& operator=(const KVAlignMemory&) = default;

    KVAlignMemory(KVAlignMemory&& other) noexcept { takeOver(other); }
    KVAlignMemory& operator=(KVAlignMemory&& other) noexcept {
        if (this != &other) {
            takeOver(other);
        }
        return *this;
    }

    ~KVAlignMemory() { dealloc(); }

    // Makes room for `size` elements starting on a multiple of `alignment` bytes (0: no
    // alignment beyond the allocator's own).
    //
    // An existing array that is large enough and has the same alignment is kept together
    // with its contents; only the usable size changes. Otherwise a new array is made and
    // the old one released without copying anything over. Returns false, changing nothing,
    // when the alignment does not suit T or the byte count overflows. If the allocator
    // throws, the exception propagates and the previous array is kept.
    bool alloc(size_t size, size_t alignment) {
        if (alignment != 0 && alignment % alignof(T) != 0) {
            return false;
        }
        if (m_p && m_fullSize >= size && m_alignment == alignment) {
            m_size = size;
            return true;
        }
        const size_t extra = alignment != 0 ? alignment - 1 : 0;
        if (size > (std::numeric_limits<size_t>::max() - extra) / sizeof(T)) {
            return false;
        }
        const size_t bytes = size * sizeof(T) + extra;

        // Allocate first, so that a throwing allocator leaves this holder untouched.
        std::shared_ptr<uint8_t[]> p(new uint8_t[bytes]);
        uintptr_t start = reinterpret_cast<uintptr_t>(p.get());
        if (alignment != 0) {
            start = (start + alignment - 1) / alignment * alignment;
        }
        m_p = std::move(p);
        m_pAlign = reinterpret_cast<T*>(start);
        m_size = size;
        m_fullSize = size;
        m_alignment = alignment;
        return true;
    }

    // Lets go of the array (freed if this was its last holder) and empties the holder.
    void dealloc() {
        m_p.reset();
        m_pAlign = nullptr;
        m_size = 0;
        m_fullSize = 0;
        m_alignment = 0;
    }

    // Aligned start; nullptr when empty.
    T* data() const { return m_pAlign; }
    T& operator[](size_t i) const { return m_pAlign[i]; }
    // Usable element count.
    size_t size() const { return m_size; }
    // Element count the array was made for; the usable size never exceeds it.
    size_t fullSize() const { return m_fullSize; }
    size_t alignment() const { return m_alignment; }
    bool isValid() const { return m_p != nullptr; }

private:
    void takeOver(KVAlignMemory& other) noexcept {
        m_p = std::move(other.m_p);
        m_pAlign = other.m_pAlign;
        m_size = other.m_size;
        m_fullSize = other.m_fullSize;
        m_alignment = other.m_alignment;
        other.dealloc();
    }

    std::shared_ptr<uint8_t[]> m_p;  // owner of the raw array, shared between copies
    T* m_pAlign = nullptr;           // first element on the alignment boundary
    size_t m_size = 0;
    size_t m_fullSize = 0;
    size_t m_alignment = 0;
};

}  // namespace KVSDK
