// The test-stream generator: its output parsed back with the core's parser, and its
// command line.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "kv_ts_generator.h"
#include "mpegcore/BaseMpegParser.h"

namespace {

using namespace kv_ts_generate;

// Records what the core's parser finds in a stream, by packet index.
class stream_check : public mpegcore::CBaseMpegParser {
public:
    void on_cc_error(uint16_t pid) override { cc_errors.push_back(pid); }
    void OnPreProcess(unsigned int, const mpegcore::transport_packet& p) override {
        if (p.PID == 0x0000) {
            pat_at.push_back(index);
        }
    }
    void OnProcess(unsigned int, mpegcore::transport_packet&) override { ++index; }
    void OnPCR(mpegcore::transport_packet* p) override {
        pcrs.push_back(
            {index, p->af.pcr(), p->PID, p->adaptation_field_control, p->continuity_counter});
    }
    void OnPAT(mpegcore::CPAT* t) override { t->copyTo(pat); }
    void OnPMT(mpegcore::CBaseMpegProgram*, mpegcore::CPMT* t) override {
        t->copyTo(pmt);
        ++pmts;
    }
    void OnSDT(mpegcore::CSDT* t) override {
        t->copyTo(sdt);
        ++sdts;
    }

    struct pcr_seen {
        uint64_t index;
        int64_t value;
        uint16_t pid;
        uint8_t afc;
        uint8_t cc;
    };
    uint64_t index = 0;
    std::vector<uint16_t> cc_errors;
    std::vector<uint64_t> pat_at;
    std::vector<pcr_seen> pcrs;
    mpegcore::CPAT pat;
    mpegcore::CPMT pmt;
    mpegcore::CSDT sdt;
    int pmts = 0, sdts = 0;
};

std::string service_name_of(const mpegcore::CSDT& sdt, uint16_t service_id) {
    const auto it = sdt.sds.find(service_id);
    if (it == sdt.sds.end()) {
        return "<no service>";
    }
    const auto d =
        std::dynamic_pointer_cast<mpegcore::service_descriptor>(it->second->descriptors.find(0x48));
    return d ? d->service_name : "<no service descriptor>";
}

// The PCR the line gives packet i, as a real number, modulo the PCR wrap.
long double ideal_pcr(uint64_t start, uint64_t rate, uint64_t i) {
    const long double v = start + (long double)i * 1504.0L * 27e6L / rate;
    return std::fmod(v, (long double)kPcrWrap);
}

}  // namespace

