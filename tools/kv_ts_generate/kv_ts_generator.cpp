#include "kv_ts_generator.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <memory>

#include "kv_cli.h"
#include "kvcore/kv_bitstream.h"
#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "mpegcore/SDT.h"
#include "mpegcore/TransportPacket.h"
#include "mpegcore/descriptors_dvb.h"
#include "mpegcore/kvdescriptorlist.h"

namespace kv_ts_generate {

namespace {

using u128 = unsigned __int128;

constexpr uint64_t kNsPerSecond = 1000000000ull;
constexpr uint8_t kSync = 0x47;
// Smallest PID a generated stream may use: 0x0000..0x001F are the fixed PSI/SI PIDs.
constexpr uint16_t kFirstFreePid = 0x0020;
constexpr size_t kMaxSection = 1024;
// Slots of the continuity counters of the PSI PIDs.
enum : uint8_t { kCcPat = 0, kCcPmt = 1, kCcSdt = 2 };
// Packets per write of write_stream().
constexpr size_t kChunkPackets = 1024;

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
    char text[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    return text;
}

// The 4-byte packet header; no error, priority or scrambling bits.
void write_header(uint8_t* out, bool pusi, uint16_t pid, uint8_t afc, uint8_t cc) {
    out[0] = kSync;
    out[1] = static_cast<uint8_t>((pusi ? 0x40 : 0x00) | ((pid >> 8) & 0x1F));
    out[2] = static_cast<uint8_t>(pid & 0xFF);
    out[3] = static_cast<uint8_t>((afc << 4) | (cc & 0x0F));
}

// The flags byte with PCR_flag set and the six PCR bytes: 33-bit base, 6 reserved bits
// (ones), 9-bit extension.
void write_pcr_field(uint8_t* packet, uint64_t pcr) {
    packet[5] = 0x10;  // PCR_flag
    packet[10] = 0x7E;
    mpegcore::packet_bytes::set_pcr(packet, pcr);
}

// Payload bytes of packet `index`: the index as 8 bytes big-endian, then a byte counter
// starting at the index's low byte. Every payload packet of a stream is different, so a
// changed byte makes a packet match no source packet.
void write_pattern(uint8_t* out, size_t n, uint64_t index) {
    for (size_t k = 0; k < 8 && k < n; ++k) {
        out[k] = static_cast<uint8_t>(index >> (56 - 8 * k));
    }
    for (size_t k = 8; k < n; ++k) {
        out[k] = static_cast<uint8_t>(index + k);
    }
}

// A decimal "digits[.digits]" at the start of `text`: its digits as an integer and the
// number of digits after the point. `rest` is what follows. False when there are no
// digits or too many to hold exactly.
bool parse_decimal(const std::string& text, u128& digits, unsigned& frac, std::string& rest) {
    size_t i = 0;
    digits = 0;
    frac = 0;
    unsigned count = 0;
    bool point = false;
    for (; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '.' && !point) {
            point = true;
        } else if (c >= '0' && c <= '9') {
            if (++count > 30) {
                return false;
            }
            digits = digits * 10 + unsigned(c - '0');
            if (point) {
                ++frac;
            }
        } else {
            break;
        }
    }
    rest = text.substr(i);
    return count > 0;
}

// Writes a table's whole section (header, body and CRC) into `out`; its size in bytes, or
// 0 when it does not fit.
template <class Table>
size_t write_section(Table& table, uint8_t (&out)[kMaxSection]) {
    KVSDK::KVBSWriter w(out, kMaxSection);
    if (!table.write(w)) {
        return 0;
    }
    w.flush();
    return w.getWritedBytes();
}

u128 pow10(unsigned n) {
    u128 v = 1;
    while (n-- > 0) {
        v *= 10;
    }
    return v;
}

// digits / 10^frac * scale, exactly; false when it is not a whole number or too large.
bool scale_exact(u128 digits, unsigned frac, uint64_t scale, uint64_t limit, uint64_t& out) {
    const u128 value = digits * scale;
    const u128 div = pow10(frac);
    if (value % div != 0 || value / div > limit) {
        return false;
    }
    out = static_cast<uint64_t>(value / div);
    return true;
}

}  // namespace

uint64_t pcr_of_packet(uint64_t pcr_start, uint64_t rate_bps, uint64_t index) {
    const u128 num = u128(index) * kPacketBits * kPcrHz;
    const u128 ticks = (2 * num + rate_bps) / (2 * u128(rate_bps));
    return static_cast<uint64_t>((pcr_start + ticks) % kPcrWrap);
}

