#include "kv_dvb_text.h"

#include <cstddef>
#include <cstdint>

namespace kv_ts_inspect {

namespace {

// Length of the well-formed UTF-8 sequence at `s` (no overlong forms, no surrogates,
// nothing above U+10FFFF), or 0 when there is none.
size_t utf8_sequence(const uint8_t* s, size_t n) {
    const uint8_t c = s[0];
    size_t extra = 0;
    uint8_t lo = 0x80, hi = 0xBF;  // range of the first continuation byte
    if (c < 0x80) {
        return 1;
    } else if (c >= 0xC2 && c <= 0xDF) {
        extra = 1;
    } else if (c >= 0xE0 && c <= 0xEF) {
        extra = 2;
        lo = c == 0xE0 ? 0xA0 : 0x80;
        hi = c == 0xED ? 0x9F : 0xBF;
    } else if (c >= 0xF0 && c <= 0xF4) {
        extra = 3;
        lo = c == 0xF0 ? 0x90 : 0x80;
        hi = c == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (n <= extra || s[1] < lo || s[1] > hi) {
        return 0;
    }
    for (size_t k = 2; k <= extra; ++k) {
        if ((s[k] & 0xC0) != 0x80) {
            return 0;
        }
    }
    return extra + 1;
}

}  // namespace

std::string dvb_text(const std::string& bytes) {
    const auto* s = reinterpret_cast<const uint8_t*>(bytes.data());
    const size_t n = bytes.size();
    std::string out;
    out.reserve(2 * n);
    if (n > 0 && s[0] == 0x15) {
        out += '\x15';
        for (size_t i = 1; i < n;) {
            const size_t k = utf8_sequence(s + i, n - i);
            if (k == 0) {
                out += "\xEF\xBF\xBD";  // U+FFFD in place of a byte that is not UTF-8
                ++i;
            } else {
                out.append(bytes, i, k);
                i += k;
            }
        }
    } else {
        for (size_t i = 0; i < n; ++i) {
            if (s[i] < 0x80) {
                out += static_cast<char>(s[i]);
            } else {
                // U+0080..U+00FF in UTF-8.
                out += static_cast<char>(0xC0 | (s[i] >> 6));
                out += static_cast<char>(0x80 | (s[i] & 0x3F));
            }
        }
    }
    return out;
}

}  // namespace kv_ts_inspect
