#pragma once

// The element on the wire: an appsrc pipeline ending in the element, playing into the
// virtual board linked into the test (real time or free-running), and the capture of
// the line read back and checked with the analyzer.
//
// What the line looks like after a start: the device primes six buffers numbered as
// frames 0..5, and the first buffer it gets back is numbered 7, so from the seventh
// frame on the line every frame carries the packets due one frame later than the
// frame's own place on the line. The first six frames therefore sit 20 ms late against
// everything after them, and the seventh frame also carries the packets of the skipped
// number, late. Accuracy and ordering are judged after that start-up.

#include <gst/app/gstappsrc.h>
#include <sys/stat.h>
#include <time.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "element_fixture.h"
#include "kv_asi_analyzer.h"
#include "kv_ts_generator.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KV_E2E_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KV_E2E_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define KV_E2E_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KV_E2E_TSAN 1
#endif
#endif

namespace wire {

constexpr uint64_t kWordsPerFrame = 540000;
constexpr double kNsPerWord = 1e9 / 27e6;
// From here on the line is past the start-up described above (with room to spare for
// the late packets of the seventh frame).
constexpr uint64_t kStartUpWords = 10 * kWordsPerFrame;

#ifdef KV_E2E_SANITIZED
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

inline uint16_t pid_of(const uint8_t* p) {
    return static_cast<uint16_t>((p[1] & 0x1f) << 8 | p[2]);
}
inline bool has_pcr(const uint8_t* p) {
    return (p[3] & 0x20) != 0 && p[4] >= 7 && (p[5] & 0x10) != 0;
}
inline int64_t pcr_of(const uint8_t* p) {
    const int64_t base = int64_t(p[6]) << 25 | int64_t(p[7]) << 17 | int64_t(p[8]) << 9 |
                         int64_t(p[9]) << 1 | int64_t(p[10] >> 7);
    return base * 300 + (int64_t(p[10] & 1) << 8 | p[11]);
}

// A stream with the time of each packet on its own clock, from the PCRs of one PID:
// linear between PCR packets by packet position, extended at both ends with the
// nearest interval.
struct stream {
    std::string name;
    std::vector<uint8_t> bytes;
    uint16_t pcr_pid = 0;
    std::vector<size_t> pcr_packets;
    std::vector<int64_t> time_ns;  // per packet, 0 at packet 0

