#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

// Keeps the refill and store paths out of line, so that the common case of every
// getBits and putBits call stays small enough to be inlined at its call site.
#if defined(__GNUC__)
#define KV_BITSTREAM_NOINLINE __attribute__((noinline))
#else
#define KV_BITSTREAM_NOINLINE
#endif

namespace KVSDK {

// mask_impl[n] == 2^n - 1 for n in 0..64: index 0 is 0, index 64 has all bits set.
extern const uint64_t mask_impl[65];

namespace bitstream_detail {

constexpr uint64_t lowMask(size_t n) {
    return n >= 64 ? ~uint64_t(0) : (uint64_t(1) << n) - 1;
}

inline uint64_t loadBigEndian64(const void* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof(v));
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    return v;
}

inline void storeBigEndian64(void* p, uint64_t v) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    std::memcpy(p, &v, sizeof(v));
}

template <class T>
constexpr uint64_t toBits(T value) {
    if constexpr (std::is_enum<T>::value) {
        return static_cast<uint64_t>(static_cast<std::underlying_type_t<T>>(value));
    } else {
        // Signed values convert modulo 2^64, so their low bits are the two's complement form.
        return static_cast<uint64_t>(value);
    }
}

}  // namespace bitstream_detail

// Reads fields of 1 to 64 bits, most significant bit first, from a caller-owned buffer.
//
// P is a pointer to a byte type (normally const uint8_t*). The reader never owns the
// memory and never allocates. Bytes are pulled into a 64-bit cache whose low m_sizeCache
// bits are the unread ones, so a field that lies inside the cache costs a shift and a
// mask.
//
// The first cache load is deliberately short: it takes the bytes up to the next 4-byte
// boundary of the buffer's address (1 to 3 bytes), or 8 bytes when the address is already
// on such a boundary, never more than the buffer holds. Every later refill takes eight
// bytes, or what is left. Nothing may depend on how many bytes the cache holds.
//
// Running out is not an error state: a field that crosses the end of the buffer reads as
// 0 and leaves the reader at the end; skipping past the end does nothing. Callers check
// getLength() against the lengths their syntax promises.
template <class P>
class KVBSReaderT {
    static_assert(std::is_pointer<P>::value && sizeof(std::remove_pointer_t<P>) == 1,
                  "KVBSReaderT works over a pointer to bytes");

public:
    // An empty reader: every getBits returns 0.
    KVBSReaderT() = default;

    KVBSReaderT(P buffer, size_t length) : m_data(buffer), m_length(length) {
        const size_t misalignment = reinterpret_cast<uintptr_t>(buffer) & 3;
        const size_t first = misalignment == 0 ? 8 : 4 - misalignment;
        load(m_Cache, m_sizeCache, m_data, m_length, first < length ? first : length);
    }

    virtual ~KVBSReaderT() = default;

    KVBSReaderT(const KVBSReaderT&) = default;
    KVBSReaderT& operator=(const KVBSReaderT&) = default;
    KVBSReaderT(KVBSReaderT&&) noexcept = default;
    KVBSReaderT& operator=(KVBSReaderT&&) noexcept = default;

    // Returns the next n bits (n from 1 to 64) right-aligned and consumes them. A field
    // that runs past the end of the buffer yields 0; its bits are consumed all the same.
    // n outside 1..64 returns 0 and consumes nothing.
    uint64_t getBits(size_t n) {
        // Fast path: the field lies inside the cache and leaves at least one bit behind,
        // so no refill is due.
        if (n != 0 && n < m_sizeCache) {
            m_sizeCache -= n;
            return (m_Cache >> m_sizeCache) & mask_impl[n];
        }
        return getBitsSlow(n);
    }

