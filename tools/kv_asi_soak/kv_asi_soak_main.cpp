// kv-asi-soak: runs one or more kv_asi_renderer pipelines in one process, reads every
// element's statistics once per interval together with the process's memory and CPU
// time, and judges at the end whether anything kept growing. See README.md.

#include <dlfcn.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kv_asi_renderer/kv_asi_renderer_statistics.h"
#include "kv_asi_renderer/kv_i_alarm_manager.h"
#include "kv_cli.h"
#include "kv_play_alarms.h"
#include "kv_soak_loop.h"
#include "kv_soak_report.h"
#include "kv_vboard.h"

using namespace kv_asi_soak;

namespace {

std::atomic<bool> g_bStop{false};
void on_signal(int) {
    g_bStop.store(true);
}

struct options {
    std::string strFile;
    int nElements = 1;
    std::string strNodePattern = "/dev/kvasi%i";
    bool bPll = false;
    unsigned nLatencyMs = 1000;
    unsigned nBufferSize = 0;  // 0: the element's default
    bool bLoop = false;
    double duration = 0;  // seconds; 0: the file's length (once) or 60 (looping)
    double interval = 1;
    double printEvery = 0;  // 0: every row when no CSV file is written, else 10 s
    std::string strCsv;
    std::string strSink = "renderer";
    int nUdpPort = 5600;
    std::string strPlugin;
    double pauseAt = 0;   // seconds into the run; 0: no pause
    double pauseFor = 0;  // seconds in PAUSED
    limits lim;
};

// The options, each writing into `o`.
void declare_options(kv_cli::parser& cli, options& o) {
    const auto seconds = [](double& target) {
        return [&target](const std::string& v) { return kv_cli::to_double(v, 0, 1e7, target); };
    };
    const char* kSeconds = "a number of seconds";
    cli.number("elements", 'n', "N", "Pipelines in this process (1)", o.nElements, 1, 64)
        .text("nodes", 0, "PATTERN", "Device node of element i, %i = i (/dev/kvasi%i)",
              o.strNodePattern)
        .flag("pll", 0, o.bPll, "The element's pll property on")
        .flag("no-pll", 0, o.bPll, "The element's pll property off (the default)", false)
        .number("latency", 0, "MS", "The element's latency (1000)", o.nLatencyMs, 0, 10000)
        .number("buffer-size", 0, "BYTES", "The element's buffer-size (its default)", o.nBufferSize,
                0, UINT32_MAX)
        .flag("loop", 0, o.bLoop, "Play the file endlessly with continuous PCRs")
        .option("duration", 0, "S", "Stop after S seconds of play (looping: 60)", kSeconds,
                seconds(o.duration))
        .option("interval", 0, "S", "Seconds between samples (1)", "a positive number of seconds",
                [&](const std::string& v) { return kv_cli::to_double(v, 0.001, 3600, o.interval); })
        .text("csv", 0, "FILE", "Every sample row to FILE", o.strCsv)
        .option("print-every", 0, "S", "Rows on standard output every S seconds", kSeconds,
                seconds(o.printEvery))
        .option("sink", 0, "renderer|udp", "kv_asi_renderer, or udpsink to 127.0.0.1",
                "renderer or udp",
                [&](const std::string& v) {
                    o.strSink = v;
                    return v == "renderer" || v == "udp";
                })
        .number("udp-port", 0, "N", "First UDP port for --sink udp (5600)", o.nUdpPort, 1, 65535)
        .text("plugin", 0, "FILE", "Load the element's module from FILE", o.strPlugin)
        .option(
            "max-drift-ms", 0, "X", "FIFO fullness drift allowed over the second half (50)",
            "a number of milliseconds",
            [&](const std::string& v) { return kv_cli::to_double(v, 0, 1e6, o.lim.maxDriftMs); })
        .option(
            "max-drift-rate", 0, "US",
            "FIFO fullness slope allowed over the second half, us/s (0: not checked)",
            "a number of microseconds a second",
            [&](const std::string& v) { return kv_cli::to_double(v, 0, 1e6, o.lim.maxDriftRate); })
        .number("max-rss-growth", 0, "KIB", "RSS growth allowed over the second half (4096)",
                o.lim.maxRssGrowthKiB, 0, INT64_MAX)
        .flag("allow-resets", 0, o.lim.bResetsFail, "Output resets in the second half do not fail",
              false)
        .option("pause-at", 0, "S", "Take the pipelines to PAUSED S seconds into the run", kSeconds,
                seconds(o.pauseAt))
        .option("pause-for", 0, "S", "And back to PLAYING S seconds later (10)", kSeconds,
                seconds(o.pauseFor))
        .group(gst_init_get_option_group());
}

// Returns -1 to go on, else the exit status.
int parse_options(int argc, char** argv, options& o) {
    kv_cli::parser cli("kv-asi-soak", "FILE.ts",
                       "Runs kv_asi_renderer pipelines in one process, samples every element's\n"
                       "statistics, the process's memory and CPU time, and judges at the end\n"
                       "whether anything kept growing over the second half of the run.");
    declare_options(cli, o);
    std::vector<std::string> files;
    const int usage = cli.parse(kv_cli::arguments(argc, argv), files);
    if (usage >= 0) {
        return usage;
    }
    if (files.size() != 1) {
        return cli.usage_error(files.empty() ? "no FILE.ts given" : "one FILE.ts only");
    }
    o.strFile = files[0];
    if (o.bLoop && o.duration <= 0) {
        o.duration = 60;
    }
    if (o.pauseAt > 0 && o.pauseFor <= 0) {
        o.pauseFor = 10;
    }
    if (o.printEvery <= 0) {
        o.printEvery = o.strCsv.empty() ? o.interval : 10;
    }
    return -1;
}

// FIFO depth against the latency: over time (a row a minute), and its range before the
// pause and from ten seconds after it, so a pause that moved the depth shows.
void print_depth(const std::vector<element_sample>& samples, const options& o) {
    const double latencyMs = o.nLatencyMs;
    auto range = [&](double from, double to) {
        double lo = 1e18, hi = -1e18;
        for (const auto& s : samples) {
            if (s.t >= from && s.t < to && s.tFifo >= 0) {
                lo = std::min(lo, s.tFifo / 1e4);
                hi = std::max(hi, s.tFifo / 1e4);
            }
        }
        return std::make_pair(lo, hi);
    };
    std::printf("  depth over time (ms, %% of the %u ms latency):", o.nLatencyMs);
    double next = 0;
    for (const auto& s : samples) {
        if (s.t >= next && s.tFifo >= 0) {
            std::printf(" %.0fs %.0f (%.0f%%)", s.t, s.tFifo / 1e4, s.tFifo / 1e2 / latencyMs);
            next = s.t + 60;
        }
    }
    std::printf("\n");
    if (o.pauseAt > 0) {
        // Settled windows: from the middle of the time before the pause (at most 10 s
        // after the start) and from 10 s after it, or half the rest of a short run.
        const double tLast = samples.empty() ? 0 : samples.back().t;
        const double resume = o.pauseAt + o.pauseFor;
        const auto before = range(std::min(10.0, o.pauseAt / 2), o.pauseAt);
        const auto after = range(resume + std::min(10.0, (tLast - resume) / 2), 1e18);
        if (before.first > before.second || after.first > after.second) {
            std::printf("  depth around the pause: no samples\n");
            return;
        }
        std::printf(
            "  depth before the pause %.1f..%.1f ms (%.0f..%.0f %%), settled after it "
            "%.1f..%.1f ms (%.0f..%.0f %%)\n",
            before.first, before.second, 100 * before.first / latencyMs,
            100 * before.second / latencyMs, after.first, after.second,
            100 * after.first / latencyMs, 100 * after.second / latencyMs);
    }
}

std::string node_name(const std::string& pattern, int i) {
    std::string s = pattern;
    const size_t pos = s.find("%i");
    if (pos != std::string::npos) {
        s.replace(pos, 2, std::to_string(i));
    }
    return s;
}

// The board's live counters when it is preloaded into this process.
using get_counters_fn = int (*)(const char*, kv_vboard_counters*);

struct lane {
    int index = 0;
    std::string strNode, strSource;
    GstElement* pipeline = nullptr;
    GstElement* sink = nullptr;
    const ts_loop* pLoop = nullptr;
    uint64_t nPosition = 0;  // next packet of the endless stream
    std::atomic<bool> bEos{false};
    double tEos = -1;  // first sample that saw end-of-stream
    const kv_base_statistics* pStats = nullptr;
    std::vector<element_sample> samples;
    kv_vboard_counters board{};
    bool bBoard = false;
};

constexpr size_t kChunkPackets = 348;  // 65424 bytes per buffer

void need_data(GstAppSrc* src, guint, gpointer user) {
    lane* l = static_cast<lane*>(user);
    GstBuffer* buf = gst_buffer_new_allocate(nullptr, kChunkPackets * kPacketSize, nullptr);
    GstMapInfo map;
    gst_buffer_map(buf, &map, GST_MAP_WRITE);
    l->pLoop->fill(l->nPosition, kChunkPackets, map.data);
    gst_buffer_unmap(buf, &map);
    l->nPosition += kChunkPackets;
    gst_app_src_push_buffer(src, buf);
}

GstPadProbeReturn eos_probe(GstPad*, GstPadProbeInfo* info, gpointer user) {
    GstEvent* ev = GST_PAD_PROBE_INFO_EVENT(info);
    if (ev != nullptr && GST_EVENT_TYPE(ev) == GST_EVENT_EOS) {
        static_cast<lane*>(user)->bEos.store(true);
    }
    return GST_PAD_PROBE_OK;
}

bool build_lane(const options& o, const ts_loop& loop, kv_asi_play::play_alarm_manager& alarms,
                lane& l) {
    std::string desc;
    if (o.bLoop) {
        desc =
            "appsrc name=src format=bytes max-bytes=262144 block=true "
            "caps=video/mpegts,systemstream=true,packetsize=188";
    } else {
        gchar* quoted = g_strescape(o.strFile.c_str(), nullptr);
        desc = std::string("filesrc location=\"") + quoted + "\"";
        g_free(quoted);
    }
    desc += " ! tsparse set-timestamps=true ! clocksync ! ";
    if (o.strSink == "udp") {
        desc += "udpsink name=sink host=127.0.0.1 port=" + std::to_string(o.nUdpPort + l.index);
    } else {
        desc += "kv_asi_renderer name=sink";
    }
    GError* err = nullptr;
    l.pipeline = gst_parse_launch(desc.c_str(), &err);
    if (l.pipeline == nullptr || err != nullptr) {
        std::fprintf(stderr, "kv-asi-soak: cannot build \"%s\": %s\n", desc.c_str(),
                     err != nullptr ? err->message : "unknown error");
        if (err != nullptr)
            g_error_free(err);
        return false;
    }
    l.sink = gst_bin_get_by_name(GST_BIN(l.pipeline), "sink");
    if (o.strSink == "renderer") {
        g_object_set(l.sink, "v4l2", l.strNode.c_str(), "pll", gboolean(o.bPll), "latency",
                     guint(o.nLatencyMs), "alarm-source-name", l.strSource.c_str(), "alarm-manager",
                     static_cast<gpointer>(static_cast<kv_i_alarm_manager*>(&alarms)), nullptr);
        if (o.nBufferSize > 0) {
            g_object_set(l.sink, "buffer-size", guint(o.nBufferSize), nullptr);
        }
        gpointer p = nullptr;
        g_object_get(l.sink, "statistics", &p, nullptr);
        l.pStats = static_cast<kv_asi_renderer_statistics*>(p);
    }
    GstPad* pad = gst_element_get_static_pad(l.sink, "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, eos_probe, &l, nullptr);
    gst_object_unref(pad);
    if (o.bLoop) {
        l.pLoop = &loop;
        GstElement* src = gst_bin_get_by_name(GST_BIN(l.pipeline), "src");
        GstAppSrcCallbacks cb{};
        cb.need_data = need_data;
        gst_app_src_set_callbacks(GST_APP_SRC(src), &cb, &l, nullptr);
        gst_object_unref(src);
    }
    return true;
}

uint64_t rss_kib() {
    FILE* f = std::fopen("/proc/self/statm", "r");
    unsigned long size = 0, resident = 0;
    if (f != nullptr) {
        if (std::fscanf(f, "%lu %lu", &size, &resident) != 2) {
            resident = 0;
        }
        std::fclose(f);
    }
    return uint64_t(resident) * uint64_t(sysconf(_SC_PAGESIZE)) / 1024;
}

double cpu_seconds() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

std::string csv_text(const std::string& s) {
    if (s.find_first_of(",\"\n") == std::string::npos) {
        return s;
    }
    std::string q = "\"";
    for (char c : s) {
        q += (c == '"') ? std::string("\"\"") : std::string(1, c == '\n' ? ' ' : c);
    }
    return q + "\"";
}

double seconds_of(int64_t units) {
    return units < 0 ? -1.0 : double(units) / 1e7;
}

const char* kHeader =
    "time_s,element,node,fifo_ms,device_s,stream_s,skip_hw_frames,skip_ts_packets,resets,"
    "underflow_alarms,overflow_alarms,board_frames_sent,board_idle_frames,board_packets,"
    "rss_kib,cpu_s,last_error";

std::string csv_row(const lane& l, const element_sample& s, const process_sample& p) {
    char buf[512];
    std::snprintf(
        buf, sizeof(buf),
        "%.1f,%d,%s,%.1f,%.3f,%.3f,%llu,%llu,%llu,%u,%u,%llu,%llu,%llu,%llu,%.2f,", s.t, l.index,
        l.strNode.c_str(), s.tFifo < 0 ? -1.0 : double(s.tFifo) / 1e4, seconds_of(s.tDevice),
        seconds_of(s.tStream), static_cast<unsigned long long>(s.nSkipFrames),
        static_cast<unsigned long long>(s.nSkipPackets), static_cast<unsigned long long>(s.nResets),
        s.nUnderflowAlarms, s.nOverflowAlarms, static_cast<unsigned long long>(l.board.frames_sent),
        static_cast<unsigned long long>(l.board.idle_frames),
        static_cast<unsigned long long>(l.board.packets),
        static_cast<unsigned long long>(p.nRssKiB), p.cpuSeconds);
    return buf + csv_text(s.strLastError);
}

// Everything one run holds: the pipelines, the host's alarm manager, the samples.
struct soak_run {
    options o;
    bool bRenderer = true;
    ts_loop loop;
    double fileSeconds = 0;
    double fileMbits = 0;
    get_counters_fn board_counters = nullptr;
    kv_asi_play::play_alarm_manager alarms;
    std::vector<std::unique_ptr<lane>> lanes;
    FILE* csv = nullptr;
    std::vector<process_sample> process;
    bool bFailed = false;
    bool bPaused = false;
};

bool fail(const std::string& text) {
    std::fprintf(stderr, "kv-asi-soak: %s\n", text.c_str());
    return false;
}

// Loads the element, reads the file, builds the pipelines and opens the CSV file.
bool prepare(soak_run& r) {
    options& o = r.o;
    if (!o.strPlugin.empty()) {
        GError* err = nullptr;
        GstPlugin* plugin = gst_plugin_load_file(o.strPlugin.c_str(), &err);
        if (plugin == nullptr) {
            return fail("cannot load " + o.strPlugin + ": " +
                        (err != nullptr ? err->message : "unknown error"));
        }
        gst_object_unref(plugin);
    }
    r.bRenderer = o.strSink == "renderer";
    if (r.bRenderer && gst_element_factory_find("kv_asi_renderer") == nullptr) {
        return fail("no kv_asi_renderer element (set GST_PLUGIN_PATH or give --plugin)");
    }
    // Looping plays the file from memory; played once it is read by filesrc and only its
    // head and tail are read here, for the stream time it holds.
    std::string error;
    if (o.bLoop ? !r.loop.load_file(o.strFile, error)
                : !probe_file_seconds(o.strFile, r.fileSeconds, error)) {
        return fail(error);
    }
    if (o.bLoop) {
        r.fileSeconds = r.loop.pass_seconds();
    } else if (o.duration <= 0) {
        o.duration = r.fileSeconds + o.nLatencyMs / 1000.0 + 10;  // a safety stop only
    }
    r.fileMbits = double(std::ifstream(o.strFile, std::ios::binary | std::ios::ate).tellg()) * 8 /
                  r.fileSeconds / 1e6;
    r.board_counters =
        reinterpret_cast<get_counters_fn>(dlsym(RTLD_DEFAULT, "kv_vboard_get_counters"));
    for (int i = 0; i < o.nElements; ++i) {
        auto l = std::make_unique<lane>();
        l->index = i;
        l->strNode =
            r.bRenderer ? node_name(o.strNodePattern, i) : "udp:" + std::to_string(o.nUdpPort + i);
        l->strSource = "soak" + std::to_string(i);
        if (!build_lane(o, r.loop, r.alarms, *l)) {
            return false;
        }
        r.lanes.push_back(std::move(l));
    }
    if (!o.strCsv.empty()) {
        r.csv = std::fopen(o.strCsv.c_str(), "w");
        if (r.csv == nullptr) {
            return fail("cannot write " + o.strCsv);
        }
        std::fprintf(r.csv, "%s\n", kHeader);
    }
    return true;
}

// Errors end the run; end-of-stream reaches the bus from udpsink at once and from the
// renderer once it has played everything; the pad probe sees it arrive.
void poll_buses(soak_run& r) {
    for (auto& l : r.lanes) {
        GstBus* bus = gst_element_get_bus(l->pipeline);
        while (GstMessage* m =
                   gst_bus_pop_filtered(bus, GstMessageType(GST_MESSAGE_ERROR | GST_MESSAGE_EOS))) {
            if (GST_MESSAGE_TYPE(m) == GST_MESSAGE_ERROR) {
                GError* err = nullptr;
                gst_message_parse_error(m, &err, nullptr);
                fail("pipeline " + std::to_string(l->index) + ": " +
                     (err != nullptr ? err->message : "error"));
                g_clear_error(&err);
                r.bFailed = true;
            } else {
                l->bEos.store(true);
            }
            gst_message_unref(m);
        }
        gst_object_unref(bus);
    }
}

// The pause: every pipeline to PAUSED and back, sampled on throughout.
void apply_pause(soak_run& r, double t) {
    const bool bPauseDue = r.o.pauseAt > 0 && t >= r.o.pauseAt && t < r.o.pauseAt + r.o.pauseFor;
    if (bPauseDue == r.bPaused) {
        return;
    }
    r.bPaused = bPauseDue;
    std::printf("kv-asi-soak: %s at %.1f s\n", r.bPaused ? "paused" : "resumed", t);
    for (auto& l : r.lanes) {
        gst_element_set_state(l->pipeline, r.bPaused ? GST_STATE_PAUSED : GST_STATE_PLAYING);
    }
}

// One sample of the process and of every element, written as rows. Returns whether every
// input has ended (`bAllEos`) and every FIFO has drained.
bool sample(soak_run& r, double t, bool bPrint, bool& bAllEos) {
    process_sample p;
    p.t = t;
    p.nRssKiB = rss_kib();
    p.cpuSeconds = cpu_seconds();
    r.process.push_back(p);
    bAllEos = true;
    bool bAllDrained = true;
    for (auto& l : r.lanes) {
        element_sample s;
        if (l->pStats != nullptr) {
            s = read_rows(l->pStats->get_items());
            s.nUnderflowAlarms = r.alarms.count(l->strSource, eAlarmRemuxerOutputUnderflow);
            s.nOverflowAlarms = r.alarms.count(l->strSource, eAlarmRemuxerOutputOverflow);
        }
        s.t = t;
        if (r.board_counters != nullptr) {
            l->bBoard = r.board_counters(l->strNode.c_str(), &l->board) == 0;
        }
        l->samples.push_back(s);
        const std::string row = csv_row(*l, s, p);
        if (r.csv != nullptr) {
            std::fprintf(r.csv, "%s\n", row.c_str());
        }
        if (bPrint) {
            std::printf("%s\n", row.c_str());
        }
        if (l->bEos.load() && l->tEos < 0) {
            l->tEos = t;
        }
        bAllEos = bAllEos && l->bEos.load();
        // Drained: under two frames of stream left (the packets after the last PCR never
        // leave).
        bAllDrained = bAllDrained && (!r.bRenderer || (s.tFifo >= 0 && s.tFifo < 400000));
    }
    if (r.csv != nullptr) {
        std::fflush(r.csv);
    }
    std::fflush(stdout);
    return bAllDrained;
}

// Samples once per interval until the duration, a failure, Ctrl-C or, for a file played
// once, its end. Returns the run's length in seconds.
double sample_until_done(soak_run& r) {
    using clock = std::chrono::steady_clock;
    const auto t0 = clock::now();
    double lastPrint = -1e9;
    double tAllEos = -1;
    for (int tick = 1; !g_bStop.load(); ++tick) {
        std::this_thread::sleep_until(t0 + std::chrono::duration_cast<clock::duration>(
                                               std::chrono::duration<double>(tick * r.o.interval)));
        const double t = std::chrono::duration<double>(clock::now() - t0).count();
        poll_buses(r);
        apply_pause(r, t);
        const bool bPrint = t - lastPrint >= r.o.printEvery - 1e-6;
        if (bPrint) {
            lastPrint = t;
        }
        bool bAllEos = false;
        const bool bAllDrained = sample(r, t, bPrint, bAllEos);
        if (r.bFailed || t >= r.o.duration) {
            break;
        }
        if (!r.o.bLoop && bAllEos) {
            if (tAllEos < 0) {
                tAllEos = t;
            }
            // Once every file has been read, stop when the FIFOs have drained, or after
            // the latency and a margin when they never do.
            if (bAllDrained || t - tAllEos > r.o.nLatencyMs / 1000.0 + 3) {
                break;
            }
        }
    }
    return std::chrono::duration<double>(clock::now() - t0).count();
}

// The summary of one element; its FIFO summary goes to `fifos` for the verdict.
void report_lane(const lane& l, const options& o, std::vector<fifo_summary>& fifos) {
    // A file played once drains at its end: only what came before is judged.
    std::vector<element_sample> judged;
    for (const auto& s : l.samples) {
        if (l.tEos < 0 || s.t < l.tEos) {
            judged.push_back(s);
        }
    }
    const fifo_summary f = summarize_fifo(judged.empty() ? l.samples : judged);
    fifos.push_back(f);
    const element_sample& last = l.samples.back();
    std::printf(
        "element %d (%s): fifo start %.1f ms, end %.1f ms, range %.1f..%.1f ms, "
        "second half %.1f..%.1f ms, drift %+.2f us/s (%+.1f ms over the second "
        "half)\n",
        l.index, l.strNode.c_str(), f.startMs, f.endMs, f.minMs, f.maxMs, f.minHalfMs, f.maxHalfMs,
        f.driftUsPerS, f.driftHalfMs);
    std::printf(
        "  counters: skip hw frames %llu, skip ts packets %llu (%llu in the second "
        "half), resets %llu (%llu in the second half), underflow alarms %u, "
        "overflow alarms %u, unreadable samples %zu\n",
        static_cast<unsigned long long>(last.nSkipFrames),
        static_cast<unsigned long long>(last.nSkipPackets),
        static_cast<unsigned long long>(f.skipPacketsHalf),
        static_cast<unsigned long long>(last.nResets),
        static_cast<unsigned long long>(f.resetsHalf), last.nUnderflowAlarms, last.nOverflowAlarms,
        f.unreadable);
    if (l.bBoard) {
        std::printf(
            "  board: frames sent %llu, idle frames %llu, packets %llu, partial "
            "bytes %llu, word violations %llu\n",
            static_cast<unsigned long long>(l.board.frames_sent),
            static_cast<unsigned long long>(l.board.idle_frames),
            static_cast<unsigned long long>(l.board.packets),
            static_cast<unsigned long long>(l.board.bytes_partial),
            static_cast<unsigned long long>(l.board.word_violations));
    }
    if (!last.strLastError.empty()) {
        std::printf("  last error: %s\n", last.strLastError.c_str());
    }
    print_depth(l.samples, o);
    std::printf(
        "result: element=%d fifo_end_ms=%.1f fifo_min_half_ms=%.1f "
        "fifo_max_half_ms=%.1f drift_us_per_s=%+.2f drift_half_ms=%+.1f resets=%llu "
        "skip_packets=%llu\n",
        l.index, f.endMs, f.minHalfMs, f.maxHalfMs, f.driftUsPerS, f.driftHalfMs,
        static_cast<unsigned long long>(last.nResets),
        static_cast<unsigned long long>(last.nSkipPackets));
}

// The summary of the run and the verdict; returns the exit status.
int report(const soak_run& r, double tEnd, double cpu) {
    const options& o = r.o;
    // Stream played: the run's length when looping (the input is paced in real time),
    // else the file once per element.
    const double streamSeconds = o.bLoop ? tEnd : r.fileSeconds;
    std::printf("\nsummary: %d element(s), %.1f s run, %.1f s of stream each\n", o.nElements, tEnd,
                streamSeconds);
    std::printf(
        "cpu: %.2f s (user+sys, start to stop), %.4f s per stream-second per element, "
        "%.4f s per second of run\n",
        cpu, cpu / (streamSeconds * o.nElements), cpu / tEnd);
    const memory_summary mem = summarize_memory(r.process);
    std::printf(
        "rss: start %llu KiB, middle %llu KiB, end %llu KiB, max %llu KiB; second half "
        "%+lld KiB (%+.1f KiB/min)\n",
        static_cast<unsigned long long>(mem.startKiB), static_cast<unsigned long long>(mem.midKiB),
        static_cast<unsigned long long>(mem.endKiB), static_cast<unsigned long long>(mem.maxKiB),
        static_cast<long long>(mem.growthHalfKiB), mem.slopeHalfKiBPerMin);
    std::vector<fifo_summary> fifos;
    for (const auto& l : r.lanes) {
        if (r.bRenderer && !l->samples.empty()) {
            report_lane(*l, o, fifos);
        }
    }
    std::printf(
        "result: process rss_start_kib=%llu rss_end_kib=%llu rss_growth_half_kib=%lld "
        "cpu_s=%.2f cpu_per_stream_s=%.4f\n",
        static_cast<unsigned long long>(mem.startKiB), static_cast<unsigned long long>(mem.endKiB),
        static_cast<long long>(mem.growthHalfKiB), cpu, cpu / (streamSeconds * o.nElements));
    const std::vector<std::string> failures = judge(fifos, mem, o.lim);
    for (const auto& f : failures) {
        std::printf("FAIL: %s\n", f.c_str());
    }
    if (r.bFailed) {
        std::printf("FAIL: a pipeline reported an error\n");
    }
    const bool bPass = failures.empty() && !r.bFailed;
    std::printf("verdict: %s\n", bPass ? "PASS" : "FAIL");
    return bPass ? 0 : 1;
}

void stop_all(soak_run& r) {
    for (auto& l : r.lanes) {
        gst_element_set_state(l->pipeline, GST_STATE_NULL);
    }
}

}  // namespace

int main(int argc, char** argv) {
    soak_run r;
    const int usage = parse_options(argc, argv, r.o);
    if (usage >= 0) {
        return usage;
    }
    gst_init(nullptr, nullptr);
    if (!prepare(r)) {
        return 1;
    }
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    const options& o = r.o;
    std::printf(
        "kv-asi-soak: %d x %s, %s, %s, pll %s, latency %u ms, %s, stream %.3f s per "
        "pass at %.3f Mbit/s, board %s\n",
        o.nElements, r.bRenderer ? "kv_asi_renderer" : "udpsink", o.strFile.c_str(),
        o.bLoop ? "looping" : "once", o.bPll ? "on" : "off", o.nLatencyMs,
        o.bLoop ? (std::to_string(int(o.duration)) + " s").c_str() : "to the end", r.fileSeconds,
        r.fileMbits, r.board_counters != nullptr ? "preloaded" : "not present");
    std::printf("%s\n", kHeader);
    std::fflush(stdout);

    const double cpuStart = cpu_seconds();
    for (auto& l : r.lanes) {
        if (gst_element_set_state(l->pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
            fail("pipeline " + std::to_string(l->index) + " does not start (" + l->strNode + ")");
            stop_all(r);
            return 1;
        }
    }
    const double tEnd = sample_until_done(r);
    stop_all(r);
    const double cpu = cpu_seconds() - cpuStart;
    for (auto& l : r.lanes) {
        gst_object_unref(l->sink);
        gst_object_unref(l->pipeline);
    }
    if (r.csv != nullptr) {
        std::fclose(r.csv);
    }
    return report(r, tEnd, cpu);
}
