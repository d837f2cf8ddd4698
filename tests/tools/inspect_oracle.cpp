// The inspector's SDT, NIT, EIT, CAT, TDT and TOT lines agree with libdvbpsi's decoding of
// the same captures: each section's header fields, and each of its loop entries with its
// descriptor tags, are among those libdvbpsi decoded.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

// clang-format off
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/demux.h>
#include <dvbpsi/cat.h>
#include <dvbpsi/eit.h>
#include <dvbpsi/nit.h>
#include <dvbpsi/sdt.h>
#include <dvbpsi/tot.h>
// clang-format on

#include "../mpegcore/ts_test_util.h"
#include "inspect_json.h"
#include "kv_ts_inspector.h"

using inspect_test::at;
using inspect_test::Json;
using kv_ts_inspect::format_bcd_duration;
using kv_ts_inspect::format_mjd_utc;
using ts_test::Bytes;
using Strings = std::vector<std::string>;

namespace {

// Values joined as text: "SDT 66 1 2020-01-01 00:00:00", descriptor loops by tag and length.
struct Row {
    std::string s;
    Row& operator<<(uint64_t v) { return *this << std::to_string(v); }
    Row& operator<<(const std::string& t) { return s += " " + t, *this; }
    Row& operator<<(const dvbpsi_descriptor_t* d) {
        std::string list;
        for (; d != nullptr; d = d->p_next) {
            list += " " + std::to_string(d->i_tag) + " " + std::to_string(d->i_length);
        }
        return *this << list;
    }
};

// Ours: a descriptor loop as libdvbpsi's above.
std::string tags(const Json& j, const std::string& list) {
    Row r;
    for (size_t i = 0; j.count(list + "." + std::to_string(i)) != 0; ++i) {
        const std::string d = list + "." + std::to_string(i) + ".";
        r << at(j, d + "tag") << at(j, d + "length");
    }
    return r.s;
}

// Ours: per table, the header members and the loop with its entry members. Each row
// starts with the table's name, an entry's with the name and a dot.
const std::map<std::string, std::pair<Strings, Strings>> kFields{
    {"SDT",
     {{"table_id", "transport_stream_id", "version_number", "current_next_indicator",
       "original_network_id"},
      {"services", "service_id", "EIT_schedule_flag", "EIT_present_following_flag",
       "running_status", "free_CA_mode", "descriptors"}}},
    {"NIT",
     {{"table_id", "network_id", "version_number", "current_next_indicator", "descriptors"},
      {"transport_streams", "transport_stream_id", "original_network_id", "descriptors"}}},
    {"EIT",
     {{"table_id", "service_id", "version_number", "current_next_indicator", "transport_stream_id",
       "original_network_id", "segment_last_section_number", "last_table_id"},
      {"events", "event_id", "start_time", "duration", "running_status", "free_CA_mode",
       "descriptors"}}},
    {"CAT", {{"version_number", "current_next_indicator", "descriptors"}, {}}},
    {"TDT", {{"table_id", "UTC_time", "descriptors"}, {}}},
    {"TOT", {{"table_id", "UTC_time", "descriptors"}, {}}}};

// The values of `names` (from `first` on) under `prefix`; descriptor lists (none in a
// TDT) as their tags.
std::string row(const std::string& name, const Json& j, const std::string& prefix,
                const Strings& names, size_t first = 0) {
    Row r{name};
    for (size_t i = first; i < names.size(); ++i) {
        const std::string path = prefix + names[i];
        r << (names[i] == "descriptors" ? tags(j, path) : at(j, path));
    }
    return r.s;
}

// Theirs: the same rows from libdvbpsi's tables, collected into the set passed along.
using Rows = std::set<std::string>;
void add(void* rows, const Row& r) {
    static_cast<Rows*>(rows)->insert(r.s);
}

void on_sdt(void* rows, dvbpsi_sdt_t* x) {
    add(rows, Row{"SDT"} << x->i_table_id << x->i_extension << x->i_version << x->b_current_next
                         << x->i_network_id);
    for (const dvbpsi_sdt_service_t* e = x->p_first_service; e != nullptr; e = e->p_next) {
        add(rows, Row{"SDT."} << e->i_service_id << e->b_eit_schedule << e->b_eit_present
                              << e->i_running_status << e->b_free_ca << e->p_first_descriptor);
    }
    dvbpsi_sdt_delete(x);
}
void on_nit(void* rows, dvbpsi_nit_t* x) {
    add(rows, Row{"NIT"} << x->i_table_id << x->i_extension << x->i_version << x->b_current_next
                         << x->p_first_descriptor);
    for (const dvbpsi_nit_ts_t* e = x->p_first_ts; e != nullptr; e = e->p_next) {
        add(rows, Row{"NIT."} << e->i_ts_id << e->i_orig_network_id << e->p_first_descriptor);
    }
    dvbpsi_nit_delete(x);
}
void on_eit(void* rows, dvbpsi_eit_t* x) {
    add(rows, Row{"EIT"} << x->i_table_id << x->i_extension << x->i_version << x->b_current_next
                         << x->i_ts_id << x->i_network_id << x->i_segment_last_section_number
                         << x->i_last_table_id);
    for (const dvbpsi_eit_event_t* e = x->p_first_event; e != nullptr; e = e->p_next) {
        add(rows, Row{"EIT."} << e->i_event_id << format_mjd_utc(e->i_start_time)
                              << format_bcd_duration(e->i_duration) << e->i_running_status
                              << e->b_free_ca << e->p_first_descriptor);
    }
    dvbpsi_eit_delete(x);
}
void on_cat(void* rows, dvbpsi_cat_t* x) {
    add(rows, Row{"CAT"} << x->i_version << x->b_current_next << x->p_first_descriptor);
    dvbpsi_cat_delete(x);
}
void on_time(void* rows, dvbpsi_tot_t* x) {
    add(rows, Row{x->i_table_id == 0x70 ? "TDT" : "TOT"}
                  << x->i_table_id << format_mjd_utc(x->i_utc_time) << x->p_first_descriptor);
    dvbpsi_tot_delete(x);
}

void on_subtable(dvbpsi_t* h, uint8_t id, uint16_t extension, void* rows) {
    if (id == 0x40 || id == 0x41) {
        dvbpsi_nit_attach(h, id, extension, on_nit, rows);
    } else if (id == 0x42 || id == 0x46) {
        dvbpsi_sdt_attach(h, id, extension, on_sdt, rows);
    } else if (id >= 0x4E && id <= 0x6F) {
        dvbpsi_eit_attach(h, id, extension, on_eit, rows);
    } else if (id == 0x70 || id == 0x73) {
        dvbpsi_tot_attach(h, id, extension, on_time, rows);
    }
}

Rows decode_theirs(const Bytes& ts) {
    Rows rows;
    for (unsigned pid : {0x01u, 0x10u, 0x11u, 0x12u, 0x14u}) {
        dvbpsi_t* h = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
        pid == 0x01 ? dvbpsi_cat_attach(h, on_cat, &rows)
                    : dvbpsi_AttachDemux(h, on_subtable, &rows);
        uint8_t packet[188];
        for (size_t i = 0; i < ts.size() / 188; ++i) {
            std::memcpy(packet, &ts[i * 188], 188);
            if (packet[0] == 0x47 && unsigned((packet[1] & 0x1F) << 8 | packet[2]) == pid) {
                dvbpsi_packet_push(h, packet);
            }
        }
        pid == 0x01 ? dvbpsi_cat_detach(h) : dvbpsi_DetachDemux(h);
        dvbpsi_delete(h);
    }
    return rows;
}

}  // namespace

