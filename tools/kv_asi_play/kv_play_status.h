#pragma once

// The player's live statistics line: the element's statistics rows read back into
// numbers where the player needs them, the progress through a file, and the line.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kv_asi_play {

using statistics_rows = std::vector<std::pair<std::string, std::string>>;

// Reads the element's "hhh:mm:ss.ccc" time text (hours of any width, an optional
// leading "-") into 100 ns units. False for any other text.
bool parse_clock_text(const std::string& text, int64_t& units);

// "h:mm:ss" of a duration in 100 ns units, rounded down to whole seconds; negative
// durations read as zero.
std::string format_hms(int64_t units);

// "[###-------]" with `width` cells; the fraction is clamped to [0, 1].
std::string progress_bar(double fraction, size_t width);

// The rows the line shows, as the element wrote them, and the two times the player
// acts on (-1 when a row is missing or unreadable).
struct element_status {
    std::string strDevice, strStream, strFifo;
    std::string strSkipFrames, strSkipPackets, strResets;
    std::string strLastError;
    int64_t tDevice = -1;  // 100 ns units
    int64_t tFifo = -1;
};
element_status read_status(const statistics_rows& rows);

// Progress through the current pass over a file.
struct file_progress {
    double fraction = 0;  // played share of the pass, 0..1
    int64_t tLeft = 0;    // time left in the pass, 100 ns units
};
// What has been played is what was handed to the element (tPushed, stream time from the
// start of the pass, and nPushedBytes) minus what still waits in its FIFO (tFifo). The
// length of the pass is tPassLength once the pass has been read to its end (-1 before),
// else the pushed time scaled up to the file's size.
file_progress estimate_progress(uint64_t nFileSize, uint64_t nPushedBytes, int64_t tPushed,
                                int64_t tFifo, int64_t tPassLength);

// One line: device, stream and FIFO times, skipped frames and packets, resets, then the
// progress (when given), `extra` (when not empty) and the last error (when there is one).
std::string status_line(const element_status& s, const file_progress* pProgress,
                        const std::string& extra);

}  // namespace kv_asi_play
