// The test-stream generator: its output parsed back with the core's parser, and its
// command line.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <regex>

#include "kv_ts_generator.h"
#include "mpegcore/BaseMpegParser.h"
#include "mpegcore/descriptors_dvb.h"
#include "vboard_test_host.h"

namespace {

using namespace kv_ts_generate;

// Records what the core's parser finds in a stream, by packet index.
struct stream_check : mpegcore::CBaseMpegParser {
    struct pcr_seen {
        uint64_t index;
        int64_t value;
        uint16_t pid;
        uint8_t afc, cc;
    };
    void on_cc_error(uint16_t pid) override { cc_errors.push_back(pid); }
    void OnProcess(unsigned int, mpegcore::transport_packet&) override { ++index; }
    void OnPCR(mpegcore::transport_packet* p) override {
        pcrs.push_back(
            {index, p->af.pcr(), p->PID, p->adaptation_field_control, p->continuity_counter});
    }
    void OnPAT(mpegcore::CPAT* t) override { t->copyTo(pat); }
    void OnPMT(mpegcore::CBaseMpegProgram*, mpegcore::CPMT* t) override { t->copyTo(pmt); }
    void OnSDT(mpegcore::CSDT* t) override { t->copyTo(sdt); }

    uint64_t index = 0;
    std::vector<uint16_t> cc_errors;
    std::vector<pcr_seen> pcrs;
    mpegcore::CPAT pat;
    mpegcore::CPMT pmt;
    mpegcore::CSDT sdt;
};

}  // namespace

// Line rates of the end-to-end runs, then a PCR-only PID with null filling and a PCR wrap:
// the stream parses back with its tables and no continuity error, a PCR every spacing
// packets and in the last packet, each exactly on the line's clock, the PSI at its period.
TEST(Generate, StreamParsesBackExactly) {
    const struct {
        uint64_t rate, packets, pcr_spacing, psi_period;
        uint16_t pcr_pid;  // 0: the elementary PID
        uint64_t pcr_start;
    } cases[] = {
        // 1 s of packets, rounded to the nearest; 30 ms and 100 ms of whole packets.
        {5000000, 3324, 99, 332, 0, 123456789},
        {38000000, 25266, 757, 2526, 0, 123456789},
        {150000000, 99734, 2992, 9973, 0, 123456789},
        // Null filling at a fifth of the rate; the PCR wraps after about 831 packets.
        {10000000, 20000, 199, 664, 0x0200, kPcrWrap - 27000000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rate);
        options o;
        o.rate_bps = c.rate;
        o.packets = c.packets;
        o.pcr_start = c.pcr_start;
        o.service_name = "Line test";
        o.pcr_pid = c.pcr_pid != 0 ? c.pcr_pid : o.es_pid;
        o.fill_null = c.pcr_pid != 0;
        o.payload_rate_bps = c.rate / 5;
        if (!o.fill_null) {
            ASSERT_EQ(packets_for_duration(c.rate, 1000000000), c.packets);
        }
        std::vector<uint8_t> ts;
        std::string error;
        ASSERT_TRUE(generate(o, ts, error)) << error;
        stream_check parser;
        ASSERT_EQ(parser.Process(ts.data(), ts.size()), o.packets * 188);
        EXPECT_TRUE(parser.index == o.packets && parser.cc_errors.empty());

        ASSERT_TRUE(parser.pat.program_map.size() == 1 && parser.pat.find(o.pmt_pid));
        EXPECT_EQ(parser.pat.find(o.pmt_pid)->program_number, o.program_number);
        ASSERT_TRUE(parser.pmt.PCR_PID == o.pcr_pid && parser.pmt.find(o.es_pid));
        EXPECT_EQ(parser.pmt.find(o.es_pid)->stream_type, o.stream_type);
        ASSERT_EQ(parser.sdt.sds.count(o.program_number), 1u);
        const auto name = std::dynamic_pointer_cast<mpegcore::service_descriptor>(
            parser.sdt.sds[o.program_number]->descriptors.find(0x48));
        EXPECT_TRUE(name && name->service_name == "Line test");

        generator g;
        ASSERT_TRUE(g.init(o, error));
        EXPECT_EQ(g.pcr_spacing(), c.pcr_spacing);
        EXPECT_EQ(g.psi_period(), c.psi_period);
        // Every spacing-th packet from the first, then the last packet (not a regular slot
        // in any case here), each within half a tick of the line's ideal clock.
        const uint64_t regular = (o.packets + c.pcr_spacing - 1) / c.pcr_spacing;
        ASSERT_NE((o.packets - 1) % c.pcr_spacing, 0u);
        ASSERT_EQ(parser.pcrs.size(), regular + 1);
        bool wrapped = false;
        for (size_t k = 0; k < parser.pcrs.size(); ++k) {
            const auto& p = parser.pcrs[k];
            ASSERT_EQ(p.index, k < regular ? k * c.pcr_spacing : o.packets - 1) << "PCR " << k;
            ASSERT_EQ(p.pid, o.pcr_pid);
            // On a PCR-only PID adaptation only, and without payload the counter stays.
            ASSERT_EQ(p.afc, c.pcr_pid != 0 ? 2 : 3);
            ASSERT_TRUE(c.pcr_pid == 0 || p.cc == 0);
            ASSERT_EQ(uint64_t(p.value), pcr_of_packet(o.pcr_start, c.rate, p.index));
            const long double ideal =
                std::fmod(o.pcr_start + (long double)p.index * 1504.0L * 27e6L / c.rate,
                          (long double)kPcrWrap);
            ASSERT_LE(std::fabs(p.value - ideal), 0.5L) << "PCR " << k;
            wrapped = wrapped || (k > 0 && p.value < parser.pcrs[k - 1].value);
        }
        EXPECT_EQ(wrapped, c.pcr_start > kPcrWrap / 2);

        // Payload packets carry their own index; one PAT per period, in its first slot or
        // right behind a PCR there; with null filling the elementary PID runs at a fifth of
        // the rate.
        uint64_t payloads = 0, es = 0, nulls = 0;
        std::vector<uint64_t> pat_at;
        for (uint64_t i = 0; i < o.packets; ++i) {
            const uint8_t* p = ts.data() + i * 188;
            const uint16_t pid = uint16_t((p[1] & 0x1F) << 8 | p[2]);
            es += pid == o.es_pid;
            nulls += pid == kNullPid;
            if (pid == kPatPid) {
                pat_at.push_back(i);
            } else if (pid == o.es_pid && (p[3] & 0x30) == 0x10) {
                uint64_t v = 0;
                for (int b = 0; b < 8; ++b) {
                    v = v << 8 | p[4 + b];
                }
                ASSERT_EQ(v, i);
                ++payloads;
            }
        }
        ASSERT_EQ(pat_at.size(), (o.packets + c.psi_period - 1) / c.psi_period);
        for (size_t k = 0; k < pat_at.size(); ++k) {
            const uint64_t slot = k * c.psi_period;
            ASSERT_EQ(pat_at[k], slot % c.pcr_spacing == 0 ? slot + 1 : slot) << k;
        }
        EXPECT_EQ(payloads + nulls + parser.pcrs.size() + pat_at.size() * 3, o.packets);
        // With null filling the last slot's payload packet gave way to the closing PCR.
        EXPECT_EQ(es, o.fill_null ? o.packets / 5 - 1 : payloads + parser.pcrs.size());
    }
}

