#include "kv_ts_generator.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <memory>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "mpegcore/SDT.h"
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

// The six PCR bytes: 33-bit base, 6 reserved bits (ones), 9-bit extension.
void write_pcr_field(uint8_t* out, uint64_t pcr) {
    const uint64_t base = pcr / 300;
    const uint64_t ext = pcr % 300;
    out[0] = static_cast<uint8_t>(base >> 25);
    out[1] = static_cast<uint8_t>(base >> 17);
    out[2] = static_cast<uint8_t>(base >> 9);
    out[3] = static_cast<uint8_t>(base >> 1);
    out[4] = static_cast<uint8_t>(((base & 1) << 7) | 0x7E | (ext >> 8));
    out[5] = static_cast<uint8_t>(ext & 0xFF);
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

// Writes a table that renders whole sections through write() (header, body and CRC) into
// `out`; its size in bytes, or 0 when it does not fit.
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

bool parse_uint(const std::string& text, uint64_t limit, uint64_t& out) {
    if (text.empty() || text[0] == '-' || text[0] == '+') {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long long v = strtoull(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0' || v > limit) {
        return false;
    }
    out = v;
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
    uint8_t section[kMaxSection];

    mpegcore::CPAT pat;
    pat.table_id = 0x00;
    pat.section_syntax_indicator = 1;
    pat.zero = 0;
    pat.reserved = 3;
    pat.transport_stream_id = m_opt.transport_stream_id;
    pat.reserved1 = 3;
    pat.version_number = 0;
    pat.current_next_indicator = 1;
    mpegcore::CBaseMpegProgram program;
    program.program_number = m_opt.program_number;
    program.reserved = 7;
    program.map_PID.program_map_PID = m_opt.pmt_pid;
    program.SetValid();
    pat.program_map[m_opt.pmt_pid] = program;
    if (!packetize_section(kPatPid, kCcPat, "PAT", section, write_section(pat, section), error)) {
        return false;
    }

    mpegcore::CPMT pmt;
    pmt.table_id = 0x02;
    pmt.section_syntax_indicator = 1;
    pmt.zero = 0;
    pmt.reserved = 3;
    pmt.program_number = m_opt.program_number;
    pmt.reserved1 = 3;
    pmt.version_number = 0;
    pmt.current_next_indicator = 1;
    pmt.reserved2 = 7;
    pmt.PCR_PID = m_opt.pcr_pid;
    pmt.reserved3 = 0xF;
    auto stream = std::make_shared<mpegcore::CBaseStreamTypeMap>();
    stream->stream_type = m_opt.stream_type;
    stream->reserved1 = 7;
    stream->elementary_PID = m_opt.es_pid;
    stream->reserved2 = 0xF;
    pmt.stream_map[m_opt.es_pid] = stream;
    if (!packetize_section(m_opt.pmt_pid, kCcPmt, "PMT", section, write_section(pmt, section),
                           error)) {
        return false;
    }

    if (m_opt.service_name.size() > 255 || m_opt.provider_name.size() > 255) {
        error = "service and provider names are limited to 255 bytes";
        return false;
    }
    mpegcore::CSDT sdt;
    sdt.table_id = 0x42;  // actual transport stream
    sdt.section_syntax_indicator = 1;
    sdt.zero = 1;  // reserved_future_use
    sdt.reserved = 3;
    sdt.transport_stream_id = m_opt.transport_stream_id;
    sdt.reserved1 = 3;
    sdt.version_number = 0;
    sdt.current_next_indicator = 1;
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
    const size_t sdtSize = sdt.RenderTable() ? sdt.GetSizeBuffer() : 0;
    return packetize_section(kSdtPid, kCcSdt, "SDT", sdt.GetBuffer(), sdtSize, error);
}

void generator::write_pcr(uint8_t* out) {
    const uint64_t pcr = pcr_of_packet(m_opt.pcr_start, m_opt.rate_bps, m_nIndex);
    if (m_opt.pcr_pid == m_opt.es_pid) {
        // Adaptation field of 7 bytes (flags and PCR) and 176 payload bytes.
        write_header(out, false, m_opt.es_pid, 3, m_ccEs);
        m_ccEs = (m_ccEs + 1) & 0x0F;
        out[4] = 7;
        out[5] = 0x10;  // PCR_flag
        write_pcr_field(out + 6, pcr);
        write_pattern(out + 12, kPacketSize - 12, m_nIndex);
        ++m_nPayloadSent;
    } else {
        // Adaptation field only: the counter does not advance on such packets.
        write_header(out, false, m_opt.pcr_pid, 2, m_ccPcr);
        out[4] = 183;
        out[5] = 0x10;
        write_pcr_field(out + 6, pcr);
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

std::string usage() {
    return "usage: kv-ts-generate --rate BITS (--duration SECONDS | --packets N) [options]\n"
           "  --rate BITS            line rate: 38M, 5000k, 38000000\n"
           "  --duration TIME        stream length, seconds unless a unit (s, ms, us) is given\n"
           "  --packets N            stream length in packets\n"
           "  --pcr-interval TIME    PCR spacing, milliseconds unless a unit is given (30)\n"
           "  --pcr-start TICKS      PCR of the first packet, 27 MHz ticks (0)\n"
           "  --psi-interval TIME    PAT/PMT/SDT repetition, milliseconds unless a unit is "
           "given (100)\n"
           "  --program N            program number and service id (1)\n"
           "  --service-name TEXT    service name in the SDT\n"
           "  --provider-name TEXT   service provider name in the SDT\n"
           "  --tsid N               transport_stream_id (1)\n"
           "  --onid N               original_network_id (1)\n"
           "  --pmt-pid PID          PMT PID (0x100)\n"
           "  --es-pid PID           elementary stream PID (0x101)\n"
           "  --pcr-pid PID          PCR PID (the elementary PID)\n"
           "  --stream-type N        stream_type of the elementary stream (0x02)\n"
           "  --fill-null            fill the rate beyond the payload rate with null packets\n"
           "  --payload-rate BITS    elementary stream rate with --fill-null (half the rate)\n"
           "  -o, --output FILE      output file, - for standard output (-)\n"
           "  -q, --quiet            no progress line\n"
           "  -h, --help             this text\n";
}

bool parse_command_line(const std::vector<std::string>& args, command_line& cl,
                        std::string& error) {
    cl = command_line();
    cl.output = "-";
    bool haveRate = false, haveDuration = false, havePackets = false, havePcrPid = false,
         havePayloadRate = false;
    uint64_t duration_ns = 0;

    for (size_t i = 0; i < args.size(); ++i) {
        std::string name = args[i];
        std::string value;
        bool inlineValue = false;
        const size_t eq = name.find('=');
        if (name.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            value = name.substr(eq + 1);
            name = name.substr(0, eq);
            inlineValue = true;
        }
        // Flags first; everything else takes a value.
        if (name == "-h" || name == "--help") {
            cl.help = true;
            return true;
        }
        if (name == "-q" || name == "--quiet" || name == "--fill-null") {
            if (inlineValue) {
                error = name + " takes no value";
                return false;
            }
            (name == "--fill-null" ? cl.opt.fill_null : cl.quiet) = true;
            continue;
        }
        if (name.empty() || name[0] != '-') {
            error = "unexpected argument '" + name + "'";
            return false;
        }
        if (!inlineValue) {
            if (i + 1 >= args.size()) {
                error = name + " needs a value";
                return false;
            }
            value = args[++i];
        }
        const auto bad = [&](const char* what) {
            error = name + ": '" + value + "' is not " + what;
            return false;
        };
        uint64_t v = 0;
        if (name == "--rate") {
            if (!parse_rate(value, cl.opt.rate_bps)) {
                return bad("a whole bit rate (38M, 5000k, 38000000)");
            }
            haveRate = true;
        } else if (name == "--payload-rate") {
            if (!parse_rate(value, cl.opt.payload_rate_bps)) {
                return bad("a whole bit rate (38M, 5000k, 38000000)");
            }
            havePayloadRate = true;
        } else if (name == "--duration") {
            if (!parse_time(value, kNsPerSecond, duration_ns) || duration_ns == 0) {
                return bad("a duration (30, 2.5, 500ms)");
            }
            haveDuration = true;
        } else if (name == "--packets") {
            if (!parse_uint(value, UINT64_MAX / kPacketSize, cl.opt.packets) ||
                cl.opt.packets == 0) {
                return bad("a packet count");
            }
            havePackets = true;
        } else if (name == "--pcr-interval" || name == "--psi-interval") {
            uint64_t& target =
                name == "--pcr-interval" ? cl.opt.pcr_interval_ns : cl.opt.psi_interval_ns;
            if (!parse_time(value, 1000000, target) || target == 0) {
                return bad("an interval (30ms, 0.03s, 30)");
            }
        } else if (name == "--pcr-start") {
            if (!parse_uint(value, kPcrWrap - 1, cl.opt.pcr_start)) {
                return bad("a PCR below 2^33*300 ticks");
            }
        } else if (name == "--program" || name == "--tsid" || name == "--onid") {
            if (!parse_uint(value, 0xFFFF, v)) {
                return bad("a 16-bit number");
            }
            (name == "--program" ? cl.opt.program_number
             : name == "--tsid"  ? cl.opt.transport_stream_id
                                 : cl.opt.original_network_id) = static_cast<uint16_t>(v);
        } else if (name == "--pmt-pid" || name == "--es-pid" || name == "--pcr-pid") {
            if (!parse_uint(value, kNullPid - 1, v) || v < kFirstFreePid) {
                return bad("a PID from 0x20 to 0x1FFE");
            }
            (name == "--pmt-pid"  ? cl.opt.pmt_pid
             : name == "--es-pid" ? cl.opt.es_pid
                                  : cl.opt.pcr_pid) = static_cast<uint16_t>(v);
            havePcrPid = havePcrPid || name == "--pcr-pid";
        } else if (name == "--stream-type") {
            if (!parse_uint(value, 0xFF, v)) {
                return bad("an 8-bit number");
            }
            cl.opt.stream_type = static_cast<uint8_t>(v);
        } else if (name == "--service-name" || name == "--provider-name") {
            if (value.size() > 255) {
                return bad("at most 255 bytes long");
            }
            (name == "--service-name" ? cl.opt.service_name : cl.opt.provider_name) = value;
        } else if (name == "-o" || name == "--output") {
            if (value.empty()) {
                return bad("a file name");
            }
            cl.output = value;
        } else {
            error = "unknown option '" + name + "'";
            return false;
        }
    }

    if (!haveRate) {
        error = "--rate is required";
        return false;
    }
    if (haveDuration == havePackets) {
        error = "give either --duration or --packets";
        return false;
    }
    if (havePayloadRate && !cl.opt.fill_null) {
        error = "--payload-rate needs --fill-null";
        return false;
    }
    if (!havePcrPid) {
        cl.opt.pcr_pid = cl.opt.es_pid;
    }
    if (haveDuration) {
        cl.opt.packets = packets_for_duration(cl.opt.rate_bps, duration_ns);
        if (cl.opt.packets == 0) {
            error = "--duration is shorter than one packet at this rate";
            return false;
        }
    }
    return true;
}

int run(const std::vector<std::string>& args, FILE* err_file) {
    command_line cl;
    std::string error;
    if (!parse_command_line(args, cl, error)) {
        fprintf(err_file, "kv-ts-generate: %s (try --help)\n", error.c_str());
        return 2;
    }
    if (cl.help) {
        fputs(usage().c_str(), stdout);
        return 0;
    }
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
