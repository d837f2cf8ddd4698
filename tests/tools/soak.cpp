// kv-asi-soak: its endless stream held in memory, and the end-of-run judgement.

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <vector>

#include "kv_soak_loop.h"
#include "kv_soak_report.h"
#include "kv_ts_generator.h"
#include "mpegcore/TransportPacket.h"

using namespace kv_asi_soak;
using kv_asi_play::kPcrModulus;
namespace pb = mpegcore::packet_bytes;

namespace {

// 2000 packets at 27.072 Mbit/s (1500 ticks each), PCRs every 540 packets and on the last.
std::vector<uint8_t> stream(uint64_t pcrStart) {
    kv_ts_generate::options o;
    o.rate_bps = 27072000;
    o.packets = 2000;
    o.pcr_start = pcrStart;
    o.fill_null = true;
    std::vector<uint8_t> out;
    std::string error;
    EXPECT_TRUE(kv_ts_generate::generate(o, out, error)) << error;
    return out;
}

}  // namespace

// Three passes fetched in chunks that straddle the seams, the second pass across the
// PCR's wrap: one clock at the stream's rate and counters that run on.
TEST(SoakLoop, FillRunsOnAcrossSeamsInAnyChunking) {
    const uint64_t start = kPcrModulus - 3000 * 1500;
    ts_loop loop;
    std::string error;
    ASSERT_TRUE(loop.load(stream(start), error)) << error;
    EXPECT_EQ(loop.pass_ticks(), 2000u * 1500u);
    std::vector<uint8_t> out(6000 * kPacketSize);
    for (size_t pos = 0; pos < 6000; pos += 37) {
        loop.fill(pos, std::min<size_t>(37, 6000 - pos), &out[pos * kPacketSize]);
    }
    std::map<int, int> lastCc;
    size_t nPcrs = 0;
    for (size_t i = 0; i < 6000; ++i) {
        const uint8_t* p = &out[i * kPacketSize];
        const int pid = pb::pid(p), cc = pb::continuity_counter(p);
        if (pid != 0x1FFF && lastCc.count(pid) != 0) {
            ASSERT_EQ(cc, (lastCc[pid] + 1) & 0x0F) << "packet " << i;
        }
        lastCc[pid] = cc;
        if (pb::has_pcr(p)) {
            ASSERT_EQ(pb::pcr(p), (start + i * 1500) % kPcrModulus) << "packet " << i;
            ++nPcrs;
        }
    }
    EXPECT_EQ(nPcrs, 15u);
    // A pass count whose product with the pass length leaves 64 bits.
    const uint64_t pass = uint64_t(1) << 40;
    loop.fill(pass * 2000, 1, out.data());
    ASSERT_TRUE(pb::has_pcr(out.data()));
    EXPECT_EQ(pb::pcr(out.data()), uint64_t((start + (unsigned __int128)pass * 2000 * 1500) % kPcrModulus));
}

TEST(SoakLoop, RefusesWhatCannotBeLooped) {
    ts_loop loop;
    std::string error;
    EXPECT_FALSE(loop.load(std::vector<uint8_t>(187, 0x47), error));
    std::vector<uint8_t> s = stream(0);
    s[50 * kPacketSize] = 0x48;
    EXPECT_FALSE(loop.load(s, error));
    EXPECT_NE(error.find("50"), std::string::npos) << error;
    // The first packet holds the only PCR: no rate.
    s = stream(0);
    s.resize(500 * kPacketSize);
    EXPECT_FALSE(loop.load(s, error));
}

TEST(SoakLoop, ProbeAndLoopAgreeOnRealCaptures) {
    const std::string path = std::string(KV_CORPUS_DIR) + "/test-072.ts";
    if (!std::ifstream(path)) {
        GTEST_SKIP() << "corpus not present";
    }
    ts_loop loop;
    std::string error;
    ASSERT_TRUE(loop.load_file(path, error)) << error;
    double seconds = 0;
    ASSERT_TRUE(probe_file_seconds(path, seconds, error, 1 << 20)) << error;
    EXPECT_NEAR(seconds, loop.pass_seconds(), 1e-6);
    EXPECT_GT(seconds, 1.0);
}

