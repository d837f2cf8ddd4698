// The looped stream's seams (PCR and continuity counter arithmetic) and the end-of-run
// judgement of kv-asi-soak.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <vector>

#include "kv_soak_loop.h"
#include "kv_soak_report.h"

using namespace kv_asi_soak;

namespace {

// A packet with payload on `pid`; with a PCR in a 7-byte adaptation field when pcr >= 0.
std::vector<uint8_t> packet(uint16_t pid, uint8_t cc, int64_t pcr) {
    std::vector<uint8_t> p(kPacketSize, 0xAB);
    p[0] = 0x47;
    p[1] = uint8_t(pid >> 8);
    p[2] = uint8_t(pid);
    p[3] = uint8_t((pcr >= 0 ? 0x30 : 0x10) | (cc & 0x0F));
    if (pcr >= 0) {
        p[4] = 7;
        p[5] = 0x10;
        p[10] = 0x7E;  // reserved bits, kept by write_pcr
        write_pcr(p.data(), uint64_t(pcr));
    }
    return p;
}

// 100 packets: a PCR on PID 0x101 every 10th packet, 0x100 payload packets between, a
// null packet every 7th; PCRs 1000 ticks per packet apart starting at `start`.
std::vector<uint8_t> stream(uint64_t start) {
    std::vector<uint8_t> s;
    std::map<uint16_t, uint8_t> cc;
    for (int i = 0; i < 100; ++i) {
        std::vector<uint8_t> p;
        if (i % 10 == 0) {
            p = packet(0x101, cc[0x101]++, int64_t((start + uint64_t(i) * 1000) % kPcrModulus));
        } else if (i % 7 == 0) {
            p = packet(0x1FFF, 0, -1);
        } else {
            p = packet(0x100, cc[0x100]++, -1);
        }
        s.insert(s.end(), p.begin(), p.end());
    }
    return s;
}

uint8_t cc_of(const uint8_t* p) {
    return p[3] & 0x0F;
}
uint16_t pid_of(const uint8_t* p) {
    return uint16_t(((p[1] & 0x1F) << 8) | p[2]);
}

}  // namespace

TEST(SoakLoop, PcrFieldRoundTripsAllBitsAndKeepsReservedBits) {
    const uint64_t values[] = {0, 299, 300, (uint64_t(1) << 33) * 300 - 1,
                               (uint64_t(1) << 32) * 300 + 150};
    for (uint64_t v : values) {
        std::vector<uint8_t> p = packet(0x101, 0, int64_t(v));
        uint64_t back = 0;
        ASSERT_TRUE(read_pcr(p.data(), back));
        EXPECT_EQ(back, v);
        EXPECT_EQ(p[10] & 0x7E, 0x7E) << v;
    }
    // Written modulo 2^33 × 300.
    std::vector<uint8_t> p = packet(0x101, 0, 0);
    write_pcr(p.data(), kPcrModulus + 5);
    uint64_t back = 0;
    ASSERT_TRUE(read_pcr(p.data(), back));
    EXPECT_EQ(back, 5u);
    // No adaptation field, or one too short for a PCR: none read, nothing written.
    std::vector<uint8_t> q = packet(0x100, 0, -1);
    EXPECT_FALSE(read_pcr(q.data(), back));
    q[3] |= 0x20;
    q[4] = 1;
    q[5] = 0x10;
    const std::vector<uint8_t> before = q;
    write_pcr(q.data(), 12345);
    EXPECT_FALSE(read_pcr(q.data(), back));
    EXPECT_EQ(q, before);
}

