// The CATs, EITs, TDTs and TOTs of the real captures, decoded by the core and by libdvbpsi,
// must agree field by field; and every section, copied and written back by the core, must
// give its own bytes again.

#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "oracle_util.h"

// clang-format off
#include <dvbpsi/cat.h>
#include <dvbpsi/eit.h>
#include <dvbpsi/tot.h>
#include <dvbpsi/dr_09.h>
#include <dvbpsi/dr_4d.h>
#include <dvbpsi/dr_58.h>
// clang-format on

#include "mpegcore/CAT.h"
#include "mpegcore/EIT.h"
#include "mpegcore/TDT.h"
#include "mpegcore/TOT.h"
#include "mpegcore/descriptors_dvb.h"
#include "mpegcore/descriptors_mpeg.h"

using namespace mpegcore;
using namespace ts_test;
using namespace oracle;

namespace {

// Beside the descriptors' bytes, the decoded fields of CA, short event and local time
// offset descriptors, each on a line of its own.
struct Theirs {
    std::vector<std::string> cats, times;
    std::map<std::tuple<unsigned, unsigned, unsigned>, std::string> eits;  // id, service, version
};

std::string decoded(dvbpsi_descriptor_t* d) {
    std::string s;
    for (; d != nullptr; d = d->p_next) {
        if (d->i_tag == 0x09) {
            if (const dvbpsi_ca_dr_t* ca = dvbpsi_DecodeCADr(d)) {
                s += line({ca->i_ca_system_id, ca->i_ca_pid});
            }
        } else if (d->i_tag == 0x4D) {
            if (auto* e = dvbpsi_DecodeShortEventDr(d)) {
                s += std::string(reinterpret_cast<const char*>(e->i_event_name),
                                 e->i_event_name_length) +
                     "\n";
            }
        } else if (d->i_tag == 0x58) {
            if (auto* lto = dvbpsi_DecodeLocalTimeOffsetDr(d)) {
                for (int i = 0; i < lto->i_local_time_offsets_number; ++i) {
                    const dvbpsi_local_time_offset_t& e = lto->p_local_time_offset[i];
                    s += std::string(reinterpret_cast<const char*>(e.i_country_code), 3) +
                         line({e.i_country_region_id, e.i_local_time_offset_polarity,
                               e.i_local_time_offset, e.i_next_time_offset, e.i_time_of_change});
                }
            }
        }
    }
    return s;
}

std::string decoded(const KVDescriptorList& list) {
    std::string s;
    for (const auto& d : list.descriptor) {
        if (auto ca = std::dynamic_pointer_cast<CA_descriptor>(d)) {
            s += line({ca->CA_system_ID, ca->CA_PID});
        } else if (auto e = std::dynamic_pointer_cast<short_event_descriptor>(d)) {
            s += e->event_name_char + "\n";
        } else if (auto lto = std::dynamic_pointer_cast<local_time_offset_descriptor>(d)) {
            for (const auto& e : lto->m_listEntry) {
                s += std::string(e->country_code.data(), 3) +
                     line({e->country_region_id, e->local_time_offset_polarity,
                           e->local_time_offset, e->next_time_offset, e->time_of_change});
            }
        }
    }
    return s;
}

void on_cat(void* data, dvbpsi_cat_t* t) {
    add_changed(static_cast<Theirs*>(data)->cats,
                line({t->i_version, t->b_current_next}, theirs(t->p_first_descriptor)) +
                    decoded(t->p_first_descriptor));
    dvbpsi_cat_delete(t);
}

void on_eit(void* data, dvbpsi_eit_t* t) {
    std::string s =
        line({t->i_table_id, t->i_extension, t->i_version, t->b_current_next, t->i_ts_id,
              t->i_network_id, t->i_segment_last_section_number, t->i_last_table_id});
    for (const dvbpsi_eit_event_t* e = t->p_first_event; e != nullptr; e = e->p_next) {
        s += line({e->i_event_id, e->i_running_status, e->b_free_ca, e->i_descriptors_length,
                   e->i_start_time, e->i_duration},
                  theirs(e->p_first_descriptor)) +
             decoded(e->p_first_descriptor);
    }
    static_cast<Theirs*>(data)->eits[{t->i_table_id, t->i_extension, t->i_version}] = s;
    dvbpsi_eit_delete(t);
}

void on_time(void* data, dvbpsi_tot_t* t) {
    add_changed(static_cast<Theirs*>(data)->times,
                line({t->i_table_id, t->i_utc_time}, theirs(t->p_first_descriptor)) +
                    decoded(t->p_first_descriptor));
    dvbpsi_tot_delete(t);
}

void on_subtable(dvbpsi_t* handle, uint8_t table_id, uint16_t extension, void* data) {
    if (table_id >= 0x4E && table_id <= 0x6F) {
        dvbpsi_eit_attach(handle, table_id, extension, on_eit, data);
    } else if (table_id == 0x70 || table_id == 0x73) {
        dvbpsi_tot_attach(handle, table_id, extension, on_time, data);
    }
}

// Parses one section as the parser does, through a wrapper, and checks that a copy of the
// table writes back the section's bytes.
template <class T>
const T* parse(CPacketWrapper<T>& wrapper, const Bytes& s) {
    KVSDK::KVBSReader r(s.data(), s.size());
    if (!wrapper.Parser(r)) {
        ADD_FAILURE() << "refused table " << int(s[0]);
        return nullptr;
    }
    T copy;
    wrapper.GetLast()->copyTo(&copy);
    EXPECT_EQ(render(copy), s) << "table " << int(s[0]);
    return wrapper.GetLast();
}

}  // namespace

