// The PATs and PMTs of the real captures, decoded by the core and by libdvbpsi, must
// agree field by field.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

// clang-format off
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/pat.h>
#include <dvbpsi/pmt.h>
// clang-format on

#include "mpegcore/BaseMpegParser.h"

#include "../ts_test_util.h"

using namespace mpegcore;
using namespace ts_test;

namespace {

// Both decoders' tables are rendered to the same text, one field after the other, and
// each decoder's list keeps a table only when it differs from the one before.
using Tables = std::vector<std::string>;

void add_changed(Tables& list, const std::string& table) {
    if (list.empty() || list.back() != table) {
        list.push_back(table);
    }
}

std::string n(unsigned value) {
    return std::to_string(value) + " ";
}

std::string ours(const KVDescriptorList& list) {
    std::string s = "[ ";
    for (const auto& d : list.descriptor) {
        s += n(d->descriptor_tag) + n(d->descriptor_length);
    }
    return s + "] ";
}

std::string theirs(const dvbpsi_descriptor_t* d) {
    std::string s = "[ ";
    for (; d != nullptr; d = d->p_next) {
        s += n(d->i_tag) + n(d->i_length);
    }
    return s + "] ";
}

std::string ours(const CPAT& t) {
    // Entries by PID; of two programs on one PID the later one counts.
    std::string s = n(t.transport_stream_id) + n(t.version_number) + n(t.current_next_indicator);
    for (const auto& e : t.program_map) {
        s += n(e.first) + n(e.second.program_number);
    }
    return s;
}

void on_pat(void* list, dvbpsi_pat_t* t) {
    std::map<unsigned, unsigned> programs;
    for (const dvbpsi_pat_program_t* e = t->p_first_program; e != nullptr; e = e->p_next) {
        programs[e->i_pid] = e->i_number;
    }
    std::string s = n(t->i_ts_id) + n(t->i_version) + n(t->b_current_next);
    for (const auto& e : programs) {
        s += n(e.first) + n(e.second);
    }
    add_changed(*static_cast<Tables*>(list), s);
    dvbpsi_pat_delete(t);
}

std::string ours(const CPMT& t) {
    std::string s = n(t.program_number) + n(t.version_number) + n(t.current_next_indicator) +
                    n(t.PCR_PID) + ours(t.descriptors);
    for (const auto& e : t.stream_map) {
        s += n(e.first) + n(e.second->stream_type) + ours(e.second->descriptors);
    }
    return s;
}

void on_pmt(void* list, dvbpsi_pmt_t* t) {
    std::map<unsigned, std::string> streams;
    for (const dvbpsi_pmt_es_t* e = t->p_first_es; e != nullptr; e = e->p_next) {
        streams[e->i_pid] = n(e->i_type) + theirs(e->p_first_descriptor);
    }
    std::string s = n(t->i_program_number) + n(t->i_version) + n(t->b_current_next) +
                    n(t->i_pcr_pid) + theirs(t->p_first_descriptor);
    for (const auto& e : streams) {
        s += n(e.first) + e.second;
    }
    add_changed(*static_cast<Tables*>(list), s);
    dvbpsi_pmt_delete(t);
}

// Runs the packets through per-PID state as the parser does and parses the unit so far
// behind its pointer field on every packet of PID 0 and of the PMT PIDs. PMTs are listed
// under PID << 16 | program number.
void decode_ours(const std::vector<uint8_t>& ts, const std::set<unsigned>& pmt_pids, Tables& pats,
                 std::map<unsigned, Tables>& pmts) {
    std::unique_ptr<CBasePID[]> states(new CBasePID[8192]);
    CPacketWrapper<CPAT> pat;
    std::map<unsigned, std::unique_ptr<CPacketWrapper<CPMT>>> pmt;
    for (size_t off = 0; off + TS_PACKET_SIZE <= ts.size(); off += TS_PACKET_SIZE) {
        transport_packet p;
        p.decode_header(&ts[off]);
        if (p.sync_byte != TS_SYNC_BYTE || (p.PID != 0 && pmt_pids.count(p.PID) == 0)) {
            continue;
        }
        if (p.has_adaptation_field()) {
            if (!CBaseMpegParser::ParserAdaptationField(p)) {
                continue;
            }
            if (p.has_payload()) {
                p.pCurrDataPkt += p.af.adaptation_field_length + 1;
                p.lCurrSizePkt -= p.af.adaptation_field_length + 1;
            }
        }
        states[p.PID].putPacket(p);
        const CDataAccumulator* unit = states[p.PID].getCurData();
        if (unit == nullptr || unit->getLength() < 3) {
            continue;
        }
        KVSDK::KVBSReader r(unit->get(), unit->getLength());
        r.skipBytes(1);
        if (p.PID == 0) {
            if (pat.Parser(r)) {
                add_changed(pats, ours(*pat.GetLast()));
            }
            continue;
        }
        auto& wrapper = pmt[p.PID];
        if (!wrapper) {
            wrapper.reset(new CPacketWrapper<CPMT>());
        }
        if (wrapper->Parser(r)) {
            add_changed(pmts[p.PID << 16 | wrapper->GetLast()->program_number],
                        ours(*wrapper->GetLast()));
        }
    }
}

// Feeds every packet of `pid` to a fresh handle with the decoder that `attach` adds.
template <class Attach>
void push_pid(const std::vector<uint8_t>& ts, unsigned pid, Attach attach,
              void (*detach)(dvbpsi_t*)) {
    dvbpsi_t* handle = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
    ASSERT_NE(handle, nullptr);
    ASSERT_TRUE(attach(handle));
    uint8_t packet[TS_PACKET_SIZE];
    for (size_t off = 0; off + TS_PACKET_SIZE <= ts.size(); off += TS_PACKET_SIZE) {
        std::memcpy(packet, &ts[off], TS_PACKET_SIZE);
        if (packet[0] == TS_SYNC_BYTE &&
            static_cast<unsigned>((packet[1] & 0x1F) << 8 | packet[2]) == pid) {
            dvbpsi_packet_push(handle, packet);
        }
    }
    detach(handle);
    dvbpsi_delete(handle);
}

}  // namespace

