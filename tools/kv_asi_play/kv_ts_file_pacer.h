#pragma once

// Cuts a transport-stream file into buffers that carry the stream time of their first
// packet, so that a player can hand them to the element at the stream's own rate.
//
// Times come from the PCRs of the first PID that carries one (the PID the element paces
// by as well). The packets from one PCR of that PID up to the next are spread evenly
// over the two PCRs' interval, so a buffer that starts with a PCR packet gets exactly
// that PCR's time. Where no interval can be measured (before the first PCR after a
// rewind, after the last PCR of the file, across a discontinuity indicator, a jump of
// two seconds or more, or a backward step) the packets run on at the rate of the last
// measured interval. Time starts at 0 with the first packet and runs on over loops.
//
// A looped file whose first pass has two PCRs or more on the pacing PID plays seamlessly:
// later passes are rewritten as they are read (see ts_loop_seam), so the tail of one pass
// and the head of the next form one ordinary PCR interval, timed like any other.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "kv_ts_loop_seam.h"

namespace kv_asi_play {

constexpr size_t kPacketSize = 188;
// 27 MHz PCR ticks per 100 ns unit is 2.7; times are kept in ticks and converted once.
constexpr int64_t kTicksPerSecond = 27'000'000;
constexpr int64_t kUnitsPerSecond = 10'000'000;

inline int64_t ticks_to_units(int64_t ticks) {
    return ticks * 10 / 27;
}

// One buffer for the element: whole packets and where they come from.
struct ts_chunk {
    std::vector<uint8_t> data;  // whole 188-byte packets
    int64_t tStream = 0;        // time of the first packet, 100 ns units
    uint64_t nOffset = 0;       // file offset of the first packet
    uint32_t nPass = 0;         // 0 on the first pass through the file; never two in one chunk
};

class ts_file_pacer {
public:
    // Packets per chunk at most: about 64 KiB, so that pacing stays smooth at high rates.
    static constexpr size_t kMaxChunkPackets = 348;
    // Packets held while waiting for the next PCR before they are timed by estimate.
    static constexpr size_t kMaxPendingPackets = 1 << 16;
    // A PCR step of this size or more (or a backward one) is a discontinuity; the
    // element itself treats such a jump as a gap in the flow.
    static constexpr int64_t kMaxPcrStep = 2 * kTicksPerSecond;

    ts_file_pacer() = default;
    ~ts_file_pacer();
    ts_file_pacer(const ts_file_pacer&) = delete;
    ts_file_pacer& operator=(const ts_file_pacer&) = delete;

    // Opens the file and checks that it holds 188-byte packets. False with a one-line
    // reason ("cannot open ...", "... is not a transport stream ...") otherwise.
    bool open(const std::string& path, bool bLoop, std::string& error);

    // The next chunk. False at the end of the file (never when looping) or on a failure,
    // which leaves error() non-empty: a read error, or no PCR to pace by.
    bool next(ts_chunk& chunk);

    uint64_t file_size() const { return m_nFileSize; }
    // Stream time up to which packets have been timed; at the end of the file, the
    // length of everything handed out.
    int64_t time_read() const { return ticks_to_units(m_tPendingTicks); }
    // Pacing PID, -1 before the first PCR.
    int pcr_pid() const { return m_nPcrPid; }
    // Bytes skipped to find the packet sync again.
    uint64_t skipped_bytes() const { return m_nSkippedBytes; }
    const std::string& error() const { return m_strError; }
    // Whether the passes after the first are rewritten to follow on seamlessly; known
    // once the first pass has been read to its end.
    bool seamless() const { return m_seam.ready(); }

private:
    // The next packet of the file (resynchronising on a lost sync byte), false at the
    // end of the file or on a read error.
    bool read_packet(uint8_t*& p, uint64_t& nOffset);
    bool fill(size_t nWanted);
    bool rewind();
    // Reads until the packets since the last anchor can be timed; false when nothing
    // is left.
    bool close_interval();
    // What close_interval() does once the file is read to its end: read on (a loop
    // started over), hand out what is ready (the tail), or stop.
    enum class end_step { go_on, ready, stop };
    end_step at_end_of_file();
    // Times the pending packets over nTicks and makes them ready.
    void make_ready(int64_t nTicks);
    // Duration of n packets at the last measured rate.
    int64_t estimate(size_t nPackets) const;

    std::FILE* m_pFile = nullptr;
    std::string m_strPath;
    bool m_bLoop = false;
    uint64_t m_nFileSize = 0;
    std::string m_strError;

    // Read buffer: m_buf[m_nPos, m_nLen) is unread, starting at file offset m_nBufOffset
    // + m_nPos.
    std::vector<uint8_t> m_buf;
    size_t m_nPos = 0;
    size_t m_nLen = 0;
    uint64_t m_nBufOffset = 0;
    bool m_bEof = false;
    uint32_t m_nPass = 0;
    uint64_t m_nPassPackets = 0;
    uint64_t m_nSkippedBytes = 0;
    ts_loop_seam m_seam;

    // Packets since the last anchor, waiting for the next one.
    std::vector<uint8_t> m_pending;
    uint64_t m_nPendingOffset = 0;
    uint32_t m_nPendingPass = 0;
    int64_t m_tPendingTicks = 0;  // time of the first pending packet
    // Index of the first pending packet of the next pass (SIZE_MAX: none) and its offset.
    size_t m_nPendingSeam = SIZE_MAX;
    uint64_t m_nPendingSeamOffset = 0;

    // Timed packets being handed out: packet i of nReady leaves at tReady + d * i / n.
    std::vector<uint8_t> m_ready;
    size_t m_nReadyPackets = 0;
    size_t m_nReadyNext = 0;
    int64_t m_tReadyTicks = 0;
    int64_t m_nReadyDuration = 0;
    uint64_t m_nReadyOffset = 0;
    uint32_t m_nReadyPass = 0;
    size_t m_nReadySeam = SIZE_MAX;
    uint64_t m_nReadySeamOffset = 0;

    int m_nPcrPid = -1;
    uint64_t m_nLastPcr = 0;
    bool m_bHaveLastPcr = false;
    bool m_bBroken = false;    // no measurable interval from the last anchor on
    int64_t m_nRateTicks = 0;  // last measured interval: duration and packet count
    size_t m_nRatePackets = 0;
    bool m_bEnd = false;
};

}  // namespace kv_asi_play
