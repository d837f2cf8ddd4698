#include "kv_vboard_line.h"

#include <cstring>

namespace kvvb {

namespace {

constexpr uint32_t kDataFlag = 0x100;
constexpr uint32_t kSyncWord = kDataFlag | 0x47;
// Bits 8 and 9 of each of the four words of a group, and their values when all four are
// data words.
constexpr uint64_t kFlagBits = 0x300ull | 0x300ull << 10 | 0x300ull << 20 | 0x300ull << 30;
const uint8_t kZeros[256] = {};
constexpr uint64_t kFourDataWords = 0x100ull | 0x100ull << 10 | 0x100ull << 20 | 0x100ull << 30;

}  // namespace

namespace {

// The first non-zero byte from `off` on, or nEnd: zero bytes are skipped in blocks, then
// eight at a time, then one by one.
inline size_t next_non_zero(const uint8_t* pData, size_t off, size_t nEnd) {
    while (off + sizeof(kZeros) <= nEnd && memcmp(pData + off, kZeros, sizeof(kZeros)) == 0) {
        off += sizeof(kZeros);
    }
    while (off + 8 <= nEnd) {
        uint64_t x;
        memcpy(&x, pData + off, 8);
        if (x != 0) {
            break;
        }
        off += 8;
    }
    while (off < nEnd && pData[off] == 0) {
        ++off;
    }
    return off;
}

}  // namespace

// One word off the fast path: idle, a violation, a sync word starting a packet or a data
// byte, with the packet state the caller keeps in locals.
void line_decoder::word(uint32_t w, uint64_t nWord, bool& bIn, size_t& nFill) {
    if (w == 0) {
        return;  // idle; a packet in progress simply waits
    }
    uint8_t* const pPacket = m_record + 4;
    if ((w & 0x300) != kDataFlag) {
        ++m_counters.word_violations;
        if (bIn) {
            m_counters.bytes_partial += nFill;  // the packet is broken off
            bIn = false;
        }
        return;
    }
    if (!bIn) {
        if (w != kSyncWord) {
            ++m_counters.bytes_partial;  // a stray data byte outside any packet
            return;
        }
        bIn = true;
        nFill = 0;
        const uint32_t stamp = uint32_t(nWord) & kStampMask;
        m_record[0] = uint8_t(stamp >> 24);
        m_record[1] = uint8_t(stamp >> 16);
        m_record[2] = uint8_t(stamp >> 8);
        m_record[3] = uint8_t(stamp);
    }
    pPacket[nFill++] = uint8_t(w);
    if (nFill == kPacketSize) {
        bIn = false;
        ++m_counters.packets;
        if (m_pOut) {
            fwrite(m_record, kRecordSize, 1, m_pOut);
        }
    }
}

void line_decoder::frame(const uint8_t* pData, size_t nBytes, uint64_t nFirstWord) {
    if (nBytes > kBytesPerFrame) {
        nBytes = kBytesPerFrame;
    }
    const size_t nGroups = nBytes / 5;
    const size_t nEnd = nGroups * 5;
    // The packet state lives in locals for the loop: this runs over every word of every
    // frame and must stay cheap even in instrumented builds.
    bool bIn = m_bInPacket;
    size_t nFill = m_nFill;
    uint8_t* const pPacket = m_record + 4;
    size_t g = 0;
    while (g < nGroups) {
        if (!bIn) {
            // Between packets the line is mostly idle words.
            const size_t off = next_non_zero(pData, g * 5, nEnd);
            if (off >= nEnd) {
                break;
            }
            g = off / 5;
        }
        const uint8_t* p = pData + g * 5;
        const uint64_t v = uint64_t(p[0]) | uint64_t(p[1]) << 8 | uint64_t(p[2]) << 16 |
                           uint64_t(p[3]) << 24 | uint64_t(p[4]) << 32;
        if (bIn && nFill + 4 < kPacketSize && (v & kFlagBits) == kFourDataWords) {
            // Inside a packet, four data words: the common case.
            const uint8_t four[4] = {uint8_t(v), uint8_t(v >> 10), uint8_t(v >> 20),
                                     uint8_t(v >> 30)};
            memcpy(pPacket + nFill, four, 4);
            nFill += 4;
            ++g;
            continue;
        }
        for (unsigned k = 0; k < 4; ++k) {
            word(uint32_t(v >> (10 * k)) & 0x3ff, nFirstWord + g * 4 + k, bIn, nFill);
        }
        ++g;
    }
    m_bInPacket = bIn;
    m_nFill = nFill;
}

void line_decoder::end_of_stream() {
    if (m_bInPacket) {
        m_counters.bytes_partial += m_nFill;
        m_bInPacket = false;
    }
}

void pack_words(const uint16_t* pWords, size_t nWords, uint8_t* pOut) {
    for (size_t i = 0; i + 4 <= nWords; i += 4) {
        const uint64_t v = uint64_t(pWords[i] & 0x3ff) | uint64_t(pWords[i + 1] & 0x3ff) << 10 |
                           uint64_t(pWords[i + 2] & 0x3ff) << 20 |
                           uint64_t(pWords[i + 3] & 0x3ff) << 30;
        for (unsigned b = 0; b < 5; ++b) {
            *pOut++ = uint8_t(v >> (8 * b));
        }
    }
}

}  // namespace kvvb