uint64_t packets_for_duration(uint64_t rate_bps, uint64_t duration_ns) {
    const u128 num = u128(duration_ns) * rate_bps;
    const u128 den = u128(kPacketBits) * kNsPerSecond;
    return static_cast<uint64_t>((2 * num + den) / (2 * den));
}

uint64_t packets_within(uint64_t rate_bps, uint64_t interval_ns) {
    return static_cast<uint64_t>(u128(interval_ns) * rate_bps / (u128(kPacketBits) * kNsPerSecond));
}

namespace {

// The options' own limits, before anything is built from them.
bool check_options(const options& o, std::string& error) {
    if (o.rate_bps == 0 || o.rate_bps > kMaxRate) {
        error = format("rate %llu bit/s out of range (1 to %llu)", (unsigned long long)o.rate_bps,
                       (unsigned long long)kMaxRate);
        return false;
    }
    if (o.packets == 0) {
        error = "the stream would hold no packet";
        return false;
    }
    if (o.pcr_start >= kPcrWrap) {
        error = format("PCR start %llu is not below %llu", (unsigned long long)o.pcr_start,
                       (unsigned long long)kPcrWrap);
        return false;
    }
    const struct {
        const char* name;
        uint16_t pid;
    } pids[] = {{"PMT", o.pmt_pid}, {"elementary", o.es_pid}, {"PCR", o.pcr_pid}};
    for (const auto& p : pids) {
        if (p.pid < kFirstFreePid || p.pid >= kNullPid) {
            error = format("%s PID 0x%04X out of range (0x%04X to 0x%04X)", p.name, p.pid,
                           kFirstFreePid, kNullPid - 1);
            return false;
        }
    }
    if (o.pmt_pid == o.es_pid || o.pmt_pid == o.pcr_pid) {
        error =
            format("PMT PID 0x%04X is also used for the elementary stream or the PCRs", o.pmt_pid);
        return false;
    }
    if (o.program_number == 0) {
        error = "program number 0 is reserved for the network PID";
        return false;
    }
    if (o.fill_null && o.payload_rate_bps > o.rate_bps) {
        error = format("payload rate %llu bit/s exceeds the rate %llu bit/s",
                       (unsigned long long)o.payload_rate_bps, (unsigned long long)o.rate_bps);
        return false;
    }
    return true;
}

}  // namespace

bool generator::init(const options& o, std::string& error) {
    m_opt = o;
    m_psi.clear();
    m_nIndex = 0;
    m_nNextPsi = 0;
    m_nPsiPending = 0;
    m_nPayloadDue = 0;
    m_nPayloadAcc = 0;
    m_nPayloadSent = 0;
    std::memset(m_ccPsi, 0, sizeof(m_ccPsi));
    m_ccEs = 0;
    m_ccPcr = 0;
    if (!check_options(o, error)) {
        return false;
    }
    if (o.fill_null && o.payload_rate_bps == 0) {
        m_opt.payload_rate_bps = o.rate_bps / 2;
    }

    m_nPcrSpacing = packets_within(o.rate_bps, o.pcr_interval_ns);
    if (m_nPcrSpacing == 0) {
        error = format("PCR interval %.3f ms is shorter than one packet at %llu bit/s",
                       o.pcr_interval_ns / 1e6, (unsigned long long)o.rate_bps);
        return false;
    }
    m_nPsiPeriod = packets_within(o.rate_bps, o.psi_interval_ns);
    if (!build_psi(error)) {
        return false;
    }
    // A repetition must be sent within its period, in the slots that PCRs leave free (at
    // most ceil(period / spacing) of any period's slots are PCR slots).
    const uint64_t pcrSlots = (m_nPsiPeriod + m_nPcrSpacing - 1) / m_nPcrSpacing;
    if (m_nPsiPeriod < pcrSlots + m_psi.size()) {
        error = format(
            "PSI interval %.3f ms is too short at %llu bit/s: %zu PSI packets do not "
            "fit in %llu packets beside the PCRs",
            o.psi_interval_ns / 1e6, (unsigned long long)o.rate_bps, m_psi.size(),
            (unsigned long long)m_nPsiPeriod);
        return false;
    }
    m_nPsiPending = m_psi.size();
    return true;
}

