// The stream inspector: its JSON, its summary, damaged input, and the command's exit
// status and output streams.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "ts_test_util.h"
#include "kv_dvb_text.h"
#include "kv_ts_inspector.h"

using namespace kv_ts_inspect;
using Json = nlohmann::json;
using ts_test::Bytes;
using Lines = std::vector<std::string>;

namespace {

// Runs the inspector in process, feeding chunks of `chunk` bytes.
inspect_summary inspect(const Bytes& ts, Lines& lines, size_t chunk = 4096) {
    lines.clear();
    ts_inspector inspector([&](const std::string& json) { lines.push_back(json); });
    for (size_t from = 0; from < ts.size(); from += chunk) {
        inspector.feed(ts.data() + from, std::min(chunk, ts.size() - from));
    }
    return inspector.summary();
}

Json parse(const std::string& line) {
    const Json j = Json::parse(line, nullptr, false);
    EXPECT_TRUE(j.is_object()) << line;
    return j;
}

// Every line is one JSON object naming its table; the summary renders to valid JSON and
// accounts for every byte.
void check(const Lines& lines, const inspect_summary& s) {
    std::map<std::string, uint64_t> per_table;
    for (const std::string& line : lines) {
        const Json j = parse(line);
        ++per_table[j.value("table", "")];
        EXPECT_LT(j.value("packet", UINT64_MAX), s.packets);
    }
    EXPECT_EQ(per_table, s.sections);
    EXPECT_EQ(s.packets * 188 + s.sync_bytes_skipped + s.trailing_bytes, s.bytes);
    EXPECT_LT(s.trailing_bytes, 188u);
    EXPECT_EQ(parse(render_summary(s))["summary"]["packets"], s.packets);
}

}  // namespace

TEST(InspectJson, WrittenValuesReadBackExactly) {
    std::string every_byte;
    for (int b = 0; b < 256; ++b) {
        every_byte += char(b);
    }
    const Json texts = {dvb_text(every_byte), dvb_text("\x15Gr\xC3\xBC\xC3\x9F"),
                                  dvb_text("\x15\xFF\xC3")};  // not UTF-8 although announced so
    const Json j = parse(Json{{"texts", texts}}.dump())["texts"];
    // Each DVB byte is the code point of its number, so every byte decodes back.
    std::string bytes;
    const std::string latin = j[0];
    for (size_t i = 0; i < latin.size(); ++i) {
        const unsigned char c = latin[i];
        bytes += c < 0x80 ? char(c) : char((c & 0x03) << 6 | (latin[++i] & 0x3F));
    }
    EXPECT_EQ(bytes, every_byte);
    EXPECT_EQ(j[1], "\x15Gr\xC3\xBC\xC3\x9F");        // UTF-8 as it stands
    EXPECT_EQ(j[2], "\x15\xEF\xBF\xBD\xEF\xBF\xBD");  // U+FFFD twice

    // Both sides of the January/February correction of the MJD conversion.
    for (const auto& [mjd, text] : {std::make_pair(45218, "1982-09-06 00:00:00"),
                                    std::make_pair(51544, "2000-01-01 00:00:00"),
                                    std::make_pair(58908, "2020-02-29 00:00:00"),
                                    std::make_pair(58909, "2020-03-01 00:00:00")}) {
        EXPECT_EQ(mpegcore::format_mjd_utc(uint64_t(mjd) << 24), text);
    }
}

