#include "kvcore/kv_string.h"

#include <cstdint>

namespace KVSDK {

namespace {

// Replaces the first occurrence of `token` in `text` with `value`; false when absent.
bool replace_first(std::string& text, const char* token, size_t tokenLength,
                   const std::string& value) {
    const size_t pos = text.find(token, 0, tokenLength);
    if (pos == std::string::npos) {
        return false;
    }
    text.replace(pos, tokenLength, value);
    return true;
}

template <class T>
void substitute(std::string& text, const char (&token)[3], const T& value) {
    replace_first(text, token, 2, number_to_string(2, value));
}

// A three-letter token takes precedence over its two-letter short form: when the long one
// is present the short one is left alone.
template <class T>
void substitute_long_or_short(std::string& text, const char (&longToken)[4], const T& value) {
    if (!replace_first(text, longToken, 3, number_to_string(3, value))) {
        replace_first(text, longToken, 2, number_to_string(2, value));
    }
}

}  // namespace

std::string toString(const std::string& format, std::chrono::nanoseconds d) {
    constexpr uint64_t kNsPerMs = 1000000ULL;
    constexpr uint64_t kNsPerSecond = 1000 * kNsPerMs;
    constexpr uint64_t kNsPerMinute = 60 * kNsPerSecond;
    constexpr uint64_t kNsPerHour = 60 * kNsPerMinute;

    // Unsigned magnitude, so that the most negative count has one too.
    const int64_t count = d.count();
    const uint64_t a = count < 0 ? 0 - static_cast<uint64_t>(count) : static_cast<uint64_t>(count);

    const uint64_t hours = a / kNsPerHour;
    const uint64_t minutes = a % kNsPerHour / kNsPerMinute;
    const uint64_t seconds = a % kNsPerHour % kNsPerMinute / kNsPerSecond;
    const uint64_t milliseconds = a % kNsPerHour % kNsPerMinute % kNsPerSecond / kNsPerMs;

    std::string text = format;
    substitute_long_or_short(text, "hhh", hours);
    substitute(text, "mm", minutes);
    substitute(text, "ss", seconds);
    substitute_long_or_short(text, "ccc", milliseconds);
    if (count < 0) {
        text.insert(0, 1, '-');
    }
    return text;
}

std::string toString(const std::string& format, const time_t& t, bool utc) {
    struct tm parts {};
    const struct tm* ok = utc ? gmtime_r(&t, &parts) : localtime_r(&t, &parts);
    std::string text = format;
    if (!ok) {
        return text;
    }
    substitute(text, "dd", parts.tm_mday);
    substitute(text, "MM", parts.tm_mon + 1);
    replace_first(text, "yyyy", 4, number_to_string(4, parts.tm_year + 1900));
    substitute_long_or_short(text, "hhh", parts.tm_hour);
    substitute(text, "mm", parts.tm_min);
    substitute(text, "ss", parts.tm_sec);
    return text;
}

}  // namespace KVSDK