// At line rates of the end-to-end runs: the stream parses back with its tables, without
// continuity errors, with a PCR every spacing packets exactly on the line's clock and the
// PSI repeated at its period.
TEST(Generate, StreamParsesBackExactly) {
    struct {
        uint64_t rate, packets_per_second, pcr_spacing, psi_period;
    } cases[] = {
        // 1 s of packets, rounded to the nearest; 30 ms and 100 ms of whole packets.
        {5000000, 3324, 99, 332},
        {38000000, 25266, 757, 2526},
        {150000000, 99734, 2992, 9973},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rate);
        options o;
        o.rate_bps = c.rate;
        o.packets = packets_for_duration(c.rate, 1000000000);
        o.pcr_start = 123456789;
        o.service_name = "Line test";
        ASSERT_EQ(o.packets, c.packets_per_second);

        std::vector<uint8_t> ts;
        std::string error;
        ASSERT_TRUE(generate(o, ts, error)) << error;
        ASSERT_EQ(ts.size(), o.packets * 188);

        stream_check parser;
        ASSERT_EQ(parser.Process(ts.data(), ts.size()), ts.size());
        EXPECT_EQ(parser.index, o.packets);
        EXPECT_TRUE(parser.cc_errors.empty());

        ASSERT_EQ(parser.pat.program_map.size(), 1u);
        ASSERT_NE(parser.pat.find(o.pmt_pid), nullptr);
        EXPECT_EQ(parser.pat.find(o.pmt_pid)->program_number, o.program_number);
        EXPECT_EQ(parser.pat.transport_stream_id, o.transport_stream_id);
        EXPECT_GT(parser.pmts, 0);
        EXPECT_EQ(parser.pmt.PCR_PID, o.es_pid);
        ASSERT_NE(parser.pmt.find(o.es_pid), nullptr);
        EXPECT_EQ(parser.pmt.find(o.es_pid)->stream_type, o.stream_type);
        EXPECT_GT(parser.sdts, 0);
        EXPECT_EQ(parser.sdt.original_network_id, o.original_network_id);
        EXPECT_EQ(service_name_of(parser.sdt, o.program_number), "Line test");

        // PCRs: every spacing-th packet from the first, within half a tick of the line.
        generator g;
        ASSERT_TRUE(g.init(o, error));
        EXPECT_EQ(g.pcr_spacing(), c.pcr_spacing);
        EXPECT_LE(g.pcr_spacing() * 1504.0 / c.rate, 0.030);
        ASSERT_EQ(parser.pcrs.size(), (o.packets + c.pcr_spacing - 1) / c.pcr_spacing);
        for (size_t k = 0; k < parser.pcrs.size(); ++k) {
            const auto& p = parser.pcrs[k];
            ASSERT_EQ(p.index, k * c.pcr_spacing);
            ASSERT_EQ(p.afc, 3);
            const long double off = p.value - ideal_pcr(o.pcr_start, c.rate, p.index);
            ASSERT_LE(std::fabs(off), 0.5L) << "PCR " << k;
            ASSERT_EQ(uint64_t(p.value), pcr_of_packet(o.pcr_start, c.rate, p.index));
        }

        // PSI: one PAT per period, in its first slot or right behind a PCR there.
        EXPECT_EQ(g.psi_period(), c.psi_period);
        ASSERT_EQ(parser.pat_at.size(), (o.packets + c.psi_period - 1) / c.psi_period);
        for (size_t k = 0; k < parser.pat_at.size(); ++k) {
            const uint64_t slot = k * c.psi_period;
            const uint64_t expected = slot % c.pcr_spacing == 0 ? slot + 1 : slot;
            ASSERT_EQ(parser.pat_at[k], expected) << "PAT " << k;
        }

        // Payload packets carry their own index.
        size_t payloads = 0;
        for (uint64_t i = 0; i < o.packets; ++i) {
            const uint8_t* p = ts.data() + i * 188;
            if ((p[1] & 0x1F) << 8 == (o.es_pid & 0x1F00) && p[2] == (o.es_pid & 0xFF) &&
                (p[3] & 0x30) == 0x10) {
                uint64_t v = 0;
                for (int b = 0; b < 8; ++b) {
                    v = v << 8 | p[4 + b];
                }
                ASSERT_EQ(v, i);
                ++payloads;
            }
        }
        EXPECT_EQ(payloads, o.packets - parser.pcrs.size() - parser.pat_at.size() * 3);
    }
}

// A PCR-only PID, null filling and a PCR wrap inside the stream.
TEST(Generate, PcrPidNullFillAndWrap) {
    options o;
    o.rate_bps = 10000000;
    o.packets = 20000;
    o.pcr_pid = 0x0200;
    o.fill_null = true;
    o.payload_rate_bps = 2000000;
    o.pcr_start = kPcrWrap - 27000000;  // wraps after one second, about 831 packets
    std::vector<uint8_t> ts;
    std::string error;
    ASSERT_TRUE(generate(o, ts, error)) << error;

    stream_check parser;
    parser.Process(ts.data(), ts.size());
    EXPECT_TRUE(parser.cc_errors.empty());
    EXPECT_EQ(parser.pmt.PCR_PID, 0x0200);
    EXPECT_EQ(parser.pmt.find(0x0200), nullptr);
    ASSERT_FALSE(parser.pcrs.empty());
    bool wrapped = false;
    for (size_t k = 0; k < parser.pcrs.size(); ++k) {
        const auto& p = parser.pcrs[k];
        EXPECT_EQ(p.pid, 0x0200);
        EXPECT_EQ(p.afc, 2);  // adaptation field only: the counter stays
        EXPECT_EQ(p.cc, 0);
        const long double off = p.value - ideal_pcr(o.pcr_start, o.rate_bps, p.index);
        ASSERT_LE(std::fabs(off), 0.5L) << "PCR " << k;
        wrapped = wrapped || (k > 0 && p.value < parser.pcrs[k - 1].value);
    }
    EXPECT_TRUE(wrapped);

    // The elementary PID runs at a fifth of the rate, to the packet; nulls fill the rest.
    uint64_t es = 0, nulls = 0;
    for (uint64_t i = 0; i < o.packets; ++i) {
        const uint16_t pid = uint16_t((ts[i * 188 + 1] & 0x1F) << 8 | ts[i * 188 + 2]);
        es += pid == o.es_pid;
        nulls += pid == 0x1FFF;
    }
    EXPECT_EQ(es, o.packets / 5);
    EXPECT_EQ(es + nulls + parser.pcrs.size() + parser.pat_at.size() * 3, o.packets);
}