bool generator::packetize_section(uint16_t pid, uint8_t cc_slot, const char* name,
                                  const uint8_t* section, size_t size, std::string& error) {
    if (size == 0) {
        error = format("the %s section does not fit", name);
        return false;
    }
    size_t done = 0;
    bool first = true;
    while (done < size) {
        psi_packet p;
        std::memset(p.bytes, 0xFF, sizeof(p.bytes));
        p.cc_slot = cc_slot;
        write_header(p.bytes, first, pid, 1, 0);
        size_t at = 4;
        if (first) {
            p.bytes[at++] = 0;  // pointer field: the section starts right behind it
        }
        const size_t n = std::min(kPacketSize - at, size - done);
        std::memcpy(p.bytes + at, section + done, n);
        done += n;
        first = false;
        m_psi.push_back(p);
    }
    return true;
}

bool generator::build_psi(std::string& error) {
    return build_pat(error) && build_pmt(error) && build_sdt(error);
}

namespace {

// The header of a current table, version 0, section 0 of 0, its reserved bits set; `zero`
// is the bit after section_syntax_indicator.
void set_header(mpegcore::CLongSectionTable& t, uint8_t table_id, uint8_t zero) {
    t.table_id = table_id;
    t.section_syntax_indicator = 1;
    t.zero = zero;
    t.reserved = 3;
    t.reserved1 = 3;
    t.version_number = 0;
    t.current_next_indicator = 1;
}

}  // namespace

bool generator::build_pat(std::string& error) {
    uint8_t section[kMaxSection];
    mpegcore::CPAT pat;
    set_header(pat, 0x00, 0);
    pat.transport_stream_id = m_opt.transport_stream_id;
    mpegcore::CBaseMpegProgram program;
    program.program_number = m_opt.program_number;
    program.reserved = 7;
    program.map_PID.program_map_PID = m_opt.pmt_pid;
    program.SetValid();
    pat.program_map[m_opt.pmt_pid] = program;
    return packetize_section(kPatPid, kCcPat, "PAT", section, write_section(pat, section), error);
}

bool generator::build_pmt(std::string& error) {
    uint8_t section[kMaxSection];
    mpegcore::CPMT pmt;
    set_header(pmt, 0x02, 0);
    pmt.program_number = m_opt.program_number;
    pmt.reserved2 = 7;
    pmt.PCR_PID = m_opt.pcr_pid;
    pmt.reserved3 = 0xF;
    auto stream = std::make_shared<mpegcore::CBaseStreamTypeMap>();
    stream->stream_type = m_opt.stream_type;
    stream->reserved1 = 7;
    stream->elementary_PID = m_opt.es_pid;
    stream->reserved2 = 0xF;
    pmt.stream_map[m_opt.es_pid] = stream;
    return packetize_section(m_opt.pmt_pid, kCcPmt, "PMT", section, write_section(pmt, section),
                             error);
}

bool generator::build_sdt(std::string& error) {
    if (m_opt.service_name.size() > 255 || m_opt.provider_name.size() > 255) {
        error = "service and provider names are limited to 255 bytes";
        return false;
    }
    mpegcore::CSDT sdt;
    set_header(sdt, 0x42, 1);  // actual transport stream; reserved_future_use
    sdt.transport_stream_id = m_opt.transport_stream_id;
    sdt.original_network_id = m_opt.original_network_id;
    sdt.reserved_future_use1 = 0xFF;
    auto service = std::make_shared<mpegcore::CServiceDescriptionSection>();
    service->service_id = m_opt.program_number;
    service->reserved_future_use = 0x3F;
    service->running_status = 4;  // running
    auto name = std::make_shared<mpegcore::service_descriptor>();
    name->service_type = 0x01;  // digital television
    name->service_provider_name = m_opt.provider_name;
    name->service_name = m_opt.service_name;
    service->descriptors.descriptor.push_back(name);
    sdt.sds[service->service_id] = service;
    uint8_t section[kMaxSection];
    return packetize_section(kSdtPid, kCcSdt, "SDT", section, write_section(sdt, section), error);
}

void generator::write_pcr(uint8_t* out) {
    const uint64_t pcr = pcr_of_packet(m_opt.pcr_start, m_opt.rate_bps, m_nIndex);
    if (m_opt.pcr_pid == m_opt.es_pid) {
        // Adaptation field of 7 bytes (flags and PCR) and 176 payload bytes.
        write_header(out, false, m_opt.es_pid, 3, m_ccEs);
        m_ccEs = (m_ccEs + 1) & 0x0F;
        out[4] = 7;
        write_pcr_field(out, pcr);
        write_pattern(out + 12, kPacketSize - 12, m_nIndex);
        ++m_nPayloadSent;
    } else {
        // Adaptation field only: the counter does not advance on such packets.
        write_header(out, false, m_opt.pcr_pid, 2, m_ccPcr);
        out[4] = 183;
        write_pcr_field(out, pcr);
        std::memset(out + 12, 0xFF, kPacketSize - 12);
    }
}

