#include "kv_play_player.h"

#include <glib-unix.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "kv_asi_renderer/kv_asi_renderer_statistics.h"
#include "kv_play_alarms.h"
#include "kv_play_board.h"
#include "kv_play_console.h"
#include "kv_play_status.h"
#include "kv_ts_file_pacer.h"

namespace kv_asi_play {

namespace {

using steady = std::chrono::steady_clock;

// Stream handed to the element ahead of its latency, so that output starts at once and
// a PCR interval held back by the element does not delay it.
constexpr int64_t kLeadMarginMs = 500;
// After the FIFO has run empty at the end of a file, the frames already queued to the
// board still have to leave.
constexpr std::chrono::milliseconds kDrainTail{500};
constexpr guint kTickMs = 250;
constexpr int kTicksPerLine = 4;

class player {
public:
    player(const options& o, std::string strDevice, bool bVirtual)
        : m_o(o), m_strDevice(std::move(strDevice)), m_bVirtual(bVirtual) {}

    ~player() {
        stop_pacer();
        if (m_pPipeline != nullptr) {
            gst_element_set_state(m_pPipeline, GST_STATE_NULL);
            gst_object_unref(m_pPipeline);
        }
        if (m_pLoop != nullptr) {
            g_main_loop_unref(m_pLoop);
        }
    }

    player(const player&) = delete;
    player& operator=(const player&) = delete;

    int run() {
        const bool bUdp = is_udp(m_o.strSource);
        if (!bUdp) {
            std::string error;
            if (!m_pacer.open(m_o.strSource, m_o.bLoop, error)) {
                fail(error);
                return 1;
            }
        }
        if (!make_sink() || !(bUdp ? make_udp_source() : make_file_source())) {
            return 1;
        }
        if (!start()) {
            return 1;
        }
        describe();

        m_pLoop = g_main_loop_new(nullptr, FALSE);
        GstBus* bus = gst_element_get_bus(m_pPipeline);
        const guint busWatch = gst_bus_add_watch(bus, &player::on_bus, this);
        gst_object_unref(bus);
        const guint tick = g_timeout_add(kTickMs, &player::on_tick, this);
        const guint sigInt = g_unix_signal_add(SIGINT, &player::on_signal, this);
        const guint sigTerm = g_unix_signal_add(SIGTERM, &player::on_signal, this);
        m_tPlaying = steady::now();
        if (!bUdp) {
            m_pacerThread = std::thread(&player::pace_file, this);
        }

        g_main_loop_run(m_pLoop);

        // A second Ctrl-C during the shutdown ends the program the hard way.
        g_source_remove(sigInt);
        g_source_remove(sigTerm);
        g_source_remove(tick);
        g_source_remove(busWatch);
        stop_pacer();
        if (m_nTicks >= kTicksPerLine) {
            show_status(read_status(m_pStats->get_items()));
        }
        out().finish();
        gst_element_set_state(m_pPipeline, GST_STATE_NULL);
        summary();
        return m_nResult;
    }

private:
    bool make_sink() {
        const std::string plugin = find_plugin(m_o);
        if (!plugin.empty()) {
            GError* err = nullptr;
            GstPlugin* p = gst_plugin_load_file(plugin.c_str(), &err);
            if (p == nullptr) {
                fail("cannot load the element from " + plugin + ": " +
                     (err != nullptr ? err->message : "unknown error"));
                g_clear_error(&err);
                return false;
            }
            gst_object_unref(p);
        }
        m_pPipeline = gst_pipeline_new("kv-asi-play");
        m_pSink = gst_element_factory_make("kv_asi_renderer", "renderer");
        if (m_pSink == nullptr) {
            fail(
                "the kv_asi_renderer element is not available: give --plugin, or set "
                "GST_PLUGIN_PATH to the folder of libkv_asi_renderer.so");
            return false;
        }
        gst_bin_add(GST_BIN(m_pPipeline), m_pSink);

        g_object_set(m_pSink, "v4l2", m_strDevice.c_str(), "time-control", m_o.nTimeControl,
                     "reset-when-empty", gboolean(m_o.bResetWhenEmpty), "alarm-source-name",
                     m_o.strAlarmSource.c_str(), "alarm-manager",
                     static_cast<gpointer>(static_cast<kv_i_alarm_manager*>(&m_alarms)), nullptr);
        if (m_o.bBufferSize) {
            g_object_set(m_pSink, "buffer-size", m_o.nBufferSize, nullptr);
        }
        if (m_o.bLatency) {
            g_object_set(m_pSink, "latency", m_o.nLatency, nullptr);
        }
        if (m_o.nPll >= 0) {
            g_object_set(m_pSink, "pll", gboolean(m_o.nPll), nullptr);
        }
        guint nLatency = 0;
        guint nCapacity = 0;
        g_object_get(m_pSink, "latency", &nLatency, "buffer-size", &nCapacity, nullptr);
        m_nLatencyMs = nLatency;
        m_nCapacity = nCapacity;
        gpointer pStats = nullptr;
        g_object_get(m_pSink, "statistics", &pStats, nullptr);
        m_pStats = static_cast<kv_asi_renderer_statistics*>(pStats);
        if (m_pStats == nullptr) {
            fail("the element gives no statistics");
            return false;
        }
        return true;
    }

