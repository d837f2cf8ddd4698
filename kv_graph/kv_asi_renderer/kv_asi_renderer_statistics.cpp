#include "kv_asi_renderer/kv_asi_renderer_statistics.h"

#include <chrono>

#include "kvcore/kv_string.h"

namespace {

using lock_t = std::lock_guard<std::mutex>;

// 0.1 s, what a freshly built object shows in its three time rows.
constexpr uint64_t kInitialTime = 1000000;

std::string time_text(const std::atomic<uint64_t>& units) {
    // Unsigned multiply: a nonsense value wraps instead of overflowing.
    const uint64_t ns = units.load(std::memory_order_relaxed) * 100u;
    return KVSDK::toString("hhh:mm:ss.ccc", std::chrono::nanoseconds(static_cast<int64_t>(ns)));
}

std::string count_text(const std::atomic<uint64_t>& value) {
    return std::to_string(value.load(std::memory_order_relaxed));
}

}  // namespace

kv_asi_renderer_statistics::kv_asi_renderer_statistics()
    : nDeviceTime(kInitialTime),
      nStreamTime(kInitialTime),
      nFullnessFifo(kInitialTime),
      nReset(0),
      nSkipHWFrames(0),
      nSkipTSPackets(0) {}

kv_asi_renderer_statistics::~kv_asi_renderer_statistics() = default;

std::vector<std::pair<std::string, std::string>> kv_asi_renderer_statistics::get_items() const {
    lock_t lock(m_cs);
    std::vector<std::pair<std::string, std::string>> items;
    items.reserve(7 + mapJitters.size());
    items.emplace_back("Device time", time_text(nDeviceTime));
    items.emplace_back("Stream time", time_text(nStreamTime));
    items.emplace_back("Fullness fifo", time_text(nFullnessFifo));
    items.emplace_back("Skip HW frames", count_text(nSkipHWFrames));
    items.emplace_back("Skip TS packets", count_text(nSkipTSPackets));
    items.emplace_back("Reset", count_text(nReset));
    for (const auto& item : mapJitters) {
        items.emplace_back("Pid PCR [ns]: #" + std::to_string(item.first),
                           std::to_string(item.second.m_nJitter));
    }
    items.emplace_back("Last error", m_strLastError);
    return items;
}

void kv_asi_renderer_statistics::set_last_error(const std::string& strLastError) {
    lock_t lock(m_cs);
    m_strLastError = strLastError;
}

void kv_asi_renderer_statistics::set_jitters(jitter_map&& jitters) {
    lock_t lock(m_cs);
    mapJitters = std::move(jitters);
    jitters.clear();
}

void kv_asi_renderer_statistics::reset() {
    nDeviceTime.store(0, std::memory_order_relaxed);
    nStreamTime.store(0, std::memory_order_relaxed);
    nFullnessFifo.store(0, std::memory_order_relaxed);
    nReset.store(0, std::memory_order_relaxed);
    nSkipHWFrames.store(0, std::memory_order_relaxed);
    nSkipTSPackets.store(0, std::memory_order_relaxed);
    lock_t lock(m_cs);
    m_strLastError.clear();
    mapJitters.clear();
}
