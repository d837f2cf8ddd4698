#pragma once

#include <chrono>
#include <ctime>
#include <string>
#include <type_traits>

namespace KVSDK {

// Decimal text of `value`, preceded by zeros up to `width` characters; a longer text is
// returned whole. The zeros go in front of a minus sign too (-5 at width 3 is "0-5").
template <class T>
std::string number_to_string(unsigned long width, const T& value) {
    static_assert(std::is_integral<T>::value, "number_to_string formats integers");
    std::string text = std::to_string(value);
    if (text.size() < width) {
        text.insert(0, width - text.size(), '0');
    }
    return text;
}

// Duration as text. In `format` the first "hhh" becomes the hours at 3 digits (or, when
// there is no "hhh", the first "hh" at 2 digits), then the first "mm" the minutes, "ss" the
// seconds, and "ccc" the milliseconds at 3 digits (or, without "ccc", "cc" at 2 digits).
// Fields are widened rather than cut, so 1000 hours and 123 ms under "cc" show in full. A
// negative duration gets "-" in front of the whole text.
std::string toString(const std::string& format, std::chrono::nanoseconds d);

// Calendar time as text, in UTC or in local time. In `format` the first "dd" (day of the
// month), "MM" (month 1-12), "yyyy" (year), "hhh" (hour at 3 digits) or else "hh" (hour),
// "mm" (minute) and "ss" (second) are replaced, in that order. Returns the format
// unchanged when `t` cannot be broken down.
std::string toString(const std::string& format, const time_t& t, bool utc);

}  // namespace KVSDK
