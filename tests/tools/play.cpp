// kv-asi-play: its file pacing (real captures, a stream built here, seamless loops), its
// alarm manager across threads, and short runs of the program through the virtual board.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <thread>

#include "files.h"
#include "kv_asi_analyzer.h"
#include "kv_play_alarms.h"
#include "kv_play_status.h"
#include "kv_ts_file_pacer.h"
#include "kv_ts_generator.h"
#include "mpegcore/TransportPacket.h"

using namespace kv_asi_play;
namespace pb = mpegcore::packet_bytes;

namespace {

using kvtest::read_file;
using kvtest::temp_path;
using kvtest::write_file;

// One payload packet, with a PCR (and optionally its discontinuity indicator) when given.
void put_packet(std::vector<uint8_t>& out, uint16_t pid, uint8_t cc, const uint64_t* pcr,
                bool bDiscontinuity = false) {
    uint8_t p[188];
    std::fill(p, p + 188, 0xFF);
    p[0] = 0x47;
    p[1] = uint8_t(pid >> 8);
    p[2] = uint8_t(pid);
    p[3] = uint8_t((pcr != nullptr ? 0x30 : 0x10) | (cc & 0x0F));
    if (pcr != nullptr) {
        p[4] = 7;
        p[5] = uint8_t(0x10 | (bDiscontinuity ? 0x80 : 0));
        pb::set_pcr(p, *pcr);
    }
    out.insert(out.end(), p, p + 188);
}

// A generated constant-rate stream; at the default 27.072 Mbit/s a packet lasts exactly
// 1500 ticks. The generator puts PCRs every 540 packets (30 ms) and on the last packet.
constexpr uint64_t kTicksPerPacket = 1500;
std::vector<uint8_t> generated(uint64_t packets, uint64_t pcrStart, uint16_t pcrPid, bool bNull,
                               uint64_t rate = 188 * 8 * kTicksPerSecond / kTicksPerPacket) {
    kv_ts_generate::options o;
    o.rate_bps = rate;
    o.packets = packets;
    o.pcr_start = pcrStart;
    o.pcr_pid = pcrPid;
    o.fill_null = bNull;
    std::vector<uint8_t> out;
    std::string error;
    EXPECT_TRUE(kv_ts_generate::generate(o, out, error)) << error;
    return out;
}

// Paces a file: returns the chunks' packets, and each chunk's head (time, offset, pass,
// packets) in `chunks`.
std::vector<uint8_t> pace(ts_file_pacer& pacer, const std::string& path, bool bLoop,
                          std::vector<std::vector<int64_t>>& chunks,
                          size_t nMaxPackets = SIZE_MAX) {
    std::vector<uint8_t> bytes;
    std::string error;
    EXPECT_TRUE(pacer.open(path, bLoop, error)) << error;
    ts_chunk c;
    while (bytes.size() / 188 < nMaxPackets && pacer.next(c)) {
        chunks.push_back({c.tStream, int64_t(c.nOffset), c.nPass, int64_t(c.data.size() / 188)});
        bytes.insert(bytes.end(), c.data.begin(), c.data.end());
    }
    return bytes;
}

// Runs the player with stdout and stderr in `out`; returns the exit status (-1 if killed).
int run_player(const std::vector<std::string>& args, std::string& out) {
    const std::string outPath = temp_path("out.txt"), supp = temp_path("lsan.supp");
    // GLib drops its quark table while loading once it grows: excuse allocations made by
    // library constructors only (whole stacks: GLib has no frame pointers).
    std::ofstream(supp) << "leak:_dl_init\n";
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        setenv("GST_REGISTRY", KV_PLAY_REGISTRY, 1);  // a registry of its own
        unsetenv("GST_PLUGIN_PATH");
        const auto add = [](const char* name, const std::string& option) {
            const char* v = getenv(name);
            setenv(name, (std::string(v != nullptr ? v : "") + ":" + option).c_str(), 1);
        };
        add("ASAN_OPTIONS", "fast_unwind_on_malloc=0");
        add("LSAN_OPTIONS", "print_suppressions=0:suppressions=" + supp);
        std::vector<char*> argv = {const_cast<char*>(KV_PLAY_EXE)};
        for (const std::string& a : args) {
            argv.push_back(const_cast<char*>(a.c_str()));
        }
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    const std::vector<uint8_t> o = read_file(outPath);
    out.assign(o.begin(), o.end());
    unlink(outPath.c_str());
    unlink(supp.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

// Every packet of real captures comes out once, in order, in chunks of at most 348
// packets; a chunk that starts with a PCR of the pacing PID carries that PCR's time
// since the first one (up to the first step that is not an ordinary one).
TEST(PlayPacer, RealCapturesKeepEveryPacketAndFollowTheirPcrs) {
    int nFiles = 0;
    for (const char* name : {"test-072.ts", "test-025.ts", "test-143.ts"}) {
        const std::string path = std::string(KV_CORPUS_DIR) + "/" + name;
        if (access(path.c_str(), R_OK) != 0) {
            continue;
        }
        ++nFiles;
        SCOPED_TRACE(name);
        const std::vector<uint8_t> file = read_file(path);
        ts_file_pacer pacer;
        std::vector<std::vector<int64_t>> chunks;
        ASSERT_EQ(pace(pacer, path, false, chunks), file);
        EXPECT_TRUE(pacer.error().empty()) << pacer.error();

        std::map<int64_t, int64_t> anchors;  // offset -> time in ticks
        uint64_t nLast = 0;
        int64_t t = 0;
        for (size_t off = 0; off + 188 <= file.size(); off += 188) {
            const uint8_t* p = &file[off];
            if (pb::pid(p) != pacer.pcr_pid() || !pb::has_pcr(p)) {
                continue;
            }
            const uint64_t pcr = pb::pcr(p);
            const bool bDisc = pb::discontinuity(p);
            const int64_t d = int64_t((pcr + kPcrModulus - nLast) % kPcrModulus);
            if (!anchors.empty() && (bDisc || d <= 0 || d >= ts_file_pacer::kMaxPcrStep)) {
                break;
            }
            t += anchors.empty() ? 0 : d;
            nLast = pcr;
            anchors[int64_t(off)] = t;
        }
        ASSERT_GE(anchors.size(), 8u);  // test-143 steps away after eight PCRs
        int64_t offset = 0, tPrev = 0;
        size_t nAnchored = 0;
        for (const std::vector<int64_t>& c : chunks) {
            ASSERT_EQ(c[1], offset);
            ASSERT_LE(c[3], int64_t(ts_file_pacer::kMaxChunkPackets));
            ASSERT_GE(c[0], tPrev);
            if (anchors.count(offset) != 0) {
                ASSERT_EQ(c[0], ticks_to_units(anchors[offset])) << "offset " << offset;
                ++nAnchored;
            }
            offset += c[3] * 188;
            tPrev = c[0];
        }
        EXPECT_EQ(nAnchored, anchors.size());
    }
    if (nFiles == 0) {
        GTEST_SKIP() << "no corpus at " << KV_CORPUS_DIR;
    }
}

// Packets before the first PCR, a PCR on another PID that must not pace, the PCR
// wrapping, an announced discontinuity, lost sync, an interval long enough to be split,
// and a tail after the last PCR.
TEST(PlayPacer, WrapDiscontinuitySyncLossAndTail) {
    constexpr int64_t kStep = 270000;  // 10 ms; ten packets between PCRs
    std::vector<uint8_t> file;
    std::map<int64_t, int64_t> anchors;  // offset -> intended time in ticks
    uint8_t cc = 0;
    for (int i = 0; i < 3; ++i) {
        put_packet(file, 0, cc++, nullptr);
    }
    const uint64_t start = kPcrModulus - 5 * kStep;  // wraps between the third and fourth PCR
    int64_t t = 0, tJump = 0, step = 0, o38 = 0;
    uint64_t jumpBase = 0;
    size_t junkAt = 0;
    for (int k = 0; k < 40; ++k) {
        if (k == 20) {  // announced, but looks like an ordinary step of 1000 ticks
            tJump = t;
            jumpBase = (start + uint64_t(t - step)) % kPcrModulus + 1000;
        }
        const uint64_t pcr =
            k >= 20 ? jumpBase + uint64_t(t - tJump) : (start + uint64_t(t)) % kPcrModulus;
        o38 = k == 38 ? int64_t(file.size()) : o38;
        anchors[int64_t(file.size())] = t;
        put_packet(file, 0x101, cc++, &pcr, k == 20);
        for (int j = 0; j < (k == 38 ? 999 : 9); ++j) {  // 1000 packets over 100 ms at 38
            const uint64_t bogus = 99 * kStep;
            put_packet(file, j == 4 ? 0x102 : 0x101, cc++, j == 4 ? &bogus : nullptr);
        }
        if (k == 10) {
            junkAt = file.size();
            file.insert(file.end(), {0x00, 0x47, 0x00, 0x00, 0x00});
        }
        // Uneven steps, so that a guessed one shows; across the discontinuity the pacer
        // must use the previous step.
        const int64_t next = k == 38 ? 10 * kStep : kStep * (1 + k % 3);
        t += k == 19 ? step : next;
        step = next;
    }
    for (int i = 0; i < 4; ++i) {
        put_packet(file, 0x101, cc++, nullptr);
    }
    const std::string path = temp_path("synthetic.ts");
    write_file(path, file);
    ts_file_pacer pacer;
    std::vector<std::vector<int64_t>> chunks;
    const std::vector<uint8_t> bytes = pace(pacer, path, false, chunks);
    unlink(path.c_str());
    EXPECT_EQ(pacer.pcr_pid(), 0x101);
    EXPECT_EQ(pacer.skipped_bytes(), 5u);
    file.erase(file.begin() + std::ptrdiff_t(junkAt), file.begin() + std::ptrdiff_t(junkAt + 5));
    EXPECT_EQ(bytes, file);

    EXPECT_EQ(chunks[0], (std::vector<int64_t>{0, 0, 0, 3}));  // before the first PCR: 0
    bool bSplit = false;
    for (const std::vector<int64_t>& c : chunks) {
        if (anchors.count(c[1]) != 0) {
            ASSERT_EQ(c[0], ticks_to_units(anchors[c[1]])) << "offset " << c[1];
        }
        if (c[1] == o38 + 348 * 188) {
            bSplit = true;
            EXPECT_EQ(c[0], ticks_to_units(anchors[o38] + 10 * kStep * 348 / 1000));
        }
    }
    EXPECT_TRUE(bSplit);
    // The last PCR's packets and the tail run on at the long interval's rate.
    EXPECT_EQ(pacer.time_read(), ticks_to_units(anchors.rbegin()->second + 14 * 10 * kStep / 1000));
}

// A looped file plays as one stream: across the seams (and the PCR's wrap) the PCRs run
// on at the file's rate to the tick, every PID's counter runs on (null and
// adaptation-only packets keep theirs), chunks keep their time, pass and offset and stop
// at a seam. Cut short of its last PCR, a file has a tail to carry over the seam.
TEST(PlayLoop, SeamsContinuePcrsCountersAndTime) {
    const uint64_t start = kPcrModulus - kTicksPerPacket * 3000 + 299;
    struct variant {
        uint16_t pcrPid;
        bool bNull;
        uint64_t nPackets, nPcrs;
    };
    for (const variant& v : {variant{0x101, false, 2000, 5}, variant{0x1F0, true, 1900, 4}}) {
        SCOPED_TRACE(v.pcrPid);
        std::vector<uint8_t> file = generated(2000, start, v.pcrPid, v.bNull);
        file.resize(v.nPackets * 188);
        const std::string path = temp_path("loop.ts");
        write_file(path, file);
        ts_file_pacer pacer;
        std::vector<std::vector<int64_t>> chunks;
        const std::vector<uint8_t> bytes = pace(pacer, path, true, chunks, 3 * v.nPackets);
        unlink(path.c_str());
        ASSERT_TRUE(pacer.seamless());
        ASSERT_GE(bytes.size(), 3 * v.nPackets * 188);

        int64_t pos = 0;
        const int64_t n = int64_t(v.nPackets);
        for (const std::vector<int64_t>& c : chunks) {
            ASSERT_EQ(c, (std::vector<int64_t>{ticks_to_units(pos * int64_t(kTicksPerPacket)),
                                               pos % n * 188, pos / n, c[3]}));
            ASSERT_LE(pos % n + c[3], n) << "chunk across a seam at " << pos;
            pos += c[3];
        }
        std::map<int, int> lastCc;
        size_t nPcrs = 0;
        for (uint64_t i = 0; i < 3 * v.nPackets; ++i) {
            const uint8_t* p = &bytes[i * 188];
            const int pid = pb::pid(p), cc = pb::continuity_counter(p);
            if (pid == 0x1FFF) {
                ASSERT_EQ(cc, 0) << i;
            } else if (lastCc.count(pid) != 0) {
                ASSERT_EQ(cc, (lastCc[pid] + ((p[3] & 0x10) ? 1 : 0)) & 0x0F) << i;
            }
            lastCc[pid] = cc;
            if (pb::has_pcr(p)) {
                ASSERT_EQ(pb::pcr(p), (start + i * kTicksPerPacket) % kPcrModulus) << i;
                ASSERT_EQ(p[5] & 0x80, 0) << i;
                ASSERT_EQ(p[10] & 0x7E, 0x7E) << "reserved bits, packet " << i;
                ++nPcrs;
            }
        }
        EXPECT_EQ(nPcrs, 3 * v.nPcrs);
    }
}

TEST(PlayStatus, ReadsTheElementsTimeTexts) {
    struct row {
        const char* text;
        int64_t units;  // -1: refused
    };
    for (const row& r : {row{"000:00:01.180", 11'800'000},
                         row{"1234:59:59.999", ((1234LL * 3600 + 3599) * 1000 + 999) * 10000},
                         row{"-000:00:00.005", -50'000}, row{"", -1}, row{"00:00:01.18", -1},
                         row{"000:60:00.000", -1}, row{"000:00:01.1800", -1}, row{"000:00:01", -1},
                         row{"000:00:00.000 ", -1}}) {
        int64_t u = -1;
        EXPECT_EQ(parse_clock_text(r.text, u), r.units != -1) << r.text;
        EXPECT_EQ(u, r.units) << r.text;
    }
}

namespace {

class test_alarm : public kv_i_alarm_event {
public:
    bool check() override { return m_bActive.load(); }
    void reset() override { m_bActive = false; }
    void event(long) override { m_bActive = true; }
    bool active() override { return m_bActive.load(); }
    std::string hash() override { return std::to_string(uintptr_t(this)); }
    std::string get_log_message() override { return "alarm"; }
    std::atomic<bool> m_bActive{false};
};

}  // namespace

// The element registers and unregisters on its thread and raises events on the output
// thread while the player polls on its own; afterwards each change is reported once.
TEST(PlayAlarmsConcurrency, PollReportsEachChangeOnceWhileRegistrationsChurn) {
    play_alarm_manager manager;
    auto a = std::make_shared<test_alarm>(), b = std::make_shared<test_alarm>();
    std::atomic<bool> stop{false};
    std::thread element([&] {
        for (int i = 0; i < 2000; ++i) {
            manager.register_alarm(b);
            manager.unregister_alarm(b);
            manager.unregister_alarm(b);  // twice, as the element may
        }
    });
    std::thread output([&] {
        while (!stop.load()) {
            a->event(1);
            a->reset();
        }
    });
    manager.register_alarm(a);
    for (int i = 0; i < 2000; ++i) {
        manager.poll();
    }
    element.join();
    stop = true;
    output.join();

    a->m_bActive = false;
    manager.poll();
    EXPECT_TRUE(manager.poll().empty());
    for (bool bActive : {true, false}) {
        bActive ? a->event(1) : a->reset();
        const std::vector<alarm_change> changes = manager.poll();
        ASSERT_EQ(changes.size(), 1u);
        EXPECT_EQ(changes[0].bActive, bActive);
        EXPECT_EQ(changes[0].strMessage, "alarm");
        EXPECT_TRUE(manager.poll().empty());
    }
    // Active when registered: reported at the next poll; unregistered: no more.
    b->event(1);
    manager.register_alarm(b);
    EXPECT_EQ(manager.poll().size(), 1u);
    manager.unregister_alarm(b);
    b->reset();
    EXPECT_TRUE(manager.poll().empty());
    EXPECT_EQ(manager.size(), 1u);
}

// A one-second generated file through the virtual board with PCR pacing. Played once:
// the line carries every packet, in order, none missing, repeated or altered, and the
// program ends by itself. Looped for three passes and more: the element never resets,
// and the line shows one continuous clock and continuous counters.
TEST(PlayRun, PlaysToTheEndAndLoopsSeamlessly) {
    const std::string ts = temp_path("gen1s.ts"), capture = temp_path("line.cap");
    const uint64_t nPackets = kv_ts_generate::packets_for_duration(5000000, 1000000000);
    write_file(ts, generated(nPackets, 0, 0x101, false, 5000000));
    for (bool bLoop : {false, true}) {
        SCOPED_TRACE(bLoop ? "looped" : "once");
        std::vector<std::string> args = {
            "--latency", "200", "--duration", bLoop ? "4" : "30", "--capture", capture, ts};
        if (bLoop) {
            args.insert(args.begin(), "--loop");
        }
        std::string out;
        EXPECT_EQ(run_player(args, out), 0) << out;
        EXPECT_NE(out.find(bLoop ? "pass 3" : "end of " + ts), std::string::npos) << out;
        EXPECT_EQ(out.find("code=121"), std::string::npos) << out;  // output reset alarm
        std::istringstream lines(out);
        size_t nStatus = 0;
        for (std::string line; std::getline(lines, line);) {
            if (line.compare(0, 7, "device ") == 0) {
                ++nStatus;
                EXPECT_NE(line.find("resets 0 "), std::string::npos) << line;
            }
        }
        EXPECT_GE(nStatus, bLoop ? 3u : 1u);

        kv_asi_analyze::report r;
        std::string error;
        ASSERT_TRUE(kv_asi_analyze::analyze_files(capture, bLoop ? "" : ts, r, error,
                                                  kv_asi_analyze::kDefaultStartUpFrames))
            << error;
        unlink(capture.c_str());
        EXPECT_TRUE(r.cc_errors.empty());
        ASSERT_EQ(r.pcr.size(), 1u);
        EXPECT_EQ(r.pcr[0].discontinuities, 0u);
        EXPECT_LT(r.pcr[0].max_interval_ms, 40.0);
        EXPECT_TRUE(r.pcr_within(kv_asi_analyze::kPcrAccuracyLimitNs)) << r.pcr[0].drift_max_ns;
        if (bLoop) {
            EXPECT_GT(r.duration_s, 3.0);
        } else {
            EXPECT_EQ(r.source.missing + r.source.repeated + r.source.altered, 0u);
            EXPECT_EQ(r.source.unsent_head, 0u);  // the first packet carries a PCR
            EXPECT_EQ(r.source.matched + r.source.unsent_tail, nPackets);
            EXPECT_LE(r.source.unsent_tail, 1u);  // the element waits for a PCR after the last
        }
    }
    unlink(ts.c_str());
}

// Failures exit non-zero with a message; a FIFO far too small for the stream overflows,
// and the element's alarm reaches the player's manager and is shown.
TEST(PlayRun, ExitStatusAndMessages) {
    const std::string ts = temp_path("2s.ts"), nopcr = temp_path("nopcr.ts"),
                      m2ts = temp_path("m2ts.ts");
    write_file(ts, generated(kv_ts_generate::packets_for_duration(5000000, 2000000000), 0, 0x101,
                             false, 5000000));
    std::vector<uint8_t> plain, m2tsBytes(192 * 20, 0);
    for (int i = 0; i < 100; ++i) {
        put_packet(plain, 0x100, uint8_t(i), nullptr);
    }
    write_file(nopcr, plain);
    for (size_t i = 4; i < m2tsBytes.size(); i += 192) {
        m2tsBytes[i] = 0x47;  // a sync byte every 192 bytes is no 188-byte stream
    }
    write_file(m2ts, m2tsBytes);
    const struct {
        std::vector<std::string> args;
        int rc;
        std::string message;
    } failures[] = {
        {{temp_path("absent.ts")}, 1, "cannot open"},
        // The element's own error, with the OS's reason and what to do.
        {{"--device", "/dev/kv-play-test-absent", ts},
         1,
         "Cannot open the ASI device \"/dev/kv-play-test-absent\": No such file or directory "
         "(check the \"v4l2\" property"},
        {{m2ts}, 1, m2ts + " is not a transport stream"},
        {{"--loop", nopcr}, 1, "no PCR in " + nopcr},
        {{"udp://192.0.2.1:5004"}, 1, "unusable source udp://192.0.2.1:5004"},
        {{"udp://nowhere"}, 1, "unusable source udp://nowhere"},
        {{"--latency", "10001", ts}, 2, "--latency: '10001' is not a latency from 0 to 10000 ms"},
        {{"--device", "/dev/video0", "--capture", "x.cap", ts}, 2, "--capture"},
        {{}, 2, "no SOURCE"},
        {{"--latency", "100", "--buffer-size", "20000", "--duration", "1.5", ts},
         0,
         "alarm on:  code=122"},
        // The element's warnings are shown; an ERROR ends the run with status 1.
        {{"--latency", "100", "--buffer-size", "20000", "--duration", "1.5", ts},
         0,
         "warning: renderer: Output reset: There is not enough memory in fifo"},
        {{"--buffer-size", "100", ts}, 1, "\"buffer-size\" 100 bytes is below one transport packet"},
    };
    for (const auto& f : failures) {
        std::string out;
        EXPECT_EQ(run_player(f.args, out), f.rc) << f.message << "\n" << out;
        EXPECT_NE(out.find("kv-asi-play: " + f.message), std::string::npos) << out;
    }
    for (const std::string& path : {ts, nopcr, m2ts}) {
        unlink(path.c_str());
    }
}
