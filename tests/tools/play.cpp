// kv-asi-play: its file pacing on real captures and on a stream built here with a PCR
// wrap, a discontinuity, lost sync and a loop; its alarm manager across threads; and
// short runs of the program through the virtual board.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "kv_asi_analyzer.h"
#include "kv_play_alarms.h"
#include "kv_play_status.h"
#include "kv_ts_file_pacer.h"

using namespace kv_asi_play;

namespace {

constexpr uint64_t kPcrModulus = (uint64_t(1) << 33) * 300;

std::string temp_path(const std::string& name) {
    const char* dir = getenv("TMPDIR");
    return std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/kv_play_test_" +
           std::to_string(getpid()) + "_" + name;
}

std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void write_file(const std::string& path, const std::vector<uint8_t>& data) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
}

std::string corpus(const char* name) {
    const std::string path = std::string(KV_CORPUS_DIR) + "/" + name;
    return access(path.c_str(), R_OK) == 0 ? path : "";
}

// One packet, with a PCR when pcr is given.
void put_packet(std::vector<uint8_t>& out, uint16_t pid, uint8_t cc, const uint64_t* pcr,
                bool bDiscontinuity = false) {
    uint8_t p[188];
    std::fill(p, p + 188, 0xFF);
    p[0] = 0x47;
    p[1] = uint8_t((pid >> 8) & 0x1F);
    p[2] = uint8_t(pid);
    p[3] = uint8_t(0x10 | (cc & 0x0F));
    if (pcr != nullptr) {
        const uint64_t base = *pcr / 300;
        const uint64_t ext = *pcr % 300;
        p[3] |= 0x20;
        p[4] = 7;
        p[5] = uint8_t(0x10 | (bDiscontinuity ? 0x80 : 0));
        p[6] = uint8_t(base >> 25);
        p[7] = uint8_t(base >> 17);
        p[8] = uint8_t(base >> 9);
        p[9] = uint8_t(base >> 1);
        p[10] = uint8_t(((base & 1) << 7) | 0x7E | (ext >> 8));
        p[11] = uint8_t(ext);
    }
    out.insert(out.end(), p, p + 188);
}

struct chunk_record {
    int64_t tStream;
    uint64_t nOffset;
    uint32_t nPass;
    size_t nPackets;
};

std::vector<chunk_record> pace(ts_file_pacer& pacer, std::vector<uint8_t>& bytes,
                               size_t nMaxChunks = SIZE_MAX) {
    std::vector<chunk_record> chunks;
    ts_chunk c;
    while (chunks.size() < nMaxChunks && pacer.next(c)) {
        chunks.push_back({c.tStream, c.nOffset, c.nPass, c.data.size() / 188});
        bytes.insert(bytes.end(), c.data.begin(), c.data.end());
    }
    return chunks;
}

