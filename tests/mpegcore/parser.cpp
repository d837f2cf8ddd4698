// The base parser: framing in any chunking, sync search, dispatch of every PID to its
// table or hook, PMT learning and pruning, and a recorded hook trace of real captures.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kv_ts_generator.h"
#include "mpegcore/BaseMpegParser.h"
#include "ts_test_util.h"

using namespace mpegcore;
using namespace ts_test;

namespace {

using Trace = std::vector<std::string>;

uint64_t fnv(const uint8_t* p, size_t n, uint64_t h = 1469598103934665603ull) {
    for (size_t i = 0; i < n; ++i) {
        h = (h ^ p[i]) * 1099511628211ull;
    }
    return h;
}

// Writes every hook call as one line: the hook and what identifies its arguments. With
// `frames`, also every packet's OnPreProcess (PID, counter, hash of its bytes) and
// OnProcess (PID, payload bytes left behind the adaptation field).
class Recorder : public CBaseMpegParser {
public:
    explicit Recorder(bool tails = true, bool frames = false)
        : CBaseMpegParser(tails), m_frames(frames) {}

    Trace trace;
    using CBaseMpegParser::m_BAT, CBaseMpegParser::m_NIT_Other, CBaseMpegParser::m_SDT_Actual,
        CBaseMpegParser::m_SDT_Other, CBaseMpegParser::m_EIT_Actual, CBaseMpegParser::m_EIT_Other,
        CBaseMpegParser::m_EIT_Actual_Shedule, CBaseMpegParser::m_EIT_Other_Shedule;
    using CBaseMpegParser::m_cs, CBaseMpegParser::m_MapPMT, CBaseMpegParser::m_PAT;

private:
    template <class... A>
    void add(const char* hook, A... args) {
        std::ostringstream s;
        s << hook;
        ((s << ' ' << args), ...);
        trace.push_back(s.str());
    }
    static int es(const CBaseStreamTypeMap* m) { return m ? m->elementary_PID : -1; }

    void on_sync_byte_error() override { add("sync"); }
    void on_cc_error(uint16_t pid) override { add("cc", pid); }
    void OnPreProcess(unsigned, const transport_packet& p) override {
        if (m_frames) {
            add("pre", p.PID, int(p.continuity_counter), fnv(p.pStartDataPkt, TS_PACKET_SIZE));
        }
    }
    void OnProcess(unsigned, transport_packet& p) override {
        if (m_frames) {
            add("post", p.PID, p.lCurrSizePkt);
        }
    }
    void OnPAT(CPAT* t) override {
        add("PAT", int(t->version_number), t->section_length, t->program_map.size());
    }
    void OnPMT(CBaseMpegProgram* program, CPMT* t) override {
        add("PMT", program->program_number, t->program_number, t->section_length,
            t->stream_map.size());
    }
    void OnCAT(CCAT* t) override { add("CAT", int(t->table_id), t->section_length); }
    void OnTSDT(CTSDT* t) override { add("TSDT", int(t->table_id), t->section_length); }
    void OnSDT(CSDT* t) override { add("SDT", int(t->table_id), t->section_length); }
    void OnEIT(CEIT* t) override { add("EIT", int(t->table_id), t->section_length); }
    void OnNIT(CNIT* t) override { add("NIT", int(t->table_id), t->section_length); }
    void OnTDT(CTDT* t) override { add("TDT", int(t->table_id), t->UTC_time); }
    void OnTOT(CTOT* t) override { add("TOT", int(t->table_id), t->section_length); }
    void OnBAT(CBAT* t) override { add("BAT", int(t->table_id), t->section_length); }
    void OnPES(uint16_t pmt, const CBaseStreamTypeMap* m, transport_packet*) override {
        add("pes", pmt, es(m));
    }
    void OnPES(uint16_t pmt, CBaseStreamTypeMap* m, const uint8_t* data, size_t n) override {
        add("unit", pmt, es(m), n, fnv(data, n));
    }
    void OnPES(uint16_t pmt, uint16_t program, const CBaseStreamTypeMap* m,
               transport_packet*) override {
        add("pes_program", pmt, program, es(m));
    }
    void OnPCR(transport_packet* p) override { add("pcr", p->PID, p->af.pcr()); }
    void OnEMM(transport_packet* p) override { add("emm", p->PID); }
    void OnECM(transport_packet* p) override { add("ecm", p->PID); }
    void OnNULL(transport_packet*) override { add("null"); }
    void onOtherPid(transport_packet* p) override { add("other", p->PID); }

