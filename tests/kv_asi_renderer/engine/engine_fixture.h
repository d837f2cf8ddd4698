#pragma once

#include <glib.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "board_fixture.h"
#include "files.h"
#include "kv_asi_renderer/kv_asi_process_renderer.h"
#include "kv_ts_generator.h"

namespace engine_test {

constexpr size_t kPacket = 188;

// Everything g_print writes, from whichever thread prints.
class print_log {
public:
    print_log() {
        clear();
        g_set_print_handler(&print_log::append);
    }
    ~print_log() { g_set_print_handler(nullptr); }
    // How many times the exact line (newline included) was printed.
    size_t count(const std::string& line) const {
        std::lock_guard<std::mutex> lock(s_mutex);
        size_t n = 0;
        for (size_t at = s_text.find(line); at != std::string::npos;
             at = s_text.find(line, at + 1)) {
            n += at == 0 || s_text[at - 1] == '\n';
        }
        return n;
    }
    // Lines printed so far.
    size_t text_lines() const {
        std::lock_guard<std::mutex> lock(s_mutex);
        return static_cast<size_t>(std::count(s_text.begin(), s_text.end(), '\n'));
    }
    static void clear() {
        std::lock_guard<std::mutex> lock(s_mutex);
        s_text.clear();
    }

private:
    static void append(const gchar* s) {
        std::lock_guard<std::mutex> lock(s_mutex);
        s_text += s;
    }
    static inline std::mutex s_mutex;
    static inline std::string s_text;
};

// A host's alarm manager that keeps the alarms it holds by description.
class alarm_manager : public kv_i_alarm_manager {
public:
    void register_alarm(std::shared_ptr<kv_i_alarm_event> alarm) override {
        std::lock_guard<std::mutex> lock(m_cs);
        m_alarms[alarm->get_data().description] = alarm;
    }
    void unregister_alarm(std::shared_ptr<kv_i_alarm_event> alarm) override {
        std::lock_guard<std::mutex> lock(m_cs);
        auto it = m_alarms.find(alarm->get_data().description);
        if (it != m_alarms.end() && it->second == alarm) {
            m_alarms.erase(it);
        }
    }
    // Occurrences of a registered alarm; -1 when it is not registered.
    long count(const std::string& description) {
        std::lock_guard<std::mutex> lock(m_cs);
        auto it = m_alarms.find(description);
        return it == m_alarms.end() ? -1 : static_cast<long>(it->second->get_data().count);
    }

private:
    std::mutex m_cs;
    std::map<std::string, std::shared_ptr<kv_i_alarm_event>> m_alarms;
};

using kvtest::read_file;

// A constant-rate stream of n packets with a PCR every 30 ms.
inline std::vector<uint8_t> generated(uint64_t rate_bps, size_t n) {
    kv_ts_generate::options o;
    o.rate_bps = rate_bps;
    o.packets = n;
    std::vector<uint8_t> ts;
    std::string error;
    EXPECT_TRUE(kv_ts_generate::generate(o, ts, error)) << error;
    return ts;
}

// One engine on one free-running board, its dispatcher handing alarms to a test manager.
class EngineTest : public testing::Test {
protected:
    static constexpr const char* kNode = "/dev/kvasi-engine-test";
    static constexpr const char* kUnderflow = "Output buffer underflow";
    static constexpr const char* kOverflow = "Output buffer overflow";

    void SetUp() override {
        add_board();
        dispatcher.set_source_name("engine-test");
        dispatcher.set_alarm_manager(&manager);
        engine.set_message_callback([this](const kv_asi_message& m) {
            if (m.eLevel <= kv_asi_level::warning) {
                std::lock_guard<std::mutex> lock(m_csMessages);
                m_messages.push_back(m);
            }
        });
    }
    // The errors and warnings so far, taken.
    std::vector<kv_asi_message> messages() {
        std::lock_guard<std::mutex> lock(m_csMessages);
        return std::exchange(m_messages, {});
    }
    void TearDown() override {
        engine.stop();
        engine.deinit();
        dispatcher.set_alarm_manager(nullptr);
        kv_vboard_remove_all();
    }
    void add_board(const std::string& capture = "") {
        add_vboard(kNode, false, true, 2, 675000, capture);
    }
    kv_vboard_counters counters() { return board_counters(kNode); }

    std::string stat(const std::string& name) {
        for (const auto& row : engine.statistics()->get_items()) {
            if (row.first == name) {
                return row.second;
            }
        }
        return "<no row " + name + ">";
    }

    // One packet per buffer, each its own anchor: n packets from kT0 on, `step` apart.
    static constexpr int64_t kT0 = 5000000000;  // far from zero (500 s)
    void push_packets(const std::vector<uint8_t>& ts, size_t from, size_t to, int64_t step) {
        for (size_t k = from; k < to; ++k) {
            engine.push_data(kT0 + int64_t(k) * step, &ts[k * kPacket], kPacket);
        }
    }

    std::mutex m_csMessages;
    std::vector<kv_asi_message> m_messages;
    print_log log;
    alarm_manager manager;
    kv_alarms_dispatcher dispatcher;
    kv_asi_process_renderer engine{dispatcher};
};

}  // namespace engine_test
