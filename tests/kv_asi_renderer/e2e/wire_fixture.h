#pragma once

// The element on the wire: a pipeline ending in the element plays into the virtual board
// (real time or free-running), and the line's capture is read back and analysed from its
// first packet on.

#include <gst/app/gstappsrc.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "element_fixture.h"
#include "kv_asi_analyzer.h"

namespace wire {

using kvtest::ts_stream;

constexpr uint64_t kWordsPerFrame = 540000;
constexpr double kNsPerWord = 1e9 / 27e6;
// PCR pacing puts a PCR packet on the first word at or after its due time (in 100 ns units).
constexpr double kPcrPacingLimitNs = 150.0;
constexpr bool kSanitized = KV_E2E_SANITIZED != 0;  // set by the build

// Packets left unsent at the end of a stream: at most those from its last PCR on, which
// wait for a next PCR that never comes.
inline size_t unsent_tail_limit(const ts_stream& s) {
    return s.packets() - s.pcr_before(s.packets());
}

// Rewrites the PCR of a packet that carries one, and its discontinuity indicator.
inline void set_pcr(uint8_t* p, int64_t pcr, bool discontinuity) {
    const int64_t period = (int64_t(1) << 33) * 300;
    p[5] = uint8_t((p[5] & 0x7F) | (discontinuity ? 0x80 : 0));
    kvtest::pb::set_pcr(p, uint64_t(((pcr % period) + period) % period));
}

// The stream with every PCR of its PCR PID from packet `from` on moved by shift_ns, the
// first of them flagged as a discontinuity when asked; the packets' times stay those of
// the original, which is how they arrive.
inline ts_stream with_time_base_change(const ts_stream& s, size_t from, int64_t shift_ns,
                                       bool flagged) {
    ts_stream out = s;
    bool first = true;
    for (size_t i : s.pcr_packets) {
        if (i >= from) {
            uint8_t* p = &out.bytes[i * 188];
            set_pcr(p, int64_t(kvtest::pb::pcr(p)) + shift_ns * 27 / 1000, flagged && first);
            first = false;
        }
    }
    return out;
}

// One record of the capture: the packet's first word on the line, unwrapped.
struct record {
    uint64_t word;
    const uint8_t* packet;
};

struct capture {
    std::vector<uint8_t> bytes;
    std::vector<record> records;