    size_t packets() const { return bytes.size() / 188; }
    const uint8_t* packet(size_t i) const { return &bytes[i * 188]; }
    // Index of the first PCR packet at or after packet i (packets() when none).
    size_t pcr_at_or_after(size_t i) const {
        auto it = std::lower_bound(pcr_packets.begin(), pcr_packets.end(), i);
        return it == pcr_packets.end() ? packets() : *it;
    }
    size_t pcr_before(size_t i) const {
        auto it = std::lower_bound(pcr_packets.begin(), pcr_packets.end(), i);
        return it == pcr_packets.begin() ? packets() : *(it - 1);
    }
    // First packet whose time is at or after t.
    size_t packet_at(int64_t t_ns) const {
        return size_t(std::lower_bound(time_ns.begin(), time_ns.end(), t_ns) - time_ns.begin());
    }
};

inline void index_pcrs(stream& s) {
    std::vector<int64_t> pcrs;
    int64_t wraps = 0, last = -1;
    for (size_t i = 0; i < s.packets(); ++i) {
        const uint8_t* p = s.packet(i);
        if (pid_of(p) != s.pcr_pid || !has_pcr(p)) {
            continue;
        }
        const int64_t raw = pcr_of(p);
        if (last >= 0 && raw < last) {
            wraps += (int64_t(1) << 33) * 300;  // the 27 MHz counter wrapped
        }
        last = raw;
        s.pcr_packets.push_back(i);
        pcrs.push_back(raw + wraps);
    }
    s.time_ns.assign(s.packets(), 0);
    if (s.pcr_packets.size() < 2) {
        return;
    }
    const auto at = [&](size_t k, size_t i) {
        const size_t a = s.pcr_packets[k], b = s.pcr_packets[k + 1];
        const long double ticks = pcrs[k] + (long double)(pcrs[k + 1] - pcrs[k]) *
                                                ((long double)i - a) / (long double)(b - a);
        return int64_t(std::llround((ticks - pcrs[0]) * 1000.0L / 27.0L));
    };
    size_t k = 0;
    for (size_t i = 0; i < s.packets(); ++i) {
        while (k + 2 < s.pcr_packets.size() && i >= s.pcr_packets[k + 1]) {
            ++k;
        }
        s.time_ns[i] = at(k, i);
    }
    // Packets before the first PCR would get negative times: shift everything to 0.
    const int64_t t0 = s.time_ns[0];
    for (int64_t& t : s.time_ns) {
        t -= t0;
    }
}

inline stream generated(uint64_t rate_bps, double seconds) {
    stream s;
    kv_ts_generate::options o;
    o.rate_bps = rate_bps;
    o.packets = kv_ts_generate::packets_for_duration(rate_bps, uint64_t(seconds * 1e9));
    std::string error;
    EXPECT_TRUE(kv_ts_generate::generate(o, s.bytes, error)) << error;
    s.name = std::to_string(rate_bps / 1000000) + " Mbit/s generated";
    s.pcr_pid = o.pcr_pid;
    index_pcrs(s);
    return s;
}

// The first `seconds` of a corpus capture (whole PCR intervals); empty when absent.
inline stream corpus(const char* file, uint16_t pcr_pid, double seconds) {
    stream s;
    const kvtest::ts_stream t = kvtest::load_stream(file, pcr_pid);
    if (t.pcr_packets.size() < 3) {
        return s;
    }
    s.name = file;
    s.pcr_pid = pcr_pid;
    s.bytes = t.bytes;
    index_pcrs(s);
    const size_t end = s.pcr_at_or_after(s.packet_at(int64_t(seconds * 1e9)));
    s.bytes.resize(std::min(end + 1, s.packets()) * 188);
    s.pcr_packets.clear();
    index_pcrs(s);
    return s;
}

// One record of the capture: the packet's first word on the line, unwrapped.
struct record {
    uint64_t word;
    const uint8_t* packet;
};

struct capture {
    std::vector<uint8_t> bytes;
    std::vector<record> records;
    bool whole = false;  // a whole number of records

