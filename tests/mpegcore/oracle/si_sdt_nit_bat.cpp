// SDT, NIT and BAT sections decoded by the core and by libdvbpsi must agree field by field:
// the SDTs and NITs of the real captures, and a BAT that the core writes (the captures carry
// none, and libdvbpsi's own BAT writer overstates every transport descriptor loop by one).

#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "oracle_util.h"

// clang-format off
#include <dvbpsi/sdt.h>
#include <dvbpsi/nit.h>
#include <dvbpsi/bat.h>
// clang-format on

#include "mpegcore/BAT.h"
#include "mpegcore/NIT.h"
#include "mpegcore/SDT.h"

using namespace mpegcore;
using namespace ts_test;
using namespace oracle;

namespace {

using oracle::ours;  // beside the overloads for whole tables below

using Key = std::tuple<unsigned, unsigned, unsigned>;  // table id, extension, version
using Tables = std::map<Key, std::string>;

void on_sdt(void* data, dvbpsi_sdt_t* t) {
    // Services by id, as the core keeps them.
    std::map<unsigned, std::string> services;
    for (const dvbpsi_sdt_service_t* e = t->p_first_service; e != nullptr; e = e->p_next) {
        services[e->i_service_id] = line({e->i_service_id, e->b_eit_schedule, e->b_eit_present,
                                          e->i_running_status, e->b_free_ca},
                                         theirs(e->p_first_descriptor));
    }
    std::string& s =
        (*static_cast<Tables*>(data))[Key(t->i_table_id, t->i_extension, t->i_version)];
    s = line({t->i_extension, t->b_current_next, t->i_network_id}, "");
    for (const auto& e : services) {
        s += e.second;
    }
    dvbpsi_sdt_delete(t);
}

// A NIT or BAT: the table's descriptors, then each transport stream with its own.
template <class Table, class Stream>
void on_loops(void* data, Table* t, const Stream* first, unsigned id) {
    std::string& s =
        (*static_cast<Tables*>(data))[Key(t->i_table_id, t->i_extension, t->i_version)];
    s = line({id, t->b_current_next}, theirs(t->p_first_descriptor));
    for (const Stream* e = first; e != nullptr; e = e->p_next) {
        s += line({e->i_ts_id, e->i_orig_network_id}, theirs(e->p_first_descriptor));
    }
}

void on_nit(void* data, dvbpsi_nit_t* t) {
    on_loops(data, t, t->p_first_ts, t->i_network_id);
    dvbpsi_nit_delete(t);
}

void on_bat(void* data, dvbpsi_bat_t* t) {
    on_loops(data, t, t->p_first_ts, t->i_extension);
    dvbpsi_bat_delete(t);
}

void on_subtable(dvbpsi_t* handle, uint8_t table_id, uint16_t extension, void* data) {
    if (table_id == 0x42 || table_id == 0x46) {
        dvbpsi_sdt_attach(handle, table_id, extension, on_sdt, data);
    } else if (table_id == 0x40 || table_id == 0x41) {
        dvbpsi_nit_attach(handle, table_id, extension, on_nit, data);
    } else if (table_id == 0x4A) {
        dvbpsi_bat_attach(handle, table_id, extension, on_bat, data);
    }
}

Tables their_tables(const Bytes& ts, unsigned pid) {
    Tables out;
    push_demux(ts, pid, on_subtable, &out);
    return out;
}

std::string ours(const CSDT& t) {
    std::string s =
        line({t.transport_stream_id, t.current_next_indicator, t.original_network_id}, "");
    for (const auto& e : t.sds) {
        const CServiceDescriptionSection& v = *e.second;
        s += line({v.service_id, v.EIT_schedule_flag, v.EIT_present_following_flag,
                   v.running_status, v.free_CA_mode},
                  ours(v.descriptors));
    }
    return s;
}

// The core's tables of a capture, a table's sections joined in section order: the SDT's
// through copyTo (which adds services without emptying the target), the NIT's loops one
// behind the other. Each section also writes back to the same table.
Tables our_tables(const Bytes& ts) {
    std::map<Key, std::map<unsigned, std::shared_ptr<CSDT>>> sdts;
    std::map<Key, std::map<unsigned, std::shared_ptr<CNIT>>> nits;
    for (const Bytes& s : gather_sections(ts, 0x11)) {
        auto t = std::make_shared<CSDT>();
        if ((s[0] == 0x42 || s[0] == 0x46) && read(*t, s)) {
            sdts[Key(t->table_id, t->transport_stream_id, t->version_number)][t->section_number] =
                t;
            CSDT copy, back;
            t->copyTo(&copy);
            const Bytes out = render(copy);
            EXPECT_EQ(out.size(), s.size());
            EXPECT_TRUE(read(back, out));
            EXPECT_EQ(ours(back), ours(*t));
        }
    }
    for (const Bytes& s : gather_sections(ts, 0x10)) {
        auto t = std::make_shared<CNIT>();
        if ((s[0] == 0x40 || s[0] == 0x41) && read(*t, s)) {
            nits[Key(t->table_id, t->network_id, t->version_number)][t->section_number] = t;
            CNIT copy;
            t->copyTo(&copy);
            EXPECT_EQ(render(copy), s);
        }
    }
    Tables out;
    for (const auto& t : sdts) {
        CSDT whole;
        for (const auto& section : t.second) {
            section.second->copyTo(&whole);
        }
        out[t.first] = ours(whole);
    }
    for (const auto& t : nits) {
        const CNIT& first = *t.second.begin()->second;
        std::string descriptors, streams;
        for (const auto& section : t.second) {
            descriptors += ours(section.second->descriptors);
            for (const auto& e : section.second->transport_stream) {
                streams +=
                    line({e->transport_stream_id, e->original_network_id}, ours(e->descriptors));
            }
        }
        out[t.first] =
            line({first.network_id, first.current_next_indicator}, descriptors) + streams;
    }
    return out;
}

}  // namespace

