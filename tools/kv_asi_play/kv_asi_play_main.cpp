// kv-asi-play: plays a transport stream out through the kv_asi_renderer element, from a
// file (paced at the stream's own rate, looping on request) or a live UDP source, to a
// V4L2 ASI node or, when none is given, to the virtual ASI board. It hands the element
// an alarm manager, shows alarms as they come and go, and prints a statistics line once
// a second until the end of the file, Ctrl-C or the --duration limit.

#include <gst/gst.h>

#include <cstdlib>
#include <string>

#include "kv_play_board.h"
#include "kv_play_console.h"
#include "kv_play_options.h"
#include "kv_play_player.h"
#include "kv_ts_file_pacer.h"

using namespace kv_asi_play;

int main(int argc, char** argv) {
    options o;
    const int rc = parse_options(argc, argv, o);
    if (rc >= 0) {
        return rc;
    }
    if (!is_udp(o.strSource)) {
        // Fails early, before the board or GStreamer are started, on a file it cannot
        // play: the first chunk needs the file's first PCR interval.
        ts_file_pacer probe;
        std::string error;
        ts_chunk chunk;
        if (!probe.open(o.strSource, false, error) || !probe.next(chunk)) {
            if (error.empty()) {
                error = probe.error().empty() ? "nothing to play in " + o.strSource : probe.error();
            }
            fail(error);
            return 1;
        }
    }

    std::string device = o.strDevice;
    const bool bVirtual = device.empty();
    if (bVirtual) {
        if (std::getenv(kBoardNodeVar) == nullptr) {
            return run_on_virtual_board(o, argv);
        }
        if (!enter_virtual_board(device)) {
            return 1;
        }
    }

    g_set_print_handler(print_handler);
    gst_init(nullptr, nullptr);
    const int result = play(o, device, bVirtual);
    gst_deinit();
    return result;
}
