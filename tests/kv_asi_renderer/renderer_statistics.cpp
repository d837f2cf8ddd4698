#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "kv_asi_renderer/kv_asi_renderer_statistics.h"

namespace {

using rows = std::vector<std::pair<std::string, std::string>>;

// The six fixed rows, then `more`, then the last error.
rows expected(const std::string& time, const std::string& counts, rows more = {},
              const std::string& error = "") {
    rows r{{"Device time", time},      {"Stream time", time},       {"Fullness fifo", time},
           {"Skip HW frames", counts}, {"Skip TS packets", counts}, {"Reset", counts}};
    r.insert(r.end(), more.begin(), more.end());
    r.emplace_back("Last error", error);
    return r;
}

kv_asi_renderer_statistics::jitter_map jitters(std::vector<std::pair<uint16_t, int64_t>> list) {
    kv_asi_renderer_statistics::jitter_map map;
    for (auto [pid, units] : list) {
        map[pid].m_nJitter = units;
    }
    return map;
}

}  // namespace

TEST(RendererStatistics, RowsInFixedOrderWithTheirFormats) {
    kv_asi_renderer_statistics stats;
    EXPECT_EQ(stats.get_items(), expected("000:00:00.100", "0"));

    stats.set_device_time(36000000000000ULL);  // 1000 hours: the hour field widens
    stats.set_stream_time(37234560000ULL);     // 1 h 2 min 3.456 s
    stats.set_fullnes_fifo_time(999999);       // 99.9999 ms: milliseconds truncate
    stats.set_reset();
    stats.set_reset();
    stats.set_skip_hw_frame(9);
    stats.set_skip_hw_frame(1ULL << 40);  // a running total: replaces, all 64 bits kept
    stats.add_skip_ts_packets(3);
    stats.add_skip_ts_packets(4);
    stats.set_last_error("Fifo overflow");
    auto map = jitters({{0x1FFF, -1350}, {0x0100, 1350}});
    stats.set_jitters(std::move(map));
    EXPECT_TRUE(map.empty());

    // Jitter rows in PID order, values in stored units despite the label.
    EXPECT_EQ(stats.get_items(), (rows{{"Device time", "1000:00:00.000"},
                                       {"Stream time", "001:02:03.456"},
                                       {"Fullness fifo", "000:00:00.099"},
                                       {"Skip HW frames", "1099511627776"},
                                       {"Skip TS packets", "7"},
                                       {"Reset", "2"},
                                       {"Pid PCR [ns]: #256", "1350"},
                                       {"Pid PCR [ns]: #8191", "-1350"},
                                       {"Last error", "Fifo overflow"}}));

    // A new map replaces the old one.
    stats.set_jitters(jitters({{0x21, 0}}));
    EXPECT_EQ(stats.get_items()[6],
              (std::pair<std::string, std::string>{"Pid PCR [ns]: #33", "0"}));

    // Reset starts from zero, unlike construction.
    stats.reset();
    EXPECT_EQ(stats.get_items(), expected("000:00:00.000", "0"));
}
