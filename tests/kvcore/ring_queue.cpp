#include "kvcore/kv_ring_queue.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>

// The ring against std::deque under random pushes and pops, across wrap-arounds and
// growth, with move-only entries as the FIFO keeps them.
TEST(RingQueue, BehavesAsADequeAcrossWrapsAndGrowth) {
    KVSDK::kv_ring_queue<std::unique_ptr<int>> ring;
    std::deque<int> model;
    std::mt19937 rng(7);
    int next = 0;
    for (int step = 0; step < 20000; ++step) {
        if (rng() % 3 != 0 || model.empty()) {
            ring.push_back(std::make_unique<int>(next));
            model.push_back(next++);
        } else {
            ASSERT_EQ(*ring.front(), model.front());
            ring.pop_front();
            model.pop_front();
        }
        ASSERT_EQ(ring.size(), model.size());
        if (!model.empty()) {
            ASSERT_EQ(*ring.back(), model.back());
        }
        if (step % 997 == 0) {
            size_t i = 0;
            for (const auto& p : ring) {
                ASSERT_EQ(*p, model[i]);
                ASSERT_EQ(*ring[i++], *p);
            }
            ASSERT_EQ(i, model.size());
        }
    }
    // Moving hands the entries over and leaves an empty queue that works.
    KVSDK::kv_ring_queue<std::unique_ptr<int>> other(std::move(ring));
    EXPECT_EQ(other.size(), model.size());
    EXPECT_TRUE(ring.empty());
    ring.push_back(std::make_unique<int>(1));
    EXPECT_EQ(*ring.front(), 1);
    other.clear();
    EXPECT_EQ(other.begin(), other.end());
}
