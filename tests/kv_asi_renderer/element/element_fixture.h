#pragma once

// The element as GStreamer loads it: the plugin module from the build tree, driven
// through a GstHarness against the virtual board linked into the test executable (its
// open/ioctl/mmap/munmap/close are exported to the module, see CMakeLists.txt).

#include <dirent.h>
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kv_asi_renderer/kv_base_statistics.h"
#include "kv_asi_renderer/kv_i_alarm_manager.h"
#include "kv_vboard.h"

namespace kvtest {

// GStreamer is set up once per process on the build tree's plugin alone, with a registry
// file of its own so that the user's is never touched. Scanning happens in-process: the
// separate scanner program could not load a module built with a sanitizer.
class GstEnvironment : public testing::Environment {
public:
    void SetUp() override {
        setenv("GST_PLUGIN_PATH", KV_PLUGIN_DIR, 1);
        setenv("GST_PLUGIN_SYSTEM_PATH", KV_PLUGIN_DIR, 1);
        setenv("GST_REGISTRY", KV_REGISTRY_FILE, 1);
        setenv("GST_REGISTRY_FORK", "no", 1);
        gst_init(nullptr, nullptr);
    }
    void TearDown() override { gst_deinit(); }
};

inline testing::Environment* const g_gst_environment =
    testing::AddGlobalTestEnvironment(new GstEnvironment);

inline int count_entries(const char* dir) {
    int n = 0;
    if (DIR* d = opendir(dir)) {
        while (dirent* e = readdir(d)) {
            n += e->d_name[0] != '.';
        }
        closedir(d);
    }
    return n;
}
inline int open_fd_count() {
    return count_entries("/proc/self/fd") - 1;  // the directory stream itself
}
inline int thread_count() {
    return count_entries("/proc/self/task");
}

// Polls cond until it holds or a deadline passes that is generous even for a sanitized
// build on a loaded machine. Only for liveness: nothing here measures speed.
inline bool eventually(const std::function<bool()>& cond,
                       std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// An alarm manager as a host writes one: keeps what it is given, counts the calls.
class recording_manager : public kv_i_alarm_manager {
public:
    void register_alarm(std::shared_ptr<kv_i_alarm_event> alarm) override {
        std::lock_guard<std::mutex> lock(m_cs);
        m_alarms.push_back(std::move(alarm));
    }
    void unregister_alarm(std::shared_ptr<kv_i_alarm_event> alarm) override {
        std::lock_guard<std::mutex> lock(m_cs);
        m_alarms.erase(std::remove(m_alarms.begin(), m_alarms.end(), alarm), m_alarms.end());
    }
    std::vector<kv_alarm_data> alarms() {
        std::lock_guard<std::mutex> lock(m_cs);
        std::vector<kv_alarm_data> out;
        for (const auto& a : m_alarms) {
            out.push_back(a->get_data());
        }
        return out;
    }
    uint32_t count(KVAlarmCode code) {
        uint32_t n = 0;
        for (const kv_alarm_data& d : alarms()) {
            n += d.code == code ? d.count : 0;
        }
        return n;
    }

private:
    std::mutex m_cs;
    std::vector<std::shared_ptr<kv_i_alarm_event>> m_alarms;
};

// A real capture, cut at its PCRs. Empty when the corpus is absent.
struct ts_stream {
    std::vector<uint8_t> bytes;
    std::vector<size_t> pcr_packets;  // indices of the packets carrying the PCRs of pcr_pid

    size_t packets() const { return bytes.size() / 188; }
};

inline ts_stream load_stream(const char* name, uint16_t pcr_pid) {
    ts_stream s;
    std::ifstream in(std::string(KV_CORPUS_DIR) + "/" + name, std::ios::binary | std::ios::ate);
    if (!in) {
        return s;
    }
    s.bytes.resize(static_cast<size_t>(in.tellg()));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(s.bytes.data()), static_cast<std::streamsize>(s.bytes.size()));
    for (size_t i = 0; i < s.packets(); ++i) {
        const uint8_t* p = &s.bytes[i * 188];
        const uint16_t pid = static_cast<uint16_t>((p[1] & 0x1f) << 8 | p[2]);
        const bool has_af = (p[3] & 0x20) != 0;
        if (pid == pcr_pid && has_af && p[4] >= 7 && (p[5] & 0x10) != 0) {
            s.pcr_packets.push_back(i);
        }
    }
    return s;
}

// One program with a PCR every 40 ms on PID 0x65, about 12 s.
inline ts_stream load_pcr_stream() {
    return load_stream("test-072.ts", 0x65);
}

inline GstBuffer* make_buffer(const uint8_t* data, size_t size,
                              GstClockTime dts = GST_CLOCK_TIME_NONE,
                              GstClockTime pts = GST_CLOCK_TIME_NONE) {
    GstBuffer* b = gst_buffer_new_memdup(data, size);
    GST_BUFFER_DTS(b) = dts;
    GST_BUFFER_PTS(b) = pts;
    return b;
}

// The element in a harness, its sink pad fed by the harness, on its own board node.
class ElementTest : public testing::Test {
protected:
    static constexpr const char* kNode = "/dev/kvasi-element";

    void SetUp() override {
        add_board("");
        GstElementFactory* f = gst_element_factory_find("kv_asi_renderer");
        ASSERT_NE(f, nullptr) << "plugin not loaded from " KV_PLUGIN_DIR;
        gst_object_unref(f);
        el = gst_element_factory_make("kv_asi_renderer", nullptr);
        // A small FIFO and latency keep the free-running cycles short.
        g_object_set(el, "v4l2", kNode, "buffer-size", 4u << 20, "latency", 100u, nullptr);
        // The harness plays the element once; each test starts from NULL.
        h = gst_harness_new_with_element(el, "sink", nullptr);
        gst_object_unref(el);
        ASSERT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        gst_harness_set_src_caps_str(h, "video/mpegts, systemstream=(boolean)true");
    }
    void TearDown() override {
        if (h) {
            gst_harness_teardown(h);
        }
        kv_vboard_remove_all();
    }

    void add_board(const std::string& capture) {
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

    GstStateChangeReturn set_state(GstState s) { return gst_element_set_state(el, s); }
    // NULL -> READY -> PAUSED -> PLAYING, each step checked.
    void play() {
        ASSERT_EQ(set_state(GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
        ASSERT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
        ASSERT_EQ(set_state(GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
    }

    // Pushes packets [first, last) of the stream in buffers of 7 packets.
    void push_packets(const ts_stream& s, size_t first, size_t last) {
        for (size_t i = first; i < last; i += 7) {
            const size_t n = std::min<size_t>(7, last - i);
            ASSERT_EQ(gst_harness_push(h, make_buffer(&s.bytes[i * 188], n * 188)), GST_FLOW_OK);
        }
    }

    // The live statistics as a host that only knows the display interface sees them
    // (the object's single base, at its start).
    const kv_base_statistics* statistics() {
        gpointer p = nullptr;
        g_object_get(el, "statistics", &p, nullptr);
        return static_cast<const kv_base_statistics*>(p);
    }
    // One row of the statistics.
    std::string stat(const std::string& name) {
        for (const auto& row : statistics()->get_items()) {
            if (row.first == name) {
                return row.second;
            }
        }
        return "<missing>";
    }

    GstHarness* h = nullptr;
    GstElement* el = nullptr;
};

}  // namespace kvtest
