#pragma once

#include <dirent.h>
#include <glib.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kv_asi_renderer/kv_asi_process_renderer.h"
#include "kv_vboard.h"

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

    std::string text() const {
        std::lock_guard<std::mutex> lock(mutex());
        return buffer();
    }
    // How many times the exact line (newline included) was printed.
    size_t count(const std::string& line) const {
        const std::string all = text();
        size_t n = 0;
        for (size_t pos = all.find(line); pos != std::string::npos; pos = all.find(line, pos + 1)) {
            n += pos == 0 || all[pos - 1] == '\n';
        }
        return n;
    }
    static void clear() {
        std::lock_guard<std::mutex> lock(mutex());
        buffer().clear();
    }

private:
    static std::mutex& mutex() {
        static std::mutex m;
        return m;
    }
    static std::string& buffer() {
        static std::string s;
        return s;
    }
    static void append(const gchar* s) {
        std::lock_guard<std::mutex> lock(mutex());
        buffer() += s;
    }
};

// A host's alarm manager that remembers the alarms it holds by description.
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

inline std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {});
}

inline std::string corpus_path(const char* name) {
    return std::string(KV_CORPUS_DIR) + "/" + name;
}

// Entries of a /proc/self directory: open descriptors ("fd") or threads ("task").
inline int proc_self_count(const char* what) {
    int n = 0;
    const std::string path = std::string("/proc/self/") + what;
    if (DIR* d = opendir(path.c_str())) {
        while (dirent* e = readdir(d)) {
            n += e->d_name[0] != '.';
        }
        closedir(d);
    }
    return n;
}

// Polls until pred holds; false when it still does not after `limit` (a hang guard,
// far above what any pass needs).
template <class Pred>
bool wait_until(Pred pred, std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// One engine on one free-running emulated board, with its dispatcher handing the
// alarms to a test manager.
class EngineTest : public testing::Test {
protected:
    static constexpr const char* kNode = "/dev/kvasi-engine-test";
    static constexpr const char* kUnderflow = "Output buffer underflow";
    static constexpr const char* kOverflow = "Output buffer overflow";

    void SetUp() override {
        add_board();
        dispatcher.set_source_name("engine-test");
        dispatcher.set_alarm_manager(&manager);
    }
    void TearDown() override {
        engine.stop();
        engine.deinit();
        dispatcher.set_alarm_manager(nullptr);
        kv_vboard_remove_all();
    }

    void add_board(const std::string& capture = "") {
        kv_vboard_config cfg;
        kv_vboard_default_config(&cfg);
        std::snprintf(cfg.node, sizeof(cfg.node), "%s", kNode);
        std::snprintf(cfg.capture, sizeof(cfg.capture), "%s", capture.c_str());
        cfg.freerun = 1;
        ASSERT_EQ(kv_vboard_add(&cfg), 0);
    }

    kv_vboard_counters counters() {
        kv_vboard_counters c;
        std::memset(&c, 0, sizeof(c));
        EXPECT_EQ(kv_vboard_get_counters(kNode, &c), 0);
        return c;
    }

    std::string stat(const std::string& name) {
        for (const auto& row : engine.statistics()->get_items()) {
            if (row.first == name) {
                return row.second;
            }
        }
        return "<no row " + name + ">";
    }

    // One 188-byte packet per buffer, each with its own time: every packet is an
    // anchor, due exactly at its time.
    void push_packets(const std::vector<uint8_t>& ts, const std::vector<int64_t>& times) {
        for (size_t k = 0; k < times.size(); ++k) {
            engine.push_data(times[k], &ts[k * kPacket], kPacket);
        }
    }

    print_log log;
    alarm_manager manager;
    kv_alarms_dispatcher dispatcher;
    kv_asi_process_renderer engine{dispatcher};
};

}  // namespace engine_test
