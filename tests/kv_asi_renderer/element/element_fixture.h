#pragma once

// The element as GStreamer loads it: the plugin module from the build tree, playing into
// the virtual board linked into the test executable (its open/ioctl/mmap/munmap/close are
// exported to the module, see CMakeLists.txt), and the streams the tests feed it.

#include <dirent.h>
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
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
#include "kv_ts_generator.h"
#include "kv_vboard.h"
#include "mpegcore/TransportPacket.h"

namespace kvtest {

// GStreamer is set up once per process on the build tree's plugin alone, with a registry
// file of its own. Scanning happens in-process: the scanner cannot load a sanitized module.
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

// Polls cond until it holds or a deadline generous even for a sanitized build on a loaded
// machine passes. Only for liveness: nothing here measures speed.
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

// An alarm manager as a host writes one: keeps what it is given.
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

// Errors and warnings taken off a bus, as "domain code: text", oldest first. Both kinds
// come off in one pass: popping one kind drops every other message before it.
struct bus_log {
    std::vector<std::string> errors, warnings;

    void take(GstBus* bus) {
        const auto both = static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_WARNING);
        for (GstMessage* m; (m = gst_bus_pop_filtered(bus, both)) != nullptr;) {
            GError* err = nullptr;
            const bool bError = GST_MESSAGE_TYPE(m) == GST_MESSAGE_ERROR;
            if (bError) {
                gst_message_parse_error(m, &err, nullptr);
            } else {
                gst_message_parse_warning(m, &err, nullptr);
            }
            (bError ? errors : warnings)
                .push_back(std::string(g_quark_to_string(err->domain)) + " " +
                           std::to_string(err->code) + ": " + err->message);
            g_clear_error(&err);
            gst_message_unref(m);
        }
    }
};
// The text bus_log gives a message of this domain and code.
inline std::string bus_text(GQuark domain, int code, const std::string& text) {
    return std::string(g_quark_to_string(domain)) + " " + std::to_string(code) + ": " + text;
}

// first_sequence: of the first buffer the board hands back after STREAMON; -1 keeps the
// board's default.
inline void add_board(const char* node, const std::string& capture, bool freerun,
                      int64_t first_sequence = -1, uint32_t sizeimage = 0) {
    kv_vboard_config cfg;
    kv_vboard_default_config(&cfg);
    if (sizeimage > 0) {
        cfg.sizeimage = sizeimage;
    }
    if (first_sequence >= 0) {
        cfg.first_sequence = uint32_t(first_sequence);
    }
    std::snprintf(cfg.node, sizeof(cfg.node), "%s", node);
    std::snprintf(cfg.capture, sizeof(cfg.capture), "%s", capture.c_str());
    cfg.freerun = freerun ? 1 : 0;
    ASSERT_EQ(kv_vboard_add(&cfg), 0);
}

inline kv_vboard_counters counters(const char* node) {
    kv_vboard_counters c;
    std::memset(&c, 0, sizeof(c));
    EXPECT_EQ(kv_vboard_get_counters(node, &c), 0);
    return c;
}

// The live statistics as a host that only knows the display interface sees them (the
// object's single base, at its start).
inline const kv_base_statistics* statistics(GstElement* el) {
    gpointer p = nullptr;
    g_object_get(el, "statistics", &p, nullptr);
    return static_cast<const kv_base_statistics*>(p);
}
inline std::string stat(GstElement* el, const std::string& name) {
    for (const auto& row : statistics(el)->get_items()) {
        if (row.first == name) {
            return row.second;
        }
    }
    return "<missing>";
}

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

// The element in a harness, its sink pad fed by the harness, on its own free-running node.
class ElementTest : public testing::Test {
protected:
    static constexpr const char* kNode = "/dev/kvasi-element";

    void SetUp() override {
        add_board(kNode, "", true);
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

    GstStateChangeReturn set_state(GstState s) { return gst_element_set_state(el, s); }
    void pause() {
        ASSERT_EQ(set_state(GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
        ASSERT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
    }
    void play() {
        pause();
        ASSERT_EQ(set_state(GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
    }

    // Pushes packets [first, last) of the stream in buffers of 7 packets.
    void push_packets(const ts_stream& s, size_t first, size_t last) {
        for (size_t i = first; i < last; i += 7) {
            GstBuffer* b = gst_buffer_new_memdup(s.packet(i), std::min<size_t>(7, last - i) * 188);
            ASSERT_EQ(gst_harness_push(h, b), GST_FLOW_OK);
        }
    }

    kv_vboard_counters counters() { return kvtest::counters(kNode); }
    std::string stat(const std::string& name) { return kvtest::stat(el, name); }

    GstHarness* h = nullptr;
    GstElement* el = nullptr;
};

}  // namespace kvtest