TEST(SiOracle, CaptureSdtsAndNitsAgreeWithLibdvbpsi) {
    size_t compared = 0;
    for (const char* name :
         {"test-018.ts", "test-025.ts", "test-101.ts", "test-103.ts", "test-143.ts"}) {
        SCOPED_TRACE(name);
        const Bytes ts = load_capture(name);
        if (ts.empty()) {
            GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
        }
        Tables theirs = their_tables(ts, 0x11);
        const Tables nits = their_tables(ts, 0x10);
        theirs.insert(nits.begin(), nits.end());
        const Tables ours = our_tables(ts);
        for (const auto& t : theirs) {
            ASSERT_EQ(ours.count(t.first), 1u) << "table id " << std::get<0>(t.first);
            EXPECT_EQ(ours.at(t.first), t.second);
            ++compared;
        }
    }
    EXPECT_GE(compared, 7u);
}

TEST(SiOracle, BatWrittenByTheCoreAgreesWithLibdvbpsi) {
    // A standard BAT: every stream with its own descriptors and their length.
    CBAT built;
    built.table_id = 0x4A;
    built.section_syntax_indicator = built.zero = 1;
    built.reserved = built.reserved1 = 3;
    built.reserved_future_use2 = built.reserved_future_use3 = 0xF;
    built.bouquet_id = 0x5001;
    built.version_number = 7;
    built.current_next_indicator = 1;
    const auto fill = [](KVDescriptorList& list, const Bytes& loop) {
        KVSDK::KVBSReader r(loop.data(), loop.size());
        EXPECT_TRUE(list.read(r));
    };
    fill(built.descriptors, {0x47, 2, 'B', 'q'});
    const std::tuple<uint16_t, uint16_t, Bytes> streams[] = {
        {0x10, 0x20, {0x41, 6, 0x00, 0x05, 0x01, 0x00, 0x06, 0x02}},
        {0x11, 0x20, {}},
        {0x12, 0x21, {0x5F, 4, 0x00, 0x00, 0x00, 0x28}}};
    std::string expected = line({0x5001, 1}, ours(built.descriptors));
    for (const auto& s : streams) {
        auto* e = new CBouquetAssociationStream();
        built.BouquetAssociationStreamList.push_back(e);
        e->transport_stream_id = std::get<0>(s);
        e->original_network_id = std::get<1>(s);
        fill(e->descriptors, std::get<2>(s));
        e->transport_descriptors_length = e->descriptors.getSize();
        expected += line({e->transport_stream_id, e->original_network_id}, ours(e->descriptors));
    }
    ASSERT_TRUE(built.RenderTable());
    const Bytes written(built.GetBuffer(), built.GetBuffer() + built.GetSizeBuffer());
    ASSERT_LE(written.size(), 183u);

    // libdvbpsi decodes the written section to the fields it was written from.
    uint8_t cc = 0;
    const Tables theirs = their_tables(packetize(0x11, cat({{0x00}, written}), cc)[0], 0x11);
    ASSERT_EQ(theirs.count(Key(0x4A, 0x5001, 7)), 1u);
    EXPECT_EQ(theirs.at(Key(0x4A, 0x5001, 7)), expected);
}