TEST(GenerateCli, ValuesAndOptions) {
    uint64_t v = 0;
    EXPECT_TRUE(parse_rate("38M", v) && v == 38000000);
    EXPECT_TRUE(parse_rate("5000k", v) && v == 5000000);
    EXPECT_TRUE(parse_rate("38.5M", v) && v == 38500000);
    for (const char* bad : {"1.5", "38X", "0", "", "M", "-5M", "20G", "1.2.3M"}) {
        EXPECT_FALSE(parse_rate(bad, v)) << bad;
    }
    EXPECT_TRUE(parse_time("30ms", 1, v) && v == 30000000);
    EXPECT_TRUE(parse_time("2.5", 1000000000, v) && v == 2500000000);
    EXPECT_TRUE(parse_time("0.04s", 1, v) && v == 40000000);
    EXPECT_FALSE(parse_time("1.5ns", 1, v));
    EXPECT_FALSE(parse_time("30 ms", 1, v));

    command_line cl;
    ASSERT_EQ(parse_command_line({"--rate", "38M", "--duration", "30", "--pcr-interval=30ms"}, cl,
                                 stdout, stderr),
              -1);
    EXPECT_EQ(cl.opt.packets, 757979u);  // 30 s * 38e6 / 1504 = 757978.7
    ASSERT_EQ(parse_command_line({"--rate", "5M", "--packets", "7", "--es-pid", "0x300"}, cl,
                                 stdout, stderr),
              -1);
    EXPECT_EQ(cl.opt.pcr_pid, 0x300);  // the PCR PID follows the elementary PID
}

// The program writes the same bytes as the library. Bad usage, caught by the parser or by
// the generator's checks, exits with 2 and leaves no file; an unwritable output exits with
// 1; each failure prints one line.
TEST(GenerateCli, RunWritesFileAndFailsCleanly) {
    const std::string out = vboard_test::temp_path("gen.ts");
    const std::string missing = vboard_test::temp_path("gen_bad.ts");
    FILE* err = tmpfile();
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(run({"--rate", "5M", "--packets", "5000", "-q", "-o", out}, err), 0);
    options o;
    o.rate_bps = 5000000;
    o.packets = 5000;
    std::vector<uint8_t> expected;
    std::string error;
    EXPECT_TRUE(generate(o, expected, error) && vboard_test::read_file(out) == expected);
    const std::vector<std::vector<std::string>> bad = {
        {"--rate", "5X", "--packets", "1"},
        {"--duration", "1"},
        {"--rate", "5M", "--duration", "1", "--packets", "9"},
        {"--rate", "5M", "--packets", "9", "--bogus", "1"},
        {"--rate", "5M", "--packets", "9", "--quiet=yes"},  // a flag takes no value
        {"--rate", "5M", "--packets", "9", "--payload-rate", "1M"},
        {"--rate", "5M", "--packets", "9", "--pmt-pid", "0x10"},
        {"--rate", "5M", "--packets", "9", "--pcr-pid", "0x100"},        // the PMT PID
        {"--rate", "100k", "--packets", "9", "--psi-interval", "10ms"},  // no packet
        {"--rate", "5M", "--packets"},
    };
    for (std::vector<std::string> args : bad) {
        args.insert(args.begin(), {"-o", missing});
        EXPECT_EQ(run(args, err), 2) << args.back();
    }
    EXPECT_NE(access(missing.c_str(), F_OK), 0);
    EXPECT_EQ(run({"--rate", "5M", "--packets", "1", "-o", "/nonexistent-dir/x.ts"}, err), 1);

    rewind(err);
    char text[4096] = {};
    EXPECT_GT(fread(text, 1, sizeof(text) - 1, err), 0u);
    const std::string lines = "(kv-ts-generate: [^\n]*\n){" + std::to_string(bad.size() + 1) + "}";
    EXPECT_TRUE(std::regex_match(text, std::regex(lines))) << text;
    fclose(err);
    unlink(out.c_str());
}