    // Records from word `from` up to (excluding) word `to`.
    std::vector<record> between(uint64_t from, uint64_t to = UINT64_MAX) const {
        std::vector<record> out;
        std::copy_if(records.begin(), records.end(), std::back_inserter(out),
                     [&](const record& r) { return r.word >= from && r.word < to; });
        return out;
    }
    // Runs of records separated by more than `gap` words of line without packets.
    std::vector<std::vector<record>> runs(uint64_t gap) const {
        std::vector<std::vector<record>> out;
        for (size_t i = 0; i < records.size(); ++i) {
            if (i == 0 || records[i].word - records[i - 1].word > gap) {
                out.emplace_back();
            }
            out.back().push_back(records[i]);
        }
        return out;
    }
};

inline capture read_capture(const std::string& path) {
    capture c;
    std::ifstream in(path, std::ios::binary);
    c.bytes.assign(std::istreambuf_iterator<char>(in), {});
    EXPECT_EQ(c.bytes.size() % 192, 0u) << c.bytes.size() << " bytes of capture";
    uint64_t word = 0;
    uint32_t last = 0;
    for (size_t off = 0; off + 192 <= c.bytes.size(); off += 192) {
        const uint8_t* r = &c.bytes[off];
        const uint32_t stamp =
            uint32_t(r[0]) << 24 | uint32_t(r[1]) << 16 | uint32_t(r[2]) << 8 | r[3];
        word = off == 0 ? stamp : word + ((stamp - last) & ((1u << 30) - 1));
        last = stamp;
        c.records.push_back({word, r + 4});
    }
    return c;
}

// How late packets leave against their times: records are matched to source packets in
// order (from source packet `first` on), and each one's line time minus its time in the
// stream is taken against the smallest such difference. A packet is never placed before
// its time, so the spread is what some packets lost; spreading by position within a PCR
// interval accounts for a few microseconds, a missed frame for 20 ms.
struct lateness {
    size_t matched = 0;
    double max_ns = 0;
};
inline lateness packet_lateness(const std::vector<record>& recs, const ts_stream& s,
                                size_t first = 0) {
    lateness l;
    std::vector<double> d;
    size_t i = first;
    for (const record& r : recs) {
        size_t k = i;
        while (k < s.packets() && k < i + 64 && std::memcmp(s.packet(k), r.packet, 188) != 0) {
            ++k;
        }
        if (k >= s.packets() || k >= i + 64) {
            continue;  // not from the source (or too far ahead): the analyzer reports it
        }
        d.push_back(double(r.word) * kNsPerWord - double(s.time_ns[k]));
        i = k + 1;
    }
    l.matched = d.size();
    if (!d.empty()) {
        const double lo = *std::min_element(d.begin(), d.end());
        l.max_ns = *std::max_element(d.begin(), d.end()) - lo;
    }
    return l;
}

// The analyzer's view of some records, against the source when one is given.
inline kv_asi_analyze::report analyze(const std::vector<record>& recs,
                                      const ts_stream* source = nullptr) {
    kv_asi_analyze::capture_analyzer a;
    if (source) {
        a.set_source(source->bytes);
    }
    for (const record& r : recs) {
        a.add(uint32_t(r.word & ((1u << 30) - 1)), r.packet);
    }
    return a.finish();
}

// The PCR accuracy of the stream's PCR PID in a report, printed; in a plain build its
// maximum (constant offset removed) must be within limit_ns unless that is 0.
inline kv_asi_analyze::pcr_report pcr_accuracy(const kv_asi_analyze::report& r, const ts_stream& s,
                                               const std::string& label, double limit_ns) {
    for (const kv_asi_analyze::pcr_report& p : r.pcr) {
        if (p.pid == s.pcr_pid) {
            std::printf(
                "[   wire   ] %-40s %4llu PCRs: offset removed max %7.1f ns rms %6.1f ns;"
                " drift removed max %7.1f ns, drift %+.3f ppm\n",
                label.c_str(), (unsigned long long)p.pcrs, p.offset_max_ns, p.offset_rms_ns,
                p.drift_max_ns, p.drift_ppm);
            EXPECT_GE(p.pcrs, 5u) << label;
            if (!kSanitized && limit_ns > 0) {
                EXPECT_LE(p.offset_max_ns, limit_ns) << label;
            }
            return p;
        }
    }
    ADD_FAILURE() << label << ": no PCRs on PID " << s.pcr_pid;
    return kv_asi_analyze::pcr_report();
}

struct settings {
    bool freerun = false;
    unsigned time_control = 0;  // 0 PCR pacing, 1 buffer stamps
    bool tsparse = false;       // buffers stamped by tsparse from the PCRs
    unsigned latency_ms = 300;
    unsigned buffer_size = 38797312;
    bool reset_when_empty = false;
    // Buffers go into the element's pad on the feeding thread, not through appsrc: GLib's
    // locks are invisible to ThreadSanitizer, so only then does it see the hand-over.
    bool direct = false;
    uint32_t first_sequence = 2;  // of the board's first dequeued buffer
};

// What a run leaves: the line and the element's and board's account of it.
struct outcome {
    capture line;
    kv_vboard_counters board{};
    uint64_t resets = 0, skip_ts = 0, skip_hw = 0;
    std::string last_error;
    uint32_t underflows = 0, overflows = 0;
    std::vector<std::string> warnings;  // on the bus, as "domain code: text"
};

// tsparse from the system's plugin file, when it is installed.
inline bool have_tsparse() {
    static const bool bLoaded = [] {
        GError* err = nullptr;
        GstPlugin* p = gst_plugin_load_file(KV_GST_PLUGINS_DIR "/libgstmpegtsdemux.so", &err);
        g_clear_error(&err);
        g_clear_object(&p);
        GstElementFactory* f = gst_element_factory_find("tsparse");
        const bool bFound = f != nullptr;
        g_clear_object(&f);
        return bFound;
    }();
    return bLoaded;
}

// filesrc and clocksync from the system's plugin file, when it is installed.
inline bool have_core_elements() {
    static const bool bLoaded = [] {
        GError* err = nullptr;
        GstPlugin* p = gst_plugin_load_file(KV_GST_PLUGINS_DIR "/libgstcoreelements.so", &err);
        g_clear_error(&err);
        g_clear_object(&p);
        GstElementFactory* f = gst_element_factory_find("clocksync");
        const bool bFound = f != nullptr;
        g_clear_object(&f);
        return bFound;
    }();
    return bLoaded;
}

class WireTest : public testing::Test {
protected:
    static constexpr const char* kNode = "/dev/kvasi-wire";
    static constexpr size_t kBufferPackets = 7;
    using steady = std::chrono::steady_clock;