TEST(Inspector, HandBuiltSectionsAreWrittenOncePerUnit) {
    // An SDT with a service, a CA and an unknown descriptor, its unit sent twice over six
    // packets (the parser hands it over with each packet of the unit), then a TOT.
    const Bytes sdt = ts_test::hex(
        "00 42 F0 2B 00 01 C1 00 00 00 01 FF 08 10 FE 80 1A 48 0C 01 05 05 43 61 66 E9 04 4E 65 "
        "77 73 09 06 0B 00 E1 00 AA BB 80 02 12 34 66 51 BE F4");
    const Bytes tot = ts_test::hex(
        "73 70 1A C0 79 12 45 00 F0 0F 58 0D 49 54 41 02 01 00 C0 79 01 00 00 02 00 89 7B D5 59");
    Bytes ts;
    for (uint8_t cc = 0; cc < 6; ++cc) {
        ts = ts_test::cat({ts, ts_test::packet(0x11, cc, cc % 3 == 0, cc % 3 ? Bytes{} : sdt)});
    }
    ts = ts_test::cat({ts, ts_test::packet(0x14, 0, true, ts_test::cat({{0}, tot}))});
    const std::string sdt_tail =
        R"(,"table_id":66,"section_syntax_indicator":1,"section_length":43,)"
        R"("transport_stream_id":1,"version_number":0,"current_next_indicator":1,)"
        R"("section_number":0,"last_section_number":0,"original_network_id":1,)"
        R"("services":[{"service_id":2064,"EIT_schedule_flag":1,)"
        R"("EIT_present_following_flag":0,"running_status":4,"free_CA_mode":0,)"
        R"("descriptors_loop_length":26,"descriptors":[{"tag":72,"length":12,)"
        R"("name":"service_descriptor","service_type":1,"service_provider_name":"\u0005Café",)"
        R"("service_name":"News"},{"tag":9,"length":6,"name":"CA_descriptor",)"
        R"("CA_system_ID":2816,"CA_PID":256,"private_data_byte":"aabb"},{"tag":128,"length":2,)"
        R"("data":"1234"}]}],"CRC_32":1716633332})";
    Lines lines;
    const inspect_summary s = inspect(ts, lines, 188);
    EXPECT_EQ(lines, (Lines{R"({"table":"SDT","pid":17,"packet":0)" + sdt_tail,
                            R"({"table":"SDT","pid":17,"packet":3)" + sdt_tail,
                            R"({"table":"TOT","pid":20,"packet":6,"table_id":115,)"
                            R"("section_syntax_indicator":0,"section_length":26,)"
                            R"("UTC_time":"1993-10-13 12:45:00","descriptors_loop_length":15,)"
                            R"("descriptors":[{"tag":88,"length":13,)"
                            R"("name":"local_time_offset_descriptor",)"
                            R"("offsets":[{"country_code":"ITA","country_region_id":0,)"
                            R"("local_time_offset_polarity":0,"local_time_offset":"01:00",)"
                            R"("time_of_change":"1993-10-13 01:00:00",)"
                            R"("next_time_offset":"02:00"}]}],"CRC_32":2306594137})"}));
    check(lines, s);
}

// Each capture's output, section lines and summary, is kept as a golden file and
// compared line for line as JSON values. KV_UPDATE_GOLDEN=1 writes them anew (a change
// to review in the diff).
TEST(Inspector, CapturesGiveTheirGoldenOutputAndASummary) {
    const std::vector<std::string> names = ts_test::capture_names();
    if (names.empty()) {
        GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
    }
    const bool bUpdate = std::getenv("KV_UPDATE_GOLDEN") != nullptr;
    Lines lines;
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const inspect_summary s = inspect(ts_test::load_capture(name), lines);
        check(lines, s);
        lines.push_back(render_summary(s));
        const std::string golden = std::string(KV_GOLDEN_DIR) + "/inspect/" + name + ".jsonl";
        if (bUpdate) {
            std::ofstream out(golden);
            for (const std::string& line : lines) {
                out << line << '\n';
            }
        }
        std::ifstream in(golden);
        ASSERT_TRUE(in) << golden << " is missing: run with KV_UPDATE_GOLDEN=1";
        size_t n = 0;
        for (std::string line; std::getline(in, line); ++n) {
            ASSERT_LT(n, lines.size()) << "output ends before golden line " << n + 1;
            // The same values in the same order, however a number is spelled.
            ASSERT_EQ(nlohmann::ordered_json::parse(lines[n]), nlohmann::ordered_json::parse(line))
                << "line " << n + 1 << ":\n" << lines[n] << "\n" << line;
        }
        EXPECT_EQ(n, lines.size()) << "output runs past the golden file";
    }

    // The PCR PID's count, and its rate against the one from the first and last PCR.
    const Bytes ts = ts_test::load_capture("test-072.ts");
    inspect_summary s = inspect(ts, lines);
    ASSERT_EQ(s.pcr_pids.size(), 1u);
    EXPECT_EQ(s.pcr_pids[0].pid, 101);
    EXPECT_EQ(s.pcr_pids[0].pcrs, 300u);
    std::vector<std::pair<size_t, int64_t>> pcrs;  // packet index, PCR
    for (size_t i = 0; i < ts.size() / 188; ++i) {
        const uint8_t* p = &ts[i * 188];
        if ((p[3] & 0x20) && p[4] >= 7 && (p[5] & 0x10)) {
            const int64_t base =
                int64_t(p[6]) << 25 | p[7] << 17 | p[8] << 9 | p[9] << 1 | p[10] >> 7;
            pcrs.emplace_back(i, base * 300 + ((p[10] & 1) << 8 | p[11]));
        }
    }
    const double expected = double(pcrs.back().first - pcrs[0].first) * 188 * 8 /
                            (double(pcrs.back().second - pcrs[0].second) / 27e6);
    EXPECT_NEAR(s.pcr_pids[0].bitrate, expected, expected * 0.001);
    EXPECT_TRUE(s.continuity_errors.empty());

    // A lost packet, a repeated one, junk before a packet and a cut-off packet at the end.
    const auto pid_at = [](const Bytes& b, size_t i) {
        return (b[i * 188 + 1] & 0x1F) << 8 | b[i * 188 + 2];
    };
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
    EXPECT_EQ(std::make_tuple(s.packets, s.sync_bytes_skipped, s.trailing_bytes),
              std::make_tuple(1000u, 5u, 100u));
    std::map<uint16_t, uint64_t> errors{{101, 1}};
    if (damaged[599 * 188 + 3] & 0x10) {  // a repeated packet with payload is an error
        ++errors[uint16_t(pid_at(damaged, 599))];
    }
    EXPECT_EQ(s.continuity_errors, errors);
}

