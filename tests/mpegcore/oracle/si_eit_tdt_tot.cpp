// The CATs, EITs, TDTs and TOTs of the real captures, decoded by the core and by
// libdvbpsi, must agree field by field; and every section, copied and written back by the
// core, must give its own bytes again.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// clang-format off
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/demux.h>
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

#include "../ts_test_util.h"

using namespace mpegcore;
using namespace ts_test;

namespace {

// Tag and length of each descriptor of a loop, in order.
using Descriptors = std::vector<std::pair<unsigned, unsigned>>;

struct Cat {
    unsigned version = 0, current_next = 0;
    Descriptors descriptors;
    std::vector<std::pair<unsigned, unsigned>> ca;  // CA system id, CA PID
    auto key() const { return std::tie(version, current_next, descriptors, ca); }
    bool operator==(const Cat& o) const { return key() == o.key(); }
};

struct Event {
    unsigned id = 0, running = 0, free_ca = 0, loop_length = 0;
    uint64_t start = 0;
    uint32_t duration = 0;
    Descriptors descriptors;
    std::string name;  // of the first short event descriptor
    auto key() const {
        return std::tie(id, running, free_ca, loop_length, start, duration, descriptors, name);
    }
    bool operator==(const Event& o) const { return key() == o.key(); }
};

struct Eit {
    unsigned table_id = 0, service_id = 0, version = 0, current_next = 0, ts_id = 0, network_id = 0,
             segment_last = 0, last_table_id = 0;
    std::vector<Event> events;
    auto key() const {
        return std::tie(table_id, service_id, version, current_next, ts_id, network_id,
                        segment_last, last_table_id, events);
    }
    bool operator==(const Eit& o) const { return key() == o.key(); }
};

struct Offset {
    std::string country;
    unsigned region = 0, polarity = 0, offset = 0, next = 0;
    uint64_t change = 0;
    auto key() const { return std::tie(country, region, polarity, offset, next, change); }
    bool operator==(const Offset& o) const { return key() == o.key(); }
};

// A TDT (no descriptors) or a TOT.
struct Time {
    unsigned table_id = 0;
    uint64_t utc = 0;
    Descriptors descriptors;
    std::vector<Offset> offsets;
    auto key() const { return std::tie(table_id, utc, descriptors, offsets); }
    bool operator==(const Time& o) const { return key() == o.key(); }
};

template <class T>
void add_changed(std::vector<T>& list, const T& table) {
    if (list.empty() || !(list.back() == table)) {
        list.push_back(table);
    }
}

// ----- the core -----

Descriptors ours(const KVDescriptorList& list) {
    Descriptors out;
    for (const auto& d : list.descriptor) {
        out.emplace_back(d->descriptor_tag, d->descriptor_length);
    }
    return out;
}

Cat ours(const CCAT& t) {
    Cat c;
    c.version = t.version_number;
    c.current_next = t.current_next_indicator;
    c.descriptors = ours(t.descriptors);
    for (const auto& d : t.descriptors.descriptor) {
        if (auto ca = std::dynamic_pointer_cast<CA_descriptor>(d)) {
            c.ca.emplace_back(ca->CA_system_ID, ca->CA_PID);
        }
    }
    return c;
}

Event ours(const CEventInfo& e) {
    Event out;
    out.id = e.event_id;
    out.running = e.running_status;
    out.free_ca = e.free_CA_mode;
    out.loop_length = e.descriptors_loop_length;
    out.start = e.start_time;
    out.duration = e.duration;
    out.descriptors = ours(e.descriptors);
    if (auto d = std::dynamic_pointer_cast<short_event_descriptor>(e.descriptors.find(0x4D))) {
        out.name = d->event_name_char;
    }
    return out;
}

Time ours(const CTOT& t) {
    Time out;
    out.table_id = t.table_id;
    out.utc = t.UTC_time;
    out.descriptors = ours(t.descriptors);
    for (const auto& d : t.descriptors.descriptor) {
        if (auto lto = std::dynamic_pointer_cast<local_time_offset_descriptor>(d)) {
            for (const auto& e : lto->m_listEntry) {
                out.offsets.push_back({std::string(e->country_code.data(), 3), e->country_region_id,
                                       e->local_time_offset_polarity, e->local_time_offset,
                                       e->next_time_offset, e->time_of_change});
            }
        }
    }
    return out;
}

// Parses one section as the parser does, through a wrapper.
template <class T>
const T* parse(CPacketWrapper<T>& wrapper, const Bytes& s) {
    KVSDK::KVBSReader r(s.data(), s.size());
    return wrapper.Parser(r) ? wrapper.GetLast() : nullptr;
}

// A copy of the table, written back, gives the section's bytes.
template <class T>
bool writes_back(const T& table, const Bytes& s) {
    T copy;
    table.copyTo(&copy);
    return render(copy) == s;
}

// ----- libdvbpsi -----

Descriptors theirs(const dvbpsi_descriptor_t* d) {
    Descriptors out;
    for (; d != nullptr; d = d->p_next) {
        out.emplace_back(d->i_tag, d->i_length);
    }
    return out;
}

struct Theirs {
    std::vector<Cat> cats;
    std::vector<Eit> eits;
    std::vector<Time> times;
};

void on_cat(void* data, dvbpsi_cat_t* t) {
    Cat c;
    c.version = t->i_version;
    c.current_next = t->b_current_next;
    c.descriptors = theirs(t->p_first_descriptor);
    for (dvbpsi_descriptor_t* d = t->p_first_descriptor; d != nullptr; d = d->p_next) {
        if (d->i_tag == 0x09) {
            if (const dvbpsi_ca_dr_t* ca = dvbpsi_DecodeCADr(d)) {
                c.ca.emplace_back(ca->i_ca_system_id, ca->i_ca_pid);
            }
        }
    }
    add_changed(static_cast<Theirs*>(data)->cats, c);
    dvbpsi_cat_delete(t);
}

void on_eit(void* data, dvbpsi_eit_t* t) {
    Eit out;
    out.table_id = t->i_table_id;
    out.service_id = t->i_extension;
    out.version = t->i_version;
    out.current_next = t->b_current_next;
    out.ts_id = t->i_ts_id;
    out.network_id = t->i_network_id;
    out.segment_last = t->i_segment_last_section_number;
    out.last_table_id = t->i_last_table_id;
    for (const dvbpsi_eit_event_t* e = t->p_first_event; e != nullptr; e = e->p_next) {
        Event ev;
        ev.id = e->i_event_id;
        ev.running = e->i_running_status;
        ev.free_ca = e->b_free_ca;
        ev.loop_length = e->i_descriptors_length;
        ev.start = e->i_start_time;
        ev.duration = e->i_duration;
        ev.descriptors = theirs(e->p_first_descriptor);
        for (dvbpsi_descriptor_t* d = e->p_first_descriptor; d != nullptr; d = d->p_next) {
            if (d->i_tag == 0x4D) {
                if (const dvbpsi_short_event_dr_t* s = dvbpsi_DecodeShortEventDr(d)) {
                    ev.name.assign(reinterpret_cast<const char*>(s->i_event_name),
                                   s->i_event_name_length);
                }
                break;
            }
        }
        out.events.push_back(ev);
    }
    static_cast<Theirs*>(data)->eits.push_back(out);
    dvbpsi_eit_delete(t);
}

void on_time(void* data, dvbpsi_tot_t* t) {
    Time out;
    out.table_id = t->i_table_id;
    out.utc = t->i_utc_time;
    out.descriptors = theirs(t->p_first_descriptor);
    for (dvbpsi_descriptor_t* d = t->p_first_descriptor; d != nullptr; d = d->p_next) {
        if (d->i_tag != 0x58) {
            continue;
        }
        if (const dvbpsi_local_time_offset_dr_t* lto = dvbpsi_DecodeLocalTimeOffsetDr(d)) {
            for (int i = 0; i < lto->i_local_time_offsets_number; ++i) {
                const dvbpsi_local_time_offset_t& e = lto->p_local_time_offset[i];
                out.offsets.push_back(
                    {std::string(reinterpret_cast<const char*>(e.i_country_code), 3),
                     e.i_country_region_id, e.i_local_time_offset_polarity, e.i_local_time_offset,
                     e.i_next_time_offset, e.i_time_of_change});
            }
        }
    }
    add_changed(static_cast<Theirs*>(data)->times, out);
    dvbpsi_tot_delete(t);
}

// Attaches a decoder for every new EIT, TDT or TOT subtable the demultiplexer meets.
void on_subtable(dvbpsi_t* handle, uint8_t table_id, uint16_t extension, void* data) {
    if (table_id >= 0x4E && table_id <= 0x6F) {
        dvbpsi_eit_attach(handle, table_id, extension, on_eit, data);
    } else if (table_id == 0x70 || table_id == 0x73) {
        dvbpsi_tot_attach(handle, table_id, extension, on_time, data);
    }
}

// Feeds every packet of `pid` to a fresh handle that `attach` prepared.
template <class Attach, class Detach>
void push_pid(const Bytes& ts, unsigned pid, Attach attach, Detach detach) {
    dvbpsi_t* handle = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
    ASSERT_NE(handle, nullptr);
    ASSERT_TRUE(attach(handle));
    uint8_t packet[188];
    for (size_t off = 0; off + 188 <= ts.size(); off += 188) {
        std::memcpy(packet, &ts[off], 188);
        if (packet[0] == 0x47 && (((packet[1] & 0x1F) << 8) | packet[2]) == int(pid)) {
            dvbpsi_packet_push(handle, packet);
        }
    }
    detach(handle);
    dvbpsi_delete(handle);
}

}  // namespace