    // Stores the next N bits in `out` without consuming them. Returns false, with `out`
    // set to 0, when fewer than N bits are left.
    template <size_t N, class T>
    bool lookBits(T& out) const {
        static_assert(N >= 1 && N <= 64, "lookBits reads 1 to 64 bits");
        static_assert(std::is_integral<T>::value && N <= 8 * sizeof(T),
                      "lookBits needs an integer type wide enough for N bits");
        if (N <= m_sizeCache) {
            out = static_cast<T>((m_Cache >> (m_sizeCache - N)) & bitstream_detail::lowMask(N));
            return true;
        }
        uint64_t cache = m_Cache;
        size_t sizeCache = m_sizeCache;
        P data = m_data;
        size_t length = m_length;
        uint64_t value = 0;
        const bool ok = take(cache, sizeCache, data, length, N, value);
        out = static_cast<T>(ok ? value : 0);
        return ok;
    }

    // Moves to the start of the byte n bytes after the one holding the next unread bit.
    // A partly read byte counts as one of the n (the rest of it is dropped), so from a
    // byte boundary this skips exactly n bytes. When fewer than n bytes are left, counting
    // a partly read byte as whole, nothing changes. skipBytes(0) does nothing.
    void skipBytes(size_t n) {
        const size_t inCache = (m_sizeCache + 7) / 8;
        if (n == 0 || n > m_length + inCache) {
            return;
        }
        m_length = m_length + inCache - n;
        m_data = m_data - inCache + n;
        load(m_Cache, m_sizeCache, m_data, m_length, m_length < 8 ? m_length : 8);
    }

    // Whole bytes that can still be read: the unread bits divided by 8, rounded down. A
    // partly read byte is not counted, so `getLength() >= k` guarantees that k more bytes'
    // worth of fields (8k bits) can be read from the current bit. On a byte boundary this
    // is the distance from getData() to the end of the buffer.
    size_t getLength() const { return m_length + m_sizeCache / 8; }

    // The byte holding the next unread bit (a partly read byte itself); at the end, the
    // end of the buffer. On a byte boundary the bytes [getData(), getData() + getLength())
    // are exactly the unread ones, e.g. a descriptor body after its tag and length.
    P getData() const { return m_data - (m_sizeCache + 7) / 8; }

    // Drops the unread rest of a partly read byte; does nothing on a byte boundary.
    void alignByte() {
        m_sizeCache &= ~size_t(7);
        if (m_sizeCache == 0) {
            load(m_Cache, m_sizeCache, m_data, m_length, m_length < 8 ? m_length : 8);
        }
    }

    // Whole unread bytes currently held in the cache.
    size_t getCacheByte() const { return m_sizeCache / 8; }

    // Discards the cache and reloads it from the first byte not yet loaded with n bytes
    // (n is capped at 8 and at what the buffer still holds).
    void updateCache(size_t n) {
        if (n > 8) {
            n = 8;
        }
        load(m_Cache, m_sizeCache, m_data, m_length, n < m_length ? n : m_length);
    }

    void swap(KVBSReaderT& other) noexcept {
        std::swap(m_Cache, other.m_Cache);
        std::swap(m_sizeCache, other.m_sizeCache);
        std::swap(m_data, other.m_data);
        std::swap(m_length, other.m_length);
    }

private:
    KV_BITSTREAM_NOINLINE uint64_t getBitsSlow(size_t n) {
        uint64_t value = 0;
        return take(m_Cache, m_sizeCache, m_data, m_length, n, value) ? value : 0;
    }

    // Puts the next k bytes (k <= 8, k <= length) big-endian into the low k bytes of the
    // cache; they become the unread bits.
    static void load(uint64_t& cache, size_t& sizeCache, P& data, size_t& length, size_t k) {
        if (k == 8) {
            cache = bitstream_detail::loadBigEndian64(data);
        } else {
            uint64_t v = 0;
            for (size_t i = 0; i < k; ++i) {
                v = (v << 8) | static_cast<uint8_t>(data[i]);
            }
            cache = v;
        }
        sizeCache = 8 * k;
        data += k;
        length -= k;
    }