void generator::write_payload(uint8_t* out) {
    write_header(out, false, m_opt.es_pid, 1, m_ccEs);
    m_ccEs = (m_ccEs + 1) & 0x0F;
    write_pattern(out + 4, kPacketSize - 4, m_nIndex);
    ++m_nPayloadSent;
}

void generator::write_null(uint8_t* out) {
    write_header(out, false, kNullPid, 1, 0);
    std::memset(out + 4, 0xFF, kPacketSize - 4);
}

packet_kind generator::next(uint8_t* out) {
    if (m_nIndex >= m_opt.packets) {
        return packet_kind::null_packet;
    }
    if (m_nIndex == m_nNextPsi) {
        m_nPsiPending = 0;
        m_nNextPsi += m_nPsiPeriod;
    }
    if (m_opt.fill_null) {
        // Elementary-PID packets due by the end of this slot: floor((i + 1) * payload / rate).
        m_nPayloadAcc += m_opt.payload_rate_bps;
        if (m_nPayloadAcc >= m_opt.rate_bps) {
            m_nPayloadAcc -= m_opt.rate_bps;
            ++m_nPayloadDue;
        }
    }

    packet_kind kind;
    // The last packet carries a PCR too: a player paced by PCRs times a packet only up to
    // the last PCR it has seen, so without it the packets behind that one would not leave.
    if (m_nIndex % m_nPcrSpacing == 0 || m_nIndex + 1 == m_opt.packets) {
        write_pcr(out);
        kind = packet_kind::pcr;
    } else if (m_nPsiPending < m_psi.size()) {
        const psi_packet& p = m_psi[m_nPsiPending++];
        std::memcpy(out, p.bytes, kPacketSize);
        uint8_t& cc = m_ccPsi[p.cc_slot];
        out[3] = static_cast<uint8_t>((out[3] & 0xF0) | cc);
        cc = (cc + 1) & 0x0F;
        kind = packet_kind::psi;
    } else if (!m_opt.fill_null || m_nPayloadSent < m_nPayloadDue) {
        write_payload(out);
        kind = packet_kind::payload;
    } else {
        write_null(out);
        kind = packet_kind::null_packet;
    }
    ++m_nIndex;
    return kind;
}

size_t generator::fill(uint8_t* out, size_t count) {
    size_t n = 0;
    while (n < count && m_nIndex < m_opt.packets) {
        next(out + n * kPacketSize);
        ++n;
    }
    return n;
}

bool generate(const options& o, std::vector<uint8_t>& out, std::string& error) {
    generator g;
    if (!g.init(o, error)) {
        return false;
    }
    out.resize(o.packets * kPacketSize);
    g.fill(out.data(), o.packets);
    return true;
}

bool write_stream(const options& o, FILE* f, std::string& error,
                  const std::function<void(uint64_t, uint64_t)>& progress) {
    generator g;
    if (!g.init(o, error)) {
        return false;
    }
    std::vector<uint8_t> chunk(kChunkPackets * kPacketSize);
    auto last = std::chrono::steady_clock::now();
    while (g.remaining() > 0) {
        const size_t n = g.fill(chunk.data(), kChunkPackets);
        if (fwrite(chunk.data(), kPacketSize, n, f) != n) {
            error = format("write failed: %s", strerror(errno));
            return false;
        }
        if (progress) {
            const auto now = std::chrono::steady_clock::now();
            if (now - last >= std::chrono::seconds(1)) {
                last = now;
                progress(g.position(), o.packets);
            }
        }
    }
    if (fflush(f) != 0) {
        error = format("write failed: %s", strerror(errno));
        return false;
    }
    return true;
}

bool parse_rate(const std::string& text, uint64_t& bps) {
    u128 digits;
    unsigned frac;
    std::string rest;
    if (!parse_decimal(text, digits, frac, rest)) {
        return false;
    }
    uint64_t scale;
    if (rest.empty()) {
        scale = 1;
    } else if (rest == "k" || rest == "K") {
        scale = 1000;
    } else if (rest == "M") {
        scale = 1000000;
    } else if (rest == "G") {
        scale = 1000000000;
    } else {
        return false;
    }
    uint64_t v;
    if (!scale_exact(digits, frac, scale, kMaxRate, v) || v == 0) {
        return false;
    }
    bps = v;
    return true;
}

