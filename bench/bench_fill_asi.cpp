// One device frame (540000 ten-bit words, 675000 bytes, 20 ms of output) filled from a
// set of packets: a full line (2842 packets back to back), a 10 Mbit/s stream (133
// packets spread over the frame) and a near-empty frame (one packet), beside a plain
// copy of 675000 bytes as the yardstick. The target is every fill within four times the
// copy's time.
#include "kv_asi_renderer/kv_asi_frame_filler.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <random>
#include <vector>

namespace {

constexpr uint64_t kWords = 540000;
constexpr size_t kFrameBytes = kWords / 4 * 5;
constexpr uint64_t kSpan = 200000;  // 20 ms in 100 ns units
constexpr size_t kPacket = 188;

struct frame_case {
    std::vector<uint8_t> bytes;
    mpegcore::kv_mpegts_items items;

    // n packets due evenly over the frame; all due at its start when spread is false.
    frame_case(size_t n, bool spread) : bytes(n * kPacket) {
        std::mt19937 rng(3);
        for (auto& b : bytes) {
            b = static_cast<uint8_t>(rng());
        }
        for (size_t k = 0; k < n; ++k) {
            auto item = std::make_unique<mpegcore::kv_mpegts_item>(&bytes[k * kPacket], kPacket);
            item->m_nLength = kPacket;
            item->set_time(spread ? static_cast<int64_t>(kSpan * k / n) : 0);
            items.push_back(std::move(item));
        }
    }
};

void fill_frame(benchmark::State& state, size_t nPackets, bool spread, bool vector = true) {
    const frame_case c(nPackets, spread);
    std::vector<uint8_t> frame(kFrameBytes);
    kv_asi_frame_filler filler;
    filler.set_vector_packing(vector);
    std::atomic<uint64_t> skipped{0};
    for (auto _ : state) {
        filler.fill_asi_data(0, kSpan, frame.data(), frame.size(), kWords, c.items, skipped);
        benchmark::DoNotOptimize(frame.data());
        benchmark::ClobberMemory();
    }
    if (skipped != 0 || filler.get_carry_size() != 0) {
        state.SkipWithError("packets did not fit the frame");
    }
    state.SetBytesProcessed(state.iterations() * kFrameBytes);
}

void BM_FillFullLine(benchmark::State& state) {
    fill_frame(state, 2842, false);
}
BENCHMARK(BM_FillFullLine);

// The same without vector instructions, as on processors that lack them.
void BM_FillFullLinePlain(benchmark::State& state) {
    fill_frame(state, 2842, false, false);
}
BENCHMARK(BM_FillFullLinePlain);

void BM_Fill10Mbps(benchmark::State& state) {
    fill_frame(state, 133, true);
}
BENCHMARK(BM_Fill10Mbps);

void BM_FillNearEmpty(benchmark::State& state) {
    fill_frame(state, 1, true);
}
BENCHMARK(BM_FillNearEmpty);

void BM_MemcpyFrame(benchmark::State& state) {
    std::vector<uint8_t> src(kFrameBytes, 0x5A), dst(kFrameBytes);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), kFrameBytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kFrameBytes);
}
BENCHMARK(BM_MemcpyFrame);

}  // namespace

BENCHMARK_MAIN();
