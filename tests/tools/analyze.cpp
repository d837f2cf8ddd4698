// The capture analyzer on captures built here with known timing, PCR errors and damage,
// on a real broadcast stream, and its command line.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "kv_asi_analyzer.h"
#include "vboard_test_host.h"

using kv_asi_analyze::capture_analyzer;
using kv_asi_analyze::report;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint32_t kMask = (1u << 30) - 1;

// Packets back to back, and the 30-bit line stamp of each.
struct capture {
    Bytes ts;
    std::vector<uint32_t> stamps;
};

// A constant-rate capture: packet k at word base + t(k), PCRs exact unless moved.
capture cbr_capture(const vboard_test::cbr_line& line, uint64_t n, uint64_t base,
                    double scale = 1.0) {
    capture c{Bytes(n * 188), {}};
    for (uint64_t k = 0; k < n; ++k) {
        line.packet(k, &c.ts[k * 188]);
        c.stamps.push_back(
            uint32_t(base + uint64_t(std::llround(double(k * line.spacing) * scale))) & kMask);
    }
    return c;
}

report analyze(const capture& c, const Bytes* source = nullptr) {
    capture_analyzer a;
    if (source != nullptr) {
        a.set_source(*source);
    }
    for (size_t i = 0; i < c.stamps.size(); ++i) {
        a.add(c.stamps[i], &c.ts[i * 188]);
    }
    return a.finish();
}

std::string write_file(const std::string& name, const Bytes& bytes) {
    const std::string path = vboard_test::temp_path(name);
    FILE* f = fopen(path.c_str(), "wb");
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    return path;
}

}  // namespace

TEST(AsiAnalyze, RateIdleShareAndPcrAccuracyOfBuiltCaptures) {
    // Two seconds at 45.2 Mbit/s; the stamps wrap through 30 bits and the PCRs through
    // 2^33 * 300 within the capture.
    const uint32_t spacing = 900;
    const uint64_t n = 2 * 27000000 / spacing, nPcrs = n / 20;
    const vboard_test::cbr_line line{spacing, 20, (uint64_t(1) << 33) * 300 - 13500000};
    const uint64_t base = kMask - 1000000;

    capture c = cbr_capture(line, n, base);
    report r = analyze(c);
    EXPECT_EQ(r.packets, n);
    EXPECT_NEAR(r.duration_s, double((n - 1) * spacing) / 27e6, 1e-9);
    EXPECT_NEAR(r.bitrate_bps, 188.0 * 8 * 27e6 / spacing, 1e-3);
    EXPECT_NEAR(r.idle_share, 1 - double(n * 188) / double((n - 1) * spacing + 188), 1e-9);
    EXPECT_TRUE(r.cc_errors.empty());
    ASSERT_EQ(r.pcr.size(), 1u);
    EXPECT_EQ(r.pcr[0].pid, 0x100);
    EXPECT_EQ(r.pcr[0].pcrs, nPcrs);
    EXPECT_NEAR(r.pcr[0].max_interval_ms, 20.0 * spacing / 27000, 1e-9);
    EXPECT_LT(r.pcr[0].offset_max_ns, 0.01);
    EXPECT_LT(r.pcr[0].drift_max_ns, 0.01);

    // One PCR packet 27 words (1000 ns) early: its PCR is 1000 ns ahead of the line.
    c.stamps[20 * 40] = (c.stamps[20 * 40] - 27) & kMask;
    r = analyze(c);
    ASSERT_EQ(r.pcr.size(), 1u);
    EXPECT_NEAR(r.pcr[0].offset_max_ns, 1000.0 * (1 - 1.0 / nPcrs), 0.5);
    EXPECT_NEAR(r.pcr[0].drift_max_ns, 1000.0, 20.0);
    EXPECT_NEAR(r.pcr[0].drift_rms_ns, 1000.0 / std::sqrt(double(nPcrs)), 2.0);
    EXPECT_NEAR(r.pcr[0].max_interval_ms, (20.0 * spacing + 27) / 27000, 1e-9);
    EXPECT_FALSE(r.pcr_within(500));
    EXPECT_TRUE(r.pcr_within(1100));

    // The line 20 ppm slow against the PCRs: a drift, not a jitter.
    r = analyze(cbr_capture(line, n, base, 1 - 20e-6));
    ASSERT_EQ(r.pcr.size(), 1u);
    EXPECT_NEAR(r.pcr[0].drift_ppm, 20.0, 0.05);
    EXPECT_LT(r.pcr[0].drift_max_ns, 25.0);  // a word is 37 ns: rounding only
    EXPECT_GT(r.pcr[0].offset_max_ns, 15000.0);
}