    void SetUp() override {
        char dir[] = "/tmp/kv-wire-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
        m_capture = m_dir + "/line.cap";
        // The test's registry holds the element alone; appsrc comes from the linked library.
        gst_element_register(nullptr, "appsrc", GST_RANK_NONE, GST_TYPE_APP_SRC);
    }
    void TearDown() override {
        if (m_pipeline) {
            gst_element_set_state(m_pipeline, GST_STATE_NULL);
            if (m_sink) {
                g_object_set(m_sink, "alarm-manager", nullptr, nullptr);
            }
            g_clear_object(&m_src);
            g_clear_object(&m_sink);
            g_clear_object(&m_pipeline);
        }
        kv_vboard_remove_all();
        unlink(m_capture.c_str());
        rmdir(m_dir.c_str());
    }

    // Board and pipeline, left in NULL.
    void build(const settings& s) {
        m_settings = s;
        add_vboard(kNode, false, s.freerun, s.first_sequence, 675000, m_capture);
        if (s.direct) {
            m_pipeline = gst_pipeline_new("wire");
            m_sink = gst_element_factory_make("kv_asi_renderer", "sink");
            ASSERT_NE(m_sink, nullptr);
            gst_bin_add(GST_BIN(m_pipeline), GST_ELEMENT(gst_object_ref(m_sink)));
        } else {
            m_pipeline =
                gst_parse_launch(s.tsparse ? "appsrc name=src ! tsparse set-timestamps=true "
                                             "! kv_asi_renderer name=sink"
                                           : "appsrc name=src ! kv_asi_renderer name=sink",
                                 nullptr);
            ASSERT_TRUE(GST_IS_PIPELINE(m_pipeline));
            m_src = gst_bin_get_by_name(GST_BIN(m_pipeline), "src");
            m_sink = gst_bin_get_by_name(GST_BIN(m_pipeline), "sink");
            GstCaps* caps = gst_caps_from_string(
                "video/mpegts, systemstream=(boolean)true, packetsize=(int)188");
            g_object_set(m_src, "caps", caps, "format", GST_FORMAT_TIME, "is-live", TRUE, "block",
                         FALSE, "max-bytes", guint64(1) << 30, nullptr);
            gst_caps_unref(caps);
        }
        g_object_set(m_sink, "v4l2", kNode, "latency", s.latency_ms, "buffer-size", s.buffer_size,
                     "time-control", s.time_control, "reset-when-empty",
                     gboolean(s.reset_when_empty), "alarm-source-name", "wire", "alarm-manager",
                     &m_manager, nullptr);
    }

    GstStateChangeReturn set_state(GstState state) {
        GstStateChangeReturn r = gst_element_set_state(m_pipeline, state);
        if (r == GST_STATE_CHANGE_ASYNC) {
            r = gst_element_get_state(m_pipeline, nullptr, nullptr, 10 * GST_SECOND);
        }
        return r;
    }
    void play() {
        const GstStateChangeReturn r = set_state(GST_STATE_PLAYING);
        ASSERT_TRUE(r == GST_STATE_CHANGE_SUCCESS || r == GST_STATE_CHANGE_NO_PREROLL) << r;
    }