bool parse_time(const std::string& text, uint64_t bare_unit_ns, uint64_t& ns) {
    u128 digits;
    unsigned frac;
    std::string rest;
    if (!parse_decimal(text, digits, frac, rest)) {
        return false;
    }
    uint64_t scale;
    if (rest.empty()) {
        scale = bare_unit_ns;
    } else if (rest == "s") {
        scale = kNsPerSecond;
    } else if (rest == "ms") {
        scale = 1000000;
    } else if (rest == "us") {
        scale = 1000;
    } else if (rest == "ns") {
        scale = 1;
    } else {
        return false;
    }
    // Up to about 30 years, far beyond any stream, keeps every product in 128 bits.
    return scale_exact(digits, frac, scale, uint64_t(1) << 60, ns);
}

namespace {

// What the command line named, for the checks across options.
struct named_options {
    bool rate = false, duration = false, packets = false, pcr_pid = false, payload_rate = false;
    uint64_t duration_ns = 0;
};

// The options, each writing into `cl` and noting in `seen` that it was given.
void declare_options(kv_cli::parser& cli, command_line& cl, named_options& seen) {
    const char* kRate = "a whole bit rate (38M, 5000k, 38000000)";
    const char* kInterval = "an interval (30ms, 0.03s, 30)";
    const char* kPid = "a PID from 0x20 to 0x1FFE";
    const auto pid = [](uint16_t& target, bool* given = nullptr) {
        return [&target, given](const std::string& v) {
            uint64_t n = 0;
            if (!kv_cli::to_uint(v, kNullPid - 1, n) || n < kFirstFreePid) {
                return false;
            }
            target = static_cast<uint16_t>(n);
            if (given != nullptr) {
                *given = true;
            }
            return true;
        };
    };
    const auto interval = [](uint64_t& target) {
        return [&target](const std::string& v) { return parse_time(v, 1000000, target) && target; };
    };
    const auto name = [](std::string& target) {
        return [&target](const std::string& v) { return v.size() <= 255 && (target = v, true); };
    };
    cli.option("rate", 0, "BITS", "Line rate: 38M, 5000k, 38000000", kRate,
               [&](const std::string& v) { return seen.rate = parse_rate(v, cl.opt.rate_bps); })
        .option("duration", 0, "TIME", "Stream length, seconds unless a unit (s, ms, us) is given",
                "a duration (30, 2.5, 500ms)",
                [&](const std::string& v) {
                    return seen.duration = parse_time(v, kNsPerSecond, seen.duration_ns) && seen.duration_ns;
                })
        .option("packets", 0, "N", "Stream length in packets", "a packet count",
                [&](const std::string& v) {
                    return seen.packets = kv_cli::to_uint(v, UINT64_MAX / kPacketSize, cl.opt.packets) &&
                                         cl.opt.packets;
                })
        .option("pcr-interval", 0, "TIME", "PCR spacing, milliseconds unless a unit is given (30)",
                kInterval, interval(cl.opt.pcr_interval_ns))
        .option("pcr-start", 0, "TICKS", "PCR of the first packet, 27 MHz ticks (0)",
                "a PCR below 2^33*300 ticks",
                [&](const std::string& v) { return kv_cli::to_uint(v, kPcrWrap - 1, cl.opt.pcr_start); })
        .option("psi-interval", 0, "TIME",
                "PAT/PMT/SDT repetition, milliseconds unless a unit is given (100)", kInterval,
                interval(cl.opt.psi_interval_ns))
        .number("program", 0, "N", "Program number and service id (1)", cl.opt.program_number, 0,
                0xFFFF)
        .option("service-name", 0, "TEXT", "Service name in the SDT", "at most 255 bytes long",
                name(cl.opt.service_name))
        .option("provider-name", 0, "TEXT", "Service provider name in the SDT",
                "at most 255 bytes long", name(cl.opt.provider_name))
        .number("tsid", 0, "N", "transport_stream_id (1)", cl.opt.transport_stream_id, 0, 0xFFFF)
        .number("onid", 0, "N", "original_network_id (1)", cl.opt.original_network_id, 0, 0xFFFF)
        .option("pmt-pid", 0, "PID", "PMT PID (0x100)", kPid, pid(cl.opt.pmt_pid))
        .option("es-pid", 0, "PID", "Elementary stream PID (0x101)", kPid, pid(cl.opt.es_pid))
        .option("pcr-pid", 0, "PID", "PCR PID (the elementary PID)", kPid,
                pid(cl.opt.pcr_pid, &seen.pcr_pid))
        .number("stream-type", 0, "N", "stream_type of the elementary stream (0x02)",
                cl.opt.stream_type, 0, 0xFF)
        .flag("fill-null", 0, cl.opt.fill_null,
              "Fill the rate beyond the payload rate with null packets")
        .option("payload-rate", 0, "BITS", "Elementary stream rate with --fill-null (half the rate)",
                kRate,
                [&](const std::string& v) {
                    return seen.payload_rate = parse_rate(v, cl.opt.payload_rate_bps);
                })
        .option("output", 'o', "FILE", "Output file, - for standard output (-)", "a file name",
                [&](const std::string& v) { return !v.empty() && (cl.output = v, true); })
        .flag("quiet", 'q', cl.quiet, "No progress line");
}

}  // namespace

