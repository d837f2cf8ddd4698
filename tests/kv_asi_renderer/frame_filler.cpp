#include "kv_asi_renderer/kv_asi_frame_filler.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <iterator>
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
        log +=
            "kv_asi_rendere: " + std::to_string(path) + ": skip pkt = " + std::to_string(n) + "\n";
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
                if (it == items.end() || t < uint64_t((*it)->m_tStamp)) {
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
        if (cursor != nullptr) {
            if (it != items.end()) {
                skip(1, items.end() - it);
            }
            std::memmove(src, cursor, nSizeSrc = pending);
        } else if (it != items.end()) {
            if ((*it)->m_pData != nullptr) {
                std::memcpy(src, (*it)->m_pData, nSizeSrc = (*it)->m_nLength);
            }
            if (items.end() - it > 1) {
                skip(2, items.end() - it - 1);
            }
        }
        nStuffing = stuffing;
    }
};

// Unpacks a frame into ten-bit words, each of which must be a data word or idle.
std::vector<int> decode(const std::vector<uint8_t>& frame, uint64_t n) {
    std::vector<int> words;
    for (uint64_t i = 0; i < n / 4 * 4; ++i) {
        const uint8_t* g = &frame[i / 4 * 5];
        const uint64_t v = g[0] | uint64_t(g[1]) << 8 | uint64_t(g[2]) << 16 |
                           uint64_t(g[3]) << 24 | uint64_t(g[4]) << 32;
        words.push_back(int(v >> (10 * (i % 4))) & 0x3FF);
        EXPECT_TRUE(words.back() == 0 || (words.back() & 0x300) == 0x100) << "word " << i;
    }
    return words;
}

void add(kv_mpegts_items& items, int64_t tStamp, const uint8_t* p, size_t len = kPacket) {
    items.push_back(std::make_unique<kv_mpegts_item>(const_cast<uint8_t*>(p), len));
    items.back()->set_time(tStamp);
    items.back()->m_nLength = len;
}

// Runs the filler and the reference on one frame, requires identical bytes (and none
// written past the frame), carry, messages and counts, and returns the decoded words.
std::vector<int> expect_same(kv_asi_frame_filler& f, reference_filler& ref, uint64_t tBegin,
                             uint64_t tEnd, uint64_t n, const kv_mpegts_items& items) {
    std::vector<uint8_t> got(n / 4 * 5 + 16, 0xA5), want(got);
    std::atomic<uint64_t> skipped{ref.nSkipped};
    g_log.clear();
    ref.log.clear();
    f.fill_asi_data(tBegin, tEnd, got.data(), got.size(), n, items, skipped);
    ref.fill(tBegin, tEnd, want.data(), n, items);
    EXPECT_EQ(std::mismatch(got.begin(), got.end(), want.begin()).first - got.begin(), got.size());
    EXPECT_EQ(f.get_carry_size(), ref.nSizeSrc);
    EXPECT_EQ(0, std::memcmp(f.get_carry_data(), ref.src, ref.nSizeSrc));
    EXPECT_EQ(f.get_stuffing(), ref.nStuffing);
    EXPECT_EQ(skipped, ref.nSkipped);
    EXPECT_EQ(g_log, ref.log);
    return decode(got, n);
}

class AsiFrameFiller : public ::testing::Test {
protected:
    void SetUp() override {
        old_ = g_set_print_handler([](const gchar* s) { g_log += s; });
    }
    void TearDown() override { g_set_print_handler(old_); }
    GPrintFunc old_ = nullptr;
};

size_t first_data(const std::vector<int>& w) {
    return std::find_if(w.begin(), w.end(), [](int x) { return x != 0; }) - w.begin();
}

}  // namespace