    bool make_file_source() {
        m_pSource = gst_element_factory_make("appsrc", "source");
        if (m_pSource == nullptr) {
            fail("the appsrc element is not available (GStreamer base plugins)");
            return false;
        }
        GstCaps* caps =
            gst_caps_from_string("video/mpegts,systemstream=(boolean)true,packetsize=(int)188");
        // Live, in time format, never blocking: the pacing is done here, and the queue
        // holds no more than the lead.
        g_object_set(m_pSource, "caps", caps, "is-live", TRUE, "format", GST_FORMAT_TIME,
                     "do-timestamp", FALSE, "block", FALSE, "max-bytes", guint64(0), "stream-type",
                     GST_APP_STREAM_TYPE_STREAM, nullptr);
        gst_caps_unref(caps);
        return add_source();
    }

    bool make_udp_source() {
        if (!valid_udp_uri(m_o.strSource)) {
            fail("unusable source " + m_o.strSource + ": not udp://ADDRESS:PORT");
            return false;
        }
        GError* err = nullptr;
        m_pSource = gst_element_make_from_uri(GST_URI_SRC, m_o.strSource.c_str(), "source", &err);
        if (m_pSource == nullptr) {
            fail("unusable source " + m_o.strSource + ": " +
                 (err != nullptr ? err->message : "no element reads it"));
            g_clear_error(&err);
            return false;
        }
        if (g_object_class_find_property(G_OBJECT_GET_CLASS(m_pSource), "buffer-size")) {
            g_object_set(m_pSource, "buffer-size", gint(8 << 20), nullptr);
        }
        if (!m_o.strIface.empty()) {
            g_object_set(m_pSource, "multicast-iface", m_o.strIface.c_str(), nullptr);
        }
        // Counts what arrives, for the input rate on the statistics line.
        GstPad* pad = gst_element_get_static_pad(m_pSource, "src");
        if (pad != nullptr) {
            gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, &player::on_input, this, nullptr);
            gst_object_unref(pad);
        }
        return add_source();
    }

    bool add_source() {
        gst_bin_add(GST_BIN(m_pPipeline), m_pSource);
        if (!gst_element_link(m_pSource, m_pSink)) {
            fail("cannot link the source to the element");
            return false;
        }
        return true;
    }

    bool start() {
        // The element opens the device on its way to READY: a failure here is the
        // device's or a setting's, and the element's error on the bus says which and why.
        if (gst_element_set_state(m_pSink, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) {
            fail(bus_error("cannot open the device " + m_strDevice));
            return false;
        }
        GstStateChangeReturn r = gst_element_set_state(m_pPipeline, GST_STATE_PLAYING);
        if (r == GST_STATE_CHANGE_ASYNC) {
            r = gst_element_get_state(m_pPipeline, nullptr, nullptr, 5 * GST_SECOND);
        }
        if (r == GST_STATE_CHANGE_FAILURE) {
            fail("unusable source " + m_o.strSource + ": " + bus_error("the source did not start"));
            return false;
        }
        return true;
    }

    // The first error posted on the bus, as one line; `none` when there is none.
    std::string bus_error(const std::string& none) {
        std::string text = none;
        GstBus* bus = gst_element_get_bus(m_pPipeline);
        while (GstMessage* msg = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR)) {
            GError* err = nullptr;
            gst_message_parse_error(msg, &err, nullptr);
            if (err != nullptr && text == none) {
                text = err->message;
            }
            g_clear_error(&err);
            gst_message_unref(msg);
        }
        gst_object_unref(bus);
        return text;
    }

