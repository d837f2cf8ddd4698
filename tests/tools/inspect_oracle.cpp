// The inspector's SDT, NIT, EIT, BAT, CAT, TDT and TOT objects agree with libdvbpsi's
// decoding of the same streams. libdvbpsi hands over whole tables, the inspector single
// sections: each section must match the header of libdvbpsi's table of the same id,
// extension and version, and its loop entries must appear in that table in order.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <vector>

// clang-format off
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/demux.h>
#include <dvbpsi/bat.h>
#include <dvbpsi/cat.h>
#include <dvbpsi/eit.h>
#include <dvbpsi/nit.h>
#include <dvbpsi/sdt.h>
#include <dvbpsi/tot.h>
#include <dvbpsi/dr_09.h>
#include <dvbpsi/dr_40.h>
#include <dvbpsi/dr_41.h>
#include <dvbpsi/dr_48.h>
#include <dvbpsi/dr_4d.h>
#include <dvbpsi/dr_58.h>
// clang-format on

#include "../mpegcore/ts_test_util.h"
#include "inspect_json.h"
#include "kv_ts_inspector.h"

using inspect_test::Json;
using kv_ts_inspect::format_bcd_duration;
using kv_ts_inspect::format_mjd_utc;
using ts_test::Bytes;

namespace {

std::string hex(const uint8_t* p, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += "0123456789abcdef"[p[i] >> 4];
        s += "0123456789abcdef"[p[i] & 0xF];
    }
    return s;
}
std::string bytes(const uint8_t* p, size_t n) {
    return std::string(reinterpret_cast<const char*>(p), n);
}
std::string offset(unsigned bcd) {  // "hh:mm"
    char text[8];
    std::snprintf(text, sizeof text, "%02x:%02x", bcd >> 8 & 0xFF, bcd & 0xFF);
    return text;
}

// Values as compared: numbers in decimal, texts as the hex of their bytes.
struct Leaves {
    std::string s;
    Leaves& operator<<(uint64_t v) {
        s += " " + std::to_string(v);
        return *this;
    }
    Leaves& operator<<(const std::string& t) {
        s += " " + hex(reinterpret_cast<const uint8_t*>(t.data()), t.size());
        return *this;
    }
};

// Every value under `j` in document order, leaving out a descriptor's tag, length and name.
void walk(const Json& j, Leaves& l) {
    if (j.kind == Json::Number) {
        l << j.u();
    } else if (j.kind == Json::String) {
        l << inspect_test::dvb_bytes(j.text);
    }
    for (const Json& i : j.items) {
        walk(i, l);
    }
    for (const auto& m : j.members) {
        if (m.first != "tag" && m.first != "length" && m.first != "name" && m.first != "rest") {
            walk(m.second, l);
        }
    }
}
std::string named(const Json& j, std::initializer_list<const char*> names) {
    Leaves l;
    for (const char* name : names) {
        walk(j[name], l);
    }
    return l.s;
}

// Tags the inspector decodes (learnt from its output); the others it writes as raw bytes.
std::set<unsigned> g_decoded;
// Decoded tags compared field by field; the other decoded ones by tag and length alone.
const std::set<unsigned> kCompared{0x09, 0x40, 0x41, 0x48, 0x4D, 0x58, 0x5F};

void learn(const Json& j) {
    if (j.has("tag") && j.has("name")) {
        g_decoded.insert(unsigned(j["tag"].u()));
    }
    for (const Json& i : j.items) {
        learn(i);
    }
    for (const auto& m : j.members) {
        learn(m.second);
    }
}

std::string ours(const Json& d) {
    Leaves l;
    l << d["tag"].u() << d["length"].u();
    if (d.has("data") || kCompared.count(unsigned(d["tag"].u())) != 0) {
        walk(d, l);
    }
    return l.s;
}