TEST(SoakLoop, SeamsContinuePcrAndContinuityCounters) {
    // Starts 50 packets before the PCR wraps, so the second pass crosses the wrap.
    const uint64_t start = kPcrModulus - 150 * 1000;
    ts_loop loop;
    std::string error;
    ASSERT_TRUE(loop.load(stream(start), error)) << error;
    EXPECT_EQ(loop.packets(), 100u);
    EXPECT_EQ(loop.pcr_pid(), 0x101);
    EXPECT_EQ(loop.pass_ticks(), 100u * 1000u);

    // Three passes, fetched in chunks that straddle the seams.
    std::vector<uint8_t> out(300 * kPacketSize);
    for (size_t pos = 0; pos < 300; pos += 37) {
        const size_t n = std::min<size_t>(37, 300 - pos);
        loop.fill(pos, n, out.data() + pos * kPacketSize);
    }
    std::map<uint16_t, int> lastCc;
    uint64_t expected = start;
    for (size_t i = 0; i < 300; ++i) {
        const uint8_t* p = &out[i * kPacketSize];
        const uint16_t pid = pid_of(p);
        if (pid != 0x1FFF) {
            if (lastCc.count(pid)) {
                EXPECT_EQ(cc_of(p), (lastCc[pid] + 1) & 0x0F) << "packet " << i;
            }
            lastCc[pid] = cc_of(p);
        } else {
            EXPECT_EQ(cc_of(p), 0) << "null packets are left alone";
        }
        uint64_t pcr = 0;
        if (read_pcr(p, pcr)) {
            EXPECT_EQ(pcr, expected % kPcrModulus) << "packet " << i;
            expected += 10 * 1000;
        }
        EXPECT_EQ(p[kPacketSize - 1], 0xAB);
    }
}

TEST(SoakLoop, LatePassesStayExactWithoutOverflow) {
    ts_loop loop;
    std::string error;
    ASSERT_TRUE(loop.load(stream(7), error));
    // A pass count whose product with the pass length leaves 64 bits.
    const uint64_t pass = uint64_t(1) << 40;
    std::vector<uint8_t> out(kPacketSize);
    loop.fill(pass * 100, 1, out.data());
    uint64_t pcr = 0;
    ASSERT_TRUE(read_pcr(out.data(), pcr));
    const unsigned __int128 want =
        (7 + static_cast<unsigned __int128>(pass) * loop.pass_ticks()) % kPcrModulus;
    EXPECT_EQ(pcr, uint64_t(want));
}

TEST(SoakLoop, RefusesWhatCannotBeLooped) {
    ts_loop loop;
    std::string error;
    EXPECT_FALSE(loop.load(std::vector<uint8_t>(187, 0x47), error));
    std::vector<uint8_t> s = stream(0);
    s[50 * kPacketSize] = 0x48;
    EXPECT_FALSE(loop.load(s, error));
    EXPECT_NE(error.find("50"), std::string::npos);
    // A single PCR gives no rate.
    std::vector<uint8_t> one = packet(0x101, 0, 1000);
    for (int i = 0; i < 5; ++i) {
        std::vector<uint8_t> p = packet(0x100, uint8_t(i), -1);
        one.insert(one.end(), p.begin(), p.end());
    }
    EXPECT_FALSE(loop.load(one, error));
}

TEST(SoakLoop, ProbeAndLoopAgreeOnRealCaptures) {
    const std::string path = std::string(KV_CORPUS_DIR) + "/test-072.ts";
    std::ifstream probe(path);
    if (!probe) {
        GTEST_SKIP() << "corpus not present";
    }
    ts_loop loop;
    std::string error;
    ASSERT_TRUE(loop.load_file(path, error)) << error;
    double seconds = 0;
    ASSERT_TRUE(probe_file_seconds(path, seconds, error, 1 << 20)) << error;
    EXPECT_NEAR(seconds, loop.pass_seconds(), 1e-6);
    EXPECT_GT(seconds, 1.0);
    // The first PCR of the second pass lies one pass after the first of the first.
    uint64_t first = 0, again = 0;
    std::vector<uint8_t> p(kPacketSize);
    size_t i = 0;
    for (;; ++i) {
        loop.fill(i, 1, p.data());
        if (pid_of(p.data()) == loop.pcr_pid() && read_pcr(p.data(), first))
            break;
    }
    loop.fill(loop.packets() + i, 1, p.data());
    ASSERT_TRUE(read_pcr(p.data(), again));
    EXPECT_EQ(again, (first + loop.pass_ticks()) % kPcrModulus);
}