TEST(InspectOracle, CaptureTablesAgreeWithLibdvbpsi) {
    const Strings names = ts_test::capture_names();
    if (names.empty()) {
        GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
    }
    std::map<std::string, int> compared;
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const Bytes ts = ts_test::load_capture(name);
        const Rows theirs = decode_theirs(ts);
        kv_ts_inspect::ts_inspector inspector([&](const std::string& line) {
            Json s;
            ASSERT_TRUE(inspect_test::parse_json(line, s)) << line;
            const auto fields = kFields.find(at(s, "table"));
            if (fields == kFields.end()) {
                return;  // PAT and PMT are compared by the core's own tests
            }
            const std::string& table = fields->first;
            const auto& [head, loop] = fields->second;
            // A section of a table the capture does not hold whole has no table to meet.
            const std::string ours = row(table, s, "", head);
            if (theirs.count(ours) == 0) {
                EXPECT_NE(at(s, "last_section_number"), "0") << ours;
                return;
            }
            ++compared[table];
            for (size_t i = 0; !loop.empty() && s.count(loop[0] + "." + std::to_string(i)); ++i) {
                const std::string entry =
                    row(table + ".", s, loop[0] + "." + std::to_string(i) + ".", loop, 1);
                EXPECT_EQ(theirs.count(entry), 1u) << entry;
            }
        });
        inspector.feed(ts.data(), ts.size());
    }
    for (const auto& kind : kFields) {
        EXPECT_GE(compared[kind.first], 2) << kind.first;
    }
}