std::string theirs(dvbpsi_descriptor_t* d) {
    Leaves l;
    l << d->i_tag << d->i_length;
    if (g_decoded.count(d->i_tag) == 0) {
        return (l << hex(d->p_data, d->i_length)).s;
    }
    switch (kCompared.count(d->i_tag) != 0 ? d->i_tag : 0) {
        case 0:
            return l.s;
        case 0x09:
            if (auto* x = dvbpsi_DecodeCADr(d)) {
                return (l << x->i_ca_system_id << x->i_ca_pid
                          << hex(x->i_private_data, x->i_private_length))
                    .s;
            }
            break;
        case 0x40:
            if (auto* x = dvbpsi_DecodeNetworkNameDr(d)) {
                return (l << bytes(x->i_name_byte, x->i_name_length)).s;
            }
            break;
        case 0x41:
            if (auto* x = dvbpsi_DecodeServiceListDr(d)) {
                for (int i = 0; i < x->i_service_count; ++i) {
                    l << x->i_service[i].i_service_id << x->i_service[i].i_service_type;
                }
                return l.s;
            }
            break;
        case 0x48:
            if (auto* x = dvbpsi_DecodeServiceDr(d)) {
                return (l << x->i_service_type
                          << bytes(x->i_service_provider_name, x->i_service_provider_name_length)
                          << bytes(x->i_service_name, x->i_service_name_length))
                    .s;
            }
            break;
        case 0x4D:
            if (auto* x = dvbpsi_DecodeShortEventDr(d)) {
                return (l << bytes(x->i_iso_639_code, 3)
                          << bytes(x->i_event_name, size_t(x->i_event_name_length))
                          << bytes(x->i_text, size_t(x->i_text_length)))
                    .s;
            }
            break;
        case 0x58:
            if (auto* x = dvbpsi_DecodeLocalTimeOffsetDr(d)) {
                for (int i = 0; i < x->i_local_time_offsets_number; ++i) {
                    const dvbpsi_local_time_offset_t& e = x->p_local_time_offset[i];
                    l << bytes(e.i_country_code, 3) << e.i_country_region_id
                      << e.i_local_time_offset_polarity << offset(e.i_local_time_offset)
                      << format_mjd_utc(e.i_time_of_change) << offset(e.i_next_time_offset);
                }
                return l.s;
            }
            break;
        case 0x5F:  // no decoder in libdvbpsi: the 32-bit body
            if (d->i_length == 4) {
                const uint8_t* p = d->p_data;
                return (l << (uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3])).s;
            }
            break;
    }
    return l.s + " (libdvbpsi cannot decode it)";
}

// Descriptor loops as "[descriptor][descriptor]...".
std::string ours_list(const Json& list) {
    std::string out;
    for (const Json& d : list.items) {
        out += "[" + ours(d) + "]";
    }
    return out;
}
std::string theirs_list(dvbpsi_descriptor_t* d) {
    std::string out;
    for (; d != nullptr; d = d->p_next) {
        out += "[" + theirs(d) + "]";
    }
    return out;
}

// Entry loops as "{entry}{entry}...": libdvbpsi's with the values `f` picks, ours with the
// values of `names`, each followed by the entry's descriptors.
template <class E, class F>
std::string each(const E* e, F f) {
    std::string out;
    for (; e != nullptr; e = e->p_next) {
        out += "{" + f(*e).s + theirs_list(e->p_first_descriptor) + "}";
    }
    return out;
}
std::string each(const Json& loop, std::initializer_list<const char*> names) {
    std::string out;
    for (const Json& e : loop.items) {
        out += "{" + named(e, names) + ours_list(e["descriptors"]) + "}";
    }
    return out;
}