TEST(SoakReport, ClockTextAndRows) {
    int64_t u = 0;
    EXPECT_TRUE(parse_clock_text("000:00:01.250", u));
    EXPECT_EQ(u, 12'500'000);
    EXPECT_TRUE(parse_clock_text("1234:59:59.999", u));
    EXPECT_EQ(u, ((1234LL * 3600 + 59 * 60 + 59) * 1000 + 999) * 10000);
    EXPECT_TRUE(parse_clock_text("-000:00:00.100", u));
    EXPECT_EQ(u, -1'000'000);
    for (const char* bad :
         {"", "00:00.000", "000:60:00.000", "000:00:00.00", "000:00:00.0000", "000:00:00.000 "}) {
        EXPECT_FALSE(parse_clock_text(bad, u)) << bad;
    }
    const element_sample s = read_rows({{"Device time", "000:00:02.000"},
                                        {"Fullness fifo", "000:00:00.865"},
                                        {"Skip TS packets", "17"},
                                        {"Reset", "2"},
                                        {"Pid PCR [ns]: #101", "3"},
                                        {"Last error", "Cannot dequeue buffer"}});
    EXPECT_EQ(s.tFifo, 8'650'000);
    EXPECT_EQ(s.tDevice, 20'000'000);
    EXPECT_EQ(s.tStream, -1);
    EXPECT_EQ(s.nSkipPackets, 17u);
    EXPECT_EQ(s.nResets, 2u);
    EXPECT_EQ(s.strLastError, "Cannot dequeue buffer");
}

TEST(SoakReport, DriftIsFittedOverTheSecondHalfOnly) {
    // 600 s at 1 s: the first half fills from 0 (start-up), the second drains 50 µs per
    // second under ±20 ms of frame-sized noise.
    std::vector<element_sample> v;
    for (int i = 0; i <= 600; ++i) {
        element_sample s;
        s.t = i;
        const double ms = i < 300 ? i * 3.0 : 900.0 - (i - 300) * 0.05 + (i % 2 ? 20 : -20);
        s.tFifo = int64_t(std::llround(ms * 10000));
        s.nResets = i < 100 ? 0 : 1;  // one reset, in the first half
        v.push_back(s);
    }
    const fifo_summary f = summarize_fifo(v);
    EXPECT_NEAR(f.driftUsPerS, -50.0, 1.0);
    EXPECT_NEAR(f.driftHalfMs, -15.0, 0.3);
    EXPECT_DOUBLE_EQ(f.minMs, 0.0);
    EXPECT_NEAR(f.minHalfMs, 900.0 - 300 * 0.05 - 20, 1e-6);
    EXPECT_EQ(f.resetsHalf, 0u);

    limits lim;
    lim.maxDriftMs = 16;
    memory_summary mem;
    EXPECT_TRUE(judge({f}, mem, lim).empty());
    lim.maxDriftMs = 14;
    EXPECT_EQ(judge({f}, mem, lim).size(), 1u);
    lim.maxDriftMs = 16;
    lim.maxDriftRate = 49;
    EXPECT_EQ(judge({f}, mem, lim).size(), 1u);
    lim.maxDriftRate = 51;
    EXPECT_TRUE(judge({f}, mem, lim).empty());

    // A reset in the second half fails the run unless allowed.
    v.back().nResets = 2;
    const fifo_summary g = summarize_fifo(v);
    EXPECT_EQ(g.resetsHalf, 1u);
    lim.maxDriftMs = 100;
    EXPECT_EQ(judge({g}, mem, lim).size(), 1u);
    lim.bResetsFail = false;
    EXPECT_TRUE(judge({g}, mem, lim).empty());
}

TEST(SoakReport, MemoryGrowthCountsFromTheMiddle) {
    std::vector<process_sample> v;
    for (int i = 0; i <= 10; ++i) {
        process_sample p;
        p.t = i * 60;
        p.nRssKiB = i < 5 ? 100000 + uint64_t(i) * 10000 : 150000 + uint64_t(i - 5) * 1000;
        v.push_back(p);
    }
    const memory_summary m = summarize_memory(v);
    EXPECT_EQ(m.startKiB, 100000u);
    EXPECT_EQ(m.midKiB, 150000u);
    EXPECT_EQ(m.endKiB, 155000u);
    EXPECT_EQ(m.growthHalfKiB, 5000);
    EXPECT_NEAR(m.slopeHalfKiBPerMin, 1000.0, 1e-6);
    limits lim;
    lim.maxRssGrowthKiB = 5000;
    EXPECT_TRUE(judge({}, m, lim).empty());
    lim.maxRssGrowthKiB = 4999;
    EXPECT_EQ(judge({}, m, lim).size(), 1u);
    EXPECT_EQ(summarize_memory({}).growthHalfKiB, 0);
}