    // Gathers n bits across as many refills as needed. Works on the fields passed in, so
    // lookBits can run it on copies. Refills as soon as the cache empties, so an empty
    // cache always means the buffer is used up. Returns false when the buffer ends first;
    // the bits gathered until then are consumed and lost.
    static bool take(uint64_t& cache, size_t& sizeCache, P& data, size_t& length, size_t n,
                     uint64_t& out) {
        if (n == 0 || n > 64 || sizeCache == 0) {
            return false;
        }
        uint64_t result = 0;
        size_t wanted = n;
        for (;;) {
            const size_t t = wanted < sizeCache ? wanted : sizeCache;
            sizeCache -= t;
            wanted -= t;
            const uint64_t piece = (cache >> sizeCache) & mask_impl[t];
            result = t == 64 ? piece : (result << t) | piece;
            if (sizeCache == 0) {
                load(cache, sizeCache, data, length, length < 8 ? length : 8);
                if (wanted != 0 && sizeCache == 0) {
                    return false;
                }
            }
            if (wanted == 0) {
                out = result;
                return true;
            }
        }
    }

    uint64_t m_Cache = 0;    // loaded bytes, big-endian; the unread bits are the low ones
    size_t m_sizeCache = 0;  // unread bits in m_Cache (0..64)
    P m_data = nullptr;      // first byte not yet loaded into the cache
    size_t m_length = 0;     // bytes from m_data to the end of the buffer
};

template <class P>
void swap(KVBSReaderT<P>& a, KVBSReaderT<P>& b) noexcept {
    a.swap(b);
}

// Appends fields of 1 to 64 bits, most significant bit first, to a caller-owned buffer.
//
// Bits collect at the top of a 64-bit cache and are stored eight bytes at a time, big
// endian. The cache is also stored the moment its bits exactly fill the room left, so a
// buffer whose length is not a multiple of eight is filled to its last byte without a
// flush. Callers write a structure with a run of putBits and call flush() before they
// count bytes or hand the buffer on. Never allocates.
template <class P>
class KVBSWriterT {
    static_assert(std::is_pointer<P>::value && sizeof(std::remove_pointer_t<P>) == 1,
                  "KVBSWriterT works over a pointer to bytes");

public:
    // A writer without room: every putBits returns false.
    KVBSWriterT() = default;

    KVBSWriterT(P buffer, size_t length) : m_data(buffer), m_length(length) {}

    virtual ~KVBSWriterT() = default;

    KVBSWriterT(const KVBSWriterT&) = default;
    KVBSWriterT& operator=(const KVBSWriterT&) = default;
    KVBSWriterT(KVBSWriterT&&) noexcept = default;
    KVBSWriterT& operator=(KVBSWriterT&&) noexcept = default;

    // Appends the low n bits of `value` (n from 1 to 64); signed values are written in
    // two's complement. Returns false when the buffer ran out: the bits that still fitted
    // are kept, the rest are lost. n == 0 writes nothing and succeeds; n > 64 fails and
    // writes nothing.
    template <class T>
    bool putBits(T value, size_t n) {
        static_assert(std::is_integral<T>::value || std::is_enum<T>::value,
                      "putBits writes integers");
        const uint64_t bits = bitstream_detail::toBits(value);
        // Fast path: with eight or more bytes of room a cache that is not yet full fits,
        // so no store and no room check are due.
        if (n != 0 && n < m_sizeCache && m_length >= 8) {
            appendToCache(bits, n);
            return true;
        }
        return putBitsSlow(bits, n);
    }

    template <size_t N, class T>
    bool putBits(T value) {
        static_assert(N >= 1 && N <= 64, "putBits writes 1 to 64 bits");
        return putBits(value, N);
    }

