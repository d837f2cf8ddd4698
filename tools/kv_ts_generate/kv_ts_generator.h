#pragma once

// Constant-rate test transport streams.
//
// One program with one elementary stream: PAT, PMT and SDT sections written with the core's
// table classes and repeated at a fixed interval, PCR-bearing packets at exact packet
// positions, payload packets whose bytes are derived from their position in the stream,
// and, when asked for, null packets. The line rate is exact: packet i leaves at
// i * 1504 / rate seconds and its PCR is pcr_start + round(i * 1504 * 27e6 / rate), so a
// line that carries the stream at its rate reproduces every PCR to the tick. PCRs sit
// every pcr_spacing() packets from packet 0 and in the last packet, so that a player paced
// by PCRs can time the stream up to that last packet.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace kv_ts_generate {

constexpr size_t kPacketSize = 188;
constexpr uint64_t kPacketBits = kPacketSize * 8;
constexpr uint64_t kPcrHz = 27000000;
// PCRs count modulo 2^33 * 300 ticks (about 26.5 hours).
constexpr uint64_t kPcrWrap = (uint64_t(1) << 33) * 300;
constexpr uint64_t kMaxRate = 10000000000ull;  // 10 Gbit/s
constexpr uint16_t kNullPid = 0x1FFF;
constexpr uint16_t kPatPid = 0x0000;
constexpr uint16_t kSdtPid = 0x0011;

struct options {
    uint64_t rate_bps = 0;  // line rate, bits per second
    uint64_t packets = 0;   // stream length in packets
    uint64_t pcr_interval_ns = 30000000;
    uint64_t psi_interval_ns = 100000000;
    uint64_t pcr_start = 0;  // PCR of packet 0 in 27 MHz ticks, below kPcrWrap

    uint16_t transport_stream_id = 1;
    uint16_t original_network_id = 1;
    uint16_t program_number = 1;
    uint16_t pmt_pid = 0x0100;
    uint16_t es_pid = 0x0101;
    uint16_t pcr_pid = 0x0101;  // the elementary PID, or a PID carrying only PCRs
    uint8_t stream_type = 0x02;
    std::string service_name = "Test service";
    std::string provider_name = "Test";

    // Without null filling every packet that is neither PSI nor a PCR packet is a payload
    // packet. With it, packets of the elementary PID (PCR packets on it included) run at
    // payload_rate_bps and null packets take the remaining room; 0 means half the rate.
    bool fill_null = false;
    uint64_t payload_rate_bps = 0;
};

// PCR of packet `index`: pcr_start + round(index * 1504 * 27e6 / rate_bps), half a tick
// rounded up, modulo kPcrWrap.
uint64_t pcr_of_packet(uint64_t pcr_start, uint64_t rate_bps, uint64_t index);
// Packets that fill `duration_ns` at the rate, rounded to the nearest, half up.
uint64_t packets_for_duration(uint64_t rate_bps, uint64_t duration_ns);
// Whole packets that leave within `interval_ns` at the rate (rounded down).
uint64_t packets_within(uint64_t rate_bps, uint64_t interval_ns);

enum class packet_kind { pcr, psi, payload, null_packet };

// Produces the stream packet by packet. The PSI packets are built once by init(); the
// per-packet path only fills the 188 bytes it is given.
class generator {
public:
    // Checks the options and builds the sections. False with a one-line error text.
    bool init(const options& o, std::string& error);

    // Writes the next packet into `out` (188 bytes). Past the end it writes nothing and
    // returns null_packet; check remaining() first.
    packet_kind next(uint8_t* out);
    // Writes up to `count` packets (count * 188 bytes) and returns how many it wrote.
    size_t fill(uint8_t* out, size_t count);

    uint64_t position() const { return m_nIndex; }
    uint64_t remaining() const { return m_opt.packets - m_nIndex; }
    const options& config() const { return m_opt; }

    // Packets from one PCR packet to the next (the last packet, a PCR packet too, may
    // follow its predecessor sooner).
    uint64_t pcr_spacing() const { return m_nPcrSpacing; }
    // Packets from the start of one PSI repetition to the next. Each repetition sends the
    // PAT, PMT and SDT packets in that order in the first slots from its start that are
    // not PCR slots.
    uint64_t psi_period() const { return m_nPsiPeriod; }
    // Packets in one repetition (one per section unless a section needs more).
    size_t psi_packets() const { return m_psi.size(); }

private:
    struct psi_packet {
        uint8_t bytes[kPacketSize];
        uint8_t cc_slot;  // which continuity counter (PAT, PMT, SDT) the packet advances
    };
    bool build_psi(std::string& error);
    bool build_pat(std::string& error);
    bool build_pmt(std::string& error);
    bool build_sdt(std::string& error);
    // Splits a section into packets of `pid` (pointer field 0, 0xFF stuffing) and appends
    // them to the repetition. A size of 0 means the section did not fit: false with
    // "the <name> section does not fit".
    bool packetize_section(uint16_t pid, uint8_t cc_slot, const char* name, const uint8_t* section,
                           size_t size, std::string& error);
    void write_pcr(uint8_t* out);
    void write_payload(uint8_t* out);
    void write_null(uint8_t* out);

    options m_opt;
    uint64_t m_nPcrSpacing = 1;
    uint64_t m_nPsiPeriod = 1;
    std::vector<psi_packet> m_psi;

    uint64_t m_nIndex = 0;
    uint64_t m_nNextPsi = 0;     // slot at which the next repetition becomes due
    size_t m_nPsiPending = 0;    // next packet of the current repetition; size() when idle
    uint64_t m_nPayloadDue = 0;  // elementary-PID packets due so far (null filling)
    uint64_t m_nPayloadAcc = 0;  // remainder of payload_rate * slots / rate
    uint64_t m_nPayloadSent = 0;
    uint8_t m_ccPsi[3] = {0, 0, 0};
    uint8_t m_ccEs = 0;
    uint8_t m_ccPcr = 0;  // PCR-only PID: adaptation-only packets keep their counter
};

// The whole stream in memory.
bool generate(const options& o, std::vector<uint8_t>& out, std::string& error);

// Writes the stream to `f`. `progress`, when set, is called about once a second of wall
// time with the packets written so far. False with a one-line error text when a write
// fails.
bool write_stream(const options& o, FILE* f, std::string& error,
                  const std::function<void(uint64_t done, uint64_t total)>& progress = {});

// Command line.

// "38M", "5000k", "38000000", "38.5M", "1G": bits per second, a whole number.
bool parse_rate(const std::string& text, uint64_t& bps);
// A decimal number of time with an optional unit "s", "ms", "us" or "ns"; a bare number
// counts in `bare_unit_ns`. Must be a whole number of nanoseconds.
bool parse_time(const std::string& text, uint64_t bare_unit_ns, uint64_t& ns);

struct command_line {
    options opt;
    std::string output;  // "-" is standard output
    bool quiet = false;
};

// Parses the arguments (without the program name). -1 when the program goes on; else the
// exit status once the help or version (on `out`) or a one-line error (on `err`) was
// printed.
int parse_command_line(const std::vector<std::string>& args, command_line& cl, FILE* out,
                       FILE* err);

// The program: 0 on success, 1 when the output cannot be written, 2 on bad usage. Errors
// and the progress line go to `err_file`.
int run(const std::vector<std::string>& args, FILE* err_file);

}  // namespace kv_ts_generate
