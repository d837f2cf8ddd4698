#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kv_ts_generator.h"
#include "mpegcore/fifo/kv_mpegts_fifo.h"
#include "ts_test_util.h"

using namespace mpegcore;

namespace {

constexpr size_t kPkt = 188;
constexpr int64_t kEnd = std::numeric_limits<int64_t>::max();

// A real capture, or without the corpus a generated constant-rate stream of about the
// same length.
ts_test::Bytes load_stream() {
    ts_test::Bytes ts = ts_test::load_capture("test-072.ts");
    if (ts.empty()) {
        kv_ts_generate::options o;
        o.rate_bps = 1200000;
        o.packets = 10000;
        std::string error;
        EXPECT_TRUE(kv_ts_generate::generate(o, ts, error)) << error;
    }
    return ts;
}

// Pushes the stream in random chunk sizes, holding back while more than half a second
// of it waits, so that the 2000 items are recycled many times over. (A capture with
// PCRs 0.37 s apart keeps up to 0.37 s waiting for its next PCR on top of that.)
void push_stream(kv_mpegts_fifo& fifo, const ts_test::Bytes& ts, unsigned seed,
                 const std::atomic<bool>& stop) {
    std::mt19937 rng(seed);
    for (size_t at = 0; at < ts.size() && !stop;) {
        while (fifo.get_fullness() > 5000000 && !stop) {
            std::this_thread::yield();
        }
        const size_t len = std::min<size_t>(1 + rng() % 3000, ts.size() - at);
        fifo.push_data(0, ts.data() + at, len);
        at += len;
    }
}

TEST(FifoConcurrency, ProducerAndConsumerWithResets) {
    const ts_test::Bytes ts = load_stream();
    const size_t n = ts.size() / kPkt;
    // Packets from the first PCR up to the last PCR (which waits for a next one) go out.
    size_t first = n, last = 0;
    for (size_t i = 0; i < n; ++i) {
        const uint8_t* p = &ts[i * kPkt];
        if ((p[3] & 0x20) && p[4] >= 7 && (p[5] & 0x10)) {
            first = std::min(first, i);
            last = i;
        }
    }
    ASSERT_LT(first, last);

    kv_mpegts_fifo fifo;
    ASSERT_TRUE(fifo.create(2000 * kPkt, kPkt, nullptr, pcr_time_type, false));
    constexpr int kQuietRounds = 3;
    std::atomic<int> pushed{0}, resets{0};
    std::atomic<bool> stop{false};

    // Quiet rounds: the consumer resets after each pushed round, and every packet must
    // arrive exactly once, in order. Last round: the consumer resets while the producer
    // pushes, as the output thread does; what arrives must still be in order, once.
    std::thread producer([&] {
        for (int round = 0; round <= kQuietRounds; ++round) {
            push_stream(fifo, ts, round, stop);
            pushed = round + 1;
            while (round < kQuietRounds && resets.load() <= round && !stop) {
                std::this_thread::yield();
            }
        }
    });

    kv_mpegts_items held;
    auto consume = [&] {
        std::mt19937 rng(99);
        size_t next = first, delivered = 0;
        for (int round = 0; round <= kQuietRounds;) {
            const bool racing = round == kQuietRounds;
            const bool drain = pushed.load() > round;
            kv_mpegts_items items;
            fifo.get_data(0, drain ? kEnd : fifo.get_front_time() + rng() % 1000000, items);
            for (auto& item : items) {
                ASSERT_EQ(item->get_length(), kPkt);
                if (!racing) {
                    ASSERT_LT(next, n);
                    ASSERT_EQ(0, std::memcmp(item->get_data(), &ts[next * kPkt], kPkt)) << next;
                    ++next;
                    continue;
                }
                while (next < n && std::memcmp(item->get_data(), &ts[next * kPkt], kPkt) != 0) {
                    ++next;
                }
                ASSERT_LT(next++, n) << "packet out of order or twice";
            }
            delivered += items.size();
            const bool empty = items.empty();
            fifo.revert(held);  // the previous batch stays in hand for one pass
            held.swap(items);
            ASSERT_FALSE(fifo.is_reset()) << fifo.get_error();
            if (racing && !drain && rng() % 64 == 0) {
                fifo.reset();
            }
            if (drain && empty) {
                if (!racing) {
                    EXPECT_EQ(next, last);
                    EXPECT_EQ(delivered, last - first);
                }
                fifo.reset();
                next = first;
                delivered = 0;
                resets = ++round;
            }
        }
    };
    consume();
    stop = true;
    producer.join();
    fifo.revert(held);
}

}  // namespace