    void describe() {
        m_tLead = (int64_t(m_nLatencyMs) + kLeadMarginMs) * 10000;
        std::string text = m_o.strSource + " -> " + m_strDevice;
        if (m_bVirtual) {
            text += " (virtual board";
            if (!m_o.strCapture.empty()) {
                text += ", capture " + m_o.strCapture;
            }
            text += ")";
        }
        text += m_o.nTimeControl == 0 ? ", paced by PCR" : ", paced by time stamps";
        text += ", latency " + std::to_string(m_nLatencyMs) + " ms";
        if (!is_udp(m_o.strSource)) {
            text += ", " + std::to_string(m_pacer.file_size()) + " bytes";
            if (m_o.bLoop) {
                text += ", looping";
            }
        }
        say("playing " + text);
    }

    // ---- the file's pacing thread

    void pace_file() {
        ts_chunk chunk;
        const steady::time_point t0 = steady::now();
        uint32_t nPass = 0;
        int64_t tPassStart = 0;
        GstAppSrc* appsrc = GST_APP_SRC(m_pSource);
        uint64_t nLeadBytes = 0;
        bool bLeadChecked = false;
        while (m_pacer.next(chunk)) {
            if (!bLeadChecked) {
                // The first lead's worth goes out at once and stays ahead of the output:
                // it has to fit the element's FIFO.
                if (chunk.tStream >= m_tLead) {
                    bLeadChecked = true;
                    if (nLeadBytes > m_nCapacity / 10 * 9) {
                        say("warning: the lead of " + std::to_string(m_tLead / 10000) + " ms (" +
                            std::to_string(nLeadBytes) +
                            " bytes of stream) does not fit the buffer-size of " +
                            std::to_string(m_nCapacity) +
                            " bytes: raise --buffer-size or lower --latency");
                    }
                }
                nLeadBytes += chunk.data.size();
            }
            if (chunk.nPass != nPass) {
                nPass = chunk.nPass;
                tPassStart = chunk.tStream;
                m_nPass.store(nPass);
                if (nPass == 1) {
                    m_tLoopPassLength.store(chunk.tStream);  // time runs on over passes
                }
            }
            const steady::time_point due =
                t0 + std::chrono::nanoseconds((chunk.tStream - m_tLead) * 100);
            {
                std::unique_lock<std::mutex> lock(m_csPacer);
                if (m_cvPacer.wait_until(lock, due, [this] { return m_bStop; })) {
                    return;
                }
            }
            GstBuffer* buffer = gst_buffer_new_memdup(chunk.data.data(), chunk.data.size());
            GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer) = GstClockTime(chunk.tStream) * 100;
            if (gst_app_src_push_buffer(appsrc, buffer) != GST_FLOW_OK) {
                return;  // the pipeline is shutting down
            }
            m_nPackets.fetch_add(chunk.data.size() / kPacketSize);
            m_nPassBytes.store(chunk.nOffset + chunk.data.size());
            m_tPassPushed.store(chunk.tStream - tPassStart);
            m_tPushed.store(chunk.tStream);
        }
        if (!m_pacer.error().empty()) {
            std::lock_guard<std::mutex> lock(m_csPacer);
            m_strPacerError = m_pacer.error();
        } else {
            m_tPassLength.store(m_pacer.time_read() - tPassStart);
            m_tPassPushed.store(m_pacer.time_read() - tPassStart);
            m_tStreamRead.store(m_pacer.time_read());
        }
        gst_app_src_end_of_stream(appsrc);
        m_bInputDone.store(true);
    }

    void stop_pacer() {
        {
            std::lock_guard<std::mutex> lock(m_csPacer);
            m_bStop = true;
        }
        m_cvPacer.notify_all();
        if (m_pacerThread.joinable()) {
            m_pacerThread.join();
        }
    }