TEST(CorpusPsi, PatAndPmtAgreeWithLibdvbpsi) {
    const std::vector<std::string> names = capture_names();
    if (names.empty()) {
        GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
    }
    size_t pat_count = 0, pmt_count = 0;
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const std::vector<uint8_t> ts = load_capture(name);
        Tables their_pats;
        push_pid(
            ts, 0, [&](dvbpsi_t* h) { return dvbpsi_pat_attach(h, on_pat, &their_pats); },
            dvbpsi_pat_detach);

        // Programs and PMT PIDs of every PAT version seen, the network entry left out.
        std::set<std::pair<unsigned, unsigned>> programs;
        std::set<unsigned> pmt_pids;
        Tables our_pats;
        std::map<unsigned, Tables> our_pmts;
        decode_ours(ts, {}, our_pats, our_pmts);
        for (const auto& pat : their_pats) {
            std::istringstream fields(pat);
            unsigned id, version, current, pid, number;
            fields >> id >> version >> current;
            while (fields >> pid >> number) {
                if (number != 0) {
                    programs.insert({pid, number});
                    pmt_pids.insert(pid);
                }
            }
        }
        EXPECT_EQ(our_pats, their_pats);
        pat_count += our_pats.size();

        Tables again;
        decode_ours(ts, pmt_pids, again, our_pmts);
        for (const auto& program : programs) {
            SCOPED_TRACE("PMT PID " + std::to_string(program.first));
            Tables their_pmts;
            push_pid(
                ts, program.first,
                [&](dvbpsi_t* h) {
                    return dvbpsi_pmt_attach(h, static_cast<uint16_t>(program.second), on_pmt,
                                             &their_pmts);
                },
                dvbpsi_pmt_detach);
            const Tables& mine = our_pmts[program.first << 16 | program.second];
            EXPECT_EQ(mine, their_pmts);
            pmt_count += mine.size();
        }
    }
    // The captures hold PATs and PMTs; none at all would mean nothing was compared.
    EXPECT_GT(pat_count, 0u);
    EXPECT_GT(pmt_count, 0u);
}
