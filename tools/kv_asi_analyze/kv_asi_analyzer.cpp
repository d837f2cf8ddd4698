#include "kv_asi_analyzer.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "kv_cli.h"
#include "mpegcore/TransportPacket.h"

namespace kv_asi_analyze {

namespace pb = mpegcore::packet_bytes;

namespace {

constexpr uint32_t kStampMask = (1u << 30) - 1;
constexpr int64_t kPcrModulus = (int64_t(1) << 33) * 300;
constexpr size_t kMaxDetails = 10;

uint64_t packet_hash(const uint8_t* p) {
    uint64_t h = 1469598103934665603ull;
    for (size_t i = 0; i < kPacketSize; ++i) {
        h = (h ^ p[i]) * 1099511628211ull;
    }
    return h;
}

double words_to_ns(double words) {
    return words * 1e9 / kWordsPerSecond;
}

std::string pid_text(uint16_t pid) {
    char buf[16];
    snprintf(buf, sizeof(buf), "0x%04X", pid);
    return buf;
}

std::string printf_string(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string printf_string(const char* fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}

}  // namespace

struct capture_analyzer::pid_state {
    // Continuity.
    bool bHasCC = false;
    uint8_t cc = 0;
    bool bDuplicate = false;
    uint64_t ccErrors = 0;
    // PCRs: line time (words) and PCR (27 MHz, unwrapped), by segment between
    // discontinuities.
    struct point {
        uint64_t t;
        int64_t pcr;
        uint32_t segment;
    };
    std::vector<point> pcrs;
    int64_t lastRawPcr = -1;
    int64_t pcrWraps = 0;
    uint32_t segment = 0;
    uint32_t discontinuities = 0;
    uint64_t nPcrs = 0;  // all PCRs, those of the start-up included
    uint64_t startUpPcrs = 0;
    uint64_t lastPcrWords = 0;
    uint64_t maxIntervalWords = 0;
};

struct capture_analyzer::source_index {
    std::vector<uint8_t> data;
    size_t count = 0;
    std::unordered_map<uint64_t, std::vector<uint32_t>> positions;  // ascending
    size_t next = 0;
    bool bAnyMatched = false;

