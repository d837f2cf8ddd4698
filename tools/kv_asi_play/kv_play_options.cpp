#include "kv_play_options.h"

#include <gst/gst.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "kv_cli.h"
#include "kv_play_console.h"

namespace kv_asi_play {

namespace {

// "GStreamer 1.22.0", for --version.
std::string gst_version_detail() {
    gchar* text = gst_version_string();
    const std::string detail(text);
    g_free(text);
    return detail;
}

}  // namespace

bool is_udp(const std::string& source) {
    return source.compare(0, 6, "udp://") == 0;
}

bool valid_udp_uri(const std::string& uri) {
    const std::string rest = uri.substr(6);
    const size_t colon = rest.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == rest.size() ||
        rest.find('/') != std::string::npos) {
        return false;
    }
    const std::string host = rest.substr(0, colon);
    if (host.find(':') != std::string::npos && (host.front() != '[' || host.back() != ']')) {
        return false;
    }
    uint64_t port = 0;
    return kv_cli::to_uint(rest.substr(colon + 1), 65535, port) && port > 0;
}

namespace {

// The options, each writing into `o` (the two PLL flags into their own).
void declare_options(kv_cli::parser& cli, options& o, bool& bPll, bool& bNoPll) {
    cli.text("device", 'd', "PATH", "V4L2 ASI output node (v4l2)", o.strDevice)
        .text("capture", 0, "FILE", "Virtual board: capture of everything sent on the line",
              o.strCapture)
        .text("board-stats", 0, "FILE", "Virtual board: its counters as JSON, written at the end",
              o.strBoardStats)
        .text("board-lib", 0, "PATH", "Virtual board library (libkv_vboard.so)", o.strBoardLib)
        .option("buffer-size", 'b', "BYTES", "FIFO capacity (buffer-size)", "a number of bytes",
                [&](const std::string& v) {
                    uint64_t n = 0;
                    o.bBufferSize = kv_cli::to_uint(v, G_MAXUINT, n);
                    o.nBufferSize = static_cast<guint>(n);
                    return o.bBufferSize;
                })
        .option("latency", 'l', "MS", "Stream buffered before output starts, 0..10000 (latency)",
                "a latency from 0 to 10000 ms",
                [&](const std::string& v) {
                    uint64_t n = 0;
                    o.bLatency = kv_cli::to_uint(v, 10000, n);
                    o.nLatency = static_cast<guint>(n);
                    return o.bLatency;
                })
        .flag("pll", 0, bPll, "Lock stream time to the board's clock (pll)")
        .flag("no-pll", 0, bNoPll, "Do not (pll)")
        .option("time-control", 't', "MODE",
                "Pace by pcr (0, the default) or by time stamps: stamp (1) (time-control)",
                "pcr or stamp",
                [&](const std::string& v) {
                    o.nTimeControl = v == "stamp" || v == "1" ? 1 : 0;
                    return v == "pcr" || v == "0" || v == "stamp" || v == "1";
                })
        .flag("reset-when-empty", 0, o.bResetWhenEmpty,
              "Reset the FIFO whenever it runs empty (reset-when-empty)")
        .text("alarm-source", 0, "NAME",
              "Source name of the alarms, kv-asi-play by default (alarm-source-name)",
              o.strAlarmSource)
        .flag("loop", 0, o.bLoop, "Play a file over and over")
        .option("duration", 0, "SECONDS", "Stop after this long", "a positive number of seconds",
                [&](const std::string& v) {
                    return kv_cli::to_double(v, 0, 1e9, o.dDuration) && o.dDuration > 0;
                })
        .text("iface", 0, "NAME", "Network interface that joins a multicast source", o.strIface)
        .text("plugin", 0, "FILE", "The element's plugin module (libkv_asi_renderer.so)",
              o.strPlugin)
        .version_detail(gst_version_detail())
        .group(gst_init_get_option_group());
}

}  // namespace

int parse_options(int argc, char** argv, options& o) {
    bool bPll = false;
    bool bNoPll = false;
    kv_cli::parser cli(
        kProgram, "SOURCE",
        "Plays an MPEG-2 transport stream out through the kv_asi_renderer element. SOURCE is\n"
        "a file of 188-byte packets or udp://ADDRESS:PORT (unicast or multicast). Without\n"
        "--device the stream goes to the virtual ASI board. Element properties are named in\n"
        "brackets.\n"
        "Exit status: 0 played to the end or stopped, 1 failure, 2 bad usage.");
    declare_options(cli, o, bPll, bNoPll);
    std::vector<std::string> sources;
    const int usage = cli.parse(kv_cli::arguments(argc, argv), sources);
    if (usage >= 0) {
        return usage;
    }
    if (bPll || bNoPll) {
        o.nPll = bPll && !bNoPll ? 1 : 0;
    }
    if (sources.size() != 1) {
        return cli.usage_error(sources.empty() ? "no SOURCE given" : "more than one SOURCE given");
    }
    o.strSource = sources[0];
    if (!o.strDevice.empty() && (!o.strCapture.empty() || !o.strBoardStats.empty())) {
        return cli.usage_error(
            "--capture and --board-stats belong to the virtual board: leave out --device");
    }
    if (is_udp(o.strSource) && o.bLoop) {
        return cli.usage_error("--loop needs a file");
    }
    return -1;
}

}  // namespace kv_asi_play