TEST(GenerateCli, ValuesOptionsAndErrors) {
    uint64_t v = 0;
    EXPECT_TRUE(parse_rate("38M", v) && v == 38000000);
    EXPECT_TRUE(parse_rate("5000k", v) && v == 5000000);
    EXPECT_TRUE(parse_rate("38000000", v) && v == 38000000);
    EXPECT_TRUE(parse_rate("38.5M", v) && v == 38500000);
    for (const char* bad : {"1.5", "38X", "0", "", "M", "-5M", "20G", "1.2.3M"}) {
        EXPECT_FALSE(parse_rate(bad, v)) << bad;
    }
    EXPECT_TRUE(parse_time("30ms", 1, v) && v == 30000000);
    EXPECT_TRUE(parse_time("30", 1000000, v) && v == 30000000);
    EXPECT_TRUE(parse_time("2.5", 1000000000, v) && v == 2500000000);
    EXPECT_TRUE(parse_time("0.04s", 1, v) && v == 40000000);
    EXPECT_FALSE(parse_time("1.5ns", 1, v));
    EXPECT_FALSE(parse_time("30 ms", 1, v));

    command_line cl;
    std::string error;
    ASSERT_TRUE(
        parse_command_line({"--rate", "38M", "--duration", "30", "--pcr-interval=30ms"}, cl, error))
        << error;
    EXPECT_EQ(cl.opt.packets, 757979u);  // 30 s * 38e6 / 1504 = 757978.7
    EXPECT_EQ(cl.opt.pcr_pid, cl.opt.es_pid);
    ASSERT_TRUE(
        parse_command_line({"--rate", "5M", "--packets", "7", "--es-pid", "0x300"}, cl, error));
    EXPECT_EQ(cl.opt.pcr_pid, 0x300);

    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"--duration", "1"},
             {"--rate", "5M", "--duration", "1", "--packets", "9"},
             {"--rate", "5M", "--packets", "9", "--bogus", "1"},
             {"--rate", "5M", "--packets", "9", "--payload-rate", "1M"},
             {"--rate", "5M", "--packets", "9", "--pmt-pid", "0x10"},
             {"--rate", "5M", "--packets"},
         }) {
        EXPECT_FALSE(parse_command_line(args, cl, error)) << args.back();
        EXPECT_EQ(error.find('\n'), std::string::npos);
    }
    options o;
    o.rate_bps = 100000;
    o.packets = 10;
    o.psi_interval_ns = 10000000;  // 0 packets at 100 kbit/s
    generator g;
    EXPECT_FALSE(g.init(o, error));
    o.psi_interval_ns = 100000000;
    o.pcr_pid = o.pmt_pid;
    EXPECT_FALSE(g.init(o, error));
}

// The program writes the same bytes as the library; a bad option or an unwritable output
// gives a one-line message and a non-zero status.
TEST(GenerateCli, RunWritesFileAndFailsCleanly) {
    char dir[] = "/tmp/kv_gen_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string out = std::string(dir) + "/out.ts";
    FILE* err = tmpfile();
    ASSERT_NE(err, nullptr);

    EXPECT_EQ(run({"--rate", "5M", "--packets", "5000", "-q", "-o", out}, err), 0);
    std::ifstream in(out, std::ios::binary);
    const std::vector<uint8_t> written{std::istreambuf_iterator<char>(in), {}};
    options o;
    o.rate_bps = 5000000;
    o.packets = 5000;
    std::vector<uint8_t> expected;
    std::string error;
    ASSERT_TRUE(generate(o, expected, error));
    EXPECT_TRUE(written == expected);

    const std::string missing = std::string(dir) + "/bad.ts";
    EXPECT_EQ(run({"--rate", "5X", "--packets", "1", "-o", missing}, err), 2);
    EXPECT_NE(access(missing.c_str(), F_OK), 0);
    EXPECT_EQ(run({"--rate", "5M", "--packets", "1", "-o", std::string(dir) + "/no/x.ts"}, err), 1);

    rewind(err);
    char line[512];
    int lines = 0;
    while (fgets(line, sizeof(line), err) != nullptr) {
        EXPECT_EQ(std::string(line).rfind("kv-ts-generate: ", 0), 0u) << line;
        ++lines;
    }
    EXPECT_EQ(lines, 2);
    fclose(err);
    unlink(out.c_str());
    rmdir(dir);
}
