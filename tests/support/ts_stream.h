#pragma once

// Streams with the time of each packet on their own clock: generated ones, and real
// captures when the corpus is present.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "kv_ts_generator.h"
#include "mpegcore/TransportPacket.h"

namespace kvtest {

namespace pb = mpegcore::packet_bytes;

// A stream with the time of each packet on its own clock from the PCRs of one PID: linear
// between PCR packets by position, extended at both ends with the nearest interval.
struct ts_stream {
    std::string name;
    std::vector<uint8_t> bytes;
    uint16_t pcr_pid = 0;
    std::vector<size_t> pcr_packets;
    std::vector<int64_t> time_ns;  // per packet, 0 at packet 0

    size_t packets() const { return bytes.size() / 188; }
    const uint8_t* packet(size_t i) const { return &bytes[i * 188]; }
    bool is_pcr(const uint8_t* p) const { return pb::pid(p) == pcr_pid && pb::has_pcr(p); }
    // The last PCR packet before packet i (packets() when none).
    size_t pcr_before(size_t i) const {
        auto it = std::lower_bound(pcr_packets.begin(), pcr_packets.end(), i);
        return it == pcr_packets.begin() ? packets() : *(it - 1);
    }
    // The first packet whose time is at or after t.
    size_t packet_at(int64_t t_ns) const {
        return size_t(std::lower_bound(time_ns.begin(), time_ns.end(), t_ns) - time_ns.begin());
    }

    void index() {
        pcr_packets.clear();
        std::vector<double> pcrs;
        for (size_t i = 0; i < packets(); ++i) {
            if (is_pcr(packet(i))) {
                double pcr = double(pb::pcr(packet(i)));
                while (!pcrs.empty() && pcr < pcrs.back()) {
                    pcr += double(int64_t(1) << 33) * 300;  // the 27 MHz counter wrapped
                }
                pcr_packets.push_back(i);
                pcrs.push_back(pcr);
            }
        }
        time_ns.assign(packets(), 0);
        for (size_t i = 0, k = 0; pcrs.size() >= 2 && i < packets(); ++i) {
            while (k + 2 < pcrs.size() && i >= pcr_packets[k + 1]) {
                ++k;
            }
            const double per_packet =
                (pcrs[k + 1] - pcrs[k]) / double(pcr_packets[k + 1] - pcr_packets[k]);
            const double ticks = pcrs[k] + per_packet * (double(i) - double(pcr_packets[k]));
            time_ns[i] = std::llround((ticks - pcrs[0]) * 1000.0 / 27.0);
        }
        const int64_t t0 = time_ns.empty() ? 0 : time_ns[0];  // before the first PCR: < 0
        for (int64_t& t : time_ns) {
            t -= t0;
        }
    }
};

inline ts_stream generated(uint64_t rate_bps, double seconds, uint64_t pcr_interval_ns = 30000000) {
    ts_stream s;
    kv_ts_generate::options o;
    o.rate_bps = rate_bps;
    o.packets = kv_ts_generate::packets_for_duration(rate_bps, uint64_t(seconds * 1e9));
    o.pcr_interval_ns = pcr_interval_ns;
    std::string error;
    EXPECT_TRUE(kv_ts_generate::generate(o, s.bytes, error)) << error;
    s.name = std::to_string(rate_bps / 1000000) + " Mbit/s generated";
    s.pcr_pid = o.pcr_pid;
    s.index();
    return s;
}

// A corpus capture up to its last PCR packet within `seconds`; empty when it is absent.
inline ts_stream corpus(const char* file, uint16_t pcr_pid, double seconds) {
    ts_stream s;
    std::ifstream in(std::string(KV_CORPUS_DIR) + "/" + file, std::ios::binary);
    s.bytes.assign(std::istreambuf_iterator<char>(in), {});
    s.name = file;
    s.pcr_pid = pcr_pid;
    s.index();
    if (s.pcr_packets.size() < 3) {
        return ts_stream();
    }
    const size_t end = s.pcr_before(s.packet_at(int64_t(seconds * 1e9)) + 1);
    s.bytes.resize((end + 1) * 188);
    s.index();
    return s;
}

// One program with a PCR every 40 ms: a real capture, or a generated stream like it when
// the corpus is absent.
inline ts_stream pcr_stream(double seconds) {
    ts_stream s = corpus("test-072.ts", 0x65, seconds);
    return s.packets() > 0 ? s : generated(2000000, seconds, 40000000);
}

}  // namespace kvtest
