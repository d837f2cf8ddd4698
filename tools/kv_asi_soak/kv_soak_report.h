#pragma once

// What a soak run records once per interval and the judgement at its end: whether the
// process's memory or an element's FIFO fullness kept growing or drifting in the second
// half of the run, when every start-up effect has settled.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "kv_play_status.h"

namespace kv_asi_soak {

// The element's rows and its time texts are read as the player reads them.
using kv_asi_play::parse_clock_text;
using kv_asi_play::statistics_rows;

// The element's rows that a soak follows, as numbers where it judges them.
struct element_sample {
    double t = 0;          // seconds since the pipelines started playing
    int64_t tFifo = -1;    // "Fullness fifo", 100 ns units; -1 when unreadable
    int64_t tDevice = -1;  // "Device time"
    int64_t tStream = -1;  // "Stream time"
    uint64_t nSkipFrames = 0, nSkipPackets = 0, nResets = 0;
    uint32_t nUnderflowAlarms = 0, nOverflowAlarms = 0;
    std::string strLastError;
};
element_sample read_rows(const statistics_rows& rows);

struct process_sample {
    double t = 0;
    uint64_t nRssKiB = 0;
    double cpuSeconds = 0;  // user + system since the process started
};

// Least-squares line through (x, y); slope 0 for fewer than two distinct x.
struct line_fit {
    double slope = 0;
    double intercept = 0;
};
line_fit fit_line(const std::vector<double>& x, const std::vector<double>& y);

// The first sample at or after half the run's span (the run's span is first to last
// sample); the second half is that sample and everything after it.
size_t second_half_start(const std::vector<double>& times);

struct fifo_summary {
    double startMs = 0, endMs = 0;        // fullness at the first and last sample
    double minMs = 0, maxMs = 0;          // over the whole run
    double minHalfMs = 0, maxHalfMs = 0;  // over the second half
    double driftUsPerS = 0;               // fitted slope over the second half (= ppm)
    double driftHalfMs = 0;               // that slope over the second half's span
    uint64_t resetsHalf = 0;              // output resets during the second half
    uint64_t skipPacketsHalf = 0;         // packets skipped during the second half
    size_t unreadable = 0;                // samples without a readable fullness
};
// Empty input gives all zeros.
fifo_summary summarize_fifo(const std::vector<element_sample>& samples);

struct memory_summary {
    uint64_t startKiB = 0, midKiB = 0, endKiB = 0, maxKiB = 0;
    int64_t growthHalfKiB = 0;  // end minus the second half's first sample
    double slopeHalfKiBPerMin = 0;
};
memory_summary summarize_memory(const std::vector<process_sample>& samples);

struct limits {
    double maxDriftMs = 50;          // |fullness drift| over the second half
    double maxDriftRate = 0;         // |fitted slope| in µs per second; 0: not checked
    int64_t maxRssGrowthKiB = 4096;  // RSS growth over the second half
    bool bResetsFail = true;         // an output reset in the second half fails the run
};
// One line per failed check, empty when the run passes.
std::vector<std::string> judge(const std::vector<fifo_summary>& fifos, const memory_summary& memory,
                               const limits& lim);

}  // namespace kv_asi_soak