// libdvbpsi's tables, kept until the end of a capture.
struct Theirs {
    std::vector<dvbpsi_sdt_t*> sdts;
    std::vector<dvbpsi_nit_t*> nits;
    std::vector<dvbpsi_bat_t*> bats;
    std::vector<dvbpsi_eit_t*> eits;
    std::vector<dvbpsi_cat_t*> cats;
    std::vector<dvbpsi_tot_t*> times;
    ~Theirs() {
        std::for_each(sdts.begin(), sdts.end(), dvbpsi_sdt_delete);
        std::for_each(nits.begin(), nits.end(), dvbpsi_nit_delete);
        std::for_each(bats.begin(), bats.end(), dvbpsi_bat_delete);
        std::for_each(eits.begin(), eits.end(), dvbpsi_eit_delete);
        std::for_each(cats.begin(), cats.end(), dvbpsi_cat_delete);
        std::for_each(times.begin(), times.end(), dvbpsi_tot_delete);
    }
};

template <class T>
void keep(void* list, T* table) {
    static_cast<std::vector<T*>*>(list)->push_back(table);
}

void on_subtable(dvbpsi_t* h, uint8_t id, uint16_t extension, void* data) {
    Theirs& t = *static_cast<Theirs*>(data);
    if (id == 0x40 || id == 0x41) {
        dvbpsi_nit_attach(h, id, extension, keep<dvbpsi_nit_t>, &t.nits);
    } else if (id == 0x42 || id == 0x46) {
        dvbpsi_sdt_attach(h, id, extension, keep<dvbpsi_sdt_t>, &t.sdts);
    } else if (id == 0x4A) {
        dvbpsi_bat_attach(h, id, extension, keep<dvbpsi_bat_t>, &t.bats);
    } else if (id >= 0x4E && id <= 0x6F) {
        dvbpsi_eit_attach(h, id, extension, keep<dvbpsi_eit_t>, &t.eits);
    } else if (id == 0x70 || id == 0x73) {
        dvbpsi_tot_attach(h, id, extension, keep<dvbpsi_tot_t>, &t.times);
    }
}

void decode_theirs(const Bytes& ts, Theirs& out) {
    for (unsigned pid : {0x01u, 0x10u, 0x11u, 0x12u, 0x14u}) {
        dvbpsi_t* h = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
        if (pid == 0x01) {
            dvbpsi_cat_attach(h, keep<dvbpsi_cat_t>, &out.cats);
        } else {
            dvbpsi_AttachDemux(h, on_subtable, &out);
        }
        uint8_t packet[188];
        for (size_t at = 0; at + 188 <= ts.size(); at += 188) {
            std::memcpy(packet, &ts[at], 188);
            if (packet[0] == 0x47 && unsigned((packet[1] & 0x1F) << 8 | packet[2]) == pid) {
                dvbpsi_packet_push(h, packet);
            }
        }
        if (pid == 0x01) {
            dvbpsi_cat_detach(h);
        } else {
            dvbpsi_DetachDemux(h);
        }
        dvbpsi_delete(h);
    }
}

template <class T>
const T* find(const std::vector<T*>& tables, unsigned id, uint64_t extension, unsigned version) {
    for (const T* t : tables) {
        if (t->i_table_id == id && t->i_extension == extension && t->i_version == version) {
            return t;
        }
    }
    return nullptr;
}

