#include "kv_play_status.h"

#include <algorithm>
#include <cstdio>

namespace kv_asi_play {

namespace {

// Reads a run of exactly `width` digits (any number when width is 0) at text[pos].
bool read_digits(const std::string& text, size_t& pos, size_t width, int64_t& value) {
    const size_t begin = pos;
    value = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9' &&
           (width == 0 || pos - begin < width)) {
        value = value * 10 + (text[pos] - '0');
        ++pos;
    }
    return pos > begin && (width == 0 || pos - begin == width);
}

bool expect(const std::string& text, size_t& pos, char c) {
    if (pos < text.size() && text[pos] == c) {
        ++pos;
        return true;
    }
    return false;
}

}  // namespace

bool parse_clock_text(const std::string& text, int64_t& units) {
    size_t pos = 0;
    const bool bNegative = expect(text, pos, '-');
    int64_t h = 0, m = 0, s = 0, ms = 0;
    if (!read_digits(text, pos, 0, h) || !expect(text, pos, ':') || !read_digits(text, pos, 2, m) ||
        !expect(text, pos, ':') || !read_digits(text, pos, 2, s) || !expect(text, pos, '.') ||
        !read_digits(text, pos, 3, ms) || pos != text.size() || m > 59 || s > 59) {
        return false;
    }
    const int64_t v = ((h * 3600 + m * 60 + s) * 1000 + ms) * 10000;
    units = bNegative ? -v : v;
    return true;
}

std::string format_hms(int64_t units) {
    const int64_t s = std::max<int64_t>(units, 0) / 10'000'000;
    char buf[48];
    std::snprintf(buf, sizeof(buf), "%lld:%02lld:%02lld", static_cast<long long>(s / 3600),
                  static_cast<long long>(s / 60 % 60), static_cast<long long>(s % 60));
    return buf;
}

std::string progress_bar(double fraction, size_t width) {
    const double f = std::min(1.0, std::max(0.0, fraction));
    const size_t full = std::min(width, static_cast<size_t>(f * double(width)));
    return "[" + std::string(full, '#') + std::string(width - full, '-') + "]";
}

element_status read_status(const statistics_rows& rows) {
    element_status s;
    for (const auto& row : rows) {
        const std::string& name = row.first;
        const std::string& value = row.second;
        if (name == "Device time") {
            s.strDevice = value;
            if (!parse_clock_text(value, s.tDevice)) {
                s.tDevice = -1;
            }
        } else if (name == "Stream time") {
            s.strStream = value;
        } else if (name == "Fullness fifo") {
            s.strFifo = value;
            if (!parse_clock_text(value, s.tFifo)) {
                s.tFifo = -1;
            }
        } else if (name == "Skip HW frames") {
            s.strSkipFrames = value;
        } else if (name == "Skip TS packets") {
            s.strSkipPackets = value;
        } else if (name == "Reset") {
            s.strResets = value;
        } else if (name == "Last error") {
            s.strLastError = value;
        }
    }
    return s;
}

file_progress estimate_progress(uint64_t nFileSize, uint64_t nPushedBytes, int64_t tPushed,
                                int64_t tFifo, int64_t tPassLength) {
    file_progress p;
    int64_t tTotal = tPassLength;
    if (tTotal < 0) {
        tTotal =
            nPushedBytes > 0
                ? static_cast<int64_t>(double(tPushed) * double(nFileSize) / double(nPushedBytes))
                : 0;
    }
    const int64_t tPlayed = std::max<int64_t>(0, tPushed - std::max<int64_t>(0, tFifo));
    if (tTotal > 0) {
        p.fraction = std::min(1.0, double(tPlayed) / double(tTotal));
        p.tLeft = std::max<int64_t>(0, tTotal - tPlayed);
    }
    return p;
}

std::string status_line(const element_status& s, const file_progress* pProgress,
                        const std::string& extra) {
    std::string line = "device " + s.strDevice + "  stream " + s.strStream + "  fifo " + s.strFifo +
                       "  skipped " + s.strSkipFrames + " frames " + s.strSkipPackets +
                       " packets  resets " + s.strResets;
    if (pProgress != nullptr) {
        char pct[32];
        std::snprintf(pct, sizeof(pct), " %5.1f %% ", pProgress->fraction * 100.0);
        line += "  " + progress_bar(pProgress->fraction, 20) + pct + format_hms(pProgress->tLeft) +
                " left";
    }
    if (!extra.empty()) {
        line += "  " + extra;
    }
    if (!s.strLastError.empty()) {
        line += "  last error: " + s.strLastError;
    }
    return line;
}

}  // namespace kv_asi_play