int parse_command_line(const std::vector<std::string>& args, command_line& cl, FILE* out,
                       FILE* err) {
    cl = command_line();
    cl.output = "-";
    named_options seen;
    kv_cli::parser cli("kv-ts-generate", "--rate BITS (--duration TIME | --packets N)",
                       "Writes a constant-rate test transport stream: one program with PAT, PMT,\n"
                       "SDT and PCRs at their intervals, payload packets with a counting pattern.");
    declare_options(cli, cl, seen);
    std::vector<std::string> rest;
    const int usage = cli.parse(args, rest, out, err);
    if (usage >= 0) {
        return usage;
    }
    const char* error = !rest.empty()                   ? "unexpected argument"
                        : !seen.rate                      ? "--rate is required"
                        : seen.duration == seen.packets    ? "give either --duration or --packets"
                        : seen.payload_rate && !cl.opt.fill_null ? "--payload-rate needs --fill-null"
                                                               : nullptr;
    if (error != nullptr) {
        return cli.usage_error(error, err);
    }
    if (!seen.pcr_pid) {
        cl.opt.pcr_pid = cl.opt.es_pid;
    }
    if (seen.duration) {
        cl.opt.packets = packets_for_duration(cl.opt.rate_bps, seen.duration_ns);
        if (cl.opt.packets == 0) {
            return cli.usage_error("--duration is shorter than one packet at this rate", err);
        }
    }
    return -1;
}

int run(const std::vector<std::string>& args, FILE* err_file) {
    command_line cl;
    const int usage = parse_command_line(args, cl, stdout, err_file);
    if (usage >= 0) {
        return usage;
    }
    std::string error;
    // Check the options before the output is created, so that bad options leave no file.
    generator check;
    if (!check.init(cl.opt, error)) {
        fprintf(err_file, "kv-ts-generate: %s\n", error.c_str());
        return 2;
    }

    const bool toStdout = cl.output == "-";
    if (toStdout && isatty(STDOUT_FILENO)) {
        fprintf(err_file,
                "kv-ts-generate: not writing a binary stream to a terminal; use -o FILE\n");
        return 2;
    }
    FILE* f = toStdout ? stdout : fopen(cl.output.c_str(), "wb");
    if (f == nullptr) {
        fprintf(err_file, "kv-ts-generate: cannot open '%s' for writing: %s\n", cl.output.c_str(),
                strerror(errno));
        return 1;
    }

    const bool tty = isatty(fileno(err_file)) != 0;
    bool shown = false;
    const auto progress = [&](uint64_t done, uint64_t total) {
        fprintf(err_file, "%skv-ts-generate: %llu of %llu packets (%.0f %%)%s", tty ? "\r" : "",
                (unsigned long long)done, (unsigned long long)total,
                100.0 * double(done) / double(total), tty ? "" : "\n");
        fflush(err_file);
        shown = true;
    };
    const bool ok = write_stream(cl.opt, f, error,
                                 cl.quiet ? std::function<void(uint64_t, uint64_t)>() : progress);
    if (shown && tty) {
        fputc('\n', err_file);
    }
    bool closed = true;
    if (!toStdout) {
        closed = fclose(f) == 0;
        if (ok && !closed) {
            error = format("write failed: %s", strerror(errno));
        }
    }
    if (!ok || !closed) {
        fprintf(err_file, "kv-ts-generate: %s: %s\n",
                toStdout ? "standard output" : cl.output.c_str(), error.c_str());
        return 1;
    }
    return 0;
}

}  // namespace kv_ts_generate