// Runs a program with its output in files; returns the exit status (-1 when killed).
int run_program(const std::vector<std::string>& args, std::string& out, std::string& err) {
    const std::string outPath = temp_path("stdout.txt");
    const std::string errPath = temp_path("stderr.txt");
    // GLib drops the quark table it allocates while loading once the table grows
    // (readers may still hold it); a sanitized player that sets up networking reaches
    // that size. Only allocations made by library constructors are excused, which needs
    // whole stacks: GLib has no frame pointers.
    const std::string supp = temp_path("lsan.supp");
    std::ofstream(supp) << "leak:_dl_init\n";
    const pid_t pid = fork();
    if (pid == 0) {
        const int o = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int e = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(o, STDOUT_FILENO);
        dup2(e, STDERR_FILENO);
        // A registry of its own and only the system's plugins in it.
        setenv("GST_REGISTRY", KV_PLAY_REGISTRY, 1);
        unsetenv("GST_PLUGIN_PATH");
        const auto append = [](const char* name, const std::string& option) {
            const char* v = getenv(name);
            setenv(name,
                   ((v != nullptr && *v != '\0' ? std::string(v) + ":" : "") + option).c_str(), 1);
        };
        append("ASAN_OPTIONS", "fast_unwind_on_malloc=0");
        append("LSAN_OPTIONS", "print_suppressions=0:suppressions=" + supp);
        std::vector<char*> argv;
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
    const std::vector<uint8_t> e = read_file(errPath);
    out.assign(o.begin(), o.end());
    err.assign(e.begin(), e.end());
    unlink(outPath.c_str());
    unlink(errPath.c_str());
    unlink(supp.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

// Every packet of real captures comes out once, in order, in chunks of at most 348
// packets; a chunk that starts with a PCR of the pacing PID carries exactly that PCR's
// time since the first one, and chunks between PCRs are spread over the interval.
TEST(PlayPacer, RealCapturesKeepEveryPacketAndFollowTheirPcrs) {
    int nFiles = 0;
    for (const char* name : {"test-072.ts", "test-025.ts", "test-143.ts"}) {
        const std::string path = corpus(name);
        if (path.empty()) {
            continue;
        }
        ++nFiles;
        SCOPED_TRACE(name);
        const std::vector<uint8_t> file = read_file(path);
        ts_file_pacer pacer;
        std::string error;
        ASSERT_TRUE(pacer.open(path, false, error)) << error;
        std::vector<uint8_t> bytes;
        const std::vector<chunk_record> chunks = pace(pacer, bytes);
        EXPECT_TRUE(pacer.error().empty()) << pacer.error();
        ASSERT_EQ(bytes, file);
        ASSERT_GE(pacer.pcr_pid(), 0);

        // The PCRs of the pacing PID, by file offset, unwrapped from the first one.
        uint64_t nFirst = 0, nLast = 0;
        bool bAny = false, bSteady = true;
        int64_t tUnwrapped = 0;
        std::vector<std::pair<uint64_t, int64_t>> anchors;
        for (size_t off = 0; off + 188 <= file.size() && bSteady; off += 188) {
            const uint8_t* p = &file[off];
            uint64_t pcr = 0;
            bool bDisc = false;
            if ((((p[1] & 0x1F) << 8) | p[2]) != pacer.pcr_pid() || !packet_pcr(p, pcr, bDisc)) {
                continue;
            }
            if (bAny) {
                const int64_t d = int64_t((pcr + kPcrModulus - nLast) % kPcrModulus);
                // Only the stretch before a discontinuity has exact times.
                bSteady = !bDisc && d > 0 && d < ts_file_pacer::kMaxPcrStep;
                tUnwrapped += d;
            } else {
                nFirst = pcr;
            }
            bAny = true;
            nLast = pcr;
            if (bSteady) {
                anchors.emplace_back(off, tUnwrapped);
            }
        }
        (void)nFirst;
        // test-143 steps away after eight PCRs; its later jumps only have to keep time
        // running forward.
        ASSERT_GE(anchors.size(), 8u);

        size_t a = 0;
        uint64_t offset = 0;
        int64_t tPrev = 0;
        for (size_t i = 0; i < chunks.size(); ++i) {
            const chunk_record& c = chunks[i];
            ASSERT_EQ(c.nOffset, offset);
            ASSERT_LE(c.nPackets, ts_file_pacer::kMaxChunkPackets);
            ASSERT_GE(c.tStream, tPrev);
            while (a < anchors.size() && anchors[a].first < c.nOffset) {
                ++a;
            }
            if (a < anchors.size() && anchors[a].first == c.nOffset) {
                ASSERT_EQ(c.tStream, ticks_to_units(anchors[a].second)) << "chunk " << i;
            } else if (a > 0 && a < anchors.size()) {
                // Inside an interval: its share of the interval by packet position.
                const int64_t d = anchors[a].second - anchors[a - 1].second;
                const int64_t n = int64_t(anchors[a].first - anchors[a - 1].first) / 188;
                const int64_t k = int64_t(c.nOffset - anchors[a - 1].first) / 188;
                ASSERT_EQ(c.tStream, ticks_to_units(anchors[a - 1].second + d * k / n)) << i;
            }
            offset += c.nPackets * 188;
            tPrev = c.tStream;
        }
    }
    if (nFiles == 0) {
        GTEST_SKIP() << "no corpus at " << KV_CORPUS_DIR;
    }
}

// A stream built here: packets before the first PCR, a PCR on another PID that must not
// pace, the PCR wrapping at 2^33 * 300, a discontinuity indicator, lost sync, an interval long
// enough to be split, and a tail after the last PCR; then the same file looped.
TEST(PlayPacer, WrapDiscontinuitySyncLossAndLoop) {
    constexpr int64_t kStep = 270000;  // 10 ms; ten packets between PCRs
    std::vector<uint8_t> file;
    std::vector<std::pair<uint64_t, int64_t>> anchors;  // offset, intended time in ticks
    uint8_t cc = 0;
    for (int i = 0; i < 3; ++i) {
        put_packet(file, 0, cc++, nullptr);
    }
    const uint64_t start = kPcrModulus - 5 * kStep;  // wraps between the third and fourth PCR
    int64_t t = 0;
    int64_t tJump = 0;
    uint64_t jumpBase = 0;
    int64_t lastStep = 0;
    size_t nJunk = 0;
    for (int k = 0; k < 40; ++k) {
        if (k == 20) {
            // An announced discontinuity that looks like an ordinary short step: 1000
            // ticks after the previous PCR.
            tJump = t;
            jumpBase = (start + uint64_t(anchors[19].second)) % kPcrModulus + 1000;
        }
        const uint64_t pcr =
            k >= 20 ? jumpBase + uint64_t(t - tJump) : (start + uint64_t(t)) % kPcrModulus;
        anchors.emplace_back(file.size(), t);
        put_packet(file, 0x101, cc++, &pcr, k == 20);
        // The long interval before the last PCR: 1000 packets over 100 ms.
        const int nPayload = k == 38 ? 999 : 9;
        for (int j = 0; j < nPayload; ++j) {
            const uint64_t bogus = 99 * kStep;
            put_packet(file, j == 4 ? 0x102 : 0x101, cc++, j == 4 ? &bogus : nullptr);
        }
        if (k == 10) {
            file.insert(file.end(), {0x00, 0x47, 0x00, 0x00, 0x00});  // no sync here
            nJunk = 5;
        }
        // Uneven steps, so that a step guessed from the previous one shows. Across the
        // discontinuity the pacer can only guess: the previous step is what it must use.
        const int64_t step = k == 38 ? 10 * kStep : kStep * (1 + k % 3);
        t += k == 19 ? lastStep : step;
        lastStep = step;
    }
    const size_t nTail = 4;
    for (size_t i = 0; i < nTail; ++i) {
        put_packet(file, 0x101, cc++, nullptr);
    }
    const std::string path = temp_path("synthetic.ts");
    write_file(path, file);

    ts_file_pacer pacer;
    std::string error;
    ASSERT_TRUE(pacer.open(path, true, error)) << error;
    std::vector<uint8_t> bytes;
    const std::vector<chunk_record> chunks = pace(pacer, bytes, 200);
    unlink(path.c_str());
    EXPECT_EQ(pacer.pcr_pid(), 0x101);
    size_t nPassesOverJunk = 0;
    for (const chunk_record& c : chunks) {
        nPassesOverJunk += c.nOffset == anchors[11].first;
    }
    EXPECT_EQ(pacer.skipped_bytes(), nJunk * nPassesOverJunk);

    // The packets of a pass are the file without the junk, and the passes follow on.
    std::vector<uint8_t> clean = file;
    const size_t junkAt = anchors[11].first - nJunk;
    clean.erase(clean.begin() + std::ptrdiff_t(junkAt),
                clean.begin() + std::ptrdiff_t(junkAt + nJunk));
    ASSERT_GT(bytes.size(), 2 * clean.size());
    EXPECT_TRUE(std::equal(clean.begin(), clean.end(), bytes.begin()));
    EXPECT_TRUE(
        std::equal(clean.begin(), clean.end(), bytes.begin() + std::ptrdiff_t(clean.size())));

    // Before the first PCR nothing can be measured: time 0.
    EXPECT_EQ(chunks[0].tStream, 0);
    EXPECT_EQ(chunks[0].nPackets, 3u);
    // The last interval (anchor, nine packets and the tail) at the rate of the long one.
    const int64_t kTickPerPacket = 10 * kStep / 1000;
    const int64_t tPassEnd = anchors[39].second + int64_t(10 + nTail) * kTickPerPacket;
    bool bSplit = false;
    for (size_t i = 1; i < chunks.size(); ++i) {
        const chunk_record& c = chunks[i];
        if (c.nPass == 0) {
            for (size_t k = 0; k < anchors.size(); ++k) {
                if (anchors[k].first == c.nOffset) {
                    // Across the wrap and the discontinuity the time runs on evenly.
                    ASSERT_EQ(c.tStream, ticks_to_units(anchors[k].second)) << "anchor " << k;
                }
            }
            if (c.nOffset == anchors[38].first + 348 * 188) {
                bSplit = true;
                EXPECT_EQ(c.tStream, ticks_to_units(anchors[38].second + 10 * kStep * 348 / 1000));
            }
        } else if (c.nPass == 1 && chunks[i - 1].nPass == 0) {
            // The tail ran on at the last interval's rate; the loop continues from there.
            EXPECT_EQ(c.nOffset, 0u);
            EXPECT_EQ(c.tStream, ticks_to_units(tPassEnd));
            EXPECT_EQ(chunks[i + 1].tStream, ticks_to_units(tPassEnd + 3 * kTickPerPacket));
        }
    }
    EXPECT_TRUE(bSplit);
}

TEST(PlayPacer, RefusesWhatItCannotPace) {
    ts_file_pacer missing;
    std::string error;
    EXPECT_FALSE(missing.open(temp_path("absent.ts"), false, error));
    EXPECT_NE(error.find("cannot open"), std::string::npos) << error;

    // 192-byte packets: a sync byte every 192 bytes is no 188-byte stream.
    std::vector<uint8_t> m2ts(192 * 20, 0);
    for (size_t i = 4; i < m2ts.size(); i += 192) {
        m2ts[i] = 0x47;
    }
    const std::string path = temp_path("m2ts.ts");
    write_file(path, m2ts);
    ts_file_pacer wrong;
    EXPECT_FALSE(wrong.open(path, false, error));
    EXPECT_NE(error.find("not a transport stream"), std::string::npos) << error;

    // Whole packets without any PCR: nothing to pace by, also when looping.
    std::vector<uint8_t> plain;
    for (int i = 0; i < 50; ++i) {
        put_packet(plain, 0x100, uint8_t(i), nullptr);
    }
    write_file(path, plain);
    ts_file_pacer nopcr;
    ASSERT_TRUE(nopcr.open(path, true, error));
    ts_chunk c;
    EXPECT_FALSE(nopcr.next(c));
    EXPECT_NE(nopcr.error().find("no PCR"), std::string::npos) << nopcr.error();
    unlink(path.c_str());
}

TEST(PlayStatus, ReadsTheElementsRowsAndEstimatesProgress) {
    int64_t u = 0;
    EXPECT_TRUE(parse_clock_text("000:00:01.180", u));
    EXPECT_EQ(u, 11'800'000);
    EXPECT_TRUE(parse_clock_text("1000:00:00.000", u));
    EXPECT_EQ(u, 1000LL * 3600 * 10'000'000);
    EXPECT_TRUE(parse_clock_text("-000:00:00.005", u));
    EXPECT_EQ(u, -50'000);
    for (const char* bad : {"", "00:00:01.18", "000:60:00.000", "000:00:01.1800", "000:00:01"}) {
        EXPECT_FALSE(parse_clock_text(bad, u)) << bad;
    }

    const statistics_rows rows = {
        {"Device time", "000:00:09.000"},   {"Stream time", "001:00:00.000"},
        {"Fullness fifo", "000:00:01.000"}, {"Skip HW frames", "2"},
        {"Skip TS packets", "7"},           {"Reset", "1"},
        {"Pid PCR [ns]: #256", "-3"},       {"Last error", "Fifo emptied"}};
    const element_status s = read_status(rows);
    EXPECT_EQ(s.tDevice, 90'000'000);
    EXPECT_EQ(s.tFifo, 10'000'000);
    const std::string line = status_line(s, nullptr, "");
    for (const char* part :
         {"device 000:00:09.000", "fifo 000:00:01.000", "skipped 2 frames 7 packets", "resets 1",
          "last error: Fifo emptied"}) {
        EXPECT_NE(line.find(part), std::string::npos) << line;
    }

    // Half a 20 s file handed over, 1 s of it still in the FIFO: 9 s played of 20.
    file_progress p = estimate_progress(2000, 1000, 100'000'000, 10'000'000, -1);
    EXPECT_DOUBLE_EQ(p.fraction, 0.45);
    EXPECT_EQ(p.tLeft, 110'000'000);
    p = estimate_progress(2000, 2000, 200'000'000, 0, 200'000'000);
    EXPECT_DOUBLE_EQ(p.fraction, 1.0);
    EXPECT_EQ(p.tLeft, 0);
    EXPECT_EQ(progress_bar(0.5, 4), "[##--]");
    EXPECT_EQ(progress_bar(1.5, 2), "[##]");
}

namespace {

// An alarm whose state the test sets.
class test_alarm : public kv_i_alarm_event {
public:
    explicit test_alarm(std::string key) : m_key(std::move(key)) {}
    bool check() override { return m_bActive.load(); }
    void reset() override { m_bActive = false; }
    void event(long) override { m_bActive = true; }
    bool active() override { return m_bActive.load(); }
    std::string hash() override { return m_key; }
    std::string get_log_message() override { return "alarm " + m_key; }
    std::atomic<bool> m_bActive{false};

private:
    const std::string m_key;
};

}  // namespace

// The element registers and unregisters on its thread and raises events on the output
// thread while the player polls on its own; each change is reported once.
TEST(PlayAlarmsConcurrency, PollReportsEachChangeOnceWhileRegistrationsChurn) {
    play_alarm_manager manager;
    auto a = std::make_shared<test_alarm>("a");
    auto b = std::make_shared<test_alarm>("b");
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
    a->event(1);
    std::vector<alarm_change> changes = manager.poll();
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_TRUE(changes[0].bActive);
    EXPECT_EQ(changes[0].strMessage, "alarm a");
    EXPECT_TRUE(manager.poll().empty());
    a->reset();
    changes = manager.poll();
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_FALSE(changes[0].bActive);

    // An alarm that is active when registered is reported at the next poll; an
    // unregistered one no more.
    b->event(1);
    manager.register_alarm(b);
    EXPECT_EQ(manager.poll().size(), 1u);
    manager.unregister_alarm(b);
    b->reset();
    EXPECT_TRUE(manager.poll().empty());
    EXPECT_EQ(manager.size(), 1u);
}

// A two-second piece of a real capture played to its end through the virtual board:
// the statistics line shows, the program ends by itself, and the line carries every
// packet the element can time, in order, none missing, repeated or altered.
TEST(PlayRun, PlaysACaptureToItsEndThroughTheVirtualBoard) {
    const std::string src = corpus("test-072.ts");
    if (src.empty()) {
        GTEST_SKIP() << "no corpus at " << KV_CORPUS_DIR;
    }
    const std::vector<uint8_t> file = read_file(src);
    // Cut after two seconds of PCRs.
    size_t nEnd = 0, nFirstPcr = SIZE_MAX, nLastPcr = 0;
    uint64_t first = 0;
    for (size_t off = 0; off + 188 <= file.size(); off += 188) {
        uint64_t pcr = 0;
        bool bDisc = false;
        if ((((file[off + 1] & 0x1F) << 8) | file[off + 2]) == 0x65 &&
            packet_pcr(&file[off], pcr, bDisc)) {
            if (nFirstPcr == SIZE_MAX) {
                nFirstPcr = off / 188;
                first = pcr;
            }
            nLastPcr = off / 188;
            if (pcr - first >= 2 * uint64_t(kTicksPerSecond)) {
                nEnd = off + 188 * 20;
                break;
            }
        }
    }
    ASSERT_GT(nEnd, 0u);
    const std::string piece = temp_path("piece.ts");
    const std::string capture = temp_path("line.cap");
    write_file(piece, std::vector<uint8_t>(file.begin(), file.begin() + std::ptrdiff_t(nEnd)));

    std::string out, err;
    const int rc = run_program(
        {KV_PLAY_EXE, "--latency", "200", "--duration", "30", "--capture", capture, piece}, out,
        err);
    EXPECT_EQ(rc, 0) << out << err;
    EXPECT_NE(out.find("device 000:00:0"), std::string::npos) << out;
    EXPECT_NE(out.find(" fifo "), std::string::npos) << out;
    EXPECT_NE(out.find("end of " + piece), std::string::npos) << out;

    kv_asi_analyze::report r;
    std::string error;
    ASSERT_TRUE(kv_asi_analyze::analyze_files(capture, piece, r, error)) << error;
    unlink(piece.c_str());
    unlink(capture.c_str());
    EXPECT_EQ(r.source.missing, 0u);
    EXPECT_EQ(r.source.repeated, 0u);
    EXPECT_EQ(r.source.altered, 0u);
    EXPECT_TRUE(r.cc_errors.empty());
    // Only what the element cannot time stays unsent: before the first PCR, and from the
    // last PCR on (it waits for a PCR that never comes).
    EXPECT_LE(r.source.unsent_head, nFirstPcr);
    EXPECT_LE(r.source.unsent_tail, nEnd / 188 - nLastPcr);
    EXPECT_EQ(r.source.matched + r.source.unsent_head + r.source.unsent_tail, nEnd / 188);
}

// A FIFO far too small for the stream overflows: the element's overflow alarm reaches
// the player's manager and is shown; the run still ends cleanly at --duration.
TEST(PlayRun, ShowsTheElementsAlarms) {
    const std::string src = corpus("test-025.ts");
    if (src.empty()) {
        GTEST_SKIP() << "no corpus at " << KV_CORPUS_DIR;
    }
    std::string out, err;
    const int rc = run_program(
        {KV_PLAY_EXE, "--latency", "100", "--buffer-size", "20000", "--duration", "1.5", src}, out,
        err);
    EXPECT_EQ(rc, 0) << out << err;
    EXPECT_NE(out.find("alarm on:  code=122"), std::string::npos) << out;
    EXPECT_NE(out.find("source=kv-asi-play, description=Output buffer overflow"), std::string::npos)
        << out;
}

TEST(PlayRun, FailuresExitNonZeroWithAMessage) {
    std::vector<uint8_t> stream;
    for (int i = 0; i < 100; ++i) {
        const uint64_t pcr = uint64_t(i) * 27000;
        put_packet(stream, 0x100, uint8_t(i), i % 10 == 0 ? &pcr : nullptr);
    }
    const std::string ts = temp_path("small.ts");
    write_file(ts, stream);
    const std::string text = temp_path("text.ts");
    write_file(text, std::vector<uint8_t>(4000, 'x'));

    struct failure {
        std::vector<std::string> args;
        int rc;
        const char* message;
    };
    const std::vector<failure> failures = {
        {{temp_path("absent.ts")}, 1, "cannot open"},
        {{"--device", "/dev/kv-play-test-absent", ts},
         1,
         "cannot open the device /dev/kv-play-test-absent"},
        {{text}, 1, "is not a transport stream"},  // after the file's name
        {{"udp://192.0.2.1:5004"}, 1, "unusable source udp://192.0.2.1:5004"},
        {{"udp://nowhere"}, 1, "unusable source udp://nowhere"},
        {{"--latency", "10001", ts}, 2, "bad --latency"},
        {{"--device", "/dev/video0", "--capture", "x.cap", ts}, 2, "--capture"},
        {{}, 2, "no SOURCE"},
    };
    for (const failure& f : failures) {
        std::vector<std::string> args = {KV_PLAY_EXE};
        args.insert(args.end(), f.args.begin(), f.args.end());
        std::string out, err;
        EXPECT_EQ(run_program(args, out, err), f.rc) << f.message << "\n" << out << err;
        EXPECT_EQ(err.compare(0, 13, "kv-asi-play: "), 0) << err;
        EXPECT_NE(err.find(f.message), std::string::npos) << err;
    }
    unlink(ts.c_str());
    unlink(text.c_str());
}
