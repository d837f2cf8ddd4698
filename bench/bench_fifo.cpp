// The timed FIFO from both ends: push_data throughput on real captures in PCR pacing,
// without a clock and with one (the PLL then runs once per PCR), reported as packets per
// second (target: at least 2.8 million on one core); and the cost of handing one device
// frame (20 ms) of items out with get_data and taking them back with revert, for three
// stream rates.
#include "mpegcore/fifo/kv_mpegts_fifo.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

using namespace mpegcore;

namespace {

constexpr size_t kPkt = 188;
constexpr size_t kChunk = 348 * kPkt;  // a typical upstream buffer of about 64 KiB
constexpr int64_t kEnd = std::numeric_limits<int64_t>::max();

struct steady_source final : kv_clock {
    int64_t get_clock_time() override {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
                   .count() /
               100;
    }
};

void push_capture(benchmark::State& state, const char* name, bool withClock) {
    std::ifstream in(std::string(KV_CORPUS_DIR) + "/" + name, std::ios::binary);
    const std::vector<uint8_t> ts{std::istreambuf_iterator<char>(in), {}};
    if (ts.empty()) {
        state.SkipWithError("capture missing");
        return;
    }
    std::shared_ptr<kv_clock> clock;
    if (withClock) {
        clock = std::make_shared<steady_source>();
    }
    kv_mpegts_fifo fifo;
    fifo.create(ts.size(), kPkt, clock, pcr_time_type, false);
    kv_mpegts_items items;
    for (auto _ : state) {
        for (size_t at = 0; at < ts.size(); at += kChunk) {
            fifo.push_data(0, ts.data() + at, std::min(kChunk, ts.size() - at));
        }
        state.PauseTiming();
        if (fifo.is_reset()) {
            state.SkipWithError(fifo.get_error().c_str());
            break;
        }
        // The capture starts over with earlier PCRs next time: empty and rewind.
        fifo.get_data(0, kEnd, items);
        fifo.revert(items);
        fifo.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(ts.size() / kPkt));
}
BENCHMARK_CAPTURE(push_capture, test072_no_clock, "test-072.ts", false);
BENCHMARK_CAPTURE(push_capture, test072_clock, "test-072.ts", true);
BENCHMARK_CAPTURE(push_capture, test025_no_clock, "test-025.ts", false);
BENCHMARK_CAPTURE(push_capture, test025_clock, "test-025.ts", true);

// Writes a PCR into the adaptation field of the packet at p.
void set_pcr(uint8_t* p, uint64_t pcr) {
    const uint64_t base = pcr / 300, ext = pcr % 300;
    p[6] = uint8_t(base >> 25);
    p[7] = uint8_t(base >> 17);
    p[8] = uint8_t(base >> 9);
    p[9] = uint8_t(base >> 1);
    p[10] = uint8_t((base & 1) << 7 | 0x7E | ext >> 8);
    p[11] = uint8_t(ext);
}

// One frame of k packets per iteration, a PCR on the first; pushing the next frame
// releases the previous one, which is then pulled in one window and given back.
void BM_GetRevertFrame(benchmark::State& state) {
    const size_t k = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> frame(k * kPkt, 0xFF);
    for (size_t i = 0; i < k; ++i) {
        uint8_t* p = &frame[i * kPkt];
        p[0] = 0x47;
        p[1] = 0x01;
        p[2] = 0x00;
        p[3] = uint8_t(0x10 | (i & 15));
    }
    frame[3] = 0x30;
    frame[4] = 7;
    frame[5] = 0x10;
    uint64_t pcr = 27000000;
    set_pcr(frame.data(), pcr);
    kv_mpegts_fifo fifo;
    fifo.create(3 * k * kPkt, kPkt, nullptr, pcr_time_type, false);
    fifo.push_data(0, frame.data(), frame.size());
    kv_mpegts_items items;
    for (auto _ : state) {
        state.PauseTiming();
        pcr += 540000;  // 20 ms
        set_pcr(frame.data(), pcr);
        fifo.push_data(0, frame.data(), frame.size());
        state.ResumeTiming();
        fifo.get_data(0, fifo.get_back_time(), items);
        if (items.size() != k) {
            state.SkipWithError("frame not released whole");
            break;
        }
        fifo.revert(items);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(k));
}
BENCHMARK(BM_GetRevertFrame)->Arg(133)->Arg(532)->Arg(2842);

}  // namespace

BENCHMARK_MAIN();