TEST_F(AsiFrameFiller, TimesPlacementCarryAndSkips) {
    EXPECT_EQ(kv_asi_frame_filler::index_to_time(1000, 201000, 270000, kWords), 101000u);
    // 2^40 * 2^30 overflows 64 bits before the division.
    EXPECT_EQ(kv_asi_frame_filler::index_to_time(5, 5 + (1ull << 40), 1u << 30, 1u << 30),
              5 + (1ull << 40));

    std::vector<uint8_t> pkt(4 * kPacket);
    for (size_t i = 0; i < pkt.size(); ++i) {
        pkt[i] = uint8_t(i * 7 + 1);
    }
    kv_asi_frame_filler f;
    reference_filler ref;
    for (int64_t due : {101000, 101001}) {  // exactly word 270000's time, and one unit later
        kv_mpegts_items items;
        add(items, due, pkt.data());
        EXPECT_EQ(first_data(expect_same(f, ref, 1000, 201000, kWords, items)),
                  due == 101000 ? 270000u : 270003u);  // the next word with a later time
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
    EXPECT_EQ(first_data(expect_same(f, ref, 0, 200000, kWords, items)), 539900u);
    EXPECT_EQ(ref.nSkipped, 2u);
    EXPECT_EQ(ref.log, "kv_asi_rendere: 1: skip pkt = 2\n");
    // The other 88 bytes start the next frame, then two idle words, then its item.
    items.clear();
    add(items, 0, pkt.data() + 3 * kPacket);
    const std::vector<int> w = expect_same(f, ref, 200000, 400000, kWords, items);
    for (size_t i = 0; i < 88; ++i) {
        ASSERT_EQ(w[i], 0x100 | pkt[100 + i]) << i;
    }
    EXPECT_EQ(w[88] | w[89], 0);
    EXPECT_EQ(w[90], 0x100 | pkt[3 * kPacket]);
}

// Random frames against the reference, packed both ways: dense lines, sparse streams, late
// items, items due exactly at a word's time or one unit after, null and short items, items
// beyond the frame, spans other than 200000 (including empty and wrapping ones), frame
// sizes that are not multiples of four. Each item has a block of its own (overreads show
// under AddressSanitizer), rewritten after the frame, so a carry not copied shows up.
TEST_F(AsiFrameFiller, MatchesWordByWordReferenceOnRandomFrames) {
    std::mt19937_64 rng(20240611);
    kv_asi_frame_filler f;
    reference_filler ref;
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
        f.set_vector_packing(rng() % 2 == 0);  // both packing paths, sharing the carry
        expect_same(f, ref, tBegin, tEnd, n, items);
        for (const auto& item : items) {
            if (item->m_pData != nullptr) {
                std::fill_n(item->m_pData, item->m_nLength, 0xEE);
            }
        }
        tBegin = tEnd;
    }
}

// A full line of real packets, 2843 offered per frame: the words read back are the input
// packets in order and whole across frame borders, each followed by exactly two idle
// words, and every packet neither sent nor carried was counted as skipped.
TEST_F(AsiFrameFiller, DenseLineDecodesToWholePacketsWithTwoIdleWords) {
    std::ifstream in(std::string(KV_CORPUS_DIR) + "/test-072.ts", std::ios::binary);
    if (!in) {
        GTEST_SKIP() << "corpus absent";
    }
    const std::vector<uint8_t> ts((std::istreambuf_iterator<char>(in)), {});
    const size_t total = ts.size() / kPacket;
    kv_asi_frame_filler f;
    reference_filler ref;
    std::vector<int> stream;
    for (size_t next = 0, t = 0; next < total; t += 200000) {
        kv_mpegts_items items;
        for (size_t k = 0; k < 2843 && next < total; ++k, ++next) {
            add(items, int64_t(t), &ts[next * kPacket]);
        }
        const std::vector<int> w = expect_same(f, ref, t, t + 200000, kWords, items);
        stream.insert(stream.end(), w.begin(), w.end());
    }
    size_t sent = 0, prev = 0;
    for (size_t at = 0; at + kPacket <= stream.size() && stream[at] != 0; at += 190, ++sent) {
        const auto is_packet = [&](size_t k) {
            for (size_t i = 0; i < kPacket; ++i) {
                if (stream[at + i] != (0x100 | ts[k * kPacket + i])) {
                    return false;
                }
            }
            return true;
        };
        while (prev < total && !is_packet(prev)) {
            ++prev;  // skipped packets leave gaps
        }
        ASSERT_LT(prev++, total) << "packet " << sent << " is not the next input packet";
        ASSERT_EQ(stream[at + kPacket] | stream[at + kPacket + 1], 0) << "packet " << sent;
    }
    EXPECT_EQ(sent + ref.nSkipped + (f.get_carry_size() > 0), total);
    EXPECT_GT(ref.nSkipped, 0u);
}