// Compares one section of ours with libdvbpsi's tables; false when they hold no table for it.
bool compare(const Json& s, const Theirs& t) {
    const std::string table = s["table"].text;
    const unsigned id = unsigned(s["table_id"].u()), version = unsigned(s["version_number"].u());
    const bool current = s["current_next_indicator"].u() != 0;
    SCOPED_TRACE(table + " at packet " + std::to_string(s["packet"].u()));
    Leaves head;            // libdvbpsi's header fields
    std::string my_head;    // ours
    std::string mine, all;  // loop entries, which must appear in order in libdvbpsi's table
    if (table == "SDT") {
        const dvbpsi_sdt_t* x = find(t.sdts, id, s["transport_stream_id"].u(), version);
        if (x == nullptr) {
            return false;
        }
        head << x->b_current_next << x->i_network_id;
        my_head = named(s, {"current_next_indicator", "original_network_id"});
        all = each(x->p_first_service, [](const dvbpsi_sdt_service_t& e) -> Leaves {
            return Leaves() << e.i_service_id << e.b_eit_schedule << e.b_eit_present
                            << e.i_running_status << e.b_free_ca;
        });
        mine = each(s["services"], {"service_id", "EIT_schedule_flag", "EIT_present_following_flag",
                                    "running_status", "free_CA_mode"});
    } else if (table == "NIT") {
        const dvbpsi_nit_t* x = find(t.nits, id, s["network_id"].u(), version);
        if (x == nullptr) {
            return false;
        }
        head << x->b_current_next;
        my_head = named(s, {"current_next_indicator"});
        EXPECT_NE(theirs_list(x->p_first_descriptor).find(ours_list(s["descriptors"])),
                  std::string::npos);
        all = each(x->p_first_ts, [](const dvbpsi_nit_ts_t& e) -> Leaves {
            return Leaves() << e.i_ts_id << e.i_orig_network_id;
        });
        mine = each(s["transport_streams"], {"transport_stream_id", "original_network_id"});
    } else if (table == "EIT") {
        const dvbpsi_eit_t* x = find(t.eits, id, s["service_id"].u(), version);
        if (x == nullptr) {
            return false;
        }
        head << x->b_current_next << x->i_ts_id << x->i_network_id
             << x->i_segment_last_section_number << x->i_last_table_id;
        my_head = named(s, {"current_next_indicator", "transport_stream_id", "original_network_id",
                            "segment_last_section_number", "last_table_id"});
        all = each(x->p_first_event, [](const dvbpsi_eit_event_t& e) -> Leaves {
            return Leaves() << e.i_event_id << format_mjd_utc(e.i_start_time)
                            << format_bcd_duration(e.i_duration) << e.i_running_status
                            << e.b_free_ca << e.i_descriptors_length;
        });
        mine = each(s["events"], {"event_id", "start_time", "duration", "running_status",
                                  "free_CA_mode", "descriptors_loop_length"});
    } else if (table == "CAT") {
        for (const dvbpsi_cat_t* x : t.cats) {
            if (x->i_version == version && x->b_current_next == current) {
                EXPECT_EQ(theirs_list(x->p_first_descriptor), ours_list(s["descriptors"]));
                return true;
            }
        }
        return false;
    } else {  // TDT and TOT: the same time and descriptors in one of libdvbpsi's sections
        for (const dvbpsi_tot_t* x : t.times) {
            if (x->i_table_id == id && format_mjd_utc(x->i_utc_time) == s["UTC_time"].text &&
                theirs_list(x->p_first_descriptor) == ours_list(s["descriptors"])) {
                return true;
            }
        }
        return false;
    }
    EXPECT_EQ(head.s, my_head);
    EXPECT_NE(all.find(mine), std::string::npos) << mine << "\nin\n" << all;
    return true;
}

std::vector<Json> inspect(const Bytes& ts) {
    std::vector<Json> sections;
    kv_ts_inspect::ts_inspector inspector([&](const std::string& line) {
        sections.emplace_back();
        EXPECT_TRUE(inspect_test::parse_json(line, sections.back())) << line;
        learn(sections.back());
    });
    inspector.feed(ts.data(), ts.size());
    return sections;
}