    // ---- the main loop

    static gboolean on_tick(gpointer self) {
        static_cast<player*>(self)->tick();
        return G_SOURCE_CONTINUE;
    }

    static gboolean on_signal(gpointer self) {
        say("interrupted: stopping");
        static_cast<player*>(self)->quit(0);
        return G_SOURCE_CONTINUE;
    }

    static gboolean on_bus(GstBus*, GstMessage* msg, gpointer self) {
        player* p = static_cast<player*>(self);
        if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR ||
            GST_MESSAGE_TYPE(msg) == GST_MESSAGE_WARNING) {
            GError* err = nullptr;
            const bool bError = GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR;
            if (bError) {
                gst_message_parse_error(msg, &err, nullptr);
            } else {
                gst_message_parse_warning(msg, &err, nullptr);
            }
            const std::string text = std::string(GST_OBJECT_NAME(GST_MESSAGE_SRC(msg))) + ": " +
                                     (err != nullptr ? err->message : "unknown");
            g_clear_error(&err);
            if (bError) {
                fail(text);
                p->quit(1);
            } else {
                say("warning: " + text);
            }
        }
        return G_SOURCE_CONTINUE;
    }

    static GstPadProbeReturn on_input(GstPad*, GstPadProbeInfo* info, gpointer self) {
        if (GstBuffer* b = GST_PAD_PROBE_INFO_BUFFER(info)) {
            static_cast<player*>(self)->m_nInputBytes.fetch_add(gst_buffer_get_size(b));
        }
        return GST_PAD_PROBE_OK;
    }

    void quit(int nResult) {
        if (nResult != 0) {
            m_nResult = nResult;
        }
        m_bQuit = true;
        g_main_loop_quit(m_pLoop);
    }

    void tick() {
        if (m_bQuit) {
            return;
        }
        for (const alarm_change& c : m_alarms.poll()) {
            say((c.bActive ? "alarm on:  " : "alarm off: ") + c.strMessage);
        }
        const element_status s = read_status(m_pStats->get_items());
        if (++m_nTicks % kTicksPerLine == 0) {
            show_status(s);
        }
        const steady::time_point now = steady::now();

        {
            std::lock_guard<std::mutex> lock(m_csPacer);
            if (!m_strPacerError.empty()) {
                fail(m_strPacerError);
                quit(1);
                return;
            }
        }
        if (m_o.dDuration > 0 && now - m_tPlaying >= std::chrono::duration<double>(m_o.dDuration)) {
            say("stopping after " + format_hms(int64_t(m_o.dDuration * 1e7)));
            quit(0);
            return;
        }
        if (m_bInputDone.load()) {
            drain(s, now);
        }
    }

    // After the last packet of a file: waits until the element's FIFO has run empty and
    // the frames queued to the board have left.
    void drain(const element_status& s, steady::time_point now) {
        if (m_tInputDone == steady::time_point()) {
            m_tInputDone = now;
        }
        if (s.tDevice > 0 && s.tFifo == 0) {
            if (m_tDrained == steady::time_point()) {
                m_tDrained = now;
            } else if (now - m_tDrained >= kDrainTail) {
                say("end of " + m_o.strSource);
                quit(0);
                return;
            }
        } else {
            m_tDrained = steady::time_point();
        }
        const auto limit = std::chrono::milliseconds(2 * (m_tLead / 10000) + 5000);
        if (now - m_tInputDone > limit) {
            if (s.tDevice <= 0) {
                fail("output never started: the stream is shorter than the latency of " +
                     std::to_string(m_nLatencyMs) + " ms");
                quit(1);
            } else {
                say("the element's FIFO did not run empty; stopping");
                quit(0);
            }
            return;
        }
    }

    void show_status(const element_status& s) {
        std::string extra;
        if (is_udp(m_o.strSource)) {
            const steady::time_point now = steady::now();
            const uint64_t n = m_nInputBytes.load();
            const double dt = std::chrono::duration<double>(now - m_tRate).count();
            if (m_tRate != steady::time_point() && dt > 0) {
                char buf[64];
                std::snprintf(buf, sizeof(buf), "input %.2f Mbit/s",
                              double(n - m_nRateBytes) * 8 / dt / 1e6);
                extra = buf;
            }
            m_tRate = now;
            m_nRateBytes = n;
            out().status(status_line(s, nullptr, extra));
            return;
        }
        file_progress p;
        const int64_t tLoopPass = m_tLoopPassLength.load();
        if (m_o.bLoop && tLoopPass > 0) {
            // The reader runs a lead ahead of the output and may be a pass ahead too: the
            // pass and the progress shown are those of what has left the element.
            const int64_t tPlayed =
                std::max<int64_t>(0, m_tPushed.load() - std::max<int64_t>(0, s.tFifo));
            const int64_t tInPass = tPlayed % tLoopPass;
            p.fraction = double(tInPass) / double(tLoopPass);
            p.tLeft = tLoopPass - tInPass;
            extra = "pass " + std::to_string(tPlayed / tLoopPass + 1);
        } else {
            if (m_o.bLoop) {
                extra = "pass " + std::to_string(m_nPass.load() + 1);
            }
            p = estimate_progress(m_pacer.file_size(), m_nPassBytes.load(), m_tPassPushed.load(),
                                  s.tFifo, m_tPassLength.load());
        }
        out().status(status_line(s, &p, extra));
    }

    void summary() {
        if (is_udp(m_o.strSource)) {
            const double dt = std::chrono::duration<double>(steady::now() - m_tPlaying).count();
            say("received " + std::to_string(m_nInputBytes.load()) + " bytes in " +
                format_hms(int64_t(dt * 1e7)));
            return;
        }
        std::string text =
            "handed " + std::to_string(m_nPackets.load()) + " packets to the element";
        if (m_bInputDone.load() && m_tStreamRead.load() > 0) {
            char buf[64];
            std::snprintf(buf, sizeof(buf), ", %.3f s of stream",
                          double(m_tStreamRead.load()) / 1e7);
            text += buf;
        }
        say(text);
    }

    const options& m_o;
    const std::string m_strDevice;
    const bool m_bVirtual;

    GstElement* m_pPipeline = nullptr;
    GstElement* m_pSource = nullptr;
    GstElement* m_pSink = nullptr;
    GMainLoop* m_pLoop = nullptr;
    kv_base_statistics* m_pStats = nullptr;
    play_alarm_manager m_alarms;
    guint m_nLatencyMs = 0;
    uint64_t m_nCapacity = 0;  // the element's FIFO, bytes
    int64_t m_tLead = 0;       // 100 ns units
    int m_nResult = 0;

    // Main loop only.
    bool m_bQuit = false;
    uint64_t m_nTicks = 0;
    steady::time_point m_tPlaying;
    steady::time_point m_tInputDone;
    steady::time_point m_tDrained;
    steady::time_point m_tRate;
    uint64_t m_nRateBytes = 0;

    // The pacing thread owns m_pacer once started; it reports through these.
    ts_file_pacer m_pacer;
    std::thread m_pacerThread;
    std::mutex m_csPacer;
    std::condition_variable m_cvPacer;
    bool m_bStop = false;         // under m_csPacer
    std::string m_strPacerError;  // under m_csPacer
    std::atomic<uint64_t> m_nPackets{0};
    std::atomic<uint32_t> m_nPass{0};
    std::atomic<uint64_t> m_nPassBytes{0};   // file offset reached in the current pass
    std::atomic<int64_t> m_tPassPushed{0};   // stream time reached in the current pass
    std::atomic<int64_t> m_tPassLength{-1};  // length of the pass once read to its end
    std::atomic<int64_t> m_tStreamRead{0};
    std::atomic<int64_t> m_tPushed{0};           // stream time handed out, over all passes
    std::atomic<int64_t> m_tLoopPassLength{-1};  // looping: length of a pass once known
    std::atomic<bool> m_bInputDone{false};
    std::atomic<uint64_t> m_nInputBytes{0};  // UDP input
};

}  // namespace

int play(const options& o, const std::string& device, bool bVirtual) {
    player p(o, device, bVirtual);
    return p.run();
}

}  // namespace kv_asi_play
