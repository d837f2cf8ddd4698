#include "kv_ts_inspector.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "kv_cli.h"
#include "kv_dvb_text.h"
#include "mpegcore/descriptors_dvb.h"
#include "mpegcore/descriptors_mpeg.h"
#include "mpegcore/table_view.h"

namespace kv_ts_inspect {

using namespace mpegcore;
using json = nlohmann::ordered_json;

namespace {

constexpr int64_t kPcrTicksPerSecond = 27000000;
constexpr int64_t kPcrWrap = (int64_t(1) << 33) * 300;
constexpr int64_t kMaxPcrStep = 10 * kPcrTicksPerSecond;

// "hh:mm" of a 16-bit BCD offset.
std::string format_bcd_offset(uint16_t value) {
    return format_bcd_time(uint32_t(value) << 8).substr(0, 5);
}

std::string text_of(const iso_code& code) {
    return dvb_text(std::string(code.data(), code.size()));
}

std::string hex(const uint8_t* data, size_t size) {
    static const char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * size);
    for (size_t i = 0; i < size; ++i) {
        text += kHex[data[i] >> 4];
        text += kHex[data[i] & 0xF];
    }
    return text;
}

std::string hex(const std::vector<uint8_t>& bytes) {
    return hex(bytes.data(), bytes.size());
}

// ----- descriptors -----

// Decoded fields of one descriptor class, behind its name. False, writing nothing, when
// the descriptor is not of that class.
using descriptor_view = std::function<bool(json&, const base_descriptor&)>;

template <class D, class F>
descriptor_view view(const char* name, F fields) {
    return [name, fields](json& j, const base_descriptor& b) {
        const D* d = dynamic_cast<const D*>(&b);
        if (d != nullptr) {
            j["name"] = name;
            fields(j, *d);
        }
        return d != nullptr;
    };
}

// One object per entry of `list` (by value or by pointer), its members set by `fields`.
template <class L, class F>
json entries(const L& list, F fields) {
    json a = json::array();
    for (const auto& e : list) {
        json o = json::object();
        fields(o, e);
        a.push_back(std::move(o));
    }
    return a;
}

void teletext_pages(json& j, const teletext_descriptor& d) {
    j["pages"] = entries(d.teletext_list, [](json& o, const auto& e) {
        o["ISO_639_language_code"] = text_of(e->ISO_639_language_code);
        o["teletext_type"] = e->teletext_type;
        o["teletext_magazine_number"] = e->teletext_magazine_number;
        o["teletext_page_number"] = e->teletext_page_number;
    });
}

using descriptor_map = std::map<uint8_t, descriptor_view>;

// MPEG-2 Systems descriptors whose fields are written out.
descriptor_map mpeg_views() {
    return {
        {0x02, view<video_stream_descriptor>(
                   "video_stream_descriptor",
                   [](json& j, const video_stream_descriptor& d) {
                       j["multiple_frame_rate_flag"] = d.multiple_frame_rate_flag;
                       j["frame_rate_code"] = d.frame_rate_code;
                       j["MPEG_1_only_flag"] = d.MPEG_1_only_flag;
                       j["constrained_parameter_flag"] = d.constrained_parameter_flag;
                       j["still_picture_flag"] = d.still_picture_flag;
                       if (d.MPEG_1_only_flag == 0) {
                           j["profile_and_level_indication"] = d.profile_and_level_indication;
                           j["chroma_format"] = d.chroma_format;
                           j["frame_rate_extension_flag"] = d.frame_rate_extension_flag;
                       }
                   })},
        {0x03, view<audio_stream_descriptor>("audio_stream_descriptor",
                                             [](json& j, const audio_stream_descriptor& d) {
                                                 j["free_format_flag"] = d.free_format_flag;
                                                 j["ID"] = d.ID;
                                                 j["layer"] = d.layer;
                                                 j["variable_rate_audio_indicator"] =
                                                     d.variable_rate_audio_indicator;
                                             })},
        {0x05, view<registration_descriptor>("registration_descriptor",
                                             [](json& j, const registration_descriptor& d) {
                                                 j["format_identifier"] = d.format_identifier;
                                                 j["additional_identification_info"] =
                                                     hex(d.additional_identification_info);
                                             })},
        {0x09, view<CA_descriptor>("CA_descriptor",
                                   [](json& j, const CA_descriptor& d) {
                                       j["CA_system_ID"] = d.CA_system_ID;
                                       j["CA_PID"] = d.CA_PID;
                                       j["private_data_byte"] = hex(d.private_data_byte);
                                   })},
        {0x0A, view<ISO_639_language_descriptor>(
                   "ISO_639_language_descriptor",
                   [](json& j, const ISO_639_language_descriptor& d) {
                       j["languages"] = entries(d.language_list, [](json& o, const auto& e) {
                           o["ISO_639_language_code"] = text_of(e.ISO_639_language_code);
                           o["audio_type"] = e.audio_type;
                       });
                   })},
    };
}

// DVB network and service descriptors whose fields are written out.
descriptor_map dvb_service_views() {
    return {
        {0x40, view<network_name_descriptor>("network_name_descriptor",
                                             [](json& j, const network_name_descriptor& d) {
                                                 j["network_name"] = dvb_text(d.character);
                                             })},
        {0x41, view<service_list_descriptor>(
                   "service_list_descriptor",
                   [](json& j, const service_list_descriptor& d) {
                       j["services"] = entries(d.services, [](json& o, const auto& e) {
                           o["service_id"] = e.service_id;
                           o["service_type"] = e.service_type;
                       });
                   })},
        {0x46, view<teletext_descriptor>("VBI_teletext_descriptor", teletext_pages)},
        {0x47, view<bouquet_name_descriptor>("bouquet_name_descriptor",
                                             [](json& j, const bouquet_name_descriptor& d) {
                                                 j["bouquet_name"] = dvb_text(d.character);
                                             })},
        {0x48, view<service_descriptor>(
                   "service_descriptor",
                   [](json& j, const service_descriptor& d) {
                       j["service_type"] = d.service_type;
                       j["service_provider_name"] = dvb_text(d.service_provider_name);
                       j["service_name"] = dvb_text(d.service_name);
                   })},
    };
}

// The other DVB descriptors whose fields are written out: events, streams, rights.
descriptor_map dvb_other_views() {
    return {
        {0x4D, view<short_event_descriptor>(
                   "short_event_descriptor",
                   [](json& j, const short_event_descriptor& d) {
                       j["ISO_639_language_code"] = text_of(d.ISO_639_language_code);
                       j["event_name"] = dvb_text(d.event_name_char);
                       j["text"] = dvb_text(d.text_char);
                   })},
        {0x4E, view<extended_event_descriptor>(
                   "extended_event_descriptor",
                   [](json& j, const extended_event_descriptor& d) {
                       j["descriptor_number"] = d.descriptor_number;
                       j["last_descriptor_number"] = d.last_descriptor_number;
                       j["ISO_639_language_code"] = text_of(d.ISO_639_language_code);
                       j["items"] = entries(d.items, [](json& o, const auto& e) {
                           o["item_description"] = dvb_text(e.item_description_char);
                           o["item"] = dvb_text(e.item_char);
                       });
                       j["text"] = dvb_text(d.text_char);
                   })},
        {0x52, view<stream_identifier_descriptor>(
                   "stream_identifier_descriptor",
                   [](json& j, const stream_identifier_descriptor& d) {
                       j["component_tag"] = d.component_tag;
                   })},
        {0x55, view<parental_rating_descriptor>(
                   "parental_rating_descriptor",
                   [](json& j, const parental_rating_descriptor& d) {
                       j["ratings"] = entries(d.parentals, [](json& o, const auto& e) {
                           o["country_code"] = text_of(e.country_code);
                           o["rating"] = e.rating;
                       });
                   })},
        {0x56, view<teletext_descriptor>("teletext_descriptor", teletext_pages)},
        {0x58, view<local_time_offset_descriptor>(
                   "local_time_offset_descriptor",
                   [](json& j, const local_time_offset_descriptor& d) {
                       j["offsets"] = entries(d.m_listEntry, [](json& o, const auto& e) {
                           o["country_code"] = text_of(e->country_code);
                           o["country_region_id"] = e->country_region_id;
                           o["local_time_offset_polarity"] = e->local_time_offset_polarity;
                           o["local_time_offset"] = format_bcd_offset(e->local_time_offset);
                           o["time_of_change"] = format_mjd_utc(e->time_of_change);
                           o["next_time_offset"] = format_bcd_offset(e->next_time_offset);
                       });
                   })},
        {0x59, view<subtitling_descriptor>(
                   "subtitling_descriptor",
                   [](json& j, const subtitling_descriptor& d) {
                       j["subtitles"] = entries(d.subtitling_list, [](json& o, const auto& e) {
                           o["ISO_639_language_code"] = text_of(e->ISO_639_language_code);
                           o["subtitling_type"] = e->subtitling_type;
                           o["composition_page_id"] = e->composition_page_id;
                           o["ancillary_page_id"] = e->ancillary_page_id;
                       });
                   })},
        {0x5F, view<private_data_specifier_descriptor>(
                   "private_data_specifier_descriptor",
                   [](json& j, const private_data_specifier_descriptor& d) {
                       j["private_data_specifier"] = d.private_data_specifier;
                   })},
        {0x83, view<logical_channel_descriptor>(
                   "logical_channel_descriptor",
                   [](json& j, const logical_channel_descriptor& d) {
                       j["channels"] = entries(d.m_listService, [](json& o, const auto& e) {
                           o["service_id"] = e.service_id;
                           o["visible_service_flag"] = e.visible_service_flag;
                           o["logical_channel_number"] = e.logical_channel_number;
                       });
                   })},
    };
}

// The classes whose fields are written out, by tag; every other descriptor is written as
// its raw body.
const descriptor_map& descriptor_views() {
    static const descriptor_map views = [] {
        descriptor_map v = mpeg_views();
        for (const descriptor_map& more : {dvb_service_views(), dvb_other_views()}) {
            v.insert(more.begin(), more.end());
        }
        return v;
    }();
    return views;
}

// The body as the descriptor writes it back (byte for byte what was read).
std::string raw_body(const base_descriptor& d) {
    uint8_t buffer[2 + 255] = {};
    std::shared_ptr<base_descriptor> copy = d.create();
    d.copyTo(*copy);
    KVSDK::KVBSWriter out(buffer, sizeof buffer);
    if (copy->write(out)) {
        out.flush();
        return hex(buffer + 2, buffer[1]);
    }
    return hex(d.descriptor_data.data(), d.descriptor_data.size());
}

json descriptors(const KVDescriptorList& list) {
    return entries(list.descriptor, [](json& o, const std::shared_ptr<base_descriptor>& d) {
        o["tag"] = d->descriptor_tag;
        o["length"] = d->descriptor_length;
        const auto& views = descriptor_views();
        const auto found = views.find(d->descriptor_tag);
        if (found != views.end() && found->second(o, *d)) {
            // Body bytes after the last decoded field, if any.
            if (d->descriptor_data.size() > 0) {
                o["rest"] = hex(d->descriptor_data.data(), d->descriptor_data.size());
            }
        } else {
            o["data"] = raw_body(*d);
        }
    });
}

// ----- tables -----

// A table's fields as JSON members, lists as arrays of objects.
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
    json errors = entries(s.continuity_errors, [](json& o, const auto& e) {
        o["pid"] = e.first;
        o["errors"] = e.second;
    });
    json pcr_pids = entries(s.pcr_pids, [](json& o, const pcr_pid_summary& p) {
        o["pid"] = p.pid;
        o["pcrs"] = p.pcrs;
        o["bitrate"] = std::llround(p.bitrate);
        o["measured_s"] = std::round(p.measured_s * 1000) / 1000;
    });
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