TEST(CorpusSi, CatEitTdtTotAgreeWithLibdvbpsi) {
    if (load_capture("test-030.ts").empty()) {
        GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
    }
    size_t cats = 0, eits = 0, events = 0, times = 0;
    for (const char* name :
         {"test-018.ts", "test-030.ts", "test-101.ts", "test-103.ts", "test-182.1.ts"}) {
        SCOPED_TRACE(name);
        const Bytes ts = load_capture(name);
        Theirs theirs;
        push_pid(
            ts, 0x01, [&](dvbpsi_t* h) { return dvbpsi_cat_attach(h, on_cat, &theirs); },
            [](dvbpsi_t* h) { dvbpsi_cat_detach(h); });
        for (unsigned pid : {0x12u, 0x14u}) {
            push_pid(
                ts, pid, [&](dvbpsi_t* h) { return dvbpsi_AttachDemux(h, on_subtable, &theirs); },
                [](dvbpsi_t* h) { dvbpsi_DetachDemux(h); });
        }

        // CAT: every section, repeats dropped.
        std::vector<Cat> our_cats;
        CPacketWrapper<CCAT> cat;
        for (const Bytes& s : gather_sections(ts, 0x01)) {
            const CCAT* t = parse(cat, s);
            ASSERT_NE(t, nullptr);
            EXPECT_TRUE(writes_back(*t, s));
            add_changed(our_cats, ours(*t));
        }
        EXPECT_TRUE(our_cats == theirs.cats);
        cats += our_cats.size();

        // EIT: libdvbpsi hands over whole tables once per version; the core reads one
        // section at a time. Each of its tables must equal the core's sections of that
        // table and version, events concatenated in section order.
        std::map<std::tuple<unsigned, unsigned, unsigned>, std::map<unsigned, Eit>> sections;
        CPacketWrapper<CEIT> eit;
        for (const Bytes& s : gather_sections(ts, 0x12)) {
            const CEIT* t = parse(eit, s);
            ASSERT_NE(t, nullptr);
            EXPECT_TRUE(writes_back(*t, s));
            Eit& e = sections[{t->table_id, t->service_id, t->version_number}][t->section_number];
            e = {t->table_id,
                 t->service_id,
                 t->version_number,
                 t->current_next_indicator,
                 t->transport_stream_id,
                 t->original_network_id,
                 t->segment_last_section_number,
                 t->last_table_id,
                 {}};
            for (const auto& ev : t->eventInfo) {
                e.events.push_back(ours(*ev));
            }
        }
        for (const Eit& table : theirs.eits) {
            const auto found = sections.find({table.table_id, table.service_id, table.version});
            ASSERT_NE(found, sections.end())
                << "table " << table.table_id << " service " << table.service_id;
            Eit joined = found->second.begin()->second;
            joined.events.clear();
            for (const auto& part : found->second) {
                joined.events.insert(joined.events.end(), part.second.events.begin(),
                                     part.second.events.end());
            }
            EXPECT_TRUE(joined == table)
                << "table " << table.table_id << " service " << table.service_id;
            events += joined.events.size();
        }
        eits += theirs.eits.size();

        // TDT and TOT: every section in stream order, repeats dropped.
        std::vector<Time> our_times;
        CPacketWrapper<CTDT> tdt;
        CPacketWrapper<CTOT> tot;
        for (const Bytes& s : gather_sections(ts, 0x14)) {
            if (s[0] == 0x70) {
                const CTDT* t = parse(tdt, s);
                ASSERT_NE(t, nullptr);
                EXPECT_TRUE(writes_back(*t, s));
                add_changed(our_times, Time{t->table_id, t->UTC_time, {}, {}});
            } else if (s[0] == 0x73) {
                const CTOT* t = parse(tot, s);
                ASSERT_NE(t, nullptr);
                EXPECT_TRUE(writes_back(*t, s));
                add_changed(our_times, ours(*t));
            }
        }
        ASSERT_EQ(our_times.size(), theirs.times.size());
        for (size_t i = 0; i < our_times.size(); ++i) {
            EXPECT_TRUE(our_times[i] == theirs.times[i]) << i;
        }
        times += our_times.size();
    }
    // Finding none would mean nothing was compared.
    EXPECT_GE(cats, 2u);
    EXPECT_GE(eits, 5u);
    EXPECT_GE(events, 10u);
    EXPECT_GT(times, 200u);
}
