// The stream inspector: its JSON, its summary, damaged input, and the command's exit
// status and output streams.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "../mpegcore/ts_test_util.h"
#include "inspect_json.h"
#include "kv_ts_inspector.h"

using namespace kv_ts_inspect;
using inspect_test::Json;
using ts_test::Bytes;
using Lines = std::vector<std::string>;

namespace {

// Runs the inspector in process, feeding chunks of `chunk` bytes.
inspect_summary inspect(const Bytes& ts, Lines& lines, size_t chunk = 4096) {
    lines.clear();
    ts_inspector inspector([&](const std::string& json) { lines.push_back(json); });
    for (size_t at = 0; at < ts.size(); at += chunk) {
        inspector.feed(ts.data() + at, std::min(chunk, ts.size() - at));
    }
    return inspector.summary();
}

Json parse(const std::string& line) {
    Json j;
    EXPECT_TRUE(inspect_test::parse_json(line, j)) << line;
    return j;
}

// Every line is one JSON object naming its table; the summary renders to valid JSON and
// accounts for every byte.
void check(const Lines& lines, const inspect_summary& s) {
    std::map<std::string, uint64_t> per_table;
    for (const std::string& line : lines) {
        const Json j = parse(line);
        ASSERT_EQ(j.kind, Json::Object);
        ++per_table[j["table"].text];
        EXPECT_LT(j["packet"].u(), s.packets);
    }
    EXPECT_EQ(per_table, s.sections);
    EXPECT_EQ(s.packets * 188 + s.sync_bytes_skipped + s.trailing_bytes, s.bytes);
    EXPECT_LT(s.trailing_bytes, 188u);
    EXPECT_EQ(parse(render_summary(s))["summary"]["packets"].u(), s.packets);
}

uint16_t pid_at(const Bytes& ts, size_t packet) {
    return uint16_t((ts[packet * 188 + 1] & 0x1F) << 8 | ts[packet * 188 + 2]);
}

}  // namespace

TEST(InspectJson, WrittenValuesReadBackExactly) {
    std::string every_byte;
    for (int b = 0; b < 256; ++b) {
        every_byte += char(b);
    }
    const std::string utf8 =
        "\x15Gr\xC3\xBC\xC3\x9F"
        "e \"\\\n";
    const uint8_t raw[] = {0x00, 0xFF, 0x10};
    json_writer w;
    w.begin_object()
        .number("big", uint64_t(1) << 53)
        .number("min", std::numeric_limits<int64_t>::min())
        .real("nan", std::nan(""), 2)
        .real("rate", 1.25, 2)
        .boolean("yes", true)
        .string("key \"quoted\"\t", "plain\x01\x7F")
        .begin_array("texts")
        .dvb_text(nullptr, every_byte)
        .dvb_text(nullptr, utf8)
        .dvb_text(nullptr, "\x15\xFF\xC3")  // not UTF-8 although announced so
        .end_array()
        .begin_array("empty")
        .end_array()
        .begin_object("nested")
        .begin_array("list")
        .begin_object()
        .end_object()
        .begin_object()
        .hex("raw", raw, sizeof raw)
        .end_object()
        .end_array()
        .end_object()
        .end_object();
    const Json j = parse(w.str());
    EXPECT_EQ(j["big"].u(), uint64_t(1) << 53);
    EXPECT_NE(w.str().find("\"min\":-9223372036854775808"), std::string::npos);
    EXPECT_EQ(j["nan"].kind, Json::Null);
    EXPECT_EQ(j["rate"].number, 1.25);
    EXPECT_EQ(j["yes"].kind, Json::Bool);
    EXPECT_EQ(j["yes"].number, 1);
    EXPECT_EQ(j["key \"quoted\"\t"].text, "plain\x01\x7F");
    EXPECT_EQ(inspect_test::dvb_bytes(j["texts"][0].text), every_byte);
    EXPECT_EQ(j["texts"][1].text, utf8);                            // UTF-8 text stays readable
    EXPECT_EQ(j["texts"][2].text, "\x15\xEF\xBF\xBD\xEF\xBF\xBD");  // U+FFFD twice
    EXPECT_EQ(j["empty"].kind, Json::Array);
    EXPECT_EQ(j["nested"]["list"][1]["raw"].text, "00ff10");

    // The MJD examples of the standard, and both sides of the January/February correction.
    const std::pair<uint64_t, const char*> dates[] = {
        {0xC079124500, "1993-10-13 12:45:00"},
        {uint64_t(45218) << 24, "1982-09-06 00:00:00"},
        {uint64_t(51544) << 24 | 0x235959, "2000-01-01 23:59:59"},
        {uint64_t(58908) << 24, "2020-02-29 00:00:00"},
        {uint64_t(58909) << 24, "2020-03-01 00:00:00"}};
    for (const auto& [mjd, text] : dates) {
        EXPECT_EQ(format_mjd_utc(mjd), text);
    }
    EXPECT_EQ(format_bcd_duration(0x013000), "01:30:00");
}

