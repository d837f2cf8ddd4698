#pragma once

// A transport-stream file held in memory and played over and over as one endless
// stream, its later passes rewritten at the seams like the player's looped files.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kv_ts_loop_seam.h"

namespace kv_asi_soak {

constexpr size_t kPacketSize = 188;

// Length of the stream in a file of 188-byte packets in seconds, read from its head and
// tail only (up to `window` bytes each): the packets of the file at the rate between the
// first PCR of the head and the last PCR on that PID in the tail. False with a message
// for a file that is not whole packets or has fewer than two PCRs in those windows.
bool probe_file_seconds(const std::string& path, double& seconds, std::string& error,
                        size_t window = size_t(4) << 20);

class ts_loop {
public:
    // Takes the stream as whole 188-byte packets, each starting with 0x47, with at
    // least two PCRs on the first PID carrying PCRs. False with a message otherwise.
    bool load(std::vector<uint8_t> bytes, std::string& error);
    bool load_file(const std::string& path, std::string& error);

    size_t packets() const { return m_nPackets; }
    uint16_t pcr_pid() const { return uint16_t(m_seam.pcr_pid()); }
    // 27 MHz ticks by which each pass moves the PCRs on.
    uint64_t pass_ticks() const { return m_seam.pass_ticks(); }
    // Length of one pass in seconds.
    double pass_seconds() const { return double(m_seam.pass_ticks()) / 27e6; }

    // Copies `count` packets of the endless stream from packet `position` (counted
    // from the start of the first pass) into out, which must hold count × 188 bytes.
    void fill(uint64_t position, size_t count, uint8_t* out) const;

private:
    std::vector<uint8_t> m_bytes;
    size_t m_nPackets = 0;
    kv_asi_play::ts_loop_seam m_seam;
};

}  // namespace kv_asi_soak
