// The PATs and PMTs of the real captures, decoded by the core and by libdvbpsi, must
// agree field by field.

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "oracle_util.h"

// clang-format off
#include <dvbpsi/pat.h>
#include <dvbpsi/pmt.h>
// clang-format on

#include "mpegcore/BaseMpegParser.h"

using namespace mpegcore;
using namespace ts_test;
using namespace oracle;

namespace {

using oracle::ours;  // beside the overloads for whole tables below

using Tables = std::vector<std::string>;

// libdvbpsi's PATs, and the programs (PMT PID, number) of all of them.
struct Pats {
    Tables tables;
    std::set<std::pair<unsigned, unsigned>> programs;
};

std::string ours(const CPAT& t) {
    // Entries by PID; of two programs on one PID the later one counts.
    std::string s = line({t.transport_stream_id, t.version_number, t.current_next_indicator});
    for (const auto& e : t.program_map) {
        s += line({e.first, e.second.program_number});
    }
    return s;
}

void on_pat(void* data, dvbpsi_pat_t* t) {
    Pats& pats = *static_cast<Pats*>(data);
    std::map<unsigned, unsigned> programs;
    for (const dvbpsi_pat_program_t* e = t->p_first_program; e != nullptr; e = e->p_next) {
        programs[e->i_pid] = e->i_number;
        if (e->i_number != 0) {  // not the network entry
            pats.programs.insert({e->i_pid, e->i_number});
        }
    }
    std::string s = line({t->i_ts_id, t->i_version, t->b_current_next});
    for (const auto& e : programs) {
        s += line({e.first, e.second});
    }
    add_changed(pats.tables, s);
    dvbpsi_pat_delete(t);
}

std::string ours(const CPMT& t) {
    std::string s = line({t.program_number, t.version_number, t.current_next_indicator, t.PCR_PID},
                         ours(t.descriptors));
    for (const auto& e : t.stream_map) {
        s += line({e.first, e.second->stream_type}, ours(e.second->descriptors));
    }
    return s;
}

void on_pmt(void* list, dvbpsi_pmt_t* t) {
    std::map<unsigned, std::string> streams;  // by PID, as the core keeps them
    for (const dvbpsi_pmt_es_t* e = t->p_first_es; e != nullptr; e = e->p_next) {
        streams[e->i_pid] = line({e->i_pid, e->i_type}, theirs(e->p_first_descriptor));
    }
    std::string s = line({t->i_program_number, t->i_version, t->b_current_next, t->i_pcr_pid},
                         theirs(t->p_first_descriptor));
    for (const auto& e : streams) {
        s += e.second;
    }
    add_changed(*static_cast<Tables*>(list), s);
    dvbpsi_pmt_delete(t);
}

// The core's PATs and PMTs as the parser hands them over, PMTs under PID << 16 | program.
class Collector : public CBaseMpegParser {
public:
    Tables pats;
    std::map<unsigned, Tables> pmts;

private:
    void OnPAT(CPAT* t) override { add_changed(pats, ours(*t)); }
    void OnPMT(CBaseMpegProgram* program, CPMT* t) override {
        add_changed(pmts[unsigned(program->map_PID.program_map_PID) << 16 | t->program_number],
                    ours(*t));
    }
};

}  // namespace

TEST(CorpusPsi, PatAndPmtAgreeWithLibdvbpsi) {
    const std::vector<std::string> names = capture_names();
    if (names.empty()) {
        GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
    }
    size_t pat_count = 0, pmt_count = 0;
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const Bytes ts = load_capture(name);
        Collector core;
        core.Process(ts.data(), ts.size());
        Pats pats;
        push_pid(
            ts, 0, [&](dvbpsi_t* h) { return dvbpsi_pat_attach(h, on_pat, &pats); },
            dvbpsi_pat_detach);
        EXPECT_EQ(core.pats, pats.tables);
        pat_count += pats.tables.size();

        for (const auto& program : pats.programs) {
            SCOPED_TRACE("PMT PID " + std::to_string(program.first));
            Tables their_pmts;
            push_pid(
                ts, program.first,
                [&](dvbpsi_t* h) {
                    return dvbpsi_pmt_attach(h, uint16_t(program.second), on_pmt, &their_pmts);
                },
                dvbpsi_pmt_detach);
            EXPECT_EQ(core.pmts[program.first << 16 | program.second], their_pmts);
            pmt_count += their_pmts.size();
        }
    }
    // The captures hold PATs and PMTs; none at all would mean nothing was compared.
    EXPECT_GT(pat_count, 0u);
    EXPECT_GT(pmt_count, 0u);
}