TEST(Inspector, AnyByteSequenceIsReported) {
    std::mt19937 rng(11);
    Bytes noise(1 << 16);
    for (uint8_t& b : noise) {
        b = rng() % 4 == 0 ? 0x47 : uint8_t(rng());
    }
    Lines lines;
    check(lines, inspect(noise, lines, 1 + rng() % 3000));

    // Real sections with bits flipped and the CRC made right again, so that tables and
    // descriptors are parsed and written whatever their lengths say. The core's line about
    // skipped EIT packets is kept out of the test's output.
    testing::internal::CaptureStdout();
    for (const char* name : {"test-018.ts", "test-030.ts", "test-101.ts", "test-182.1.ts"}) {
        const Bytes ts = ts_test::load_capture(name);
        if (ts.empty()) {
            testing::internal::GetCapturedStdout();
            GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
        }
        Bytes mutated;
        uint8_t cc[0x15] = {};
        for (uint16_t pid : {0x01, 0x10, 0x11, 0x12, 0x14}) {
            for (const Bytes& section : ts_test::gather_sections(ts, pid)) {
                for (int round = 0; round < 40 && section.size() > 8; ++round) {
                    Bytes body(section.begin() + 3, section.end() - 4);
                    for (int flips = 1 + rng() % 4; flips > 0; --flips) {
                        body[rng() % body.size()] ^= uint8_t(1 << rng() % 8);
                    }
                    const Bytes packets = ts_test::psi(
                        pid, cc[pid], ts_test::section(section[0], section[1] & 0xF0, body));
                    mutated.insert(mutated.end(), packets.begin(), packets.end());
                }
            }
        }
        check(lines, inspect(mutated, lines, 1 + rng() % 4000));
        EXPECT_FALSE(lines.empty());
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
    EXPECT_EQ(run("/nonexistent/capture.ts"),
              std::make_tuple(2, Lines{},
                              Lines{"kv-ts-inspect: cannot open /nonexistent/capture.ts: No such "
                                    "file or directory"}));
    EXPECT_EQ(run("/"),
              std::make_tuple(2, Lines{}, Lines{"kv-ts-inspect: cannot read /: Is a directory"}));
    auto [status, out, err] = run("");
    EXPECT_EQ(std::make_tuple(status, out.size(), err.size()), std::make_tuple(2, 0u, 1u));

    const std::string capture = std::string(KV_CORPUS_DIR) + "/test-030.ts";
    if (ts_test::load_capture("test-030.ts").empty()) {
        GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
    }
    // From standard input; the core's diagnostic line goes to standard error, so that
    // standard output holds nothing but JSON.
    std::tie(status, out, err) = run("- <'" + capture + "'");
    EXPECT_EQ(std::make_tuple(status, err), std::make_tuple(0, Lines{"mpegcore: eit pkt skip"}));
    ASSERT_GT(out.size(), 1u);
    for (const std::string& line : out) {
        parse(line);
    }
    EXPECT_EQ(parse(out.back())["summary"]["packets"], 1145);
    EXPECT_EQ(std::get<1>(run("--summary-only '" + capture + "'")), Lines{out.back()});
}