    const uint8_t* packet(size_t i) const { return data.data() + i * kPacketSize; }
    bool equal(const uint8_t* p, size_t i) const { return memcmp(p, packet(i), kPacketSize) == 0; }
};

capture_analyzer::capture_analyzer() = default;
capture_analyzer::~capture_analyzer() = default;

void capture_analyzer::set_source(std::vector<uint8_t> source) {
    m_pSource.reset(new source_index());
    source_index& s = *m_pSource;
    s.data = std::move(source);
    s.count = s.data.size() / kPacketSize;
    s.positions.reserve(s.count);
    for (size_t i = 0; i < s.count; ++i) {
        s.positions[packet_hash(s.packet(i))].push_back(uint32_t(i));
    }
    m_source = source_report();
    m_source.checked = true;
    m_source.source_packets = s.count;
}

void capture_analyzer::add(uint32_t stamp, const uint8_t* p) {
    stamp &= kStampMask;
    if (m_bFirst) {
        m_bFirst = false;
        m_tLine = stamp;
        m_tFirst = stamp;
    } else {
        m_tLine += (stamp - m_nLastStamp) & kStampMask;  // the stamp wraps every 39.8 s
    }
    m_nLastStamp = stamp;
    ++m_nPackets;

    const uint16_t pid = pb::pid(p);
    if (pid != mpegcore::TS_NULL_PID && !pb::transport_error(p)) {
        check_continuity(pid, p);
        take_pcr(pid, p, m_tLine);
    }
    if (m_pSource) {
        check_source(p);
    }
}

void capture_analyzer::check_continuity(uint16_t pid, const uint8_t* p) {
    pid_state& s = m_pids[pid];
    const uint8_t cc = pb::continuity_counter(p);
    const bool bPayload = pb::has_payload(p);
    const bool bDiscontinuity = pb::discontinuity(p);
    if (!s.bHasCC || bDiscontinuity) {
        s.bHasCC = true;
        s.cc = cc;
        s.bDuplicate = false;
        return;
    }
    bool bError;
    if (!bPayload) {
        bError = cc != s.cc;  // no payload: the counter stays
    } else if (cc == s.cc) {
        bError = s.bDuplicate;  // one duplicate packet is allowed
        s.bDuplicate = true;
    } else {
        bError = cc != ((s.cc + 1) & 0x0f);
        s.bDuplicate = false;
    }
    s.cc = cc;
    if (bError) {
        ++s.ccErrors;
    }
}

void capture_analyzer::take_pcr(uint16_t pid, const uint8_t* p, uint64_t t) {
    if (!pb::has_pcr(p)) {
        return;
    }
    const int64_t raw = static_cast<int64_t>(pb::pcr(p));
    pid_state& s = m_pids[pid];
    if (pb::discontinuity(p)) {
        if (s.nPcrs > 0) {
            ++s.segment;
            ++s.discontinuities;
        }
        s.pcrWraps = 0;
    } else if (s.lastRawPcr >= 0 && raw + kPcrModulus / 2 < s.lastRawPcr) {
        ++s.pcrWraps;
    }
    if (s.nPcrs > 0) {
        s.maxIntervalWords = std::max(s.maxIntervalWords, t - s.lastPcrWords);
    }
    ++s.nPcrs;
    s.lastPcrWords = t;
    s.lastRawPcr = raw;
    if (t < m_nStartUpWords) {
        ++s.startUpPcrs;
        return;
    }
    s.pcrs.push_back({t, raw + s.pcrWraps * kPcrModulus, s.segment});
}

void capture_analyzer::note(const std::string& text) {
    if (m_source.details.size() < kMaxDetails) {
        m_source.details.push_back(text);
    }
}

void capture_analyzer::check_source(const uint8_t* p) {
    source_index& s = *m_pSource;
    const uint64_t record = m_nPackets - 1;
    const auto matched = [&](size_t k) {
        ++m_source.matched;
        s.next = k + 1;
        s.bAnyMatched = true;
    };
    if (s.next < s.count && s.equal(p, s.next)) {
        matched(s.next);
        return;
    }
    if (s.bAnyMatched && s.next > 0 && s.equal(p, s.next - 1)) {
        ++m_source.repeated;
        note(printf_string("record %llu repeats source packet %zu", (unsigned long long)record,
                           s.next - 1));
        return;
    }
    const auto it = s.positions.find(packet_hash(p));
    if (it != s.positions.end()) {
        const std::vector<uint32_t>& pos = it->second;
        for (auto k = std::lower_bound(pos.begin(), pos.end(), uint32_t(s.next)); k != pos.end();
             ++k) {
            if (s.equal(p, *k)) {
                const size_t gap = *k - s.next;
                if (s.bAnyMatched) {
                    m_source.missing += gap;
                    note(printf_string("record %llu: source packets %zu..%zu missing",
                                       (unsigned long long)record, s.next, size_t(*k) - 1));
                } else {
                    m_source.unsent_head += gap;
                }
                matched(*k);
                return;
            }
        }
        for (auto k = pos.begin(); k != pos.end() && *k < s.next; ++k) {
            if (s.equal(p, *k)) {
                ++m_source.repeated;
                note(printf_string("record %llu repeats source packet %u",
                                   (unsigned long long)record, *k));
                return;
            }
        }
    }
    ++m_source.altered;
    if (s.next < s.count) {
        note(printf_string("record %llu (PID %s) differs from source packet %zu",
                           (unsigned long long)record,
                           pid_text(pb::pid(p)).c_str(), s.next));
        ++s.next;  // taken as an altered copy of the packet expected here
    } else {
        note(printf_string("record %llu comes after the end of the source",
                           (unsigned long long)record));
    }
}

// The PCRs of one PID against the line's clock: each segment between discontinuities
// gets its own offset and drift.
pcr_report capture_analyzer::pcr_accuracy(uint16_t pid, const pid_state& s) {
    pcr_report pr;
    pr.pid = pid;
    pr.pcrs = s.nPcrs;
    pr.start_up_pcrs = s.startUpPcrs;
    pr.max_interval_ms = double(s.maxIntervalWords) / kWordsPerSecond * 1e3;
    pr.discontinuities = s.discontinuities;
    double sumOffset2 = 0, sumDrift2 = 0, weightedSlope = 0;
    double slopeWeight = 0;
    size_t begin = 0;
    while (begin < s.pcrs.size()) {
        size_t end = begin;
        while (end < s.pcrs.size() && s.pcrs[end].segment == s.pcrs[begin].segment) {
            ++end;
        }
        const size_t n = end - begin;
        const uint64_t t0 = s.pcrs[begin].t;
        const int64_t e0 = s.pcrs[begin].pcr - int64_t(t0);
        double sx = 0, sy = 0, sxx = 0, sxy = 0;
        for (size_t i = begin; i < end; ++i) {
            const double x = double(s.pcrs[i].t - t0);
            const double y = double(s.pcrs[i].pcr - int64_t(s.pcrs[i].t) - e0);
            sx += x;
            sy += y;
            sxx += x * x;
            sxy += x * y;
        }
        const double mean = sy / double(n);
        const double den = double(n) * sxx - sx * sx;
        const double slope = (n > 1 && den > 0) ? (double(n) * sxy - sx * sy) / den : 0.0;
        const double intercept = (sy - slope * sx) / double(n);
        for (size_t i = begin; i < end; ++i) {
            const double x = double(s.pcrs[i].t - t0);
            const double y = double(s.pcrs[i].pcr - int64_t(s.pcrs[i].t) - e0);
            const double ro = words_to_ns(y - mean);
            const double rd = words_to_ns(y - intercept - slope * x);
            pr.offset_max_ns = std::max(pr.offset_max_ns, std::fabs(ro));
            pr.drift_max_ns = std::max(pr.drift_max_ns, std::fabs(rd));
            sumOffset2 += ro * ro;
            sumDrift2 += rd * rd;
        }
        if (n > 1) {
            weightedSlope += slope * double(n);
            slopeWeight += double(n);
        }
        begin = end;
    }
    const double fitted = double(std::max<size_t>(s.pcrs.size(), 1));
    pr.offset_rms_ns = std::sqrt(sumOffset2 / fitted);
    pr.drift_rms_ns = std::sqrt(sumDrift2 / fitted);
    pr.drift_ppm = slopeWeight > 0 ? weightedSlope / slopeWeight * 1e6 : 0.0;
    return pr;
}

report capture_analyzer::finish() {
    report r;
    r.packets = m_nPackets;
    if (m_nPackets > 0) {
        const uint64_t span = m_tLine - m_tFirst;
        r.duration_s = double(span) / kWordsPerSecond;
        if (m_nPackets > 1 && span > 0) {
            r.bitrate_bps = double(m_nPackets - 1) * kPacketSize * 8 / r.duration_s;
        }
        const double lineWords = double(span + kPacketSize);
        r.idle_share = std::max(0.0, 1.0 - double(m_nPackets * kPacketSize) / lineWords);
    }
    for (auto& entry : m_pids) {
        const pid_state& s = entry.second;
        if (s.ccErrors > 0) {
            r.cc_errors[entry.first] = s.ccErrors;
        }
        if (s.nPcrs == 0) {
            continue;
        }
        r.pcr.push_back(pcr_accuracy(entry.first, s));
    }
    if (m_pSource) {
        m_source.unsent_tail = m_pSource->count - std::min(m_pSource->next, m_pSource->count);
        r.source = m_source;
    }
    return r;
}

bool report::pcr_within(double limit_ns) const {
    for (const pcr_report& p : pcr) {
        if (p.drift_max_ns > limit_ns) {
            return false;
        }
    }
    return true;
}

// -------------------------------------------------------------------------------------
// Files

namespace {

struct file_closer {
    void operator()(FILE* f) const { fclose(f); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

bool file_size(FILE* f, uint64_t& size) {
    if (fseeko(f, 0, SEEK_END) != 0) {
        return false;
    }
    const off_t end = ftello(f);
    if (end < 0 || fseeko(f, 0, SEEK_SET) != 0) {
        return false;
    }
    size = uint64_t(end);
    return true;
}

bool read_source(const std::string& path, std::vector<uint8_t>& data, std::string& error) {
    file_ptr f(fopen(path.c_str(), "rb"));
    uint64_t size = 0;
    if (!f || !file_size(f.get(), size)) {
        error = path + ": cannot open: " + strerror(errno);
        return false;
    }
    if (size % kPacketSize != 0) {
        error = path + ": not a transport stream of whole 188-byte packets (" +
                std::to_string(size) + " bytes)";
        return false;
    }
    data.resize(size);
    if (size > 0 && fread(data.data(), size, 1, f.get()) != 1) {
        error = path + ": read error";
        return false;
    }
    for (uint64_t i = 0; i < size; i += kPacketSize) {
        if (data[i] != 0x47) {
            error = path + ": packet " + std::to_string(i / kPacketSize) + " has no sync byte";
            return false;
        }
    }
    return true;
}

}  // namespace

bool analyze_files(const std::string& capture, const std::string& source, report& out,
                   std::string& error, unsigned start_up_frames) {
    capture_analyzer a;
    a.set_start_up_frames(start_up_frames);
    if (!source.empty()) {
        std::vector<uint8_t> data;
        if (!read_source(source, data, error)) {
            return false;
        }
        a.set_source(std::move(data));
    }
    file_ptr f(fopen(capture.c_str(), "rb"));
    uint64_t size = 0;
    if (!f || !file_size(f.get(), size)) {
        error = capture + ": cannot open: " + strerror(errno);
        return false;
    }
    if (size % kRecordSize != 0) {
        error = capture + ": truncated capture: " + std::to_string(size) +
                " bytes is not a whole number of 192-byte records";
        return false;
    }
    std::vector<uint8_t> buf(kRecordSize * 4096);
    uint64_t record = 0;
    for (uint64_t left = size / kRecordSize; left > 0;) {
        const size_t n = size_t(std::min<uint64_t>(left, 4096));
        if (fread(buf.data(), kRecordSize, n, f.get()) != n) {
            error = capture + ": read error at record " + std::to_string(record);
            return false;
        }
        for (size_t i = 0; i < n; ++i, ++record) {
            const uint8_t* r = buf.data() + i * kRecordSize;
            if (r[0] & 0xc0) {
                error = capture + ": record " + std::to_string(record) +
                        " has a stamp above 30 bits: not a capture file";
                return false;
            }
            if (r[4] != 0x47) {
                error = capture + ": record " + std::to_string(record) +
                        " has no sync byte: not a capture file";
                return false;
            }
            a.add(uint32_t(r[0]) << 24 | uint32_t(r[1]) << 16 | uint32_t(r[2]) << 8 | r[3], r + 4);
        }
        left -= n;
    }
    out = a.finish();
    return true;
}

// -------------------------------------------------------------------------------------
// Output

std::string format_text(const report& r, double max_pcr_ac_ns) {
    std::string s = printf_string(
        "capture: %llu packets, %.3f s, %.3f Mbit/s, idle %.2f %% of the line\n",
        (unsigned long long)r.packets, r.duration_s, r.bitrate_bps / 1e6, r.idle_share * 100);
    if (r.cc_errors.empty()) {
        s += "continuity errors: none\n";
    } else {
        s += "continuity errors:";
        const char* sep = " ";
        for (const auto& e : r.cc_errors) {
            s += printf_string("%sPID %s: %llu", sep, pid_text(e.first).c_str(),
                               (unsigned long long)e.second);
            sep = ", ";
        }
        s += "\n";
    }
    if (r.pcr.empty()) {
        s += "PCR: none\n";
    }
    const auto mark = [](double v) {
        return v <= kPcrAccuracyLimitNs ? "within +-500 ns" : "EXCEEDS +-500 ns";
    };
    for (const pcr_report& p : r.pcr) {
        s += printf_string("PCR PID %s: %llu PCRs, interval max %.3f ms", pid_text(p.pid).c_str(),
                           (unsigned long long)p.pcrs, p.max_interval_ms);
        if (p.discontinuities > 0) {
            s += printf_string(", %u discontinuities", p.discontinuities);
        }
        s += "\n";
        if (p.start_up_pcrs > 0) {
            s += printf_string("  accuracy after the line's start-up (its %llu PCRs left out)\n",
                               (unsigned long long)p.start_up_pcrs);
        }
        s += printf_string("  accuracy, offset removed: max %.1f ns, rms %.1f ns (%s)\n",
                           p.offset_max_ns, p.offset_rms_ns, mark(p.offset_max_ns));
        s += printf_string(
            "  accuracy, drift removed:  max %.1f ns, rms %.1f ns (%s), drift %+.3f ppm\n",
            p.drift_max_ns, p.drift_rms_ns, mark(p.drift_max_ns), p.drift_ppm);
    }
    if (r.source.checked) {
        const source_report& c = r.source;
        s += printf_string(
            "source: %llu packets: %llu sent in order, %llu missing, %llu repeated, %llu "
            "altered, %llu unsent at the start, %llu unsent at the end\n",
            (unsigned long long)c.source_packets, (unsigned long long)c.matched,
            (unsigned long long)c.missing, (unsigned long long)c.repeated,
            (unsigned long long)c.altered, (unsigned long long)c.unsent_head,
            (unsigned long long)c.unsent_tail);
        for (const std::string& d : c.details) {
            s += "  " + d + "\n";
        }
    }
    if (max_pcr_ac_ns >= 0) {
        std::string over;
        for (const pcr_report& p : r.pcr) {
            if (p.drift_max_ns > max_pcr_ac_ns) {
                over += (over.empty() ? " " : ", ") + pid_text(p.pid);
            }
        }
        s += printf_string("PCR accuracy limit %.1f ns: %s", max_pcr_ac_ns,
                           over.empty() ? "met\n" : "exceeded on PID");
        if (!over.empty()) {
            s += over + "\n";
        }
    }
    return s;
}

std::string format_json(const report& r, double max_pcr_ac_ns) {
    using json = nlohmann::ordered_json;
    // Values that are not finite (nothing measured) are null.
    const auto number = [](double v) { return std::isfinite(v) ? json(v) : json(nullptr); };
    json cc = json::object();
    for (const auto& e : r.cc_errors) {
        cc[std::to_string(e.first)] = e.second;
    }
    json pcrs = json::array();
    for (const pcr_report& p : r.pcr) {
        pcrs.push_back({{"pid", p.pid},
                        {"pcrs", p.pcrs},
                        {"start_up_pcrs", p.start_up_pcrs},
                        {"discontinuities", p.discontinuities},
                        {"max_interval_ms", number(p.max_interval_ms)},
                        {"offset_max_ns", number(p.offset_max_ns)},
                        {"offset_rms_ns", number(p.offset_rms_ns)},
                        {"drift_max_ns", number(p.drift_max_ns)},
                        {"drift_rms_ns", number(p.drift_rms_ns)},
                        {"drift_ppm", number(p.drift_ppm)},
                        {"within_500ns", p.drift_max_ns <= kPcrAccuracyLimitNs}});
    }
    json source = nullptr;
    if (r.source.checked) {
        const source_report& c = r.source;
        source = {{"source_packets", c.source_packets}, {"matched", c.matched},
                  {"missing", c.missing},               {"repeated", c.repeated},
                  {"altered", c.altered},               {"unsent_head", c.unsent_head},
                  {"unsent_tail", c.unsent_tail},       {"details", c.details}};
    }
    json j = {{"packets", r.packets},
              {"duration_s", number(r.duration_s)},
              {"bitrate_bps", number(r.bitrate_bps)},
              {"idle_share", number(r.idle_share)},
              {"cc_errors", std::move(cc)},
              {"pcr", std::move(pcrs)},
              {"source", std::move(source)}};
    if (max_pcr_ac_ns >= 0) {
        j["max_pcr_ac_ns"] = max_pcr_ac_ns;
        j["pcr_ac_ok"] = r.pcr_within(max_pcr_ac_ns);
    }
    return j.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

// -------------------------------------------------------------------------------------
// Command line

int run(const std::vector<std::string>& args, std::string& out, std::string& err) {
    std::string source;
    bool bJson = false;
    double maxPcrAc = -1;
    unsigned startUpFrames = kDefaultStartUpFrames;
    kv_cli::parser cli("kv-asi-analyze", "CAPTURE",
                       "Reads a capture of the ASI line and reports its rate, idle share,\n"
                       "continuity, PCR repetition and accuracy, and its agreement with the\n"
                       "source stream. Exit status 1 when a PCR PID exceeds --max-pcr-ac.");
    cli.text("source", 0, "FILE.ts", "The stream that was played, to compare the line with",
             source)
        .flag("json", 0, bJson, "The report as one JSON object")
        .option("max-pcr-ac", 0, "NS", "PCR accuracy limit in nanoseconds",
                "a number of nanoseconds",
                [&](const std::string& v) { return kv_cli::to_double(v, 0, 1e12, maxPcrAc); })
        .number("start-up", 0, "FRAMES",
                "20 ms frames at the start of the line left out of the PCR accuracy (0: the\n"
                "                         whole line from its first PCR)",
                startUpFrames, 0, 100000);
    // The parser prints; what it prints is handed back as text.
    std::vector<std::string> files;
    char* printed = nullptr;
    size_t printedSize = 0;
    FILE* f = open_memstream(&printed, &printedSize);
    int usage = f != nullptr ? cli.parse(args, files, f, f) : 2;
    if (usage < 0 && files.size() != 1) {
        usage = cli.usage_error(files.empty() ? "no CAPTURE given" : "one capture file only", f);
    }
    if (f != nullptr) {
        std::fclose(f);
        (usage == 0 ? out : err) = std::string(printed, printedSize);
        std::free(printed);
    }
    if (usage >= 0) {
        return usage;
    }
    const std::string& capture = files[0];
    report r;
    std::string error;
    if (!analyze_files(capture, source, r, error, startUpFrames)) {
        err = "kv-asi-analyze: " + error + "\n";
        return 2;
    }
    out = bJson ? format_json(r, maxPcrAc) : format_text(r, maxPcrAc);
    return maxPcrAc >= 0 && !r.pcr_within(maxPcrAc) ? 1 : 0;
}

}  // namespace kv_asi_analyze
