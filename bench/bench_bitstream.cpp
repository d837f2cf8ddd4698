// Field throughput of the bit cursors on transport-packet syntax: per packet the 4-byte
// header (8,1,1,1,13,2,2,4 bits) and an adaptation field carrying a PCR (length, eight
// flags, 33-bit base, 6 reserved bits, 9-bit extension): 20 fields in 12 bytes.
#include "kvcore/kv_bitstream.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

namespace {

constexpr size_t kPacketSize = 188;
constexpr size_t kPackets = 4096;
constexpr size_t kWidths[] = {8, 1, 1, 1, 13, 2, 2, 4, 8, 1, 1, 1, 1, 1, 1, 1, 1, 33, 6, 9};
constexpr size_t kFieldsPerPacket = sizeof(kWidths) / sizeof(kWidths[0]);
constexpr size_t kFieldBytes = 12;

// Random payloads behind a sync byte and an adaptation field that carries a PCR.
std::vector<uint8_t> makePackets() {
    std::vector<uint8_t> ts(kPacketSize * kPackets);
    std::mt19937 rng(1);
    for (auto& b : ts) {
        b = static_cast<uint8_t>(rng());
    }
    for (size_t i = 0; i < kPackets; ++i) {
        uint8_t* p = ts.data() + i * kPacketSize;
        p[0] = 0x47;
        p[3] |= 0x20;
        p[4] = kPacketSize - 5;
        p[5] |= 0x10;
    }
    return ts;
}

// One reader per packet, as the parser opens one on every packet it frames.
void BM_ReadPacketFields(benchmark::State& state) {
    const std::vector<uint8_t> ts = makePackets();
    for (auto _ : state) {
        uint64_t sum = 0;
        for (size_t at = 0; at < ts.size(); at += kPacketSize) {
            KVSDK::KVBSReader r(ts.data() + at, kPacketSize);
            for (size_t n : kWidths) {
                sum += r.getBits(n);
            }
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kPackets * kFieldsPerPacket);
}
BENCHMARK(BM_ReadPacketFields);

// One reader over the whole buffer, hopping over each payload with skipBytes.
void BM_ReadPacketFieldsOneReader(benchmark::State& state) {
    const std::vector<uint8_t> ts = makePackets();
    for (auto _ : state) {
        uint64_t sum = 0;
        KVSDK::KVBSReader r(ts.data(), ts.size());
        for (size_t i = 0; i < kPackets; ++i) {
            for (size_t n : kWidths) {
                sum += r.getBits(n);
            }
            r.skipBytes(kPacketSize - kFieldBytes);
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kPackets * kFieldsPerPacket);
}
BENCHMARK(BM_ReadPacketFieldsOneReader);

// The same fields written as a packet writer would: one call per field, constant widths.
bool writeFields(KVSDK::KVBSWriter& w, const uint64_t* v) {
    bool ok = w.putBits<8>(v[0]);
    ok &= w.putBits<1>(v[1]);
    ok &= w.putBits<1>(v[2]);
    ok &= w.putBits<1>(v[3]);
    ok &= w.putBits(v[4], 13);
    ok &= w.putBits(v[5], 2);
    ok &= w.putBits(v[6], 2);
    ok &= w.putBits<4>(v[7]);
    ok &= w.putBits<8>(v[8]);
    for (size_t i = 9; i < 17; ++i) {
        ok &= w.putBits<1>(v[i]);
    }
    ok &= w.putBits(v[17], 33);
    ok &= w.putBits(v[18], 6);
    ok &= w.putBits(v[19], 9);
    w.flush();
    return ok;
}

// One writer per packet.
void BM_WritePacketFields(benchmark::State& state) {
    std::vector<uint8_t> out(kPacketSize * kPackets);
    uint64_t values[kFieldsPerPacket];
    std::mt19937_64 rng(2);
    for (auto& v : values) {
        v = rng();
    }
    for (auto _ : state) {
        bool ok = true;
        for (size_t at = 0; at < out.size(); at += kPacketSize) {
            KVSDK::KVBSWriter w(out.data() + at, kPacketSize);
            ok &= writeFields(w, values);
        }
        benchmark::DoNotOptimize(ok);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kPackets * kFieldsPerPacket);
}
BENCHMARK(BM_WritePacketFields);

}  // namespace

BENCHMARK_MAIN();
