#include "kv_asi_renderer/kv_asi_frame_filler.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using mpegcore::kv_mpegts_item;
using mpegcore::kv_mpegts_items;

namespace {

constexpr uint64_t kWords = 540000;
constexpr size_t kPacket = 188;

std::string g_log;  // g_print output of the filler

// The fill taken literally, one word at a time, with its own time arithmetic.
struct reference_filler {
    uint8_t src[204] = {};
    size_t nSizeSrc = 0, nStuffing = 0;
    uint64_t nSkipped = 0;
    std::string log;

    void skip(int path, size_t n) {
        nSkipped += n;
        if (n > 0) {
            log += "kv_asi_rendere: " + std::to_string(path) + ": skip pkt = " + std::to_string(n) +
                   "\n";
        }
    }
    void fill(uint64_t tBegin, uint64_t tEnd, uint8_t* p, uint64_t n,
              const kv_mpegts_items& items) {
        size_t pending = nSizeSrc, stuffing = nStuffing;
        const uint8_t* cursor = pending > 0 ? src : nullptr;
        auto it = items.begin();
        const auto next_word = [&](uint64_t i) -> uint64_t {
            if (stuffing > 0) {
                --stuffing;
                return 0;
            }
            if (cursor == nullptr) {
                const auto t = tBegin + uint64_t((unsigned __int128)(tEnd - tBegin) * i / n);
                if (it == items.end() || int64_t(t - uint64_t((*it)->m_tStamp)) < 0) {
                    return 0;
                }
                const kv_mpegts_item& item = **it++;
                if (item.m_pData == nullptr || item.m_nLength == 0) {
                    return 0;
                }
                cursor = item.m_pData;
                pending = item.m_nLength;
            }
            const uint64_t w = 0x100u | *cursor++;
            if (--pending == 0) {
                cursor = nullptr;
                stuffing = 2;
            }
            return w;
        };
        for (uint64_t g = 0; n > 3 && g < n / 4; ++g, p += 5) {
            uint64_t v = 0;
            for (uint64_t k = 0; k < 4; ++k) {
                v |= next_word(4 * g + k) << (10 * k);
            }
            for (int b = 0; b < 5; ++b) {
                p[b] = uint8_t(v >> (8 * b));
            }
        }
        nSizeSrc = 0;
        const size_t left = items.end() - it;
        if (cursor != nullptr) {
            std::memmove(src, cursor, nSizeSrc = pending);
            skip(1, left);
        } else if (left > 0) {
            if ((*it)->m_pData != nullptr) {
                std::memcpy(src, (*it)->m_pData, nSizeSrc = (*it)->m_nLength);
            }
            skip(2, left - 1);
        }
        nStuffing = stuffing;
    }
};

void add(kv_mpegts_items& items, int64_t tStamp, const uint8_t* p, size_t len = kPacket) {
    items.push_back(std::make_unique<kv_mpegts_item>(const_cast<uint8_t*>(p), len));
    items.back()->set_time(tStamp);
    items.back()->m_nLength = len;
}

class AsiFrameFiller : public ::testing::Test {
protected:
    void SetUp() override {
        old_ = g_set_print_handler([](const gchar* s) { g_log += s; });
    }
    void TearDown() override { g_set_print_handler(old_); }

    // Runs the filler and the reference on one frame, requires identical bytes (none
    // written past the frame), carry, messages and counts, and returns the ten-bit words,
    // each of which must be a data word or idle.
    std::vector<int> expect_same(uint64_t tBegin, uint64_t tEnd, uint64_t n,
                                 const kv_mpegts_items& items) {
        std::vector<uint8_t> got(n / 4 * 5 + 16, 0xA5), want(got);
        std::atomic<uint64_t> skipped{ref.nSkipped};
        g_log.clear();
        ref.log.clear();
        f.fill_asi_data(tBegin, tEnd, got.data(), got.size(), n, items, skipped);
        ref.fill(tBegin, tEnd, want.data(), n, items);
        EXPECT_EQ(std::mismatch(got.begin(), got.end(), want.begin()).first - got.begin(),
                  got.size());
        EXPECT_EQ(f.get_carry_size(), ref.nSizeSrc);
        EXPECT_EQ(0, std::memcmp(f.get_carry_data(), ref.src, ref.nSizeSrc));
        EXPECT_EQ(f.get_stuffing(), ref.nStuffing);
        EXPECT_EQ(skipped, ref.nSkipped);
        // A skip line repeated within a second is held back and counted in the next one.
        if (ref.log.empty() || !g_log.empty()) {
            EXPECT_EQ(g_log.substr(0, ref.log.size() - 1), ref.log.substr(0, ref.log.size() - 1));
        }
        std::vector<int> words;
        for (uint64_t i = 0; i < n / 4 * 4; ++i) {
            uint64_t v = 0;
            for (int b = 0; b < 5; ++b) {
                v |= uint64_t(got[i / 4 * 5 + b]) << (8 * b);
            }
            words.push_back(int(v >> (10 * (i % 4))) & 0x3FF);
            EXPECT_TRUE(words.back() == 0 || (words.back() & 0x300) == 0x100) << "word " << i;
        }
        return words;
    }

