#include "kv_ts_inspector.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "kv_cli.h"
#include "kv_dvb_text.h"
#include "mpegcore/kvdescriptorlist.h"
#include "mpegcore/table_view.h"

namespace kv_ts_inspect {

using namespace mpegcore;
using json = nlohmann::ordered_json;

namespace {

constexpr int64_t kPcrTicksPerSecond = 27000000;
constexpr int64_t kPcrWrap = (int64_t(1) << 33) * 300;
constexpr int64_t kMaxPcrStep = 10 * kPcrTicksPerSecond;

json descriptors(const KVDescriptorList& list);

// Fields as JSON members, lists as arrays of objects: a table's or a descriptor's.
class json_view : public table_view {
public:
    explicit json_view(json& j) : m_stack{&j} {}

    void field(const char* name, uint64_t value, format f) override {
        json& o = *m_stack.back();
        if (f == format::number) {
            o[name] = value;
        } else {
            o[name] = format_field(value, f);
        }
    }
    void text(const char* name, const std::string& value) override {
        (*m_stack.back())[name] = dvb_text(value);
    }
    void bytes(const char* name, const uint8_t* data, size_t size) override {
        (*m_stack.back())[name] = format_hex(data, size);
    }
    void descriptors(const char* name, const KVDescriptorList& list) override {
        (*m_stack.back())[name] = kv_ts_inspect::descriptors(list);
    }
    void begin_list(const char* name) override {
        json& a = (*m_stack.back())[name] = json::array();
        m_stack.push_back(&a);
    }
    void begin_entry() override {
        json& a = *m_stack.back();
        a.push_back(json::object());
        m_stack.push_back(&a.back());
    }
    void end_entry() override { m_stack.pop_back(); }
    void end_list() override { m_stack.pop_back(); }

private:
    std::vector<json*> m_stack;
};

// The descriptors whose fields are written out, by tag, with the names they go by; every
// other descriptor is written as its raw body.
const std::map<uint8_t, const char*> kDecoded = {
    {0x02, "video_stream_descriptor"},      {0x03, "audio_stream_descriptor"},
    {0x05, "registration_descriptor"},      {0x09, "CA_descriptor"},
    {0x0A, "ISO_639_language_descriptor"},  {0x40, "network_name_descriptor"},
    {0x41, "service_list_descriptor"},      {0x46, "VBI_teletext_descriptor"},
    {0x47, "bouquet_name_descriptor"},      {0x48, "service_descriptor"},
    {0x4D, "short_event_descriptor"},       {0x4E, "extended_event_descriptor"},
    {0x52, "stream_identifier_descriptor"}, {0x55, "parental_rating_descriptor"},
    {0x56, "teletext_descriptor"},          {0x58, "local_time_offset_descriptor"},
    {0x59, "subtitling_descriptor"},        {0x5F, "private_data_specifier_descriptor"},
    {0x83, "logical_channel_descriptor"},
};

// The body as the descriptor writes it back (byte for byte what was read).
std::string raw_body(const base_descriptor& d) {
    uint8_t buffer[2 + 255] = {};
    std::shared_ptr<base_descriptor> copy = d.create();
    d.copyTo(*copy);
    KVSDK::KVBSWriter out(buffer, sizeof buffer);
    if (copy->write(out)) {
        out.flush();
        return format_hex(buffer + 2, buffer[1]);
    }
    return format_hex(d.descriptor_data.data(), d.descriptor_data.size());
}

json descriptors(const KVDescriptorList& list) {
    json a = json::array();
    for (const std::shared_ptr<base_descriptor>& d : list.descriptor) {
        json o = {{"tag", d->descriptor_tag}, {"length", d->descriptor_length}};
        const auto decoded = kDecoded.find(d->descriptor_tag);
        json fields = json::object();
        json_view view(fields);
        if (decoded != kDecoded.end() && d->view(view)) {
            o["name"] = decoded->second;
            o.update(fields);
            // Body bytes after the last decoded field, if any.
            if (d->descriptor_data.size() > 0) {
                o["rest"] = format_hex(d->descriptor_data.data(), d->descriptor_data.size());
            }
        } else {
            o["data"] = raw_body(*d);
        }
        a.push_back(std::move(o));
    }
    return a;
}

}  // namespace

// ----- the inspector -----

struct ts_inspector::pcr_state {
    uint64_t pcrs = 0;
    bool have_last = false;
    int64_t last = 0;          // 27 MHz ticks
    uint64_t last_packet = 0;  // its packet index
    uint64_t packets = 0;      // packets inside the intervals that count
    int64_t ticks = 0;         // their length
};

ts_inspector::ts_inspector(section_sink on_section)
    : CBaseMpegParser(true), m_onSection(std::move(on_section)), m_bReported(kPidCount, false) {}

ts_inspector::~ts_inspector() = default;

void ts_inspector::feed(const uint8_t* data, size_t size) {
    m_nBytes += size;
    Process(data, size);
}

inspect_summary ts_inspector::summary() const {
    inspect_summary s = m_summary;
    s.bytes = m_nBytes;
    // Whatever is neither a packet nor a skipped byte is the incomplete packet held back.
    s.trailing_bytes = m_nBytes - s.packets * TS_PACKET_SIZE - s.sync_bytes_skipped;
    for (const auto& e : m_pcr) {
        pcr_pid_summary p;
        p.pid = e.first;
        p.pcrs = e.second.pcrs;
        if (e.second.ticks > 0) {
            p.measured_s = double(e.second.ticks) / kPcrTicksPerSecond;
            p.bitrate = double(e.second.packets) * TS_PACKET_SIZE * 8 / p.measured_s;
        }
        s.pcr_pids.push_back(p);
    }
    return s;
}

void ts_inspector::on_sync_byte_error() {
    ++m_summary.sync_bytes_skipped;
}

void ts_inspector::on_cc_error(uint16_t PID) {
    ++m_summary.continuity_errors[PID];
}

void ts_inspector::OnPreProcess(unsigned int /*index*/, const transport_packet& packet) {
    m_nPacket = m_summary.packets++;
    m_nPid = packet.PID;
    if (packet.payload_unit_start_indicator) {
        m_bReported[packet.PID] = false;
    }
    m_summary.transport_errors += packet.transport_error_indicator;
    m_summary.scrambled_packets += packet.transport_scrambling_control != 0;
}

void ts_inspector::OnPCR(transport_packet* packet) {
    pcr_state& s = m_pcr[packet->PID];
    ++s.pcrs;
    const int64_t pcr = packet->af.pcr();
    if (s.have_last && !packet->af.discontinuity_indicator) {
        int64_t step = pcr - s.last;
        if (step < 0) {
            step += kPcrWrap;  // the 33-bit base wrapped
        }
        if (step > 0 && step <= kMaxPcrStep) {
            s.ticks += step;
            s.packets += m_nPacket - s.last_packet;
        }
    }
    s.have_last = true;
    s.last = pcr;
    s.last_packet = m_nPacket;
}

template <class T>
void ts_inspector::report(const char* name, const T& table) {
    // The same section comes again with every further packet of its payload unit.
    if (m_bReported[m_nPid]) {
        return;
    }
    m_bReported[m_nPid] = true;
    ++m_summary.sections[name];
    json j = {{"table", name}, {"pid", m_nPid}, {"packet", m_nPacket}};
    json_view view(j);
    table.view(view);
    if (m_onSection) {
        m_onSection(j.dump());
    }
}

void ts_inspector::OnPAT(CPAT* pat) {
    report("PAT", *pat);
}
void ts_inspector::OnPMT(CBaseMpegProgram* /*program*/, CPMT* pmt) {
    report("PMT", *pmt);
}
void ts_inspector::OnCAT(CCAT* cat) {
    report("CAT", *cat);
}
void ts_inspector::OnTSDT(CTSDT* tsdt) {
    report("TSDT", *tsdt);
}
void ts_inspector::OnSDT(CSDT* sdt) {
    report("SDT", *sdt);
}
void ts_inspector::OnEIT(CEIT* eit) {
    report("EIT", *eit);
}
void ts_inspector::OnNIT(CNIT* nit) {
    report("NIT", *nit);
}
void ts_inspector::OnTDT(CTDT* tdt) {
    report("TDT", *tdt);
}
void ts_inspector::OnTOT(CTOT* tot) {
    report("TOT", *tot);
}
void ts_inspector::OnBAT(CBAT* bat) {
    report("BAT", *bat);
}

std::string render_summary(const inspect_summary& s) {
    json sections = json::object();
    for (const auto& e : s.sections) {
        sections[e.first] = e.second;
    }
    json errors = json::array();
    for (const auto& e : s.continuity_errors) {
        errors.push_back({{"pid", e.first}, {"errors", e.second}});
    }
    json pcr_pids = json::array();
    for (const pcr_pid_summary& p : s.pcr_pids) {
        pcr_pids.push_back({{"pid", p.pid},
                            {"pcrs", p.pcrs},
                            {"bitrate", std::llround(p.bitrate)},
                            {"measured_s", std::round(p.measured_s * 1000) / 1000}});
    }
    json summary = {{"packets", s.packets},
                    {"bytes", s.bytes},
                    {"sync_bytes_skipped", s.sync_bytes_skipped},
                    {"trailing_bytes", s.trailing_bytes},
                    {"transport_errors", s.transport_errors},
                    {"scrambled_packets", s.scrambled_packets},
                    {"sections", std::move(sections)},
                    {"continuity_errors", std::move(errors)},
                    {"pcr_pids", std::move(pcr_pids)}};
    return json{{"summary", std::move(summary)}}.dump();
}

int run(const std::vector<std::string>& args, std::FILE* out, std::FILE* err) {
    bool summary_only = false;
    kv_cli::parser cli("kv-ts-inspect", "FILE",
                       "Writes every table section of the transport stream FILE (- for standard\n"
                       "input) as one JSON object a line, then a summary line.");
    cli.flag("summary-only", 0, summary_only, "Write the summary line only");
    std::vector<std::string> files;
    const int usage = cli.parse(args, files, out, err);
    if (usage >= 0) {
        return usage;
    }
    if (files.size() != 1) {
        return cli.usage_error(files.empty() ? "no FILE given" : "more than one FILE given", err);
    }
    const std::string& path = files[0];

    const bool from_stdin = path == "-";
    const int fd = from_stdin ? 0 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        std::fprintf(err, "kv-ts-inspect: cannot open %s: %s\n", path.c_str(),
                     std::strerror(errno));
        return 2;
    }

    ts_inspector inspector([&](const std::string& json) {
        if (!summary_only) {
            std::fputs(json.c_str(), out);
            std::fputc('\n', out);
        }
    });
    std::vector<uint8_t> buffer(1 << 16);
    int status = 0;
    for (;;) {
        const ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n > 0) {
            inspector.feed(buffer.data(), static_cast<size_t>(n));
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            std::fprintf(err, "kv-ts-inspect: cannot read %s: %s\n",
                         from_stdin ? "standard input" : path.c_str(), std::strerror(errno));
            status = 2;
            break;
        }
    }
    if (!from_stdin) {
        ::close(fd);
    }
    if (status == 0) {
        std::fputs(render_summary(inspector.summary()).c_str(), out);
        std::fputc('\n', out);
    }
    std::fflush(out);
    return status;
}

}  // namespace kv_ts_inspect
