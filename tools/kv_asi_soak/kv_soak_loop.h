#pragma once

// A transport-stream file held in memory and played over and over as one endless
// stream: every pass after the first has its PCRs moved on by the length of a pass and
// its continuity counters moved on by the packets each PID carried in a pass, so the
// element downstream sees one continuous clock and no continuity break at the seams.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kv_asi_soak {

constexpr size_t kPacketSize = 188;
// PCRs count 27 MHz ticks modulo 2^33 × 300.
constexpr uint64_t kPcrModulus = (uint64_t(1) << 33) * 300;

// The PCR of a packet in 27 MHz ticks, or false when it carries none.
bool read_pcr(const uint8_t* packet, uint64_t& pcr);
// Overwrites the PCR of a packet that carries one (base = pcr / 300, extension =
// pcr % 300, pcr taken modulo kPcrModulus); the reserved bits stay as they were.
void write_pcr(uint8_t* packet, uint64_t pcr);

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
    uint16_t pcr_pid() const { return m_nPcrPid; }
    // 27 MHz ticks by which each pass moves the PCRs on: the packets of a pass at the
    // mean PCR rate of the file.
    uint64_t pass_ticks() const { return m_nPassTicks; }
    // Length of one pass in seconds.
    double pass_seconds() const { return double(m_nPassTicks) / 27e6; }

    // Copies `count` packets of the endless stream from packet `position` (counted
    // from the start of the first pass) into out, which must hold count × 188 bytes.
    void fill(uint64_t position, size_t count, uint8_t* out) const;

private:
    std::vector<uint8_t> m_bytes;
    size_t m_nPackets = 0;
    uint16_t m_nPcrPid = 0;
    uint64_t m_nPassTicks = 0;
    uint8_t m_ccStep[8192] = {};  // per PID: payload packets in one pass, modulo 16
};

}  // namespace kv_asi_soak