    bool m_frames;
};

// A section with the long header (version 0, section 0 of 0) and a correct CRC.
Bytes table(uint8_t table_id, uint16_t extension, const Bytes& body) {
    return section(table_id, 0xB0,
                   cat({{uint8_t(extension >> 8), uint8_t(extension), 0xC1, 0, 0}, body}));
}

Bytes pat(std::initializer_list<std::pair<uint16_t, uint16_t>> programs) {
    Bytes body;
    for (const auto& p : programs) {
        body = cat({body,
                    {uint8_t(p.first >> 8), uint8_t(p.first), uint8_t(0xE0 | p.second >> 8),
                     uint8_t(p.second)}});
    }
    return table(0x00, 1, body);
}

// PMT of `program`: PCR PID, program descriptors, then (stream type, PID) entries.
Bytes pmt(uint16_t program, uint16_t pcr_pid, const Bytes& descriptors,
          std::initializer_list<std::pair<uint8_t, uint16_t>> streams) {
    Bytes body = cat({{uint8_t(0xE0 | pcr_pid >> 8), uint8_t(pcr_pid),
                       uint8_t(0xF0 | descriptors.size() >> 8), uint8_t(descriptors.size())},
                      descriptors});
    for (const auto& s : streams) {
        body = cat({body, {s.first, uint8_t(0xE0 | s.second >> 8), uint8_t(s.second), 0xF0, 0}});
    }
    return table(0x02, program, body);
}

Bytes ca_descriptor(uint16_t system, uint16_t pid) {
    return {0x09, 4, uint8_t(system >> 8), uint8_t(system), uint8_t(0xE0 | pid >> 8), uint8_t(pid)};
}

Bytes& operator+=(Bytes& a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// "a|b|c" as the trace {"a", "b", "c"}.
Trace lines(const std::string& text) {
    Trace t;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line, '|');) {
        t.push_back(line);
    }
    return t;
}

// Feeds `ts` in chunks of the sizes `next` gives, recording everything the parser did,
// its printed lines included.
template <class Next>
Trace run(const Bytes& ts, bool tails, Next next) {
    Recorder r(tails, true);
    testing::internal::CaptureStdout();
    size_t consumed = 0;
    for (size_t at = 0; at < ts.size();) {
        const size_t n = std::min(next(), ts.size() - at);
        consumed += r.Process(ts.data() + at, n);
        at += n;
    }
    std::fflush(stdout);
    std::istringstream printed(testing::internal::GetCapturedStdout());
    for (std::string line; std::getline(printed, line);) {
        r.trace.push_back("printed " + line);
    }
    r.trace.push_back("consumed " + std::to_string(consumed));
    return r.trace;
}

}  // namespace