    GPrintFunc old_ = nullptr;
    kv_asi_frame_filler f;
    reference_filler ref;
};

}  // namespace

TEST_F(AsiFrameFiller, WordTimesCarryAndSkips) {
    // 2^40 * 2^30 overflows 64 bits before the division.
    EXPECT_EQ(kv_asi_frame_filler::index_to_time(5, 5 + (1ull << 40), 1u << 30, 1u << 30),
              5 + (1ull << 40));
    std::vector<uint8_t> pkt(4 * kPacket);
    for (size_t i = 0; i < pkt.size(); ++i) {
        pkt[i] = uint8_t(i * 7 + 1);
    }
    // Words 539898..539900 share one time: two null items take one idle word each, the
    // packet starts at 539900 and sends 100 bytes; the two items after it are skipped.
    kv_mpegts_items items;
    const auto due = int64_t(kv_asi_frame_filler::index_to_time(0, 200000, 539900, kWords));
    add(items, due, nullptr);
    add(items, due, nullptr);
    for (int k = 0; k < 3; ++k) {
        add(items, due, pkt.data() + k * kPacket);
    }
    const std::vector<int> first = expect_same(0, 200000, kWords, items);
    EXPECT_EQ(
        std::find_if(first.begin(), first.end(), [](int x) { return x != 0; }) - first.begin(),
        539900);
    EXPECT_EQ(ref.log, "kv_asi_rendere: 1: skip pkt = 2\n");
    // The other 88 bytes start the next frame, then two idle words, then its item.
    items.clear();
    add(items, 0, pkt.data() + 3 * kPacket);
    const std::vector<int> w = expect_same(200000, 400000, kWords, items);
    for (size_t i = 0; i < 88; ++i) {
        ASSERT_EQ(w[i], 0x100 | pkt[100 + i]) << i;
    }
    EXPECT_EQ(w[88] | w[89], 0);
    EXPECT_EQ(w[90], 0x100 | pkt[3 * kPacket]);
}

// Random frames against the reference, both packing paths sharing the carry: dense lines,
// sparse, late, exactly-due, null, short and beyond-the-frame items, odd spans (empty and
// wrapping) and frame sizes. Each item has its own block (overreads show under
// AddressSanitizer), overwritten after the frame so that a carry not copied shows.
TEST_F(AsiFrameFiller, MatchesWordByWordReferenceOnRandomFrames) {
    std::mt19937_64 rng(20240611);
    uint64_t tBegin = 1'000'000'000;
    for (int frame = 0; frame < 240 && !HasFailure(); ++frame) {
        const int kind = frame % 8;
        const uint64_t n = frame % 3 == 0 ? kWords : 1 + rng() % 20000;
        const uint64_t spans[] = {200000, 199999, 200001, n * 10 / 27, 1 + rng() % 400000, 0};
        const uint64_t span = spans[rng() % 6];
        if (frame == 237) {
            tBegin = ~uint64_t{0} - span / 2;  // times wrap inside the frame
        }
        const uint64_t tEnd = tBegin + span, fit = n / 190 + 1;
        const size_t count = kind == 0 ? fit + rng() % 4 : kind == 7 ? 0 : rng() % (2 * fit);
        kv_mpegts_items items;
        std::vector<std::unique_ptr<uint8_t[]>> blocks;
        uint64_t t = tBegin;
        for (size_t k = 0; k < count; ++k) {
            const uint64_t r = rng();
            if (kind == 1 || kind == 4) {
                t += span / (count + 1) + r % 3;  // spread, in time order
            } else if (kind == 2) {
                t = tBegin - r % 100000 - (k == 0);  // late
            } else if (kind == 3) {
                t = kv_asi_frame_filler::index_to_time(tBegin, tEnd, r % n, n) + (r >> 63);
            } else if (kind != 0) {
                t = tBegin - span / 8 + r % (span * 5 / 4 + 1);  // any order, some beyond
            }
            const size_t len = kind == 4 && r % 3 == 0 ? r % (kPacket + 1) : kPacket;
            blocks.emplace_back(new uint8_t[len]);
            std::generate_n(blocks.back().get(), len, rng);
            add(items, r % 997 == 0 ? -1 : int64_t(t),
                kind >= 3 && r % 23 == 0 ? nullptr : blocks.back().get(), len);
        }
        SCOPED_TRACE("frame " + std::to_string(frame));
        f.set_vector_packing(rng() % 2 == 0);
        expect_same(tBegin, tEnd, n, items);
        for (const auto& item : items) {
            if (item->m_pData != nullptr) {
                std::fill_n(item->m_pData, item->m_nLength, 0xEE);
            }
        }
        tBegin = tEnd;
    }
}
