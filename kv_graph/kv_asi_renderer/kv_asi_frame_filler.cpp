#include "kv_asi_renderer/kv_asi_frame_filler.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>

#include "kvcore/kv_ring_queue.h"
#define KV_ASI_PACK_AVX2 1
#endif

namespace {

using u128 = unsigned __int128;

// Bit 8 of each of the four words of a group: the data-word marker.
constexpr uint64_t kDataFlags =
    (uint64_t{1} << 8) | (uint64_t{1} << 18) | (uint64_t{1} << 28) | (uint64_t{1} << 38);

// Four data bytes, the first in the low byte, as one 40-bit group of data words.
inline uint64_t pack_group(uint32_t x) {
    return (x & 0xFFu) | (uint64_t{x & 0xFF00u} << 2) | (uint64_t{x & 0xFF0000u} << 4) |
           (uint64_t{x & 0xFF000000u} << 6) | kDataFlags;
}

inline uint32_t load_le32(const uint8_t* p) {
    return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

inline void store_group(uint8_t* p, uint64_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
    p[4] = static_cast<uint8_t>(v >> 32);
}

#ifdef KV_ASI_PACK_AVX2
// Vector packing of whole groups of data bytes, three groups (12 bytes in, 15 out) per
// 128-bit half. Word j of a group becomes u = b << 2j, 16 bits wide; its low byte lands
// on output byte j and its high byte on byte j + 1, where no other bits are set. So the
// output is the sum of the u at even byte offsets and of those at odd offsets shifted by
// one byte, plus the bit-8 marker of each word (0x01, 0x04, 0x10, 0x40 in bytes 1 to 4).
// Each half reads 16 bytes and stores 16, of which 15 are its output.
struct pack_constants {
    __m128i evenBytes, oddBytes, evenShift, oddShift, flags;
};

__attribute__((target("avx2"))) inline pack_constants make_pack_constants() {
    const int8_t z = -1;  // shuffle index that yields zero
    // Source byte of the u at output offsets 0, 2, ..., 14 and 1, 3, ..., 15.
    return {_mm_setr_epi8(0, z, 2, z, z, z, 5, z, 7, z, 8, z, 10, z, z, z),
            _mm_setr_epi8(1, z, 3, z, 4, z, 6, z, z, z, 9, z, 11, z, z, z),
            _mm_setr_epi16(1, 16, 0, 4, 64, 1, 16, 0), _mm_setr_epi16(4, 64, 1, 16, 0, 4, 64, 0),
            _mm_setr_epi8(0, 1, 4, 16, 64, 0, 1, 4, 16, 64, 0, 1, 4, 16, 64, 0)};
}

__attribute__((target("avx2"))) inline void pack_step128(const pack_constants& c, __m128i in,
                                                         uint8_t* out) {
    const __m128i even = _mm_mullo_epi16(_mm_shuffle_epi8(in, c.evenBytes), c.evenShift);
    const __m128i odd = _mm_mullo_epi16(_mm_shuffle_epi8(in, c.oddBytes), c.oddShift);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out),
                     _mm_or_si128(_mm_or_si128(even, _mm_slli_si128(odd, 1)), c.flags));
}

// Packs n bytes (a multiple of 4, at least 16) into n / 4 * 5. The main steps take 24
// bytes while 28 are left to read, so every load stays inside the source and the 16th
// byte each half stores belongs to a later group of the run; then 12-byte steps while 16
// are left. The last one to three groups are taken from the 16 bytes that end the run,
// moved down; that step stores past the run too, so it is done only if the 16 bytes stay
// inside the frame (dstEnd): the bytes past the run are rewritten later. Returns the
// bytes packed: n, or less when the last step did not fit.
__attribute__((target("avx2"))) size_t pack_groups_avx2(const uint8_t* src, size_t n, uint8_t* dst,
                                                        const uint8_t* dstEnd) {
    const pack_constants c = make_pack_constants();
    const __m256i evenBytes = _mm256_broadcastsi128_si256(c.evenBytes);
    const __m256i oddBytes = _mm256_broadcastsi128_si256(c.oddBytes);
    const __m256i evenShift = _mm256_broadcastsi128_si256(c.evenShift);
    const __m256i oddShift = _mm256_broadcastsi128_si256(c.oddShift);
    const __m256i flags = _mm256_broadcastsi128_si256(c.flags);
    size_t done = 0;
    for (; n - done >= 28; done += 24, dst += 30) {
        const __m256i in = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(src + done + 12),
                                               reinterpret_cast<const __m128i*>(src + done));
        const __m256i even = _mm256_mullo_epi16(_mm256_shuffle_epi8(in, evenBytes), evenShift);
        const __m256i odd = _mm256_mullo_epi16(_mm256_shuffle_epi8(in, oddBytes), oddShift);
        const __m256i out =
            _mm256_or_si256(_mm256_or_si256(even, _mm256_slli_si256(odd, 1)), flags);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm256_castsi256_si128(out));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 15), _mm256_extracti128_si256(out, 1));
    }
    for (; n - done >= 16; done += 12, dst += 15) {
        pack_step128(c, _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + done)), dst);
    }
    const size_t rest = n - done;  // 4, 8 or 12 bytes, or none
    if (rest > 0 && dst + 16 <= dstEnd) {
        // Byte i of the control selects byte s + i, or zero past the end.
        alignas(16) static const uint8_t kMoveDown[32] = {
            0,    1,    2,    3,    4,    5,    6,    7,    8,    9,    10,
            11,   12,   13,   14,   15,   0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
            0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80};
        const __m128i last = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + n - 16));
        const __m128i control =
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(kMoveDown + 16 - rest));
        pack_step128(c, _mm_shuffle_epi8(last, control), dst);
        done = n;
    }
    return done;
}
#endif