TEST(AsiAnalyze, ContinuityAndSourceCheckOnARealStream) {
    const std::string path = std::string(KV_CORPUS_DIR) + "/test-025.ts";
    const Bytes ts = vboard_test::read_file(path);
    if (ts.empty()) {
        GTEST_SKIP() << path << " not present";
    }
    ASSERT_EQ(ts.size() % 188, 0u);
    const size_t n = ts.size() / 188;
    const auto at = [&](size_t i) { return ts.begin() + long(i * 188); };
    const auto pid = [&](size_t i) {
        return uint16_t((ts[i * 188 + 1] & 0x1f) << 8 | ts[i * 188 + 2]);
    };
    const auto run = [&](const Bytes& packets) {
        capture c{packets, {}};
        for (size_t i = 0; i < packets.size() / 188; ++i) {
            c.stamps.push_back(uint32_t(i * 1000) & kMask);
        }
        return analyze(c, &ts);
    };

    const report clean = run(ts);
    EXPECT_EQ(clean.source.matched, n);
    EXPECT_EQ(clean.source.missing + clean.source.repeated + clean.source.altered, 0u);

    // Drop, repeat and alter packets that carry a payload on PIDs other than the null PID,
    // so that each is unique in the stream.
    const auto usable = [&](size_t i) {
        while (pid(i) == 0x1fff || !(ts[i * 188 + 3] & 0x10) ||
               std::equal(at(i), at(i + 1), at(i + 1))) {
            ++i;
        }
        return i;
    };
    const size_t first = usable(50), drop = usable(first + 100), dup = usable(drop + 100),
                 flip = usable(dup + 100);
    Bytes damaged;
    for (size_t i = first; i + 30 < n; ++i) {
        for (int copies = i == drop ? 0 : i == dup ? 2 : 1; copies > 0; --copies) {
            damaged.insert(damaged.end(), at(i), at(i + 1));  // twice: a legal duplicate
        }
        if (i == flip) {
            damaged[damaged.size() - 188 + 150] ^= 0x01;
        }
    }
    const report r = run(damaged);
    const kv_asi_analyze::source_report& sr = r.source;
    EXPECT_EQ(std::make_tuple(sr.missing, sr.repeated, sr.altered, sr.unsent_head, sr.unsent_tail,
                              sr.matched),
              std::make_tuple(1u, 1u, 1u, first, 30u, n - first - 30 - 2));
    ASSERT_EQ(sr.details.size(), 3u);
    EXPECT_NE(sr.details[0].find("missing"), std::string::npos);
    // Only the dropped packet's PID gains a continuity error.
    std::map<uint16_t, uint64_t> cc = clean.cc_errors;
    ++cc[pid(drop)];
    EXPECT_EQ(r.cc_errors, cc);
}

