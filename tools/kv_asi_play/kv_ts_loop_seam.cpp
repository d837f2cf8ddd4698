#include "kv_ts_loop_seam.h"

#include <cstring>

#include "mpegcore/TransportPacket.h"

namespace kv_asi_play {

namespace {

namespace pb = mpegcore::packet_bytes;

// a * b modulo kPcrModulus for a, b below it (< 2^42): b is split into 21-bit halves so
// that no partial product leaves 64 bits.
uint64_t mul_mod_pcr(uint64_t a, uint64_t b) {
    const uint64_t high = (a * (b >> 21)) % kPcrModulus;
    return ((high << 21) % kPcrModulus + a * (b & 0x1FFFFF)) % kPcrModulus;
}

}  // namespace

void ts_loop_seam::reset() {
    *this = ts_loop_seam();
}

void ts_loop_seam::observe(const uint8_t* p) {
    const uint64_t index = m_nPackets++;
    const int pid = pb::pid(p);
    if (pid != mpegcore::TS_NULL_PID && pb::has_payload(p)) {
        const uint8_t cc = pb::continuity_counter(p);
        if ((m_ccFirst[pid] & kSeen) == 0) {
            m_ccFirst[pid] = uint8_t(kSeen | cc);
        }
        m_ccLast[pid] = cc;
    }
    if (!pb::has_pcr(p) || (m_nPcrPid >= 0 && pid != m_nPcrPid)) {
        return;
    }
    const uint64_t pcr = pb::pcr(p);
    if (m_nPcrPid < 0) {
        m_nPcrPid = pid;
        m_nFirstPcrIndex = index;
    } else {
        // Followed across the wrap so that the span grows monotonically.
        m_nSpan += (pcr + kPcrModulus - m_nLastPcr) % kPcrModulus;
    }
    m_nLastPcr = pcr;
    m_nLastPcrIndex = index;
}

bool ts_loop_seam::finish(std::string& error) {
    m_bReady = false;
    const uint64_t d = m_nLastPcrIndex - m_nFirstPcrIndex;
    if (m_nPcrPid < 0 || d == 0 || m_nSpan == 0) {
        error = "fewer than two PCRs: nothing to loop by";
        return false;
    }
    // span * packets / d, rounded, without a 128-bit product: r * packets stays below
    // packets^2, which holds for any file under 2^32 packets.
    const uint64_t q = m_nSpan / d, r = m_nSpan % d;
    m_nPassTicks = q * m_nPackets + (r * m_nPackets + d / 2) / d;
    for (int pid = 0; pid < 8192; ++pid) {
        // The first payload packet of the next pass follows on from the last of this one.
        m_ccLast[pid] = (m_ccFirst[pid] & kSeen) != 0
                            ? uint8_t((m_ccLast[pid] + 1 - m_ccFirst[pid]) & 0x0F)
                            : 0;
    }
    m_bReady = true;
    return true;
}

void ts_loop_seam::apply(uint8_t* p, uint64_t pass) const {
    const int pid = pb::pid(p);
    if (pid != mpegcore::TS_NULL_PID) {
        const uint64_t step = (pass % 16) * m_ccLast[pid];
        pb::set_continuity_counter(p, unsigned(pb::continuity_counter(p) + step));
    }
    if (pb::has_pcr(p)) {
        const uint64_t shift = mul_mod_pcr(pass % kPcrModulus, m_nPassTicks % kPcrModulus);
        pb::set_pcr(p, (pb::pcr(p) + shift) % kPcrModulus);
    }
}

}  // namespace kv_asi_play