// libdvbpsi's decoding of a section of a multi-section table that the capture does not
// hold whole: made the only section of its table (section, last section and an EIT's
// segment last section number 0 in it and in `s`) and decoded alone.
bool compare_alone(const Bytes& ts, Json s) {
    for (Bytes sec : ts_test::gather_sections(ts, int(s["pid"].u()))) {
        const size_t n = sec.size();
        if (n < 16 || sec[0] != s["table_id"].u() ||
            (uint32_t(sec[n - 4]) << 24 | sec[n - 3] << 16 | sec[n - 2] << 8 | sec[n - 1]) !=
                s["CRC_32"].u()) {
            continue;
        }
        sec[6] = sec[7] = 0;
        if (sec[0] >= 0x4E && sec[0] <= 0x6F) {
            sec[12] = 0;
            for (auto& m : s.members) {
                if (m.first == "segment_last_section_number") {
                    m.second.number = 0;
                }
            }
        }
        // libdvbpsi hands an EIT over when the section comes round again: sent twice.
        const Bytes alone =
            ts_test::section(sec[0], sec[1] & 0xF0, Bytes(sec.begin() + 3, sec.end() - 4));
        uint8_t cc = 0;
        Theirs theirs;
        decode_theirs(ts_test::cat({ts_test::psi(uint16_t(s["pid"].u()), cc, alone),
                                    ts_test::psi(uint16_t(s["pid"].u()), cc, alone)}),
                      theirs);
        return compare(s, theirs);
    }
    ADD_FAILURE() << "no section in the capture with the CRC of the one at packet "
                  << s["packet"].u();
    return false;
}

}  // namespace

TEST(InspectOracle, CaptureTablesAgreeWithLibdvbpsi) {
    const std::vector<std::string> names = ts_test::capture_names();
    if (names.empty()) {
        GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
    }
    std::map<std::string, int> compared, alone, unmatched;
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const Bytes ts = ts_test::load_capture(name);
        const std::vector<Json> sections = inspect(ts);
        Theirs theirs;
        decode_theirs(ts, theirs);
        for (const Json& s : sections) {
            const std::string table = s["table"].text;
            if (table == "PAT" || table == "PMT") {
                continue;  // compared with libdvbpsi by the core's own tests
            }
            bool found = compare(s, theirs);
            if (!found && s["last_section_number"].u() != 0) {
                ++alone[table];
                found = compare_alone(ts, s);
            }
            ++(found ? compared : unmatched)[table];
        }
    }
    for (const char* table : {"SDT", "NIT", "EIT", "CAT", "TDT", "TOT"}) {
        RecordProperty(table, compared[table]);
        RecordProperty(std::string(table) + "_alone", alone[table]);
        EXPECT_GE(compared[table], 2) << table;
        EXPECT_EQ(unmatched[table], 0) << table;
    }
}

TEST(InspectOracle, BouquetTableAgreesWithLibdvbpsi) {
    // The captures carry no BAT: one with a bouquet name and two transport streams, the
    // first with a service list.
    uint8_t cc = 0;
    const Bytes ts = ts_test::psi(
        0x11, cc,
        ts_test::section(0x4A, ts_test::hex("50 01 CF 00 00 F0 04 47 02 42 71 F0 14 00 10 00 20 F0 "
                                            "08 41 06 00 05 01 00 06 02 00 11 00 20 F0 00")));
    const std::vector<Json> ours = inspect(ts);
    Theirs theirs;
    decode_theirs(ts, theirs);
    ASSERT_EQ(ours.size(), 1u);
    ASSERT_EQ(theirs.bats.size(), 1u);
    const Json& s = ours[0];
    const dvbpsi_bat_t& t = *theirs.bats[0];
    EXPECT_EQ(named(s, {"bouquet_id", "version_number"}),
              (Leaves() << t.i_extension << t.i_version).s);
    // The core keeps every descriptor of the section in the table's own list, the bouquet's
    // then each stream's; the streams keep their ids and loop lengths.
    std::string all = theirs_list(t.p_first_descriptor);
    for (const dvbpsi_bat_ts_t* e = t.p_first_ts; e; e = e->p_next) {
        all += theirs_list(e->p_first_descriptor);
    }
    EXPECT_EQ(ours_list(s["descriptors"]), all);
    EXPECT_EQ(each(s["transport_streams"],
                   {"transport_stream_id", "original_network_id", "transport_descriptors_length"}),
              "{ 16 32 8}{ 17 32 0}");
}