bool cpu_packs_vectors() {
#ifdef KV_ASI_PACK_AVX2
    static const bool bHas = __builtin_cpu_supports("avx2");
    return bHas;
#else
    return false;
#endif
}

// Appends runs of idle words and of data words to a frame, five bytes per four words.
// A group that a run leaves unfinished is kept in m_acc until the next run completes it.
class word_writer {
public:
    word_writer(uint8_t* p, uint8_t* pEnd, bool bVector)
        : m_p(p), m_pEnd(pEnd), m_bVector(bVector) {}

    void put_idle(size_t n) {
        if (m_k != 0) {
            const size_t m = std::min<size_t>(n, 4 - m_k);  // idle words are zero bits
            m_k += static_cast<unsigned>(m);
            n -= m;
            if (m_k < 4) {
                return;
            }
            flush();
        }
        if (n >= 4) {
            const size_t nBytes = n / 4 * 5;
            std::memset(m_p, 0, nBytes);
            m_p += nBytes;
        }
        m_k = static_cast<unsigned>(n % 4);  // m_acc is 0 after a flush
    }

    void put_data(const uint8_t* src, size_t n) {
        while (m_k != 0 && n > 0) {
            m_acc |= (uint64_t{*src++} | 0x100) << (10 * m_k);
            --n;
            if (++m_k == 4) {
                flush();
            }
        }
        uint8_t* p = m_p;
#ifdef KV_ASI_PACK_AVX2
        if (n >= 16 && m_bVector) {
            const size_t done = pack_groups_avx2(src, n / 4 * 4, p, m_pEnd);
            src += done;
            n -= done;
            p += done / 4 * 5;
        }
#endif
        for (; n >= 4; n -= 4, src += 4, p += 5) {
            store_group(p, pack_group(load_le32(src)));
        }
        m_p = p;
        for (; n > 0; --n) {
            m_acc |= (uint64_t{*src++} | 0x100) << (10 * m_k++);
        }
    }

private:
    void flush() {
        store_group(m_p, m_acc);
        m_p += 5;
        m_acc = 0;
        m_k = 0;
    }

    uint8_t* m_p;        // start of the current group
    uint8_t* m_pEnd;     // end of the frame
    bool m_bVector;      // pack with vector instructions
    uint64_t m_acc = 0;  // words of the current group so far
    unsigned m_k = 0;    // how many
};

// Finds the first word of a frame whose time has reached a due time, without walking
// the words: word i has the time tBegin + q(i) with q(i) = floor(D * i / N), so with
// r = tDue - tBegin, q(i) >= r exactly when D * i >= r * N. A floating-point
// estimate of the smallest such i is corrected by exact 128-bit comparisons.
class due_word_finder {
public:
    due_word_finder(uint64_t tBegin, uint64_t tEnd, uint64_t nSamples, size_t nWords)
        : m_tBegin(tBegin),
          m_nSpan(tEnd - tBegin),
          m_nSamples(nSamples),
          m_nWords(nWords),
          m_dRatio(m_nSpan == 0 ? 0.0
                                : static_cast<double>(nSamples) / static_cast<double>(m_nSpan)) {}

    // Smallest word index i in [i0, nWords) whose time has reached tDue, or nWords. Times
    // are compared by their difference, so a time line that crosses zero (or 2^64) inside
    // a frame orders its words and items as it should.
    size_t find(size_t i0, uint64_t tDue) const {
        if (static_cast<int64_t>(tDue - m_tBegin) <= 0) {
            return i0;
        }
        if (m_nSpan == 0) {
            return m_nWords;
        }
        const uint64_t r = tDue - m_tBegin;
        const u128 target = u128{r} * m_nSamples;
        const auto reached = [&](size_t i) { return u128{m_nSpan} * i >= target; };

        const double est = std::ceil(static_cast<double>(r) * m_dRatio);
        size_t i = m_nWords;
        if (est < static_cast<double>(m_nWords)) {
            i = std::max(i0, static_cast<size_t>(est));
        }
        while (i > i0 && reached(i - 1)) {
            --i;
        }
        while (i < m_nWords && !reached(i)) {
            ++i;
        }
        return i;
    }

private:
    uint64_t m_tBegin;
    uint64_t m_nSpan;  // tEnd - tBegin
    uint64_t m_nSamples;
    size_t m_nWords;
    double m_dRatio;  // words per time unit
};

}  // namespace