    // Appends the low n bits of `value` to the cache only, without storing anything.
    // Returns false, changing nothing, unless 1 <= n <= the cache's free bits and the
    // cache still fits the room left afterwards.
    template <class T>
    bool putBitsToCach(T value, size_t n) {
        if (n == 0 || n > roomInCache()) {
            return false;
        }
        appendToCache(bitstream_detail::toBits(value), n);
        return true;
    }

    // Stores whatever the cache holds, a partly filled last byte with its unused low bits
    // zero, and empties the cache. Does nothing on an empty cache.
    void flush() { updateData(); }

    // Stores the cache (see flush()).
    void updateData() {
        const size_t k = getCacheByte();
        if (k == 8) {
            bitstream_detail::storeBigEndian64(m_data, m_cache);
        } else {
            for (size_t i = 0; i < k; ++i) {
                m_data[i] = static_cast<std::remove_pointer_t<P>>(m_cache >> (56 - 8 * i));
            }
        }
        m_data += k;
        m_length -= k;
        m_writeByte += k;
        m_cache = 0;
        m_sizeCache = 64;
    }

    // Bytes stored in the buffer so far; bits still in the cache are not counted.
    size_t getWritedBytes() const { return m_writeByte; }

    // Where the next stored byte goes.
    P getData() const { return m_data; }

    // Bits written but not yet stored.
    size_t getCacheBits() const { return 64 - m_sizeCache; }

    // Bytes the cache occupies once stored, a partly filled byte included.
    size_t getCacheByte() const { return 8 - m_sizeCache / 8; }

    // Bytes still free in the buffer beyond what is stored and what the cache will store.
    size_t getLength() const { return m_length - getCacheByte(); }

    void swap(KVBSWriterT& other) noexcept {
        std::swap(m_cache, other.m_cache);
        std::swap(m_sizeCache, other.m_sizeCache);
        std::swap(m_data, other.m_data);
        std::swap(m_length, other.m_length);
        std::swap(m_writeByte, other.m_writeByte);
    }

private:
    // Requires 1 <= n <= m_sizeCache.
    void appendToCache(uint64_t bits, size_t n) {
        m_sizeCache -= n;
        m_cache |= (bits & mask_impl[n]) << m_sizeCache;
    }

    // Bits the cache may still take: its free bits, limited by the room left in the
    // buffer so that a store never runs past the end.
    size_t roomInCache() const {
        if (m_length >= 8) {
            return m_sizeCache;
        }
        const size_t room = 8 * m_length - getCacheBits();
        return room < m_sizeCache ? room : m_sizeCache;
    }

    bool cacheCompletesBuffer() const {
        return m_sizeCache == 0 || (m_length < 8 && getCacheBits() == 8 * m_length);
    }

    KV_BITSTREAM_NOINLINE bool putBitsSlow(uint64_t bits, size_t n) {
        if (n > 64) {
            return false;
        }
        size_t left = n;
        while (left != 0) {
            const size_t room = roomInCache();
            if (room == 0) {
                // Only a cache filled by putBitsToCach can still hold bits here.
                if (getCacheBits() == 0) {
                    return false;
                }
                updateData();
                continue;
            }
            const size_t t = left < room ? left : room;
            left -= t;
            appendToCache(bits >> left, t);
            if (cacheCompletesBuffer()) {
                updateData();
            }
        }
        return true;
    }

    uint64_t m_cache = 0;     // bits not yet stored, filled from the top
    size_t m_sizeCache = 64;  // free bit positions in m_cache
    P m_data = nullptr;       // where the next stored byte goes
    size_t m_length = 0;      // room left from m_data, in bytes
    size_t m_writeByte = 0;   // bytes stored so far
};

template <class P>
void swap(KVBSWriterT<P>& a, KVBSWriterT<P>& b) noexcept {
    a.swap(b);
}

using KVBSReader = KVBSReaderT<const uint8_t*>;
using KVBSWriter = KVBSWriterT<uint8_t*>;

}  // namespace KVSDK

#undef KV_BITSTREAM_NOINLINE