TEST(BaseParser, FramingCarriesTailsAndSearchesSyncByteByByte) {
    uint8_t cc = 0;
    Bytes two = psi(0, cc, pat({{1, 0x100}}));
    two += packet(0x1FFF, 0, false, {});
    {
        // 187 bytes are held, the next byte completes the packet.
        Recorder r(true, true);
        EXPECT_EQ(r.Process(two.data(), 187), 0u);
        EXPECT_TRUE(r.trace.empty());
        EXPECT_EQ(r.Process(two.data() + 187, 1), 188u);
        EXPECT_EQ(r.trace.size(), 3u);  // pre, PAT, post
        EXPECT_EQ(r.trace[1], "PAT 0 13 1");
        // Clear() drops a held partial packet along with the tables.
        EXPECT_EQ(r.Process(two.data() + 188, 100), 0u);
        r.Clear();
        EXPECT_FALSE(r.m_PAT.IsValid());
        EXPECT_EQ(r.Process(two.data() + 288, 88), 0u);
    }
    {
        // Without tails the rest of a chunk is lost.
        Bytes chunk = two;
        chunk.resize(200);
        Recorder r(false);
        EXPECT_EQ(r.Process(chunk.data(), chunk.size()), 188u);
        EXPECT_EQ(r.Process(two.data() + 188, 188), 188u);
        EXPECT_EQ(r.trace, (Trace{"PAT 0 13 1", "null"}));
    }
    {
        // Junk before a packet costs one error per byte; junk at the end of a chunk is
        // searched once the next chunk completes a packet behind it.
        Bytes junk{0x00, 0x12, 0xFF};
        junk += two;
        junk += {0x46, 0x48};
        Recorder r(true);
        EXPECT_EQ(r.Process(junk.data(), 191), 191u);
        EXPECT_EQ(r.Process(junk.data() + 191, junk.size() - 191), 188u);
        EXPECT_EQ(r.Process(two.data() + 188, 188), 190u);
        EXPECT_EQ(r.trace,
                  (Trace{"sync", "sync", "sync", "PAT 0 13 1", "null", "sync", "sync", "null"}));
    }
    Recorder r(true);
    EXPECT_EQ(r.Process(nullptr, 0), 0u);
}

TEST(BaseParser, AnyChunkingGivesTheSameHooks) {
    const std::vector<std::string> names = capture_names();
    if (names.empty()) {
        GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
    }
    std::mt19937 rng(7);
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        Bytes ts = load_capture(name);
        ts.resize(std::min(ts.size(), size_t(4000) * TS_PACKET_SIZE));  // keeps the run short
        // Junk between packets, never a false sync byte, in front of a few packets.
        Bytes junked;
        size_t junk = 0;
        for (size_t at = 0; at < ts.size(); at += TS_PACKET_SIZE) {
            if (rng() % 97 == 0) {
                const size_t n = 1 + rng() % 300;
                for (size_t i = 0; i < n; ++i) {
                    junked.push_back(uint8_t(rng() % 0x47));
                }
                junk += n;
            }
            junked.insert(junked.end(), ts.begin() + at, ts.begin() + at + TS_PACKET_SIZE);
        }
        for (const Bytes* data : {&ts, &junked}) {
            const Trace whole = run(*data, true, [&] { return data->size(); });
            const auto syncs = std::count(whole.begin(), whole.end(), "sync");
            EXPECT_EQ(size_t(syncs), data == &ts ? 0 : junk);
            for (size_t size : {1, 187, 188, 189}) {
                EXPECT_EQ(run(*data, true, [&] { return size; }), whole) << "chunks of " << size;
            }
            EXPECT_EQ(run(*data, true, [&] { return 1 + rng() % 5000; }), whole);
        }
        // Without tails, whole packets in every chunk lose nothing; any other chunk returns
        // its skipped bytes plus whole packets and holds nothing back.
        EXPECT_EQ(run(ts, false, [] { return 7 * TS_PACKET_SIZE; }),
                  run(ts, true, [&] { return ts.size(); }));
        Recorder r(false, true);
        for (size_t at = 0, n; at < junked.size(); at += n) {
            n = std::min<size_t>(1 + rng() % 1000, junked.size() - at);
            r.trace.clear();
            const size_t consumed = r.Process(junked.data() + at, n);
            const auto packets = std::count_if(r.trace.begin(), r.trace.end(),
                                               [](const std::string& s) { return s[1] == 'r'; });
            const auto syncs = std::count(r.trace.begin(), r.trace.end(), "sync");
            ASSERT_EQ(consumed, size_t(packets) * TS_PACKET_SIZE + size_t(syncs));
            ASSERT_LT(n - consumed, TS_PACKET_SIZE);
        }
    }
}