    // Records from the first one at or after word `from` up to (excluding) word `to`.
    std::vector<record> between(uint64_t from, uint64_t to = UINT64_MAX) const {
        std::vector<record> out;
        for (const record& r : records) {
            if (r.word >= from && r.word < to) {
                out.push_back(r);
            }
        }
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
    c.whole = c.bytes.size() % 192 == 0;
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

// The analyzer's view of some records, against the source when one is given.
inline kv_asi_analyze::report analyze(const std::vector<record>& recs, const stream* source) {
    kv_asi_analyze::capture_analyzer a;
    if (source) {
        a.set_source(source->bytes);
    }
    for (const record& r : recs) {
        a.add(uint32_t(r.word & ((1u << 30) - 1)), r.packet);
    }
    return a.finish();
}

inline const kv_asi_analyze::pcr_report* pcr_of_pid(const kv_asi_analyze::report& r, uint16_t pid) {
    for (const auto& p : r.pcr) {
        if (p.pid == pid) {
            return &p;
        }
    }
    return nullptr;
}

// Mean of PCR minus line time (ns) over the PCRs of `pid` in the records.
inline double mean_pcr_offset_ns(const std::vector<record>& recs, uint16_t pid) {
    double sum = 0;
    size_t n = 0;
    int64_t first = -1;
    for (const record& r : recs) {
        if (pid_of(r.packet) == pid && has_pcr(r.packet)) {
            const int64_t d = pcr_of(r.packet) - int64_t(r.word);
            if (first < 0) {
                first = d;
            }
            sum += double(d - first);
            ++n;
        }
    }
    return n == 0 ? NAN : (double(first) + sum / double(n)) * kNsPerWord;
}

inline void print_accuracy(const std::string& label, const kv_asi_analyze::pcr_report& p) {
    std::printf(
        "[   wire   ] %-40s PID 0x%04X %4llu PCRs: offset removed max %8.1f ns rms %7.1f ns;"
        " drift removed max %8.1f ns rms %7.1f ns, drift %+.3f ppm\n",
        label.c_str(), p.pid, (unsigned long long)p.pcrs, p.offset_max_ns, p.offset_rms_ns,
        p.drift_max_ns, p.drift_rms_ns, p.drift_ppm);
    std::fflush(stdout);
}

struct settings {
    bool freerun = false;
    unsigned time_control = 0;  // 0 PCR pacing, 1 buffer stamps
    bool pll = false;           // lock stream time to the board's clock
    bool tsparse = false;       // stamps set by tsparse from the PCRs
    unsigned latency_ms = 300;
    unsigned buffer_size = 38797312;
    bool reset_when_empty = false;
    kvtest::recording_manager* manager = nullptr;
    // Buffers go straight into the element's pad on the feeding thread instead of through
    // appsrc's queue and thread: GLib's locks are invisible to ThreadSanitizer, so only
    // this way does it see how a buffer passes from the feeder to the element.
    bool direct = false;
};

// The test's registry holds the element alone. appsrc is registered from the app library
// the test links; tsparse comes from the system's plugin file when it is installed.
// Returns whether tsparse is there.
inline bool load_elements() {
    static const bool bLoaded = [] {
        gst_element_register(nullptr, "appsrc", GST_RANK_NONE, GST_TYPE_APP_SRC);
        GError* err = nullptr;
        GstPlugin* p = gst_plugin_load_file(KV_GST_PLUGINS_DIR "/libgstmpegtsdemux.so", &err);
        if (err) {
            g_error_free(err);
        }
        if (p) {
            gst_object_unref(p);
        }
        GstElementFactory* f = gst_element_factory_find("tsparse");
        if (f) {
            gst_object_unref(f);
        }
        return f != nullptr;
    }();
    return bLoaded;
}
inline bool have_tsparse() {
    return load_elements();
}

class WireTest : public testing::Test {
protected:
    static constexpr const char* kNode = "/dev/kvasi-wire";
    static constexpr size_t kBufferPackets = 7;

    void SetUp() override {
        char dir[] = "/tmp/kv-wire-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
        m_capture = m_dir + "/line.cap";
        load_elements();
    }
    void TearDown() override {
        if (m_pipeline) {
            gst_element_set_state(m_pipeline, GST_STATE_NULL);
            if (m_src) {
                gst_object_unref(m_src);
            }
            gst_object_unref(m_sink);
            gst_object_unref(m_pipeline);
            m_pipeline = m_src = m_sink = nullptr;
        }
        kv_vboard_remove_all();
        if (getenv("KV_WIRE_KEEP")) {
            // For a look at the line of a failing case.
            std::printf("[   wire   ] capture kept: %s\n", m_capture.c_str());
        } else {
            unlink(m_capture.c_str());
            rmdir(m_dir.c_str());
        }
    }

    void add_board(bool freerun) {
        kv_vboard_config cfg;
        kv_vboard_default_config(&cfg);
        std::snprintf(cfg.node, sizeof(cfg.node), "%s", kNode);
        std::snprintf(cfg.capture, sizeof(cfg.capture), "%s", m_capture.c_str());
        cfg.freerun = freerun ? 1 : 0;
        ASSERT_EQ(kv_vboard_add(&cfg), 0);
    }

    // Board and pipeline, left in NULL.
    void build(const settings& s) {
        m_settings = s;
        add_board(s.freerun);
        if (s.direct) {
            // Fed straight into its pad, the element needs no source in front of it.
            m_pipeline = gst_pipeline_new("wire");
            m_sink = gst_element_factory_make("kv_asi_renderer", "sink");
            ASSERT_NE(m_sink, nullptr);
            gst_bin_add(GST_BIN(m_pipeline), GST_ELEMENT(gst_object_ref(m_sink)));
        } else {
            const std::string desc = std::string("appsrc name=src ! ") +
                                     (s.tsparse ? "tsparse set-timestamps=true ! " : "") +
                                     "kv_asi_renderer name=sink";
            GError* err = nullptr;
            m_pipeline = gst_parse_launch(desc.c_str(), &err);
            ASSERT_NE(m_pipeline, nullptr);
            ASSERT_EQ(err, nullptr) << err->message;
            ASSERT_TRUE(GST_IS_PIPELINE(m_pipeline));
            m_src = gst_bin_get_by_name(GST_BIN(m_pipeline), "src");
            m_sink = gst_bin_get_by_name(GST_BIN(m_pipeline), "sink");
        }
        if (m_src) {
            set_source_properties();
        }
        g_object_set(m_sink, "v4l2", kNode, "latency", s.latency_ms, "buffer-size", s.buffer_size,
                     "time-control", s.time_control, "pll", gboolean(s.pll), "reset-when-empty",
                     gboolean(s.reset_when_empty), "alarm-source-name", "wire", nullptr);
        if (s.manager) {
            g_object_set(m_sink, "alarm-manager", s.manager, nullptr);
        }
    }

    void set_source_properties() {
        GstCaps* caps = gst_caps_from_string(
            "video/mpegts, systemstream=(boolean)true, "
            "packetsize=(int)188");
        g_object_set(m_src, "caps", caps, "format", GST_FORMAT_TIME, "is-live", TRUE, "block",
                     FALSE, "max-bytes", guint64(1) << 30, nullptr);
        gst_caps_unref(caps);
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
    // Stops the pipeline (the device is closed, the capture complete) and reads the line.
    capture stop_and_read() {
        if (m_settings.manager) {
            // The manager outlives the element's alarms only until here.
            EXPECT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
            g_object_set(m_sink, "alarm-manager", nullptr, nullptr);
        } else {
            EXPECT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        }
        capture c = read_capture(m_capture);
        EXPECT_TRUE(c.whole) << c.bytes.size() << " bytes of capture";
        return c;
    }

    using steady = std::chrono::steady_clock;

    // Pushes packets [first, last) in buffers of 7. Paced: each buffer leaves when the
    // monotonic clock reaches origin + the time of its first packet; otherwise at once.
    // The buffer stamps (PTS and DTS) are the packet time plus stamp_offset_ns, except
    // when tsparse stamps them.
    void feed(const stream& s, size_t first, size_t last, bool paced, steady::time_point origin,
              int64_t stamp_offset_ns = 0) {
        for (size_t i = first; i < last; i += kBufferPackets) {
            const size_t n = std::min(kBufferPackets, last - i);
            if (paced) {
                std::this_thread::sleep_until(origin + std::chrono::nanoseconds(s.time_ns[i]));
            }
            GstBuffer* b = gst_buffer_new_memdup(s.packet(i), n * 188);
            if (!m_settings.tsparse) {
                GST_BUFFER_PTS(b) = GST_BUFFER_DTS(b) =
                    GstClockTime(s.time_ns[i] + stamp_offset_ns);
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
    // The whole stream in real time, starting now.
    void feed_realtime(const stream& s) {
        feed(s, 0, s.packets(), true, steady::now(), 1000000000);
    }

    kv_vboard_counters counters() {
        kv_vboard_counters c;
        std::memset(&c, 0, sizeof(c));
        EXPECT_EQ(kv_vboard_get_counters(kNode, &c), 0);
        return c;
    }
    // Waits until the line has carried no new packet for 0.2 s (ten frames).
    void wait_until_line_settles() {
        uint64_t last = UINT64_MAX;
        kvtest::eventually([&] {
            const uint64_t now = counters().packets;
            const bool settled = now == last;
            last = now;
            if (!settled) {
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
            }
            return settled;
        });
    }

    std::string stat(const std::string& name) {
        gpointer p = nullptr;
        g_object_get(m_sink, "statistics", &p, nullptr);
        for (const auto& row : static_cast<const kv_base_statistics*>(p)->get_items()) {
            if (row.first == name) {
                return row.second;
            }
        }
        return "<missing>";
    }
    uint64_t stat_count(const std::string& name) { return std::stoull(stat(name)); }

    // Error messages on the bus: the element must never post one.
    int bus_errors() {
        GstBus* bus = gst_element_get_bus(m_pipeline);
        int n = 0;
        while (GstMessage* m = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR)) {
            ++n;
            gst_message_unref(m);
        }
        gst_object_unref(bus);
        return n;
    }

    std::string m_dir, m_capture;
    settings m_settings;
    GstElement* m_pipeline = nullptr;
    GstElement* m_src = nullptr;
    GstElement* m_sink = nullptr;
};

}  // namespace wire
