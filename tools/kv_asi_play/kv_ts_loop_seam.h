#pragma once

// The seam of a transport-stream file played over and over as one endless stream. Every
// pass after the first has its PCRs moved on by the length of a pass and each PID's
// continuity counter moved on by the steps it took in a pass, so that downstream sees one
// continuous clock and no continuity break where the file starts again.
//
// The file need not be held in memory: the packets of the first pass are observed as
// they are read, finish() closes the first pass, and apply() then rewrites the packets
// of any later pass in place as they are read again. Discontinuity indicators inside the
// file are left as they are.

#include <cstddef>
#include <cstdint>
#include <string>

namespace kv_asi_play {

// PCRs count 27 MHz ticks modulo 2^33 * 300.
constexpr uint64_t kPcrModulus = (uint64_t(1) << 33) * 300;

class ts_loop_seam {
public:
    // Forgets everything observed.
    void reset();

    // One packet of the first pass (188 bytes starting with the sync byte), in order.
    void observe(const uint8_t* packet);

    // After the last packet of the first pass. The pass length is the packets of a pass
    // at the mean PCR rate between the first and the last PCR of the pacing PID (the
    // first PID seen with a PCR), so the last PCR of one pass and the first of the next
    // lie as far apart as the packets between them take at that rate. False with a
    // message when there are fewer than two distinct PCRs on that PID: ready() stays
    // false and the passes are played as the file is.
    bool finish(std::string& error);
    bool ready() const { return m_bReady; }

    // Rewrites a packet of pass `pass` (1 for the second pass) in place: its PCR, if it
    // has one, and its continuity counter (null packets keep theirs). Only when ready().
    void apply(uint8_t* packet, uint64_t pass) const;

    uint64_t packets() const { return m_nPackets; }  // packets in a pass
    int pcr_pid() const { return m_nPcrPid; }        // -1 before the first PCR
    // 27 MHz ticks by which each pass moves the PCRs on.
    uint64_t pass_ticks() const { return m_nPassTicks; }

private:
    static constexpr uint8_t kSeen = 0x10;

    uint64_t m_nPackets = 0;
    int m_nPcrPid = -1;
    uint64_t m_nLastPcr = 0;
    uint64_t m_nSpan = 0;  // first to last PCR of the pacing PID, unwrapped
    uint64_t m_nFirstPcrIndex = 0, m_nLastPcrIndex = 0;
    uint64_t m_nPassTicks = 0;
    bool m_bReady = false;
    // Per PID: the counter of its first payload packet (| kSeen once seen), and of its
    // last; finish() turns the latter into the step per pass.
    uint8_t m_ccFirst[8192] = {};
    uint8_t m_ccLast[8192] = {};
};

}  // namespace kv_asi_play