TEST(BaseParser, EveryPidReachesItsTableOrHook) {
    Recorder r;
    uint8_t cc[0x2000] = {};
    Bytes ts = packet(0x105, 0, true, {1, 2, 3});   // before any PAT
    ts += packet(0x12, cc[0x12]++, false, {0x4E});  // EIT continuation before a unit start
    ts += psi(0x00, cc[0], pat({{0, 0x10}, {1, 0x100}}));
    ts += psi(0x100, cc[0x100],
              pmt(1, 0x1FF, ca_descriptor(0x0B00, 0x300), {{2, 0x101}, {4, 0x102}}));
    ts += psi(0x01, cc[1], table(0x01, 0xFFFF, ca_descriptor(0x0B00, 0x400)));
    ts += psi(0x02, cc[2], table(0x03, 0xFFFF, {}));
    for (uint8_t id : {0x40, 0x41, 0x42 /* not on this PID */}) {
        ts += psi(0x10, cc[0x10], table(id, 1, {0xF0, 0, 0xF0, 0}));
    }
    for (uint8_t id : {0x42, 0x46, 0x43 /* unlisted */}) {
        ts += psi(0x11, cc[0x11], table(id, 1, {0, 1, 0xFF}));
    }
    ts += psi(0x11, cc[0x11], table(0x4A, 1, {0xF0, 0, 0xF0, 0}));
    for (uint8_t id : {0x4E, 0x4F, 0x50, 0x5F, 0x60, 0x6F, 0x70 /* not on this PID */}) {
        ts += psi(0x12, cc[0x12], table(id, 1, {0, 1, 0, 1, 0, id}));
    }
    ts += psi(0x14, cc[0x14], {0x70, 0x70, 0x05, 0xC0, 0x79, 0x12, 0x45, 0x00});
    ts += psi(0x14, cc[0x14], section(0x73, 0x70, {0xC0, 0x79, 0x12, 0x45, 0x00, 0xF0, 0x00}));
    // A section is handed over again with every further packet of its unit.
    ts += packet(0x14, cc[0x14]++, false, {});
    // Elementary stream: two unit starts around a continuation.
    ts += packet(0x101, 1, true, Bytes(184, 0xA1));
    ts += packet(0x101, 2, false, Bytes(184, 0xA2));
    ts += packet(0x101, 3, true, Bytes(184, 0xA3));
    // PCRs: on the PCR PID (no payload), on an elementary PID, and too short a field.
    ts += packet(0x1FF, 0, false, {}, pcr_field(0x1FFFFFFFFull, 299), false);
    ts += packet(0x102, 0, true, {}, pcr_field(27000000 / 300, 0));
    ts += packet(0x1FF, 0, false, {}, {1, 0x10}, false);
    ts += packet(0x300, 0, true, {});
    ts += packet(0x400, 0, true, {});
    ts += packet(0x1FFF, 0, false, {});
    ts += packet(0x13, 0, false, {});

    testing::internal::CaptureStdout();
    ASSERT_EQ(r.Process(ts.data(), ts.size()), ts.size());
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "mpegcore: eit pkt skip\n");

    const std::string unit =
        std::to_string(fnv(Bytes(184, 0xA2).data(), 184, fnv(Bytes(184, 0xA1).data(), 184)));
    const std::string pcr = std::to_string(0x1FFFFFFFFll * 300 + 299);
    const std::string cut_pcr = std::to_string(0x1FFFFFFFFll * 300 + 511);
    const Trace expected = lines(
        "other 261|PAT 0 17 2|PMT 1 1 29 2|CAT 1 15|TSDT 3 9|NIT 64 13|NIT 65 13|SDT 66 12|"
        "SDT 70 12|BAT 74 13|EIT 78 15|EIT 79 15|EIT 80 15|EIT 95 15|EIT 96 15|EIT 111 15|"
        "TDT 112 826664961280|TOT 115 11|TOT 115 11|pes 256 257|pes_program 256 1 257|other 257|"
        "pes 256 257|pes_program 256 1 257|other 257|unit 256 257 368 " +
        unit + "|pes 256 257|pes_program 256 1 257|other 257|pcr 511 " + pcr +
        "|pes 256 -1|other 511|pcr 258 27000000|pes 256 258|pes_program 256 1 258|other 258|"
        "pcr 511 " +
        cut_pcr + "|other 511|ecm 768|other 768|emm 1024|other 1024|null|other 19");
    EXPECT_EQ(r.trace, expected);

    // Each table id went to its own wrapper.
    EXPECT_EQ(
        (std::vector<int>{r.m_NIT_Other.GetLast()->table_id, r.m_SDT_Actual.GetLast()->table_id,
                          r.m_SDT_Other.GetLast()->table_id, r.m_BAT.GetLast()->table_id,
                          r.m_EIT_Actual.GetLast()->table_id, r.m_EIT_Other.GetLast()->table_id,
                          r.m_EIT_Actual_Shedule.GetLast()->table_id,
                          r.m_EIT_Other_Shedule.GetLast()->table_id}),
        (std::vector<int>{0x41, 0x42, 0x46, 0x4A, 0x4E, 0x4F, 0x5F, 0x6F}));
    // The PCR on the PCR PID reached the elementary streams' rate meters, in 100 ns.
    EXPECT_EQ(r.getPIDState(0x101).lastPCR, (0x1FFFFFFFFll * 300 + 299) * 10 / 27);
    EXPECT_EQ(r.getPIDState(0x102).lastPCR, (0x1FFFFFFFFll * 300 + 299) * 10 / 27);
}