TEST(AsiAnalyze, CommandLineResultsAndBadFiles) {
    capture c = cbr_capture({1000, 5, 0}, 400, 0);
    c.stamps[100] -= 30;  // one PCR 1111 ns early
    Bytes bytes;          // the capture file: a big-endian stamp before each packet
    for (size_t i = 0; i < c.stamps.size(); ++i) {
        const uint32_t s = c.stamps[i];
        bytes.insert(bytes.end(),
                     {uint8_t(s >> 24), uint8_t(s >> 16), uint8_t(s >> 8), uint8_t(s)});
        bytes.insert(bytes.end(), &c.ts[i * 188], &c.ts[i * 188] + 188);
    }
    const std::string good = write_file("good.cap", bytes);
    const std::string source = write_file("source.ts", c.ts);
    std::string out, err;
    // By default the whole line counts, from its first PCR.
    EXPECT_EQ(kv_asi_analyze::run({good}, out, err), 0);
    EXPECT_EQ(out.find("capture: 400 packets"), 0u) << out;
    EXPECT_NE(out.find("EXCEEDS"), std::string::npos) << out;
    EXPECT_EQ(kv_asi_analyze::run({good, "--max-pcr-ac", "500"}, out, err), 1);
    EXPECT_EQ(kv_asi_analyze::run({"--json", good, "--max-pcr-ac", "2000"}, out, err), 0);
    EXPECT_NE(out.find("\"packets\":400"), std::string::npos) << out;
    EXPECT_NE(out.find("\"pcr_ac_ok\":true"), std::string::npos) << out;
    // Ten frames, all of this capture, left out on request.
    EXPECT_EQ(kv_asi_analyze::run({good, "--max-pcr-ac", "500", "--start-up", "10"}, out, err), 0);
    EXPECT_NE(out.find("its 80 PCRs left out"), std::string::npos) << out;
    EXPECT_EQ(kv_asi_analyze::run({good, "--start-up", "-1"}, out, err), 2);
    // The capture is the source's first 400 packets.
    EXPECT_EQ(kv_asi_analyze::run({good, "--source", source}, out, err), 0);
    EXPECT_NE(out.find("400 sent in order, 0 missing"), std::string::npos) << out;

    // Bad files give one line on the error stream and status 2: {bytes kept, byte changed,
    // its value, message}.
    const std::tuple<size_t, size_t, uint8_t, const char*> cases[] = {
        {192 * 3 + 100, 0, 0x47, "truncated"},
        {bytes.size(), 192 * 7 + 4, 0x48, "record 7 has no sync byte"},
        {bytes.size(), 192 * 9, 0x40, "record 9 has a stamp above 30 bits"}};
    for (const auto& [size, at, value, expected] : cases) {
        Bytes content(bytes.begin(), bytes.begin() + long(size));
        content[at] = value;
        const std::string p = write_file("bad.cap", content);
        std::string e;
        EXPECT_EQ(kv_asi_analyze::run({p}, out, e), 2) << expected;
        EXPECT_NE(e.find(expected), std::string::npos) << e;
        EXPECT_EQ(e.find('\n'), e.size() - 1) << e;
        remove(p.c_str());
    }
    EXPECT_EQ(kv_asi_analyze::run({good + ".missing"}, out, err), 2);
    EXPECT_NE(err.find("cannot open"), std::string::npos) << err;
    EXPECT_EQ(kv_asi_analyze::run({good, "--source", good}, out, err), 2);  // not 188-byte packets
    EXPECT_EQ(kv_asi_analyze::run({}, out, err), 2);
    remove(good.c_str());
    remove(source.c_str());
}

TEST(AsiAnalyze, StartUpFramesLeaveOutEarlyPcrsOnly) {
    // One frame is 540000 words; packets every 1000 words, a PCR on every fifth one: the
    // PCR at word 540000 is the first one measured.
    for (const auto& [late, within] : {std::pair{535, true}, std::pair{545, false}}) {
        capture c = cbr_capture({1000, 5, 0}, 1000, 0);
        c.stamps[size_t(late)] -= 30;  // one PCR 1111 ns early
        capture_analyzer a;
        a.set_start_up_frames(1);
        for (size_t i = 0; i < c.stamps.size(); ++i) {
            a.add(c.stamps[i], &c.ts[i * 188]);
        }
        const report r = a.finish();
        ASSERT_EQ(r.pcr.size(), 1u);
        EXPECT_EQ(r.pcr[0].pcrs, 200u);
        EXPECT_EQ(r.pcr[0].start_up_pcrs, 108u);
        EXPECT_EQ(r.pcr_within(500), within) << late;
    }
}
