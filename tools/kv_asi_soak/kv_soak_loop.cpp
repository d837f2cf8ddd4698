#include "kv_soak_loop.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

#include "mpegcore/TransportPacket.h"

namespace kv_asi_soak {

namespace pb = mpegcore::packet_bytes;

bool ts_loop::load(std::vector<uint8_t> bytes, std::string& error) {
    m_bytes = std::move(bytes);
    m_nPackets = 0;
    if (m_bytes.empty() || m_bytes.size() % kPacketSize != 0) {
        error = "not a whole number of 188-byte packets";
        return false;
    }
    const size_t n = m_bytes.size() / kPacketSize;
    m_seam.reset();
    for (size_t i = 0; i < n; ++i) {
        const uint8_t* p = &m_bytes[i * kPacketSize];
        if (p[0] != mpegcore::TS_SYNC_BYTE) {
            error = "no sync byte at packet " + std::to_string(i);
            return false;
        }
        m_seam.observe(p);
    }
    if (!m_seam.finish(error)) {
        return false;
    }
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
        if (p[0] == mpegcore::TS_SYNC_BYTE && pb::has_pcr(p)) {
            first = pb::pcr(p);
            bFirst = true;
            pid = pb::pid(p);
            iFirst = i;
        }
    }
    for (uint64_t i = nWindow; bFirst && i-- > 0 && !bLast;) {
        const uint8_t* p = &tail[i * kPacketSize];
        if (p[0] == mpegcore::TS_SYNC_BYTE && pb::pid(p) == pid && pb::has_pcr(p)) {
            last = pb::pcr(p);
            bLast = true;
            iLast = nPackets - nWindow + i;
        }
    }
    if (!bFirst || !bLast || iLast <= iFirst) {
        error = path + ": fewer than two PCRs: no stream time to measure";
        return false;
    }
    // One wrap of the PCR at most: a file would have to last 26.5 hours for two.
    const uint64_t span = (last + kv_asi_play::kPcrModulus - first) % kv_asi_play::kPcrModulus;
    seconds = double(span) / double(iLast - iFirst) * double(nPackets) / 27e6;
    return true;
}

void ts_loop::fill(uint64_t position, size_t count, uint8_t* out) const {
    for (size_t k = 0; k < count; ++k, ++position) {
        const uint64_t pass = position / m_nPackets;
        uint8_t* p = out + k * kPacketSize;
        std::memcpy(p, &m_bytes[size_t(position % m_nPackets) * kPacketSize], kPacketSize);
        if (pass > 0) {
            m_seam.apply(p, pass);
        }
    }
}

}  // namespace kv_asi_soak