TEST(BaseParser, PacketHooksComeInOrderAndBadFieldsAreRefused) {
    Recorder r(true, true);
    uint8_t cc = 0;
    Bytes ts = psi(0, cc, pat({{1, 0x100}}));
    ts += psi(0x100, cc, pmt(1, 0x101, {}, {{2, 0x101}}));
    ts += packet(0x101, 5, true, {0xE0}, pcr_field(90000, 0));
    // A field of length 200 is refused before the counter is looked at: no error for the
    // wrong counter, and the next packet continues from 5.
    ts += packet(0x101, 9, false, {}, {200});
    ts += packet(0x101, 6, false, {0xE1});
    ASSERT_EQ(r.Process(ts.data(), ts.size()), ts.size());
    const auto hash = [&](int i) { return std::to_string(fnv(&ts[i * TS_PACKET_SIZE], 188)); };
    EXPECT_EQ(Trace(r.trace.end() - 13, r.trace.end()),
              lines("pre 257 5 " + hash(2) +
                    "|pcr 257 27000000|pes 256 257|pes_program 256 1 257|other 257|post 257 176|"
                    "pre 257 9 " +
                    hash(3) + "|post 257 184|pre 257 6 " + hash(4) +
                    "|pes 256 257|pes_program 256 1 257|other 257|post 257 184"));
    EXPECT_EQ(r.getPIDState(0x101).continuity_counter_error, 0);
    EXPECT_EQ(r.getPIDState(0x101).continuity_counter, 6);
}

TEST(BaseParser, NewPatPrunesDroppedPmtsAndTheirPidStates) {
    Recorder r;
    uint8_t cc[0x2000] = {};
    auto feed = [&](const Bytes& b) {
        r.trace.clear();
        ASSERT_EQ(r.Process(b.data(), b.size()), b.size());
    };
    Bytes start = psi(0, cc[0], pat({{1, 0x100}, {2, 0x200}}));
    start += psi(0x100, cc[0x100], pmt(1, 0x101, {}, {{2, 0x101}}));
    start += psi(0x200, cc[0x200], pmt(2, 0x201, {}, {{2, 0x201}, {3, 0x202}}));
    for (uint16_t pid : {0x101, 0x201, 0x202}) {
        start += packet(pid, cc[pid]++, true, Bytes(184, 0x11));
        start += packet(pid, cc[pid]++, false, Bytes(184, 0x22));
    }
    feed(start);
    EXPECT_EQ(r.m_MapPMT.size(), 2u);
    EXPECT_EQ(r.getPIDState(0x202).getCurData()->getLength(), 368u);

    // Program 2 leaves the PAT: its PMT and the state of its PIDs go, program 1 stays.
    feed(psi(0, cc[0], pat({{1, 0x100}})));
    EXPECT_EQ(r.trace, (Trace{"PAT 0 13 1"}));
    ASSERT_EQ(r.m_MapPMT.size(), 1u);
    EXPECT_EQ(r.m_MapPMT.begin()->first, 0x100);
    for (uint16_t pid : {0x200, 0x201, 0x202}) {
        EXPECT_EQ(r.getPIDState(pid).continuity_counter, CBasePID::kNoCounter) << pid;
        EXPECT_EQ(r.getPIDState(pid).getCurData()->getLength(), 0u) << pid;
    }
    EXPECT_EQ(r.getPIDState(0x101).continuity_counter, 1);

    // Its streams are now other PIDs (a counter out of line is no error after the reset);
    // program 1's stream still reaches OnPES without a new PMT.
    Bytes after = packet(0x201, 9, true, {});
    after += psi(0x200, cc[0x200], pmt(2, 0x201, {}, {{2, 0x201}}));
    after += packet(0x101, cc[0x101]++, false, {});
    feed(after);
    EXPECT_EQ(r.trace, lines("other 513|other 512|pes 256 257|pes_program 256 1 257|other 257"));
}

