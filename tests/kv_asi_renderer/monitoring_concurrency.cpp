#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "kv_asi_renderer/kv_alarms_dispatcher.h"
#include "kv_asi_renderer/kv_asi_renderer_statistics.h"

namespace {

using alarm_ptr = std::shared_ptr<kv_i_alarm_event>;

// A host manager whose own thread polls the alarms and statistics.
struct polling_host : kv_i_alarm_manager {
    void register_alarm(alarm_ptr alarm) override {
        std::lock_guard<std::mutex> lock(m_cs);
        m_alarms[alarm->get_data().code] = alarm;
    }
    void unregister_alarm(alarm_ptr alarm) override {
        std::lock_guard<std::mutex> lock(m_cs);
        m_alarms.erase(alarm->get_data().code);
    }
    std::map<int, alarm_ptr> alarms() {
        std::lock_guard<std::mutex> lock(m_cs);
        return m_alarms;
    }
    void poll(const kv_asi_renderer_statistics& stats) {
        while (!done.load()) {
            for (auto& item : alarms()) {
                item.second->check();
                EXPECT_FALSE(item.second->get_log_message().empty());
            }
            EXPECT_GE(stats.get_items().size(), 7u);
        }
    }
    std::atomic<bool> done{false};
    std::mutex m_cs;
    std::map<int, alarm_ptr> m_alarms;
};

}  // namespace

TEST(MonitoringConcurrency, EngineRaisesWhileHostPollsAndRestarts) {
    polling_host host;
    kv_alarms_dispatcher alarms;
    kv_asi_renderer_statistics stats;
    alarms.set_source_name("out1");
    alarms.set_alarm_manager(&host);
    alarms.start();
    std::thread poller([&] { host.poll(stats); });

    constexpr uint32_t kEvents = 20000;
    std::thread engine([&] {
        for (uint32_t i = 0; i < kEvents; ++i) {
            alarms.fifo_underflow_event();
            stats.set_device_time(i * 200000ULL);
            stats.add_skip_ts_packets(1);
            if (i % 100 == 0) {
                stats.set_last_error("error " + std::to_string(i));
                stats.set_jitters({{0x100, {}}, {0x200, {}}});
            }
        }
    });
    engine.join();
    EXPECT_EQ(host.alarms()[eAlarmRemuxerOutputUnderflow]->get_data().count, kEvents);
    EXPECT_EQ(stats.get_items()[4].second, std::to_string(kEvents));

    // The output thread keeps raising events while the element stops and restarts.
    std::atomic<bool> stopped{false};
    std::atomic<uint32_t> raised{0};
    std::thread restarted_engine([&] {
        while (!stopped.load()) {
            alarms.fifo_underflow_event();
            alarms.fifo_overflow_event();
            raised.fetch_add(1);
        }
    });
    while (raised.load() < 2000) {
        alarms.stop();
        alarms.start();
    }
    alarms.stop();
    stopped = true;
    restarted_engine.join();
    host.done = true;
    poller.join();
    EXPECT_TRUE(host.alarms().empty());
}
