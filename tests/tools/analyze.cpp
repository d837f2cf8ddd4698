// The capture analyzer on captures built here with known timing, known PCR errors and
// known damage, on a real broadcast stream, and its command line.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "kv_asi_analyzer.h"
#include "vboard_test_host.h"

using kv_asi_analyze::capture_analyzer;
using kv_asi_analyze::report;
using vboard_test::cbr_line;

namespace {

constexpr uint32_t kMask = (1u << 30) - 1;

struct record {
    uint32_t stamp;
    std::vector<uint8_t> packet;
};

// A constant-rate capture: packet k at word base + t(k), PCRs exact unless moved.
std::vector<record> cbr_capture(const cbr_line& line, uint64_t nPackets, uint64_t base,
                                double scale = 1.0) {
    std::vector<record> out;
    for (uint64_t k = 0; k < nPackets; ++k) {
        record r;
        r.packet.resize(188);
        line.packet(k, r.packet.data());
        r.stamp = uint32_t(base + uint64_t(std::llround(double(k * line.spacing) * scale))) & kMask;
        out.push_back(r);
    }
    return out;
}

report analyze(const std::vector<record>& recs) {
    capture_analyzer a;
    for (const record& r : recs) {
        a.add(r.stamp, r.packet.data());
    }
    return a.finish();
}

std::string write_capture(const std::vector<record>& recs, const std::string& name) {
    const std::string path = vboard_test::temp_path(name);
    FILE* f = fopen(path.c_str(), "wb");
    for (const record& r : recs) {
        const uint8_t s[4] = {uint8_t(r.stamp >> 24), uint8_t(r.stamp >> 16), uint8_t(r.stamp >> 8),
                              uint8_t(r.stamp)};
        fwrite(s, 4, 1, f);
        fwrite(r.packet.data(), 188, 1, f);
    }
    fclose(f);
    return path;
}

uint16_t pid_of(const std::vector<uint8_t>& p) {
    return uint16_t((p[1] & 0x1f) << 8 | p[2]);
}

}  // namespace

TEST(AsiAnalyze, RateIdleShareAndPcrAccuracyOfBuiltCaptures) {
    // Two seconds at 45.2 Mbit/s; the stamps wrap through 30 bits and the PCRs through
    // 2^33 * 300 within the capture.
    const uint32_t spacing = 900;
    const uint64_t nPackets = 2 * 27000000 / spacing;
    const cbr_line line{spacing, 20, (uint64_t(1) << 33) * 300 - 13500000};
    const uint64_t base = kMask - 1000000;

    std::vector<record> recs = cbr_capture(line, nPackets, base);
    report r = analyze(recs);
    EXPECT_EQ(r.packets, nPackets);
    EXPECT_NEAR(r.duration_s, double((nPackets - 1) * spacing) / 27e6, 1e-9);
    EXPECT_NEAR(r.bitrate_bps, 188.0 * 8 * 27e6 / spacing, 1e-3);
    EXPECT_NEAR(r.idle_share, 1 - double(nPackets * 188) / double((nPackets - 1) * spacing + 188),
                1e-9);
    EXPECT_TRUE(r.cc_errors.empty());
    ASSERT_EQ(r.pcr.size(), 1u);
    EXPECT_EQ(r.pcr[0].pid, 0x100);
    EXPECT_EQ(r.pcr[0].pcrs, nPackets / 20);
    EXPECT_NEAR(r.pcr[0].max_interval_ms, 20.0 * spacing / 27000, 1e-9);
    EXPECT_LT(r.pcr[0].offset_max_ns, 0.01);
    EXPECT_LT(r.pcr[0].drift_max_ns, 0.01);
    EXPECT_TRUE(r.pcr_within(1));

    // One PCR packet 27 words (1000 ns) early: its PCR is 1000 ns ahead of the line.
    const size_t nPcrs = nPackets / 20;
    recs[20 * 40].stamp = (recs[20 * 40].stamp - 27) & kMask;
    r = analyze(recs);
    ASSERT_EQ(r.pcr.size(), 1u);
    EXPECT_NEAR(r.pcr[0].offset_max_ns, 1000.0 * (1 - 1.0 / nPcrs), 0.5);
    EXPECT_NEAR(r.pcr[0].drift_max_ns, 1000.0, 20.0);
    EXPECT_NEAR(r.pcr[0].drift_rms_ns, 1000.0 / std::sqrt(double(nPcrs)), 2.0);
    EXPECT_NEAR(r.pcr[0].max_interval_ms, (20.0 * spacing + 27) / 27000, 1e-9);
    EXPECT_FALSE(r.pcr_within(500));
    EXPECT_TRUE(r.pcr_within(1100));

    // The line 20 ppm slow against the PCRs: a drift, not a jitter.
    r = analyze(cbr_capture(line, nPackets, base, 1 - 20e-6));
    ASSERT_EQ(r.pcr.size(), 1u);
    EXPECT_NEAR(r.pcr[0].drift_ppm, 20.0, 0.05);
    EXPECT_LT(r.pcr[0].drift_max_ns, 25.0);  // a word is 37 ns: rounding only
    EXPECT_GT(r.pcr[0].offset_max_ns, 15000.0);
}