TEST(Inspector, CapturesGiveOneObjectPerSectionAndASummary) {
    const std::vector<std::string> names = ts_test::capture_names();
    if (names.empty()) {
        GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
    }
    Lines lines;
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        check(lines, inspect(ts_test::load_capture(name), lines));
        EXPECT_GT(lines.size(), 0u);
    }

    // The PCR PID's count, and the rate it measures against the one from the capture's first
    // and last PCR.
    const Bytes ts = ts_test::load_capture("test-072.ts");
    inspect_summary s = inspect(ts, lines);
    ASSERT_EQ(s.pcr_pids.size(), 1u);
    EXPECT_EQ(s.pcr_pids[0].pid, 101);
    EXPECT_EQ(s.pcr_pids[0].pcrs, 300u);
    std::vector<std::pair<size_t, int64_t>> pcrs;  // packet index, PCR
    for (size_t at = 0; at < ts.size(); at += 188) {
        const uint8_t* p = &ts[at];
        if ((p[3] & 0x20) && p[4] >= 7 && (p[5] & 0x10)) {
            const int64_t base =
                int64_t(p[6]) << 25 | p[7] << 17 | p[8] << 9 | p[9] << 1 | p[10] >> 7;
            pcrs.emplace_back(at / 188, base * 300 + ((p[10] & 1) << 8 | p[11]));
        }
    }
    const double expected = double(pcrs.back().first - pcrs[0].first) * 188 * 8 /
                            (double(pcrs.back().second - pcrs[0].second) / 27e6);
    EXPECT_NEAR(s.pcr_pids[0].bitrate, expected, expected * 0.001);
    EXPECT_TRUE(s.continuity_errors.empty());

    // A lost packet, a repeated one, junk before a packet and a cut-off packet at the end.
    Bytes damaged(ts.begin(), ts.begin() + 1000 * 188);
    size_t lost = 500;
    while (pid_at(ts, lost) != 101) {
        ++lost;
    }
    damaged.erase(damaged.begin() + long(lost * 188), damaged.begin() + long(lost * 188 + 188));
    damaged.insert(damaged.begin() + 600 * 188, damaged.begin() + 599 * 188,
                   damaged.begin() + 600 * 188);
    damaged.insert(damaged.begin() + 700 * 188, {0x00, 0x11, 0x22, 0x33, 0x44});
    damaged.insert(damaged.end(), ts.begin(), ts.begin() + 100);
    s = inspect(damaged, lines, 1000);
    check(lines, s);
    EXPECT_EQ(s.packets, 1000u);
    EXPECT_EQ(s.sync_bytes_skipped, 5u);
    EXPECT_EQ(s.trailing_bytes, 100u);
    std::map<uint16_t, uint64_t> errors{{101, 1}};
    if (damaged[599 * 188 + 3] & 0x10) {  // a repeated packet with payload is an error
        ++errors[pid_at(damaged, 599)];
    }
    EXPECT_EQ(s.continuity_errors, errors);
}

TEST(Inspector, ASectionIsWrittenOncePerPayloadUnit) {
    // The parser hands the SDT over again with each packet of its unit; the inspector
    // writes it once per unit.
    const Bytes unit =
        ts_test::cat({{0}, ts_test::section(0x42, ts_test::hex("00 01 C1 00 00 00 01 FF"))});
    Bytes ts;
    for (uint8_t cc = 0; cc < 6; ++cc) {
        ts = ts_test::cat(
            {ts, ts_test::packet(0x11, cc, cc % 3 == 0, cc % 3 == 0 ? unit : Bytes{})});
    }
    Lines lines;
    const inspect_summary s = inspect(ts, lines, 188);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(parse(lines[0])["packet"].u(), 0u);
    EXPECT_EQ(parse(lines[1])["packet"].u(), 3u);
    EXPECT_TRUE(parse(lines[1]).has("services") && parse(lines[1])["services"].items.empty());
    EXPECT_EQ(s.sections.at("SDT"), 2u);
}

