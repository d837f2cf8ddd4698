#pragma once

// Analysis of a capture of the ASI line: 192-byte records, each a 4-byte big-endian
// stamp (the 30-bit index of the packet's first word on the 27 MHz word clock) and the
// 188-byte packet. Reports the rate, the idle share of the line, continuity errors,
// PCR repetition and PCR accuracy, and optionally whether the packets sent are those of
// a source transport stream, in order.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace kv_asi_analyze {

constexpr size_t kPacketSize = 188;
constexpr size_t kRecordSize = 192;
constexpr double kWordsPerSecond = 27e6;
// PCR accuracy limit of ETSI TR 101 290.
constexpr double kPcrAccuracyLimitNs = 500.0;
// Line words in one 20 ms output frame.
constexpr uint64_t kWordsPerFrame = 540000;
// Frames at the start of the line left out of the PCR accuracy by default: the device
// primes six buffers before its first one comes back, and that first one is numbered as
// the line's seventh frame, so everything before it sits one frame (20 ms) apart from
// everything after it.
constexpr unsigned kDefaultStartUpFrames = 0;

struct pcr_report {
    uint16_t pid = 0;
    uint64_t pcrs = 0;
    uint64_t start_up_pcrs = 0;  // PCRs in the start-up frames, left out of the accuracy
    double max_interval_ms = 0;  // longest gap between PCRs on the line
    // PCR value against the packet's time on the line, constant offset removed.
    double offset_max_ns = 0;
    double offset_rms_ns = 0;
    // The same with the linear drift removed as well (the PCR accuracy proper).
    double drift_max_ns = 0;
    double drift_rms_ns = 0;
    double drift_ppm = 0;  // PCR clock rate against the line's, parts per million
    uint32_t discontinuities = 0;
};

struct source_report {
    bool checked = false;
    uint64_t source_packets = 0;
    uint64_t matched = 0;              // records equal to the next source packet in order
    uint64_t missing = 0;              // source packets skipped between sent ones
    uint64_t repeated = 0;             // records repeating a source packet already sent
    uint64_t altered = 0;              // records equal to no source packet where one was expected
    uint64_t unsent_head = 0;          // source packets before the first one sent
    uint64_t unsent_tail = 0;          // source packets after the last one sent
    std::vector<std::string> details;  // the first few differences, in order
};

struct report {
    uint64_t packets = 0;
    double duration_s = 0;                   // first packet's stamp to the last one's
    double bitrate_bps = 0;                  // transport-stream rate over that span
    double idle_share = 0;                   // share of line words not carrying packet bytes
    std::map<uint16_t, uint64_t> cc_errors;  // PIDs with continuity errors
    std::vector<pcr_report> pcr;             // per PCR PID, ascending
    source_report source;

    // Whether every PCR PID's accuracy (drift removed) is within limit_ns.
    bool pcr_within(double limit_ns) const;
};

class capture_analyzer {
public:
    capture_analyzer();
    ~capture_analyzer();

    // The source the capture should reproduce: whole 188-byte packets. Call before add.
    void set_source(std::vector<uint8_t> source);
    // PCRs sent in the line's first `frames` frames count as PCRs but are left out of
    // the accuracy figures (none by default). Call before add.
    void set_start_up_frames(unsigned frames) { m_nStartUpWords = frames * kWordsPerFrame; }
    // One capture record's stamp (30 bits) and packet.
    void add(uint32_t stamp, const uint8_t* packet);
    report finish();

private:
    struct pid_state;
    struct source_index;
    void check_continuity(uint16_t pid, const uint8_t* p);
    void take_pcr(uint16_t pid, const uint8_t* p, uint64_t t);
    static pcr_report pcr_accuracy(uint16_t pid, const pid_state& s);
    void check_source(const uint8_t* p);
    void note(const std::string& text);

    uint64_t m_nPackets = 0;
    bool m_bFirst = true;
    uint32_t m_nLastStamp = 0;
    uint64_t m_tFirst = 0;
    uint64_t m_tLine = 0;  // unwrapped word index of the last record
    uint64_t m_nStartUpWords = 0;
    std::map<uint16_t, pid_state> m_pids;
    std::unique_ptr<source_index> m_pSource;
    source_report m_source;
};

// Reads and analyses a capture file, and the source when its path is not empty. False
// with a one-line error text for unreadable, truncated or malformed files.
bool analyze_files(const std::string& capture, const std::string& source, report& out,
                   std::string& error, unsigned start_up_frames = 0);

std::string format_text(const report& r, double max_pcr_ac_ns);
std::string format_json(const report& r, double max_pcr_ac_ns);

// The command line: kv-asi-analyze CAPTURE [--source FILE.ts] [--json] [--max-pcr-ac NS]
// [--start-up FRAMES] (kDefaultStartUpFrames unless given).
// Returns the exit status: 0, 1 when a PCR PID exceeds --max-pcr-ac, 2 on bad usage or
// a bad file.
int run(const std::vector<std::string>& args, std::string& out, std::string& err);

}  // namespace kv_asi_analyze
