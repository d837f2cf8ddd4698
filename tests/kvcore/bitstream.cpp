#include "kvcore/kv_bitstream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

using KVSDK::KVBSReader;
using KVSDK::KVBSWriter;

namespace {

// Bit-at-a-time model of both cursors. Reading: a field that crosses the end reads as 0
// and leaves the position at the end. Writing: bits beyond the capacity are lost.
struct BitModel {
    std::vector<uint8_t> bytes;
    size_t pos = 0;

    size_t bits() const { return 8 * bytes.size(); }
    uint64_t get(size_t n) {
        if (pos + n > bits()) {
            pos = bits();
            return 0;
        }
        uint64_t v = 0;
        for (; n > 0; --n, ++pos) {
            v = (v << 1) | ((bytes[pos / 8] >> (7 - pos % 8)) & 1);
        }
        return v;
    }
    bool put(uint64_t v, size_t n) {
        for (; n > 0; --n, ++pos) {
            if (pos == bits()) {
                return false;
            }
            bytes[pos / 8] |= ((v >> (n - 1)) & 1) << (7 - pos % 8);
        }
        return true;
    }
    void align() { pos = std::min(bits(), (pos + 7) / 8 * 8); }
};

void expectSamePosition(const KVBSReader& r, const uint8_t* buf, const BitModel& m) {
    ASSERT_EQ(r.getData(), buf + m.pos / 8);
    ASSERT_EQ(r.getLength(), (m.bits() - m.pos) / 8);  // a partly read byte is not counted
}

}  // namespace

TEST(BitReaderWriter, RandomRoundTripsMatchModel) {
    std::mt19937_64 rng(2024);
    constexpr uint8_t kGuard = 0xA5;
    alignas(8) uint8_t storage[8 + 96 + 8];
    for (int iter = 0; iter < 3000; ++iter) {
        SCOPED_TRACE(iter);
        std::memset(storage, kGuard, sizeof(storage));
        const size_t offset = rng() % 8;
        const size_t len = rng() % 97;
        uint8_t* buf = storage + offset;
        KVBSWriter w(buf, len);
        BitModel written{std::vector<uint8_t>(len)};
        std::vector<size_t> widths;  // 0: the writer flushed here
        for (bool ok = true; ok;) {
            if (rng() % 16 == 0) {
                w.flush();
                written.align();
                widths.push_back(0);
                continue;
            }
            const size_t n = 1 + rng() % 64;
            const uint64_t r = rng();
            uint64_t v = 0;  // the value as passed, widened; negative values sign-extend
            auto put = [&](auto value) {
                v = static_cast<uint64_t>(value);
                return w.putBits(value, n);
            };
            const unsigned kind = rng() % 4;
            ok = kind == 0   ? put(static_cast<uint8_t>(r))
                 : kind == 1 ? put(static_cast<uint16_t>(r))
                 : kind == 2 ? put(static_cast<int32_t>(r))
                             : put(r);
            ASSERT_EQ(ok, written.put(v, n)) << "width " << n;
            widths.push_back(n);
        }
        // The field that did not fit filled the buffer to its last byte, without a flush.
        EXPECT_EQ(w.getWritedBytes(), len);
        w.flush();
        EXPECT_EQ(w.getData(), buf + len);
        ASSERT_EQ(std::vector<uint8_t>(buf, buf + len), written.bytes);
        for (size_t i = 0; i < sizeof(storage); ++i) {
            if (i < offset || i >= offset + len) {
                ASSERT_EQ(storage[i], kGuard) << "stored outside the buffer at " << i;
            }
        }

        // Read back, peeking before every field: a peek must neither consume nor disturb
        // the refills that follow.
        KVBSReader r(buf, len);
        BitModel m{written.bytes};
        for (size_t i = 0; i < widths.size(); ++i) {
            SCOPED_TRACE(i);
            BitModel peek = m;
            uint64_t v33 = 1;
            ASSERT_EQ(r.lookBits<33>(v33), m.pos + 33 <= m.bits());
            ASSERT_EQ(v33, peek.get(33));
            if (widths[i] == 0) {
                r.alignByte();
                m.align();
            } else {
                ASSERT_EQ(r.getBits(widths[i]), m.get(widths[i]));
            }
            expectSamePosition(r, buf, m);
        }
    }
}

TEST(BitReaderWriter, EndOfBuffer) {
    alignas(8) const uint8_t data[4] = {0xDE, 0xAD, 0xBE, 0xEF};

    KVBSReader empty(data, 0);
    uint8_t peek = 1;
    EXPECT_EQ(empty.getBits(1) | empty.getBits(64), 0u);
    EXPECT_FALSE(empty.lookBits<8>(peek));
    EXPECT_EQ(peek, 0);

    // Skipping too far changes nothing; a partly read byte counts as one of the bytes.
    KVBSReader s(data, 4);
    EXPECT_EQ(s.getBits(4), 0xDu);
    s.skipBytes(5);
    EXPECT_EQ(s.getLength(), 3u);
    s.skipBytes(2);
    EXPECT_EQ(s.getBits(9), 0x17Du);
    s.skipBytes(1);
    EXPECT_EQ(s.getData(), data + 4);

    // A flushed partial byte has its unused low bits zero; a second flush stores nothing.
    uint8_t one[2] = {0xFF, 0x5A};
    KVBSWriter f(one, 2);
    EXPECT_TRUE(f.putBits<4>(0xAu));
    f.flush();
    f.flush();
    EXPECT_EQ(f.getWritedBytes(), 1u);
    EXPECT_EQ(std::memcmp(one, "\xA0\x5A", 2), 0);

    // The cache-only step is held to the room left as well.
    EXPECT_FALSE(f.putBitsToCach(0x1FFu, 9));
    EXPECT_TRUE(f.putBitsToCach(0x5u, 4) && f.putBits(0x3u, 4));
    EXPECT_FALSE(f.putBits<1>(1));
    EXPECT_EQ(f.getWritedBytes(), 2u);
    EXPECT_EQ(one[1], 0x53);
}