TEST(AsiAnalyze, ContinuityAndSourceCheckOnARealStream) {
    const std::string path = std::string(KV_CORPUS_DIR) + "/test-025.ts";
    const std::vector<uint8_t> ts = vboard_test::read_file(path);
    if (ts.empty()) {
        GTEST_SKIP() << path << " not present";
    }
    ASSERT_EQ(ts.size() % 188, 0u);
    const size_t n = ts.size() / 188;
    const auto packet = [&](size_t i) {
        return std::vector<uint8_t>(ts.begin() + i * 188, ts.begin() + (i + 1) * 188);
    };
    const auto run = [&](const std::vector<std::vector<uint8_t>>& packets) {
        capture_analyzer a;
        a.set_source(ts);
        uint32_t stamp = 0;
        for (const auto& p : packets) {
            a.add(stamp, p.data());
            stamp += 1000;
        }
        return a.finish();
    };

    std::vector<std::vector<uint8_t>> all;
    for (size_t i = 0; i < n; ++i) {
        all.push_back(packet(i));
    }
    const report clean = run(all);
    EXPECT_EQ(clean.source.matched, n);
    EXPECT_EQ(clean.source.missing + clean.source.repeated + clean.source.altered, 0u);
    ASSERT_FALSE(clean.pcr.empty());
    EXPECT_EQ(clean.pcr[0].pid, 256);

    // Damage packets that carry a payload on PIDs other than the null PID, so that each
    // is unique in the stream.
    const auto usable = [&](size_t i) {
        while (pid_of(all[i]) == 0x1fff || !(all[i][3] & 0x10) || all[i] == all[i + 1]) {
            ++i;
        }
        return i;
    };
    const size_t first = usable(50), drop = usable(first + 100), dup = usable(drop + 100),
                 flip = usable(dup + 100);
    std::vector<std::vector<uint8_t>> damaged;
    for (size_t i = first; i + 30 < n; ++i) {
        if (i == drop) {
            continue;
        }
        damaged.push_back(all[i]);
        if (i == dup) {
            damaged.push_back(all[i]);  // sent twice: a legal duplicate, not a CC error
        }
        if (i == flip) {
            damaged.back()[150] ^= 0x01;
        }
    }
    const report r = run(damaged);
    EXPECT_EQ(r.source.missing, 1u);
    EXPECT_EQ(r.source.repeated, 1u);
    EXPECT_EQ(r.source.altered, 1u);
    EXPECT_EQ(r.source.unsent_head, first);
    EXPECT_EQ(r.source.unsent_tail, 30u);
    EXPECT_EQ(r.source.matched, n - first - 30 - 2);
    ASSERT_EQ(r.source.details.size(), 3u);
    EXPECT_NE(r.source.details[0].find("missing"), std::string::npos);
    const uint16_t pid = pid_of(all[drop]);
    const auto count = [](const report& x, uint16_t p) {
        const auto it = x.cc_errors.find(p);
        return it == x.cc_errors.end() ? uint64_t(0) : it->second;
    };
    EXPECT_EQ(count(r, pid), count(clean, pid) + 1);
    for (const auto& e : r.cc_errors) {
        if (e.first != pid) {
            EXPECT_EQ(e.second, count(clean, e.first)) << "PID " << e.first;
        }
    }
}

TEST(AsiAnalyze, CommandLineResultsAndBadFiles) {
    const cbr_line line{1000, 5, 0};
    std::vector<record> recs = cbr_capture(line, 400, 0);
    recs[100].stamp -= 30;  // one PCR 1111 ns early
    const std::string good = write_capture(recs, "good.cap");
    std::string out, err;
    EXPECT_EQ(kv_asi_analyze::run({good}, out, err), 0);
    EXPECT_EQ(out.find("capture: 400 packets"), 0u) << out;
    EXPECT_NE(out.find("EXCEEDS"), std::string::npos) << out;
    EXPECT_EQ(kv_asi_analyze::run({good, "--max-pcr-ac", "500"}, out, err), 1);
    EXPECT_EQ(kv_asi_analyze::run({"--json", good, "--max-pcr-ac", "2000"}, out, err), 0);
    EXPECT_NE(out.find("\"packets\": 400"), std::string::npos) << out;
    EXPECT_NE(out.find("\"pcr_ac_ok\": true"), std::string::npos) << out;

    // Source check through files: the capture is the source's first 400 packets.
    const std::string source = vboard_test::temp_path("source.ts");
    FILE* f = fopen(source.c_str(), "wb");
    for (const record& r : recs) {
        fwrite(r.packet.data(), 188, 1, f);
    }
    fclose(f);
    EXPECT_EQ(kv_asi_analyze::run({good, "--source", source}, out, err), 0);
    EXPECT_NE(out.find("400 sent in order, 0 missing"), std::string::npos) << out;

    // Bad files give one line on the error stream and status 2.
    std::vector<uint8_t> bytes = vboard_test::read_file(good);
    const auto bad = [&](const std::vector<uint8_t>& content, const char* expected) {
        const std::string p = vboard_test::temp_path("bad.cap");
        FILE* b = fopen(p.c_str(), "wb");
        fwrite(content.data(), 1, content.size(), b);
        fclose(b);
        std::string o, e;
        EXPECT_EQ(kv_asi_analyze::run({p}, o, e), 2) << expected;
        EXPECT_NE(e.find(expected), std::string::npos) << e;
        EXPECT_EQ(e.find('\n'), e.size() - 1) << e;
        remove(p.c_str());
    };
    bad(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 192 * 3 + 100), "truncated");
    std::vector<uint8_t> c = bytes;
    c[192 * 7 + 4] = 0x48;
    bad(c, "record 7 has no sync byte");
    c = bytes;
    c[192 * 9] = 0x40;
    bad(c, "record 9 has a stamp above 30 bits");
    EXPECT_EQ(kv_asi_analyze::run({good + ".missing"}, out, err), 2);
    EXPECT_NE(err.find("cannot open"), std::string::npos) << err;
    EXPECT_EQ(kv_asi_analyze::run({good, "--source", good}, out, err), 2);  // not 188-byte packets
    EXPECT_EQ(kv_asi_analyze::run({}, out, err), 2);
    remove(good.c_str());
    remove(source.c_str());
}