kv_asi_frame_filler::kv_asi_frame_filler()
    : m_pDataSrc(new uint8_t[kCarrySize]()), m_bVectorPacking(cpu_packs_vectors()) {}

void kv_asi_frame_filler::set_vector_packing(bool bOn) {
    m_bVectorPacking = bOn && cpu_packs_vectors();
}

void kv_asi_frame_filler::reset() {
    m_nSizeSrc = 0;
    m_nStuffing = 0;
}

uint64_t kv_asi_frame_filler::index_to_time(uint64_t tBegin, uint64_t tEnd, size_t nIndex,
                                            uint64_t nSamples) {
    if (nSamples == 0) {
        return tBegin;
    }
    return tBegin + static_cast<uint64_t>(u128{tEnd - tBegin} * nIndex / nSamples);
}

void kv_asi_frame_filler::keep_for_next_frame(const uint8_t* pCursor, size_t nPending,
                                              mpegcore::kv_mpegts_items::const_iterator it,
                                              const mpegcore::kv_mpegts_items& items,
                                              std::atomic<uint64_t>& nSkipTSPackets) {
    if (pCursor != nullptr) {
        // A packet was cut at the end: its rest goes first into the next frame, and
        // nothing behind it can be sent any more. The cursor may point into the carry
        // buffer itself when a carried packet did not fit either.
        const size_t count = static_cast<size_t>(items.end() - it);
        if (count > 0) {
            nSkipTSPackets.fetch_add(count, std::memory_order_relaxed);
            m_print.print("kv_asi_rendere: 1: skip pkt = %zu\n", count);
        }
        const size_t n = std::min(nPending, kCarrySize);
        std::memmove(m_pDataSrc.get(), pCursor, n);
        m_nSizeSrc = n;
    } else if (it != items.end()) {
        // The first packet that found no room is carried whole; the rest are dropped.
        const mpegcore::kv_mpegts_item& item = **it;
        if (item.m_pData != nullptr) {
            const size_t n = std::min(item.m_nLength, kCarrySize);
            std::memcpy(m_pDataSrc.get(), item.m_pData, n);
            m_nSizeSrc = n;
        }
        const size_t count = static_cast<size_t>(items.end() - it) - 1;
        if (count > 0) {
            nSkipTSPackets.fetch_add(count, std::memory_order_relaxed);
            m_print.print("kv_asi_rendere: 2: skip pkt = %zu\n", count);
        }
    }
}

void kv_asi_frame_filler::fill_asi_data(uint64_t tBegin, uint64_t tEnd, uint8_t* pData,
                                        size_t /*nSize*/, uint64_t nSamples,
                                        const mpegcore::kv_mpegts_items& items,
                                        std::atomic<uint64_t>& nSkipTSPackets) {
    // Take over the carry state.
    size_t nPending = m_nSizeSrc;
    const uint8_t* pCursor = nPending > 0 ? m_pDataSrc.get() : nullptr;
    size_t nStuffing = m_nStuffing;
    m_nSizeSrc = 0;
    m_nStuffing = 0;

    const size_t nWords = static_cast<size_t>(nSamples / 4 * 4);
    const due_word_finder finder(tBegin, tEnd, nSamples, nWords);
    word_writer out(pData, pData + nWords / 4 * 5, m_bVectorPacking);
    auto it = items.begin();
    size_t i = 0;
    while (i < nWords) {
        if (nStuffing > 0) {
            const size_t n = std::min(nStuffing, nWords - i);
            out.put_idle(n);
            nStuffing -= n;
            i += n;
        } else if (pCursor != nullptr) {
            const size_t n = std::min(nPending, nWords - i);
            out.put_data(pCursor, n);
            pCursor += n;
            nPending -= n;
            i += n;
            if (nPending == 0) {
                pCursor = nullptr;
                nStuffing = 2;
            }
        } else if (it == items.end()) {
            out.put_idle(nWords - i);
            i = nWords;
        } else {
            const mpegcore::kv_mpegts_item& item = **it;
            const size_t due = finder.find(i, static_cast<uint64_t>(item.m_tStamp));
            out.put_idle(due - i);
            i = due;
            if (i == nWords) {
                break;  // the item waits past this frame
            }
            ++it;
            if (item.m_pData == nullptr || item.m_nLength == 0) {
                out.put_idle(1);  // consumed, nothing to send
                ++i;
            } else {
                pCursor = item.m_pData;
                nPending = item.m_nLength;
            }
        }
    }

    keep_for_next_frame(pCursor, nPending, it, items, nSkipTSPackets);
    m_nStuffing = nStuffing;
}