// The table wrappers are read by another thread under m_cs while packets are parsed.
TEST(BaseParserConcurrency, TablesAreReadUnderTheLockWhileParsing) {
    Bytes ts = load_capture("test-103.ts");  // or a generated stream (PAT, PMT, SDT)
    if (ts.empty()) {
        kv_ts_generate::options o;
        o.rate_bps = 10000000;
        o.packets = 20000;
        std::string error;
        ASSERT_TRUE(kv_ts_generate::generate(o, ts, error)) << error;
    }
    Recorder r;
    std::atomic<bool> started{false}, saw_tables{false}, done{false};
    std::thread reader([&] {
        size_t seen = 0;
        while (!done) {
            std::lock_guard<std::recursive_mutex> lock(r.m_cs);
            if (r.m_PAT.IsValid()) {
                seen += r.m_PAT.GetLast()->program_map.size();
            }
            for (const auto& e : r.m_MapPMT) {
                seen += e.second->GetLast()->stream_map.size();
            }
            started = true;
            saw_tables = seen > 0;
        }
    });
    while (!started) {
        std::this_thread::yield();
    }
    for (int i = 0; i < 3; ++i) {
        for (size_t at = 0; at < ts.size(); at += 4096) {
            r.Process(ts.data() + at, std::min<size_t>(4096, ts.size() - at));
        }
    }
    while (!saw_tables) {  // the tables stay valid, so the reader sees them in the end
        std::this_thread::yield();
    }
    done = true;
    reader.join();
    EXPECT_GT(r.trace.size(), 0u);
}

TEST(BaseParser, HookTraceOfRealCapturesMatchesTheRecordedOne) {
    // The full trace of one short capture, and a hash of the full trace of every capture.
    const std::string dir = std::string(KV_SOURCE_DIR) + "/tests/mpegcore/data/";
    const std::vector<std::string> names = capture_names();
    if (names.empty()) {
        GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
    }
    std::string trace, hashes;
    for (const std::string& name : names) {
        const Bytes ts = load_capture(name);
        const Trace t = run(ts, true, [&] { return ts.size(); });
        std::string text;
        for (const std::string& line : t) {
            text += line + "\n";
        }
        if (name == "test-018.ts") {
            trace = text;
        }
        hashes += name + " " + std::to_string(t.size()) + " " +
                  std::to_string(fnv(reinterpret_cast<const uint8_t*>(text.data()), text.size())) +
                  "\n";
    }
    if (std::getenv("KV_UPDATE_GOLDEN") != nullptr) {
        std::ofstream(dir + "parser_trace_test-018.txt") << trace;
        std::ofstream(dir + "parser_trace_hashes.txt") << hashes;
    }
    auto read = [](const std::string& path) {
        std::ifstream in(path);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    EXPECT_EQ(trace, read(dir + "parser_trace_test-018.txt"));
    EXPECT_EQ(hashes, read(dir + "parser_trace_hashes.txt"));
}
