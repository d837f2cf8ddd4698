#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <random>
#include <utility>

#include "kvcore/kv_align_memory.h"
#include "kvcore/kv_memory_manager.h"

using KVSDK::KVAlignMemory;
using KVSDK::KVMemoryManager;

TEST(AlignMemory, SharingMoveReuseAndAlignment) {
    KVAlignMemory<uint8_t> a;
    ASSERT_TRUE(a.alloc(100, 64));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a.data()) % 64, 0u);
    a[99] = 0x5A;

    // Copies share the array, and it outlives the holder that made it.
    KVAlignMemory<uint8_t> copy;
    {
        KVAlignMemory<uint8_t> b = a;
        a.dealloc();
        copy = b;
    }
    EXPECT_EQ(copy[99], 0x5A);

    // Reuse: same alignment and no growth keeps the array and its bytes.
    uint8_t* before = copy.data();
    ASSERT_TRUE(copy.alloc(10, 64));
    EXPECT_EQ(copy.fullSize(), 100u);
    ASSERT_TRUE(copy.alloc(100, 64));
    EXPECT_EQ(copy.data(), before);
    EXPECT_EQ(copy[99], 0x5A);
    // Growing or changing the alignment makes a new array of exactly the new size.
    ASSERT_TRUE(copy.alloc(101, 64));
    EXPECT_EQ(copy.fullSize(), 101u);
    ASSERT_TRUE(copy.alloc(50, 0));
    EXPECT_EQ(copy.fullSize(), 50u);

    KVAlignMemory<uint8_t> moved;
    moved = std::move(copy);
    EXPECT_TRUE(!copy.isValid() && copy.data() == nullptr && copy.size() == 0);
    EXPECT_EQ(moved.size(), 50u);

    KVAlignMemory<uint32_t> words;
    EXPECT_FALSE(words.alloc(8, 2));  // would misalign the elements
    ASSERT_TRUE(words.alloc(8, 32));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(words.data()) % 32, 0u);
    words[7] = 0xFFFFFFFFu;  // the last element lies inside the array (ASan checks)
}

// Offsets-only model of the ring, used to check the manager on random operation sequences.
struct RingModel {
    size_t size = 0, start = 0, stop = 0;
    // Offset where a block of n bytes would go, or -1.
    long place(size_t n) const {
        if (stop < start) {
            return start - stop >= n + 1 ? long(stop) : -1;
        }
        if (stop + n <= size) {
            return long(stop);
        }
        return start >= n + 1 ? 0 : -1;
    }
    size_t length() const { return stop >= start ? stop - start : stop + size - start; }
};

TEST(MemoryManager, RandomOperationsMatchModelAndKeepData) {
    constexpr size_t kSize = 4099;
    KVMemoryManager mm;
    EXPECT_EQ(mm.lock(1), nullptr);  // no buffer yet
    // Blocks whose sizes are multiples of 8 all start on 8-byte boundaries.
    mm.reset(5000);
    for (size_t n : {8u, 24u, 184u, 192u, 1000u, 16u}) {
        uint8_t* p = mm.get(n);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u) << n;
    }
    mm.reset(kSize);  // a smaller size keeps the buffer and empties the ring
    uint8_t* begin = mm.lock(0);
    RingModel model{kSize};
    std::deque<std::pair<uint8_t*, size_t>> held;
    std::mt19937 rng(1234);
    auto release = [&](size_t count) {
        for (size_t i = 0; i < count; ++i) {
            auto [p, n] = held.front();
            held.pop_front();
            const uint8_t tag = uint8_t((p - begin) ^ n);
            EXPECT_EQ(std::count(p, p + n, tag), long(n)) << "block overwritten";
            mm.put(p, n);
            model.start = size_t(p - begin) + n;
        }
    };
    for (int step = 0; step < 20000; ++step) {
        const unsigned op = rng() % 8;
        const size_t n = 1 + rng() % 900;
        if (op < 5) {  // write a block, sometimes through lock + commit
            const long expected = model.place(n);
            ASSERT_EQ(mm.tryLock(n), expected >= 0) << step;
            uint8_t* p = op < 3 ? mm.get(n) : mm.lock(n);
            ASSERT_EQ(p ? long(p - begin) : -1, expected) << step;
            if (p) {
                std::memset(p, uint8_t((p - begin) ^ n), n);
                if (op >= 3) {
                    mm.commit(n);
                }
                held.emplace_back(p, n);
                model.stop = size_t(expected) + n;
            }
        } else if (op == 5) {  // lock only: may wrap the write position without writing
            const long expected = model.place(n);
            ASSERT_EQ(mm.lock(n) ? long(mm.lock(0) - begin) : -1, expected) << step;
            if (expected >= 0) {
                model.stop = size_t(expected);
            }
        } else if (!held.empty()) {
            release(op == 6 ? 1 : held.size());
        }
        ASSERT_EQ(mm.length(), model.length()) << step;
    }
    // Exactly full to the end; the write position may not come round to the start.
    mm.reset(1000);
    EXPECT_EQ(mm.get(1000), begin);
    EXPECT_FALSE(mm.tryLock(1));
    EXPECT_EQ(mm.length(), 1000u);
}
