#pragma once

// Stream inspector: runs a transport stream through the core's base parser and writes
// every table section the parser accepts as one JSON object, then a summary of the
// stream (packets, bytes skipped to find sync, continuity errors, PCR PIDs with their
// PCR count and measured rate).
//
// Section objects: "table" (PAT, PMT, CAT, TSDT, NIT, SDT, BAT, EIT, TDT, TOT), "pid",
// "packet" (index of the packet that completed the section), the header fields, the loops
// and the descriptors under the standard field names. Descriptors show "tag", "length"
// and either a "name" with the decoded fields of the common classes or "data", the body
// as hex. Times are written as text: MJD + BCD times as "YYYY-MM-DD hh:mm:ss", BCD
// durations as "hh:mm:ss", BCD offsets as "hh:mm". DVB text follows dvb_text().
//
// The parser retries a section with every packet of its PID until the payload unit ends,
// and hands the same section over each time; it is written once per payload unit.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "mpegcore/BaseMpegParser.h"

namespace kv_ts_inspect {

struct pcr_pid_summary {
    uint16_t pid = 0;
    uint64_t pcrs = 0;
    // Transport-stream rate in bits per second: the packets of all PIDs from one PCR of
    // this PID to the next against the PCR difference, summed over the stream. Intervals
    // across a discontinuity indicator, a PCR that does not advance or a jump of more
    // than 10 s are left out. 0 when no interval counts.
    double bitrate = 0;
    double measured_s = 0;  // the time those intervals cover
};

struct inspect_summary {
    uint64_t packets = 0;
    uint64_t bytes = 0;                        // bytes read
    uint64_t sync_bytes_skipped = 0;           // bytes skipped while searching for 0x47
    uint64_t trailing_bytes = 0;               // an incomplete packet at the end
    uint64_t transport_errors = 0;             // packets with the transport error indicator set
    uint64_t scrambled_packets = 0;            // packets with a non-zero scrambling control
    std::map<std::string, uint64_t> sections;  // section lines written, per table
    std::map<uint16_t, uint64_t> continuity_errors;  // per PID, as the parser counts them
    std::vector<pcr_pid_summary> pcr_pids;           // ascending PID
};

class ts_inspector : private mpegcore::CBaseMpegParser {
public:
    // Receives each section's JSON object, without a line end.
    using section_sink = std::function<void(const std::string& json)>;

    explicit ts_inspector(section_sink on_section);
    ~ts_inspector() override;

    // Bytes in any chunking.
    void feed(const uint8_t* data, size_t size);
    // The summary of everything fed so far.
    inspect_summary summary() const;

private:
    struct pcr_state;

    void on_sync_byte_error() override;
    void on_cc_error(uint16_t PID) override;
    void OnPreProcess(unsigned int index, const mpegcore::transport_packet& packet) override;
    void OnPCR(mpegcore::transport_packet* packet) override;
    void OnPAT(mpegcore::CPAT* pat) override;
    void OnPMT(mpegcore::CBaseMpegProgram* program, mpegcore::CPMT* pmt) override;
    void OnCAT(mpegcore::CCAT* cat) override;
    void OnTSDT(mpegcore::CTSDT* tsdt) override;
    void OnSDT(mpegcore::CSDT* sdt) override;
    void OnEIT(mpegcore::CEIT* eit) override;
    void OnNIT(mpegcore::CNIT* nit) override;
    void OnTDT(mpegcore::CTDT* tdt) override;
    void OnTOT(mpegcore::CTOT* tot) override;
    void OnBAT(mpegcore::CBAT* bat) override;

    // Writes the section unless its payload unit's section was written already.
    template <class T>
    void report(const char* name, const T& table);

    section_sink m_onSection;
    uint64_t m_nPacket = 0;  // index of the packet being parsed
    uint16_t m_nPid = 0;     // its PID
    uint64_t m_nBytes = 0;
    std::vector<bool> m_bReported;  // per PID: this payload unit's section was written
    inspect_summary m_summary;
    std::map<uint16_t, pcr_state> m_pcr;
};

// The summary as one JSON object: {"summary":{...}}.
std::string render_summary(const inspect_summary& summary);

// The command line: kv-ts-inspect [--summary-only] FILE, where FILE "-" is standard
// input. Writes the section lines (unless --summary-only) and the summary line to `out`.
// Returns 0 once the input was read to its end, whatever it held; 2 with a one-line
// message on `err` for bad usage or a file that cannot be opened or read.
int run(const std::vector<std::string>& args, std::FILE* out, std::FILE* err);

}  // namespace kv_ts_inspect