TEST(CorpusSi, CatEitTdtTotAgreeWithLibdvbpsi) {
    if (load_capture("test-030.ts").empty()) {
        GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
    }
    size_t cats = 0, eits = 0, times = 0;
    for (const char* name :
         {"test-018.ts", "test-030.ts", "test-101.ts", "test-103.ts", "test-182.1.ts"}) {
        SCOPED_TRACE(name);
        const Bytes ts = load_capture(name);
        Theirs theirs;
        push_pid(
            ts, 0x01, [&](dvbpsi_t* h) { return dvbpsi_cat_attach(h, on_cat, &theirs); },
            [](dvbpsi_t* h) { dvbpsi_cat_detach(h); });
        push_demux(ts, 0x12, on_subtable, &theirs);
        push_demux(ts, 0x14, on_subtable, &theirs);

        // CAT, TDT and TOT: every section in stream order, repeats dropped.
        std::vector<std::string> our_cats, our_times;
        CPacketWrapper<CCAT> cat;
        for (const Bytes& s : gather_sections(ts, 0x01)) {
            if (const CCAT* t = parse(cat, s)) {
                add_changed(our_cats, line({t->version_number, t->current_next_indicator},
                                           ours(t->descriptors)) +
                                          decoded(t->descriptors));
            }
        }
        EXPECT_EQ(our_cats, theirs.cats);
        cats += our_cats.size();

        CPacketWrapper<CTDT> tdt;
        CPacketWrapper<CTOT> tot;
        for (const Bytes& s : gather_sections(ts, 0x14)) {
            if (s[0] == 0x70) {
                if (const CTDT* t = parse(tdt, s)) {
                    add_changed(our_times, line({t->table_id, t->UTC_time}));
                }
            } else if (const CTOT* t = s[0] == 0x73 ? parse(tot, s) : nullptr) {
                add_changed(our_times, line({t->table_id, t->UTC_time}, ours(t->descriptors)) +
                                           decoded(t->descriptors));
            }
        }
        EXPECT_EQ(our_times, theirs.times);
        times += our_times.size();

        // EIT: libdvbpsi hands over whole tables once per version, the core one section at
        // a time: each of its tables must equal the core's sections of that table and
        // version, events joined in section order.
        std::map<std::tuple<unsigned, unsigned, unsigned>, std::map<unsigned, std::string>>
            sections;
        CPacketWrapper<CEIT> eit;
        for (const Bytes& s : gather_sections(ts, 0x12)) {
            const CEIT* t = parse(eit, s);
            if (t == nullptr) {
                continue;
            }
            std::string& events =
                sections[{t->table_id, t->service_id, t->version_number}][t->section_number];
            events = line({t->table_id, t->service_id, t->version_number, t->current_next_indicator,
                           t->transport_stream_id, t->original_network_id,
                           t->segment_last_section_number, t->last_table_id});
            for (const auto& e : t->eventInfo) {
                events += line({e->event_id, e->running_status, e->free_CA_mode,
                                e->descriptors_loop_length, e->start_time, e->duration},
                               ours(e->descriptors)) +
                          decoded(e->descriptors);
            }
        }
        for (const auto& table : theirs.eits) {
            SCOPED_TRACE(table.second.substr(0, table.second.find('[')));
            const auto found = sections.find(table.first);
            ASSERT_NE(found, sections.end());
            std::string joined = found->second.begin()->second;
            for (auto part = std::next(found->second.begin()); part != found->second.end();
                 ++part) {
                joined += part->second.substr(part->second.find('\n') + 1);  // events only
            }
            EXPECT_EQ(joined, table.second);
        }
        eits += theirs.eits.size();
    }
    // Finding none would mean nothing was compared.
    EXPECT_GE(cats, 2u);
    EXPECT_GE(eits, 5u);
    EXPECT_GT(times, 200u);
}
