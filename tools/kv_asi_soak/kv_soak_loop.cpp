#include "kv_soak_loop.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

namespace kv_asi_soak {

namespace {

uint16_t pid_of(const uint8_t* p) {
    return uint16_t(((p[1] & 0x1F) << 8) | p[2]);
}
bool has_payload(const uint8_t* p) {
    return (p[3] & 0x10) != 0;
}
bool has_adaptation(const uint8_t* p) {
    return (p[3] & 0x20) != 0;
}

// a × b modulo kPcrModulus for a, b below it (< 2^42): b is split into 21-bit halves so
// that no partial product leaves 64 bits.
uint64_t mul_mod_pcr(uint64_t a, uint64_t b) {
    const uint64_t high = (a * (b >> 21)) % kPcrModulus;
    return ((high << 21) % kPcrModulus + a * (b & 0x1FFFFF)) % kPcrModulus;
}

// The adaptation field carries a PCR when its length reaches the PCR and its flag is set.
bool pcr_present(const uint8_t* p) {
    return has_adaptation(p) && p[4] >= 7 && (p[5] & 0x10) != 0;
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

bool ts_loop::load(std::vector<uint8_t> bytes, std::string& error) {
    m_bytes = std::move(bytes);
    m_nPackets = 0;
    if (m_bytes.empty() || m_bytes.size() % kPacketSize != 0) {
        error = "not a whole number of 188-byte packets";
        return false;
    }
    const size_t n = m_bytes.size() / kPacketSize;
    std::memset(m_ccStep, 0, sizeof(m_ccStep));
    bool bPcrPid = false;
    uint64_t first = 0, last = 0, unwrapped = 0;
    size_t iFirst = 0, iLast = 0;
    for (size_t i = 0; i < n; ++i) {
        const uint8_t* p = &m_bytes[i * kPacketSize];
        if (p[0] != 0x47) {
            error = "no sync byte at packet " + std::to_string(i);
            return false;
        }
        const uint16_t pid = pid_of(p);
        if (has_payload(p)) {
            m_ccStep[pid] = uint8_t((m_ccStep[pid] + 1) & 0x0F);
        }
        uint64_t pcr = 0;
        if (!read_pcr(p, pcr) || (bPcrPid && pid != m_nPcrPid)) {
            continue;
        }
        if (!bPcrPid) {
            bPcrPid = true;
            m_nPcrPid = pid;
            first = last = unwrapped = pcr;
            iFirst = iLast = i;
            continue;
        }
        // Follow the PCR across its wrap so that the span stays monotonic.
        unwrapped += (pcr + kPcrModulus - last) % kPcrModulus;
        last = pcr;
        iLast = i;
    }
    if (!bPcrPid || iLast == iFirst || unwrapped == first) {
        error = "fewer than two PCRs: nothing to loop by";
        return false;
    }
    const double ticksPerPacket = double(unwrapped - first) / double(iLast - iFirst);
    m_nPassTicks = uint64_t(std::llround(ticksPerPacket * double(n)));
    m_nPackets = n;
    return true;
}

bool ts_loop::load_file(const std::string& path, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot open " + path;
        return false;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    if (!load(std::move(bytes), error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

bool probe_file_seconds(const std::string& path, double& seconds, std::string& error,
                        size_t window) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) {
        error = "cannot open " + path;
        return false;
    }
    const uint64_t size = uint64_t(in.tellg());
    if (size == 0 || size % kPacketSize != 0) {
        error = path + ": not a whole number of 188-byte packets";
        return false;
    }
    const uint64_t nPackets = size / kPacketSize;
    const uint64_t nWindow =
        std::min<uint64_t>(nPackets, std::max<size_t>(window / kPacketSize, 1));
    std::vector<uint8_t> head(nWindow * kPacketSize), tail(nWindow * kPacketSize);
    in.seekg(0);
    in.read(reinterpret_cast<char*>(head.data()), std::streamsize(head.size()));
    in.seekg(std::streamoff((nPackets - nWindow) * kPacketSize));
    in.read(reinterpret_cast<char*>(tail.data()), std::streamsize(tail.size()));
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    bool bFirst = false, bLast = false;
    uint16_t pid = 0;
    uint64_t first = 0, last = 0, iFirst = 0, iLast = 0;
    for (uint64_t i = 0; i < nWindow && !bFirst; ++i) {
        const uint8_t* p = &head[i * kPacketSize];
        if (p[0] == 0x47 && read_pcr(p, first)) {
            bFirst = true;
            pid = pid_of(p);
            iFirst = i;
        }
    }
    for (uint64_t i = nWindow; bFirst && i-- > 0 && !bLast;) {
        const uint8_t* p = &tail[i * kPacketSize];
        if (p[0] == 0x47 && pid_of(p) == pid && read_pcr(p, last)) {
            bLast = true;
            iLast = nPackets - nWindow + i;
        }
    }
    if (!bFirst || !bLast || iLast <= iFirst) {
        error = path + ": fewer than two PCRs: no stream time to measure";
        return false;
    }
    // One wrap of the PCR at most: a file would have to last 26.5 hours for two.
    const uint64_t span = (last + kPcrModulus - first) % kPcrModulus;
    seconds = double(span) / double(iLast - iFirst) * double(nPackets) / 27e6;
    return true;
}

void ts_loop::fill(uint64_t position, size_t count, uint8_t* out) const {
    for (size_t k = 0; k < count; ++k, ++position) {
        const uint64_t pass = position / m_nPackets;
        const size_t index = size_t(position % m_nPackets);
        uint8_t* p = out + k * kPacketSize;
        std::memcpy(p, &m_bytes[index * kPacketSize], kPacketSize);
        if (pass == 0) {
            continue;
        }
        const uint16_t pid = pid_of(p);
        if (pid != 0x1FFF) {
            const uint64_t step = (pass % 16) * m_ccStep[pid];
            p[3] = uint8_t((p[3] & 0xF0) | ((p[3] + step) & 0x0F));
        }
        uint64_t pcr = 0;
        if (read_pcr(p, pcr)) {
            const uint64_t shift = mul_mod_pcr(pass % kPcrModulus, m_nPassTicks % kPcrModulus);
            write_pcr(p, pcr + shift);
        }
    }
}

}  // namespace kv_asi_soak
