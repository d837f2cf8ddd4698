#pragma once

// The renderer's live statistics. The element's "statistics" property hands the host a
// plain pointer to the engine's object; the host reads it through get_items(). Installed
// for hosts.

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kv_asi_renderer/kv_base_statistics.h"
#include "mpegcore/kv_mpeg_time.h"

// Times are in 100 ns units. The counters are single 64-bit words written by the
// engine without the lock; m_cs guards the jitter map and the error text and is held
// for the whole of get_items().
class kv_asi_renderer_statistics : public kv_base_statistics {
public:
    using jitter_map = std::map<uint16_t, mpegcore::kv_jitter_pid>;

    // The three time rows start at 0.1 s, the counters at zero.
    kv_asi_renderer_statistics();
    ~kv_asi_renderer_statistics() override;

    kv_asi_renderer_statistics(const kv_asi_renderer_statistics&) = delete;
    kv_asi_renderer_statistics& operator=(const kv_asi_renderer_statistics&) = delete;

    // "Device time", "Stream time", "Fullness fifo" as hhh:mm:ss.ccc; "Skip HW frames",
    // "Skip TS packets", "Reset" as decimals; one "Pid PCR [ns]: #<pid>" row per PID in
    // ascending order (the value is the jitter as stored, in 100 ns units); "Last error".
    std::vector<std::pair<std::string, std::string>> get_items() const override;

    void set_device_time(uint64_t t) { nDeviceTime.store(t, std::memory_order_relaxed); }
    void set_stream_time(uint64_t t) { nStreamTime.store(t, std::memory_order_relaxed); }
    void set_fullnes_fifo_time(uint64_t t) { nFullnessFifo.store(t, std::memory_order_relaxed); }
    // One call per output reset.
    void set_reset() { nReset.fetch_add(1, std::memory_order_relaxed); }
    // The device's running total.
    void set_skip_hw_frame(uint64_t n) { nSkipHWFrames.store(n, std::memory_order_relaxed); }
    void add_skip_ts_packets(uint64_t n) { nSkipTSPackets.fetch_add(n, std::memory_order_relaxed); }
    void set_last_error(const std::string& strLastError);
    // Replaces the map; the caller's map is left empty.
    void set_jitters(jitter_map&& jitters);
    // All counters and times to zero, the error text and the map emptied.
    void reset();

private:
    // Relaxed atomics: a reader may see a value from just before or after an update,
    // which is harmless for display.
    std::atomic<uint64_t> nDeviceTime;
    std::atomic<uint64_t> nStreamTime;
    std::atomic<uint64_t> nFullnessFifo;
    std::atomic<uint64_t> nReset;
    std::atomic<uint64_t> nSkipHWFrames;
    std::atomic<uint64_t> nSkipTSPackets;
    jitter_map mapJitters;
    mutable std::mutex m_cs;
    std::string m_strLastError;
};
