#include "kv_ts_file_pacer.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "mpegcore/TransportPacket.h"

namespace kv_asi_play {

namespace {

namespace pb = mpegcore::packet_bytes;

constexpr uint8_t kSyncByte = mpegcore::TS_SYNC_BYTE;
constexpr size_t kReadSize = 1 << 20;

// A sync byte at p that is followed by sync bytes one and two packets on, as far as the
// data goes: a lone 0x47 inside a payload is not taken for a packet start.
bool sync_confirmed(const uint8_t* p, size_t nAvail) {
    for (size_t k = 0; k < 3; ++k) {
        if (k * kPacketSize < nAvail && p[k * kPacketSize] != kSyncByte) {
            return false;
        }
    }
    return true;
}

}  // namespace


ts_file_pacer::~ts_file_pacer() {
    if (m_pFile != nullptr) {
        std::fclose(m_pFile);
    }
}

bool ts_file_pacer::open(const std::string& path, bool bLoop, std::string& error) {
    m_strPath = path;
    m_bLoop = bLoop;
    m_pFile = std::fopen(path.c_str(), "rb");
    if (m_pFile == nullptr) {
        error = "cannot open " + path + ": " + std::strerror(errno);
        return false;
    }
    struct stat st;
    if (fstat(fileno(m_pFile), &st) != 0 || !S_ISREG(st.st_mode)) {
        error = "cannot play " + path + ": not a regular file";
        return false;
    }
    m_nFileSize = uint64_t(st.st_size);
    m_buf.resize(kReadSize);
    if (!fill(3 * kPacketSize)) {
        error = m_strError;
        return false;
    }
    // The stream must start with a packet within its first packet's length.
    const size_t nAvail = m_nLen - m_nPos;
    for (size_t i = 0; i < kPacketSize && i + kPacketSize <= nAvail; ++i) {
        if (m_buf[i] == kSyncByte && sync_confirmed(&m_buf[i], nAvail - i)) {
            return true;
        }
    }
    error = path + " is not a transport stream of 188-byte packets";
    return false;
}

bool ts_file_pacer::fill(size_t nWanted) {
    while (m_nLen - m_nPos < nWanted && !m_bEof) {
        if (m_nPos > 0) {
            std::memmove(m_buf.data(), m_buf.data() + m_nPos, m_nLen - m_nPos);
            m_nBufOffset += m_nPos;
            m_nLen -= m_nPos;
            m_nPos = 0;
        }
        const size_t n = std::fread(m_buf.data() + m_nLen, 1, m_buf.size() - m_nLen, m_pFile);
        m_nLen += n;
        if (n == 0) {
            if (std::ferror(m_pFile)) {
                m_strError = "cannot read " + m_strPath + ": " + std::strerror(errno);
                return false;
            }
            m_bEof = true;
        }
    }
    return true;
}

bool ts_file_pacer::rewind() {
    if (std::fseek(m_pFile, 0, SEEK_SET) != 0) {
        m_strError = "cannot rewind " + m_strPath + ": " + std::strerror(errno);
        return false;
    }
    std::clearerr(m_pFile);
    m_nPos = m_nLen = 0;
    m_nBufOffset = 0;
    m_bEof = false;
    ++m_nPass;
    m_nPassPackets = 0;
    return true;
}

bool ts_file_pacer::read_packet(uint8_t*& p, uint64_t& nOffset) {
    bool bSynced = true;
    for (;;) {
        if (!fill(3 * kPacketSize)) {
            return false;
        }
        const size_t nAvail = m_nLen - m_nPos;
        if (nAvail < kPacketSize) {
            // A cut packet at the end of the file is not sent.
            m_nSkippedBytes += nAvail;
            m_nPos = m_nLen;
            return false;
        }
        uint8_t* q = &m_buf[m_nPos];
        if (q[0] == kSyncByte && (bSynced || sync_confirmed(q, nAvail))) {
            if (m_nPass == 0) {
                if (m_bLoop) {
                    m_seam.observe(q);
                }
            } else if (m_seam.ready()) {
                m_seam.apply(q, m_nPass);
            }
            p = q;
            nOffset = m_nBufOffset + m_nPos;
            m_nPos += kPacketSize;
            return true;
        }
        bSynced = false;
        ++m_nPos;
        ++m_nSkippedBytes;
    }
}

int64_t ts_file_pacer::estimate(size_t nPackets) const {
    if (m_nRatePackets == 0) {
        return 0;
    }
    return int64_t(nPackets) * m_nRateTicks / int64_t(m_nRatePackets);
}

void ts_file_pacer::make_ready(int64_t nTicks) {
    std::swap(m_ready, m_pending);
    m_pending.clear();
    m_nReadyPackets = m_ready.size() / kPacketSize;
    m_nReadyNext = 0;
    m_tReadyTicks = m_tPendingTicks;
    m_nReadyDuration = nTicks;
    m_nReadyOffset = m_nPendingOffset;
    m_nReadyPass = m_nPendingPass;
    m_nReadySeam = m_nPendingSeam < m_nReadyPackets ? m_nPendingSeam : SIZE_MAX;
    m_nReadySeamOffset = m_nPendingSeamOffset;
    m_nPendingSeam = SIZE_MAX;
    m_tPendingTicks += nTicks;
}

ts_file_pacer::end_step ts_file_pacer::at_end_of_file() {
    if (!m_strError.empty()) {
        return end_step::stop;
    }
    if (m_nPcrPid < 0) {
        m_strError = "no PCR in " + m_strPath + ": nothing to pace it by";
        return end_step::stop;
    }
    if (m_bLoop && m_nPass == 0) {
        std::string ignored;  // without two PCRs the passes play as the file is
        m_seam.finish(ignored);
    }
    if (m_bLoop && m_seam.ready()) {
        // Seamless: the packets after the last PCR of this pass wait with those of
        // the next pass for its first PCR, one ordinary interval on.
        if (m_nPassPackets == 0) {
            m_strError = "no packets left in " + m_strPath;
            return end_step::stop;
        }
        if (!rewind()) {
            return end_step::stop;
        }
        if (!m_pending.empty()) {
            m_nPendingSeam = m_pending.size() / kPacketSize;
        }
        return end_step::go_on;
    }
    // The tail after the last PCR runs on at the last rate; a loop starts over
    // without a measurable interval to the first PCR of the next pass.
    m_bBroken = true;
    const bool bTail = !m_pending.empty();
    if (bTail) {
        make_ready(estimate(m_pending.size() / kPacketSize));
    }
    if (m_bLoop) {
        if (m_nPassPackets == 0) {
            m_strError = "no packets left in " + m_strPath;
            return end_step::stop;
        }
        if (!rewind()) {
            return end_step::stop;
        }
    } else if (!bTail) {
        return end_step::stop;
    }
    if (bTail) {
        return end_step::ready;
    }
    return end_step::go_on;
}

bool ts_file_pacer::close_interval() {
    for (;;) {
        uint8_t* p = nullptr;
        uint64_t nOffset = 0;
        if (!read_packet(p, nOffset)) {
            const end_step step = at_end_of_file();
            if (step == end_step::go_on) {
                continue;
            }
            return step == end_step::ready;
        }
        ++m_nPassPackets;

        if (m_nPendingSeam == m_pending.size() / kPacketSize) {
            m_nPendingSeamOffset = nOffset;
        }
        if (m_pending.empty()) {
            m_nPendingOffset = nOffset;
            m_nPendingPass = m_nPass;
        }
        const int pid = pb::pid(p);
        if (pb::has_pcr(p) && (m_nPcrPid < 0 || pid == m_nPcrPid)) {
            const uint64_t pcr = pb::pcr(p);
            const bool bDiscontinuity = pb::discontinuity(p);
            m_nPcrPid = pid;
            const bool bClose = !m_pending.empty();
            if (bClose) {
                const size_t n = m_pending.size() / kPacketSize;
                int64_t nTicks = 0;
                bool bMeasured = false;
                if (m_bHaveLastPcr && !m_bBroken && !bDiscontinuity) {
                    nTicks = int64_t((pcr + kPcrModulus - m_nLastPcr) % kPcrModulus);
                    bMeasured = nTicks > 0 && nTicks < kMaxPcrStep;
                }
                if (bMeasured) {
                    m_nRateTicks = nTicks;
                    m_nRatePackets = n;
                } else {
                    nTicks = estimate(n);
                }
                make_ready(nTicks);
                m_nPendingOffset = nOffset;
                m_nPendingPass = m_nPass;
            }
            m_pending.insert(m_pending.end(), p, p + kPacketSize);
            m_nLastPcr = pcr;
            m_bHaveLastPcr = true;
            m_bBroken = false;
            if (bClose) {
                return true;
            }
            continue;
        }

        m_pending.insert(m_pending.end(), p, p + kPacketSize);
        if (m_pending.size() / kPacketSize >= kMaxPendingPackets) {
            if (m_nPcrPid < 0) {
                m_strError = "no PCR in the first " + std::to_string(kMaxPendingPackets) +
                             " packets of " + m_strPath + ": nothing to pace it by";
                return false;
            }
            m_bBroken = true;
            make_ready(estimate(m_pending.size() / kPacketSize));
            return true;
        }
    }
}

bool ts_file_pacer::next(ts_chunk& chunk) {
    if (m_bEnd || m_pFile == nullptr) {
        return false;
    }
    while (m_nReadyNext >= m_nReadyPackets) {
        if (!close_interval()) {
            m_bEnd = true;
            return false;
        }
    }
    const size_t i = m_nReadyNext;
    size_t k = std::min(kMaxChunkPackets, m_nReadyPackets - i);
    // A chunk ends at the seam, so that its pass and offset hold for all of it.
    const bool bNextPass = m_nReadySeam != SIZE_MAX && i >= m_nReadySeam;
    if (m_nReadySeam != SIZE_MAX && i < m_nReadySeam) {
        k = std::min(k, m_nReadySeam - i);
    }
    chunk.data.assign(m_ready.begin() + std::ptrdiff_t(i * kPacketSize),
                      m_ready.begin() + std::ptrdiff_t((i + k) * kPacketSize));
    chunk.tStream =
        ticks_to_units(m_tReadyTicks + m_nReadyDuration * int64_t(i) / int64_t(m_nReadyPackets));
    chunk.nOffset = bNextPass ? m_nReadySeamOffset + (i - m_nReadySeam) * kPacketSize
                              : m_nReadyOffset + i * kPacketSize;
    chunk.nPass = m_nReadyPass + (bNextPass ? 1 : 0);
    m_nReadyNext += k;
    return true;
}

}  // namespace kv_asi_play