TEST(Inspector, AnyByteSequenceIsReported) {
    std::mt19937 rng(11);
    Bytes noise(1 << 16);
    for (uint8_t& b : noise) {
        b = rng() % 4 == 0 ? 0x47 : uint8_t(rng());
    }
    Lines lines;
    check(lines, inspect(noise, lines, 1 + rng() % 3000));

    // Real sections with bytes changed and the CRC made right again, so that the tables
    // and descriptors are parsed and written whatever their lengths say. (The core's line
    // about EIT packets it skips is kept out of the test's output.)
    testing::internal::CaptureStdout();
    for (const char* name : {"test-018.ts", "test-030.ts", "test-101.ts", "test-182.1.ts"}) {
        const Bytes ts = ts_test::load_capture(name);
        if (ts.empty()) {
            testing::internal::GetCapturedStdout();
            GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
        }
        for (int round = 0; round < 40; ++round) {
            Bytes mutated = ts;
            for (size_t at = 0; at + 188 <= mutated.size(); at += 188) {
                uint8_t* p = &mutated[at];
                const size_t start = 5 + ((p[3] & 0x20) ? 1 + p[4] : 0);
                if (!(p[1] & 0x40) || start + 3 > 188 || p[start - 1] != 0 || rng() % 2) {
                    continue;
                }
                uint8_t* section = p + start;
                const size_t length = 3 + ((section[1] & 0x0F) << 8 | section[2]);
                if (length < 8 || start + length > 188) {
                    continue;
                }
                for (int flips = 1 + rng() % 4; flips > 0; --flips) {
                    section[3 + rng() % (length - 7)] ^= uint8_t(1 << rng() % 8);
                }
                if (section[0] != 0x70) {  // the TDT has no CRC
                    const uint32_t crc = mpegcore::crc32_mpeg2(section, length - 4);
                    for (size_t i = 0; i < 4; ++i) {
                        section[length - 4 + i] = uint8_t(crc >> (24 - 8 * i));
                    }
                }
            }
            check(lines, inspect(mutated, lines, 1 + rng() % 4000));
        }
    }
    testing::internal::GetCapturedStdout();
}

TEST(InspectCommand, ExitStatusAndOutputStreams) {
    // Runs the command with `args` (shell words): its exit status, standard output and error.
    const auto run = [](const std::string& args) {
        const std::string out = testing::TempDir() + "inspect_out.txt";
        const std::string err = testing::TempDir() + "inspect_err.txt";
        const int raw =
            std::system(("'" KV_TS_INSPECT "' " + args + " >" + out + " 2>" + err).c_str());
        const auto read = [](const std::string& path) {
            Lines lines;
            std::ifstream in(path);
            for (std::string line; std::getline(in, line);) {
                lines.push_back(line);
            }
            return lines;
        };
        return std::make_tuple(WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, read(out), read(err));
    };
    const std::tuple<std::string, int, Lines, Lines> failures[] = {
        {"/nonexistent/capture.ts",
         2,
         {},
         {"kv-ts-inspect: cannot open /nonexistent/capture.ts: No such file or directory"}},
        {"/", 2, {}, {"kv-ts-inspect: cannot read /: Is a directory"}}};
    for (const auto& [args, status, out, err] : failures) {
        EXPECT_EQ(run(args), std::make_tuple(status, out, err)) << args;
    }
    auto [status, out, err] = run("");
    EXPECT_EQ(status, 2);
    EXPECT_EQ(err.size(), 1u);

    const std::string capture = std::string(KV_CORPUS_DIR) + "/test-030.ts";
    if (ts_test::load_capture("test-030.ts").empty()) {
        GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
    }
    // From standard input. The core's own diagnostic line goes to standard error, so that
    // standard output holds nothing but JSON.
    std::tie(status, out, err) = run("- <'" + capture + "'");
    EXPECT_EQ(status, 0);
    ASSERT_GT(out.size(), 1u);
    for (const std::string& line : out) {
        parse(line);
    }
    EXPECT_EQ(parse(out.back())["summary"]["packets"].u(), 1145u);
    EXPECT_EQ(err, (Lines{"mpegcore: eit pkt skip"}));

    std::tie(status, out, err) = run("--summary-only '" + capture + "'");
    EXPECT_EQ(status, 0);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_TRUE(parse(out[0]).has("summary"));
}
