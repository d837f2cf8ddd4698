#include "kv_ts_inspector.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "mpegcore/descriptors_dvb.h"
#include "mpegcore/descriptors_mpeg.h"

namespace kv_ts_inspect {

using namespace mpegcore;

namespace {

constexpr int64_t kPcrTicksPerSecond = 27000000;
constexpr int64_t kPcrWrap = (int64_t(1) << 33) * 300;
constexpr int64_t kMaxPcrStep = 10 * kPcrTicksPerSecond;

// Two BCD digits.
std::string bcd(unsigned byte) {
    char text[3] = {"0123456789abcdef"[(byte >> 4) & 0xF], "0123456789abcdef"[byte & 0xF], 0};
    return text;
}

// "hh:mm" of a 16-bit BCD offset.
std::string format_bcd_offset(uint16_t value) {
    return bcd(value >> 8) + ":" + bcd(value & 0xFF);
}

std::string text_of(const iso_code& code) {
    return std::string(code.data(), code.size());
}

void hex_of(json_writer& w, const char* key, const std::vector<uint8_t>& bytes) {
    w.hex(key, bytes.data(), bytes.size());
}

// ----- descriptors -----

// Decoded fields of one descriptor class, behind its name. False, writing nothing, when
// the descriptor is not of that class.
using descriptor_view = std::function<bool(json_writer&, const base_descriptor&)>;

template <class D, class F>
descriptor_view view(const char* name, F fields) {
    return [name, fields](json_writer& w, const base_descriptor& b) {
        const D* d = dynamic_cast<const D*>(&b);
        if (d != nullptr) {
            w.string("name", name);
            fields(w, *d);
        }
        return d != nullptr;
    };
}

void teletext_pages(json_writer& w, const teletext_descriptor& d) {
    w.begin_array("pages");
    for (const auto& e : d.teletext_list) {
        w.begin_object()
            .dvb_text("ISO_639_language_code", text_of(e->ISO_639_language_code))
            .number("teletext_type", e->teletext_type)
            .number("teletext_magazine_number", e->teletext_magazine_number)
            .number("teletext_page_number", e->teletext_page_number)
            .end_object();
    }
    w.end_array();
}

// The classes whose fields are written out, by tag; every other descriptor is written as
// its raw body.
const std::map<uint8_t, descriptor_view>& descriptor_views() {
    static const std::map<uint8_t, descriptor_view> views = {
        {0x02, view<video_stream_descriptor>(
                   "video_stream_descriptor",
                   [](json_writer& w, const video_stream_descriptor& d) {
                       w.number("multiple_frame_rate_flag", d.multiple_frame_rate_flag)
                           .number("frame_rate_code", d.frame_rate_code)
                           .number("MPEG_1_only_flag", d.MPEG_1_only_flag)
                           .number("constrained_parameter_flag", d.constrained_parameter_flag)
                           .number("still_picture_flag", d.still_picture_flag);
                       if (d.MPEG_1_only_flag == 0) {
                           w.number("profile_and_level_indication", d.profile_and_level_indication)
                               .number("chroma_format", d.chroma_format)
                               .number("frame_rate_extension_flag", d.frame_rate_extension_flag);
                       }
                   })},
        {0x03, view<audio_stream_descriptor>("audio_stream_descriptor",
                                             [](json_writer& w, const audio_stream_descriptor& d) {
                                                 w.number("free_format_flag", d.free_format_flag)
                                                     .number("ID", d.ID)
                                                     .number("layer", d.layer)
                                                     .number("variable_rate_audio_indicator",
                                                             d.variable_rate_audio_indicator);
                                             })},
        {0x05, view<registration_descriptor>("registration_descriptor",
                                             [](json_writer& w, const registration_descriptor& d) {
                                                 w.number("format_identifier", d.format_identifier);
                                                 hex_of(w, "additional_identification_info",
                                                        d.additional_identification_info);
                                             })},
        {0x09, view<CA_descriptor>(
                   "CA_descriptor",
                   [](json_writer& w, const CA_descriptor& d) {
                       w.number("CA_system_ID", d.CA_system_ID).number("CA_PID", d.CA_PID);
                       hex_of(w, "private_data_byte", d.private_data_byte);
                   })},
        {0x0A, view<ISO_639_language_descriptor>(
                   "ISO_639_language_descriptor",
                   [](json_writer& w, const ISO_639_language_descriptor& d) {
                       w.begin_array("languages");
                       for (const auto& e : d.language_list) {
                           w.begin_object()
                               .dvb_text("ISO_639_language_code", text_of(e.ISO_639_language_code))
                               .number("audio_type", e.audio_type)
                               .end_object();
                       }
                       w.end_array();
                   })},
        {0x40, view<network_name_descriptor>("network_name_descriptor",
                                             [](json_writer& w, const network_name_descriptor& d) {
                                                 w.dvb_text("network_name", d.character);
                                             })},
        {0x41, view<service_list_descriptor>("service_list_descriptor",
                                             [](json_writer& w, const service_list_descriptor& d) {
                                                 w.begin_array("services");
                                                 for (const auto& e : d.services) {
                                                     w.begin_object()
                                                         .number("service_id", e.service_id)
                                                         .number("service_type", e.service_type)
                                                         .end_object();
                                                 }
                                                 w.end_array();
                                             })},
        {0x46, view<teletext_descriptor>("VBI_teletext_descriptor", teletext_pages)},
        {0x47, view<bouquet_name_descriptor>("bouquet_name_descriptor",
                                             [](json_writer& w, const bouquet_name_descriptor& d) {
                                                 w.dvb_text("bouquet_name", d.character);
                                             })},
        {0x48, view<service_descriptor>("service_descriptor",
                                        [](json_writer& w, const service_descriptor& d) {
                                            w.number("service_type", d.service_type)
                                                .dvb_text("service_provider_name",
                                                          d.service_provider_name)
                                                .dvb_text("service_name", d.service_name);
                                        })},
        {0x4D, view<short_event_descriptor>("short_event_descriptor",
                                            [](json_writer& w, const short_event_descriptor& d) {
                                                w.dvb_text("ISO_639_language_code",
                                                           text_of(d.ISO_639_language_code))
                                                    .dvb_text("event_name", d.event_name_char)
                                                    .dvb_text("text", d.text_char);
                                            })},
        {0x4E, view<extended_event_descriptor>(
                   "extended_event_descriptor",
                   [](json_writer& w, const extended_event_descriptor& d) {
                       w.number("descriptor_number", d.descriptor_number)
                           .number("last_descriptor_number", d.last_descriptor_number)
                           .dvb_text("ISO_639_language_code", text_of(d.ISO_639_language_code))
                           .begin_array("items");
                       for (const auto& e : d.items) {
                           w.begin_object()
                               .dvb_text("item_description", e.item_description_char)
                               .dvb_text("item", e.item_char)
                               .end_object();
                       }
                       w.end_array().dvb_text("text", d.text_char);
                   })},
        {0x52, view<stream_identifier_descriptor>(
                   "stream_identifier_descriptor",
                   [](json_writer& w, const stream_identifier_descriptor& d) {
                       w.number("component_tag", d.component_tag);
                   })},
        {0x55, view<parental_rating_descriptor>(
                   "parental_rating_descriptor",
                   [](json_writer& w, const parental_rating_descriptor& d) {
                       w.begin_array("ratings");
                       for (const auto& e : d.parentals) {
                           w.begin_object()
                               .dvb_text("country_code", text_of(e.country_code))
                               .number("rating", e.rating)
                               .end_object();
                       }
                       w.end_array();
                   })},
        {0x56, view<teletext_descriptor>("teletext_descriptor", teletext_pages)},
        {0x58, view<local_time_offset_descriptor>(
                   "local_time_offset_descriptor",
                   [](json_writer& w, const local_time_offset_descriptor& d) {
                       w.begin_array("offsets");
                       for (const auto& e : d.m_listEntry) {
                           w.begin_object()
                               .dvb_text("country_code", text_of(e->country_code))
                               .number("country_region_id", e->country_region_id)
                               .number("local_time_offset_polarity", e->local_time_offset_polarity)
                               .string("local_time_offset", format_bcd_offset(e->local_time_offset))
                               .string("time_of_change", format_mjd_utc(e->time_of_change))
                               .string("next_time_offset", format_bcd_offset(e->next_time_offset))
                               .end_object();
                       }
                       w.end_array();
                   })},
        {0x59,
         view<subtitling_descriptor>("subtitling_descriptor",
                                     [](json_writer& w, const subtitling_descriptor& d) {
                                         w.begin_array("subtitles");
                                         for (const auto& e : d.subtitling_list) {
                                             w.begin_object()
                                                 .dvb_text("ISO_639_language_code",
                                                           text_of(e->ISO_639_language_code))
                                                 .number("subtitling_type", e->subtitling_type)
                                                 .number("composition_page_id",
                                                         e->composition_page_id)
                                                 .number("ancillary_page_id", e->ancillary_page_id)
                                                 .end_object();
                                         }
                                         w.end_array();
                                     })},
        {0x5F, view<private_data_specifier_descriptor>(
                   "private_data_specifier_descriptor",
                   [](json_writer& w, const private_data_specifier_descriptor& d) {
                       w.number("private_data_specifier", d.private_data_specifier);
                   })},
        {0x83, view<logical_channel_descriptor>(
                   "logical_channel_descriptor",
                   [](json_writer& w, const logical_channel_descriptor& d) {
                       w.begin_array("channels");
                       for (const auto& e : d.m_listService) {
                           w.begin_object()
                               .number("service_id", e.service_id)
                               .number("visible_service_flag", e.visible_service_flag)
                               .number("logical_channel_number", e.logical_channel_number)
                               .end_object();
                       }
                       w.end_array();
                   })},
    };
    return views;
}

// The body as the descriptor writes it back (byte for byte what was read).
void raw_body(json_writer& w, const base_descriptor& d) {
    uint8_t buffer[2 + 255] = {};
    std::shared_ptr<base_descriptor> copy = d.create();
    d.copyTo(*copy);
    KVSDK::KVBSWriter out(buffer, sizeof buffer);
    if (copy->write(out)) {
        out.flush();
        w.hex("data", buffer + 2, buffer[1]);
    } else {
        w.hex("data", d.descriptor_data.data(), d.descriptor_data.size());
    }
}

void descriptors(json_writer& w, const KVDescriptorList& list, const char* key = "descriptors") {
    w.begin_array(key);
    for (const auto& d : list.descriptor) {
        w.begin_object().number("tag", d->descriptor_tag).number("length", d->descriptor_length);
        const auto& views = descriptor_views();
        const auto found = views.find(d->descriptor_tag);
        if (found != views.end() && found->second(w, *d)) {
            // Body bytes after the last decoded field, if any.
            if (d->descriptor_data.size() > 0) {
                w.hex("rest", d->descriptor_data.data(), d->descriptor_data.size());
            }
        } else {
            raw_body(w, *d);
        }
        w.end_object();
    }
    w.end_array();
}

// ----- tables -----

void header(json_writer& w, const char* name, uint16_t pid, uint64_t packet,
            const CBaseMpegTable& t) {
    w.begin_object()
        .string("table", name)
        .number("pid", pid)
        .number("packet", packet)
        .number("table_id", t.table_id)
        .number("section_syntax_indicator", t.section_syntax_indicator)
        .number("section_length", t.section_length);
}

// version_number .. last_section_number, shared by every table with the long header.
template <class T>
void versions(json_writer& w, const T& t) {
    w.number("version_number", t.version_number)
        .number("current_next_indicator", t.current_next_indicator)
        .number("section_number", t.section_number)
        .number("last_section_number", t.last_section_number);
}

void render(json_writer& w, const CPAT& t) {
    w.number("transport_stream_id", t.transport_stream_id);
    versions(w, t);
    w.begin_array("programs");
    for (const auto& e : t.program_map) {
        w.begin_object().number("program_number", e.second.program_number);
        w.number(e.second.isNetwork() ? "network_PID" : "program_map_PID", e.second.getPID());
        w.end_object();
    }
    w.end_array().number("CRC_32", t.CRC);
}

void render(json_writer& w, const CPMT& t) {
    w.number("program_number", t.program_number);
    versions(w, t);
    w.number("PCR_PID", t.PCR_PID).number("program_info_length", t.program_info_length);
    descriptors(w, t.descriptors);
    w.begin_array("streams");
    for (const auto& e : t.stream_map) {
        w.begin_object()
            .number("stream_type", e.second->stream_type)
            .number("elementary_PID", e.second->elementary_PID)
            .number("ES_info_length", e.second->ES_info_length);
        descriptors(w, e.second->descriptors);
        w.end_object();
    }
    w.end_array().number("CRC_32", t.CRC);
}

// CAT and TSDT: one descriptor loop.
template <class T>
void render_loop_table(json_writer& w, const T& t) {
    versions(w, t);
    descriptors(w, t.descriptors);
    w.number("CRC_32", t.CRC);
}
void render(json_writer& w, const CCAT& t) {
    render_loop_table(w, t);
}
void render(json_writer& w, const CTSDT& t) {
    render_loop_table(w, t);
}

void render(json_writer& w, const CSDT& t) {
    w.number("transport_stream_id", t.transport_stream_id);
    versions(w, t);
    w.number("original_network_id", t.original_network_id).begin_array("services");
    for (const auto& e : t.sds) {
        const CServiceDescriptionSection& s = *e.second;
        w.begin_object()
            .number("service_id", s.service_id)
            .number("EIT_schedule_flag", s.EIT_schedule_flag)
            .number("EIT_present_following_flag", s.EIT_present_following_flag)
            .number("running_status", s.running_status)
            .number("free_CA_mode", s.free_CA_mode)
            .number("descriptors_loop_length", s.descriptors_loop_length);
        descriptors(w, s.descriptors);
        w.end_object();
    }
    w.end_array().number("CRC_32", t.CRC);
}

void render(json_writer& w, const CNIT& t) {
    w.number("network_id", t.network_id);
    versions(w, t);
    w.number("network_descriptors_length", t.network_descriptors_length);
    descriptors(w, t.descriptors);
    w.number("transport_stream_loop_length", t.transport_stream_loop_length)
        .begin_array("transport_streams");
    for (const auto& e : t.transport_stream) {
        w.begin_object()
            .number("transport_stream_id", e->transport_stream_id)
            .number("original_network_id", e->original_network_id)
            .number("transport_descriptors_length", e->network_descriptors_length);
        descriptors(w, e->descriptors);
        w.end_object();
    }
    w.end_array().number("CRC_32", t.CRC);
}

// The core reads every descriptor of a BAT section, the transport streams' included, into
// the table's own list; the streams keep only their ids and lengths.
void render(json_writer& w, const CBAT& t) {
    w.number("bouquet_id", t.bouquet_id);
    versions(w, t);
    w.number("bouquet_descriptors_length", t.bouquet_descriptors_length);
    descriptors(w, t.descriptors);
    w.number("transport_stream_loop_length", t.transport_stream_loop_length)
        .begin_array("transport_streams");
    for (const CBouquetAssociationStream* e : t.BouquetAssociationStreamList) {
        w.begin_object()
            .number("transport_stream_id", e->transport_stream_id)
            .number("original_network_id", e->original_network_id)
            .number("transport_descriptors_length", e->transport_descriptors_length);
        descriptors(w, e->descriptors);
        w.end_object();
    }
    w.end_array().number("CRC_32", t.CRC);
}

void render(json_writer& w, const CEIT& t) {
    w.number("service_id", t.service_id);
    versions(w, t);
    w.number("transport_stream_id", t.transport_stream_id)
        .number("original_network_id", t.original_network_id)
        .number("segment_last_section_number", t.segment_last_section_number)
        .number("last_table_id", t.last_table_id)
        .begin_array("events");
    for (const auto& e : t.eventInfo) {
        w.begin_object()
            .number("event_id", e->event_id)
            .string("start_time", format_mjd_utc(e->start_time))
            .string("duration", format_bcd_duration(e->duration))
            .number("running_status", e->running_status)
            .number("free_CA_mode", e->free_CA_mode)
            .number("descriptors_loop_length", e->descriptors_loop_length);
        descriptors(w, e->descriptors);
        w.end_object();
    }
    w.end_array().number("CRC_32", t.CRC);
}

void render(json_writer& w, const CTDT& t) {
    w.string("UTC_time", format_mjd_utc(t.UTC_time));
}

void render(json_writer& w, const CTOT& t) {
    w.string("UTC_time", format_mjd_utc(t.UTC_time))
        .number("descriptors_loop_length", t.descriptors_loop_length);
    descriptors(w, t.descriptors);
    w.number("CRC_32", t.CRC);
}

}  // namespace

std::string format_mjd_utc(uint64_t mjd_bcd) {
    // Modified Julian Date to calendar date, as in EN 300 468 Annex C.
    const long mjd = static_cast<long>((mjd_bcd >> 24) & 0xFFFF);
    const long y1 = static_cast<long>((mjd - 15078.2) / 365.25);
    const long m1 = static_cast<long>((mjd - 14956.1 - static_cast<long>(y1 * 365.25)) / 30.6001);
    const long day = mjd - 14956 - static_cast<long>(y1 * 365.25) - static_cast<long>(m1 * 30.6001);
    const long k = (m1 == 14 || m1 == 15) ? 1 : 0;
    const long year = 1900 + y1 + k;
    const long month = m1 - 1 - 12 * k;
    char text[48];
    std::snprintf(text, sizeof text, "%04ld-%02ld-%02ld ", year, month, day);
    return text + format_bcd_duration(static_cast<uint32_t>(mjd_bcd & 0xFFFFFF));
}

std::string format_bcd_duration(uint32_t value) {
    return bcd((value >> 16) & 0xFF) + ":" + bcd((value >> 8) & 0xFF) + ":" + bcd(value & 0xFF);
}

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
    header(m_writer, name, m_nPid, m_nPacket, table);
    render(m_writer, table);
    m_writer.end_object();
    if (m_onSection) {
        m_onSection(m_writer.str());
    }
    m_writer.clear();
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
    json_writer w;
    w.begin_object()
        .begin_object("summary")
        .number("packets", s.packets)
        .number("bytes", s.bytes)
        .number("sync_bytes_skipped", s.sync_bytes_skipped)
        .number("trailing_bytes", s.trailing_bytes)
        .number("transport_errors", s.transport_errors)
        .number("scrambled_packets", s.scrambled_packets)
        .begin_object("sections");
    for (const auto& e : s.sections) {
        w.number(e.first.c_str(), e.second);
    }
    w.end_object().begin_array("continuity_errors");
    for (const auto& e : s.continuity_errors) {
        w.begin_object().number("pid", e.first).number("errors", e.second).end_object();
    }
    w.end_array().begin_array("pcr_pids");
    for (const auto& p : s.pcr_pids) {
        w.begin_object()
            .number("pid", p.pid)
            .number("pcrs", p.pcrs)
            .real("bitrate", p.bitrate, 0)
            .real("measured_s", p.measured_s, 3)
            .end_object();
    }
    w.end_array().end_object().end_object();
    return w.str();
}

int run(const std::vector<std::string>& args, std::FILE* out, std::FILE* err) {
    bool summary_only = false;
    std::string path;
    for (const std::string& a : args) {
        if (a == "--summary-only") {
            summary_only = true;
        } else if (path.empty() && (a == "-" || a.compare(0, 1, "-") != 0)) {
            path = a;
        } else {
            path.clear();
            break;
        }
    }
    if (path.empty()) {
        std::fprintf(err, "usage: kv-ts-inspect [--summary-only] FILE|-\n");
        return 2;
    }

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
