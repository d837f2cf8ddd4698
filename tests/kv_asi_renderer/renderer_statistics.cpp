#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "kv_asi_renderer/kv_asi_renderer_statistics.h"

using rows = std::vector<std::pair<std::string, std::string>>;

TEST(RendererStatistics, RowsInFixedOrderWithTheirFormats) {
    kv_asi_renderer_statistics stats;
    EXPECT_EQ(stats.get_items()[0].second, "000:00:00.100");  // construction, unlike reset
    stats.set_device_time(36000000000000ULL);                 // 1000 hours: the hour field widens
    stats.set_stream_time(37234560000ULL);                    // 1 h 2 min 3.456 s
    stats.set_fullnes_fifo_time(999999);                      // 99.9999 ms: milliseconds truncate
    stats.set_reset();
    stats.set_reset();
    stats.set_skip_hw_frame(9);
    stats.set_skip_hw_frame(1ULL << 40);  // a running total: replaces, all 64 bits kept
    stats.add_skip_ts_packets(3);
    stats.add_skip_ts_packets(4);
    stats.set_last_error("Fifo overflow");
    kv_asi_renderer_statistics::jitter_map map;
    map[0x1FFF].m_nJitter = -1350;
    map[0x0100].m_nJitter = 1350;
    stats.set_jitters(std::move(map));

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

    // A new map replaces the old one; reset starts every row from zero.
    map[0x21].m_nJitter = 0;
    stats.set_jitters(std::move(map));
    EXPECT_EQ(stats.get_items().size(), 8u);
    EXPECT_EQ(stats.get_items()[6].first, "Pid PCR [ns]: #33");
    stats.reset();
    const std::string z = "000:00:00.000";
    EXPECT_EQ(stats.get_items(), (rows{{"Device time", z},
                                       {"Stream time", z},
                                       {"Fullness fifo", z},
                                       {"Skip HW frames", "0"},
                                       {"Skip TS packets", "0"},
                                       {"Reset", "0"},
                                       {"Last error", ""}}));
}