TEST(SoakReport, RowsDriftAndMemoryAreJudgedOverTheSecondHalfOnly) {
    const element_sample row = read_rows({{"Fullness fifo", "000:00:00.865"},
                                          {"Stream time", "garbage"},
                                          {"Skip TS packets", "17"},
                                          {"Reset", "2"}});
    EXPECT_EQ(row.tFifo, 8'650'000);
    EXPECT_EQ(row.tStream, -1);
    EXPECT_EQ(row.nSkipPackets, 17u);
    EXPECT_EQ(row.nResets, 2u);

    // 600 s: the first half fills from 0 (start-up) and resets once, the second drains
    // 50 us per second under +-20 ms of frame-sized noise.
    std::vector<element_sample> v;
    for (int i = 0; i <= 600; ++i) {
        element_sample s;
        s.t = i;
        const double ms = i < 300 ? i * 3.0 : 900.0 - (i - 300) * 0.05 + (i % 2 ? 20 : -20);
        s.tFifo = int64_t(std::llround(ms * 10000));
        s.nResets = i < 100 ? 0 : 1;
        v.push_back(s);
    }
    const fifo_summary f = summarize_fifo(v);
    EXPECT_NEAR(f.driftUsPerS, -50.0, 1.0);
    EXPECT_NEAR(f.driftHalfMs, -15.0, 0.3);
    EXPECT_DOUBLE_EQ(f.minMs, 0.0);
    EXPECT_NEAR(f.minHalfMs, 900.0 - 300 * 0.05 - 20, 1e-6);
    EXPECT_EQ(f.resetsHalf, 0u);
    struct limit_case {
        double maxDriftMs, maxDriftRate;
        size_t failures;
    };
    const memory_summary none;
    for (const limit_case& c : {limit_case{16, 0, 0}, limit_case{14, 0, 1}, limit_case{16, 49, 1},
                                limit_case{16, 51, 0}}) {
        limits lim;
        lim.maxDriftMs = c.maxDriftMs;
        lim.maxDriftRate = c.maxDriftRate;
        EXPECT_EQ(judge({f}, none, lim).size(), c.failures)
            << c.maxDriftMs << " " << c.maxDriftRate;
    }
    // A reset in the second half fails the run unless allowed.
    v.back().nResets = 2;
    const fifo_summary g = summarize_fifo(v);
    EXPECT_EQ(g.resetsHalf, 1u);
    limits lim;
    lim.maxDriftMs = 100;
    EXPECT_EQ(judge({g}, none, lim).size(), 1u);
    lim.bResetsFail = false;
    EXPECT_TRUE(judge({g}, none, lim).empty());

    // Memory: start-up growth in the first half is not counted, the second half's is.
    std::vector<process_sample> rss;
    for (int i = 0; i <= 10; ++i) {
        rss.push_back(
            {i * 60.0, i < 5 ? 100000 + uint64_t(i) * 10000 : 150000 + uint64_t(i - 5) * 1000, 0});
    }
    const memory_summary m = summarize_memory(rss);
    EXPECT_EQ(m.midKiB, 150000u);
    EXPECT_EQ(m.growthHalfKiB, 5000);
    EXPECT_NEAR(m.slopeHalfKiBPerMin, 1000.0, 1e-6);
    lim.maxRssGrowthKiB = 5000;
    EXPECT_TRUE(judge({}, m, lim).empty());
    lim.maxRssGrowthKiB = 4999;
    EXPECT_EQ(judge({}, m, lim).size(), 1u);
    EXPECT_EQ(summarize_memory({}).growthHalfKiB, 0);
}