    // Pushes packets [first, last) in buffers of 7, each when the monotonic clock reaches
    // origin + the time of its last packet (a default origin lies in the past: at once),
    // stamped with that time plus one second (unless tsparse stamps them).
    void feed(const ts_stream& s, size_t first, size_t last, steady::time_point origin = {}) {
        for (size_t i = first; i < last; i += kBufferPackets) {
            const size_t n = std::min(kBufferPackets, last - i);
            const int64_t t = s.time_ns[i + n - 1];
            std::this_thread::sleep_until(origin + std::chrono::nanoseconds(t));
            GstBuffer* b = gst_buffer_new_memdup(s.packet(i), n * 188);
            if (!m_settings.tsparse) {
                GST_BUFFER_PTS(b) = GST_BUFFER_DTS(b) = GstClockTime(t + GST_SECOND);
            }
            push(b);
        }
    }
    void push(GstBuffer* b) {
        if (m_settings.direct) {
            GstPad* pad = gst_element_get_static_pad(m_sink, "sink");
            EXPECT_EQ(gst_pad_chain(pad, b), GST_FLOW_OK);
            gst_object_unref(pad);
        } else {
            EXPECT_EQ(gst_app_src_push_buffer(GST_APP_SRC(m_src), b), GST_FLOW_OK);
        }
    }
    void feed_realtime(const ts_stream& s) { feed(s, 0, s.packets(), steady::now()); }
    // The source ends its stream.
    void end_of_stream() {
        if (m_settings.direct) {
            GstPad* pad = gst_element_get_static_pad(m_sink, "sink");
            EXPECT_TRUE(gst_pad_send_event(pad, gst_event_new_eos()));
            gst_object_unref(pad);
        } else {
            EXPECT_EQ(gst_app_src_end_of_stream(GST_APP_SRC(m_src)), GST_FLOW_OK);
        }
    }

    kv_vboard_counters counters() { return board_counters(kNode); }
    std::string stat(const std::string& name) { return kvtest::stat(m_sink, name); }

    // Errors or warnings on the bus so far, as "domain code: text", taken.
    std::vector<std::string> bus_messages(GstMessageType type) {
        GstBus* bus = gst_element_get_bus(m_pipeline);
        m_bus.take(bus);
        gst_object_unref(bus);
        return std::exchange(type == GST_MESSAGE_ERROR ? m_bus.errors : m_bus.warnings, {});
    }
    // Error messages on the bus: the element must never post one while it plays.
    size_t bus_errors() { return bus_messages(GST_MESSAGE_ERROR).size(); }

    // Builds and plays, runs feed_fn, waits until the line has carried no new packet for
    // 0.2 s, takes the account and stops. A free-running line is fed before it starts, as it
    // would outrun any feeder; a real-time one after.
    outcome run(const settings& st, const std::function<void()>& feed_fn) {
        outcome o;
        build(st);
        if (st.freerun) {
            EXPECT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
            feed_fn();
            play();
        } else {
            play();
            feed_fn();
            std::this_thread::sleep_for(std::chrono::milliseconds(st.latency_ms));
        }
        wait_quiet();
        EXPECT_EQ(bus_errors(), 0u);
        o.warnings = bus_messages(GST_MESSAGE_WARNING);
        o.board = counters();
        o.resets = std::stoull(stat("Reset"));
        o.skip_ts = std::stoull(stat("Skip TS packets"));
        o.skip_hw = std::stoull(stat("Skip HW frames"));
        o.last_error = stat("Last error");
        o.underflows = m_manager.count(eAlarmRemuxerOutputUnderflow);
        o.overflows = m_manager.count(eAlarmRemuxerOutputOverflow);
        EXPECT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        o.line = read_capture(m_capture);
        return o;
    }
    // Until the line has carried no new packet for 0.2 s.
    void wait_quiet() {
        uint64_t last = UINT64_MAX;
        eventually([&] {
            const uint64_t now = counters().packets;
            if (std::exchange(last, now) == now) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            return false;
        });
    }

    kvtest::bus_log m_bus;
    std::string m_dir, m_capture;
    settings m_settings;
    kvtest::recording_manager m_manager;
    GstElement* m_pipeline = nullptr;
    GstElement* m_src = nullptr;
    GstElement* m_sink = nullptr;
};

// Cases on the wall clock, which a ThreadSanitizer build cannot keep.
class RealTimeWireTest : public WireTest {
protected:
    void SetUp() override {
        if (KV_E2E_TSAN) {
            GTEST_SKIP() << "a ThreadSanitizer build cannot keep the line's real time";
        }
        WireTest::SetUp();
    }
};

}  // namespace wire
