#include "kv_ts_loop_seam.h"

#include <cstring>

namespace kv_asi_play {

namespace {

constexpr int kNullPid = 0x1FFF;

int pid_of(const uint8_t* p) {
    return ((p[1] & 0x1F) << 8) | p[2];
}

bool has_payload(const uint8_t* p) {
    return (p[3] & 0x10) != 0;
}

// adaptation_field_control 2 or 3, a field long enough for a PCR, PCR_flag set.
bool pcr_present(const uint8_t* p) {
    return (p[3] & 0x20) != 0 && p[4] >= 7 && (p[5] & 0x10) != 0;
}

// a * b modulo kPcrModulus for a, b below it (< 2^42): b is split into 21-bit halves so
// that no partial product leaves 64 bits.
uint64_t mul_mod_pcr(uint64_t a, uint64_t b) {
    const uint64_t high = (a * (b >> 21)) % kPcrModulus;
    return ((high << 21) % kPcrModulus + a * (b & 0x1FFFFF)) % kPcrModulus;
}

}  // namespace

bool read_pcr(const uint8_t* p, uint64_t& pcr) {
    if (!pcr_present(p)) {
        return false;
    }
    const uint8_t* f = p + 6;
    const uint64_t base = (uint64_t(f[0]) << 25) | (uint64_t(f[1]) << 17) | (uint64_t(f[2]) << 9) |
                          (uint64_t(f[3]) << 1) | (f[4] >> 7);
    const uint64_t ext = (uint64_t(f[4] & 0x01) << 8) | f[5];
    pcr = base * 300 + ext;
    return true;
}

void write_pcr(uint8_t* p, uint64_t pcr) {
    if (!pcr_present(p)) {
        return;
    }
    pcr %= kPcrModulus;
    const uint64_t base = pcr / 300;
    const uint64_t ext = pcr % 300;
    uint8_t* f = p + 6;
    f[0] = uint8_t(base >> 25);
    f[1] = uint8_t(base >> 17);
    f[2] = uint8_t(base >> 9);
    f[3] = uint8_t(base >> 1);
    f[4] = uint8_t(((base & 1) << 7) | (f[4] & 0x7E) | ((ext >> 8) & 1));
    f[5] = uint8_t(ext);
}

void ts_loop_seam::reset() {
    *this = ts_loop_seam();
}

void ts_loop_seam::observe(const uint8_t* p) {
    const uint64_t index = m_nPackets++;
    const int pid = pid_of(p);
    if (pid != kNullPid && has_payload(p)) {
        const uint8_t cc = p[3] & 0x0F;
        if ((m_ccFirst[pid] & kSeen) == 0) {
            m_ccFirst[pid] = uint8_t(kSeen | cc);
        }
        m_ccLast[pid] = cc;
    }
    uint64_t pcr = 0;
    if (!read_pcr(p, pcr) || (m_nPcrPid >= 0 && pid != m_nPcrPid)) {
        return;
    }
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
    const int pid = pid_of(p);
    if (pid != kNullPid) {
        const uint64_t step = (pass % 16) * m_ccLast[pid];
        p[3] = uint8_t((p[3] & 0xF0) | ((p[3] + step) & 0x0F));
    }
    uint64_t pcr = 0;
    if (read_pcr(p, pcr)) {
        write_pcr(p, pcr + mul_mod_pcr(pass % kPcrModulus, m_nPassTicks % kPcrModulus));
    }
}

}  // namespace kv_asi_play
