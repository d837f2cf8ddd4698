#include "kv_json_writer.h"

#include <cmath>
#include <cstdio>

namespace kv_ts_inspect {

namespace {

const char kHex[] = "0123456789abcdef";

void append_escape(std::string& out, unsigned code) {
    out += "\\u00";
    out += kHex[(code >> 4) & 0xF];
    out += kHex[code & 0xF];
}

// Escapes what JSON requires (and DEL); every other byte is copied.
void append_escaped_byte(std::string& out, uint8_t c) {
    switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (c < 0x20 || c == 0x7F) {
                append_escape(out, c);
            } else {
                out += static_cast<char>(c);
            }
    }
}

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

void append_json_string(std::string& out, const std::string& text) {
    out += '"';
    for (char c : text) {
        append_escaped_byte(out, static_cast<uint8_t>(c));
    }
    out += '"';
}

void append_dvb_text(std::string& out, const std::string& bytes) {
    const auto* s = reinterpret_cast<const uint8_t*>(bytes.data());
    const size_t n = bytes.size();
    out += '"';
    if (n > 0 && s[0] == 0x15) {
        append_escape(out, 0x15);
        for (size_t i = 1; i < n;) {
            const size_t k = utf8_sequence(s + i, n - i);
            if (k == 0) {
                out += "\xEF\xBF\xBD";  // U+FFFD in place of a byte that is not UTF-8
                ++i;
            } else if (k == 1) {
                append_escaped_byte(out, s[i++]);
            } else {
                out.append(bytes, i, k);
                i += k;
            }
        }
    } else {
        for (size_t i = 0; i < n; ++i) {
            if (s[i] < 0x80) {
                append_escaped_byte(out, s[i]);
            } else {
                // U+0080..U+00FF in UTF-8.
                out += static_cast<char>(0xC0 | (s[i] >> 6));
                out += static_cast<char>(0x80 | (s[i] & 0x3F));
            }
        }
    }
    out += '"';
}

void json_writer::element(const char* key) {
    if (!m_bFirst.empty()) {
        if (!m_bFirst.back()) {
            m_out += ',';
        }
        m_bFirst.back() = false;
    }
    if (key != nullptr) {
        append_json_string(m_out, key);
        m_out += ':';
    }
}

json_writer& json_writer::begin_object(const char* key) {
    element(key);
    m_out += '{';
    m_bFirst.push_back(true);
    return *this;
}

json_writer& json_writer::end_object() {
    m_out += '}';
    m_bFirst.pop_back();
    return *this;
}

json_writer& json_writer::begin_array(const char* key) {
    element(key);
    m_out += '[';
    m_bFirst.push_back(true);
    return *this;
}

json_writer& json_writer::end_array() {
    m_out += ']';
    m_bFirst.pop_back();
    return *this;
}

json_writer& json_writer::number(const char* key, uint64_t value) {
    element(key);
    m_out += std::to_string(value);
    return *this;
}

json_writer& json_writer::number(const char* key, int64_t value) {
    element(key);
    m_out += std::to_string(value);
    return *this;
}

json_writer& json_writer::real(const char* key, double value, int decimals) {
    element(key);
    if (!std::isfinite(value)) {
        m_out += "null";
        return *this;
    }
    char text[400];  // room for any finite double in fixed notation
    std::snprintf(text, sizeof text, "%.*f",
                  decimals < 0    ? 0
                  : decimals > 17 ? 17
                                  : decimals,
                  value);
    m_out += text;
    return *this;
}

json_writer& json_writer::boolean(const char* key, bool value) {
    element(key);
    m_out += value ? "true" : "false";
    return *this;
}

json_writer& json_writer::string(const char* key, const std::string& value) {
    element(key);
    append_json_string(m_out, value);
    return *this;
}

json_writer& json_writer::dvb_text(const char* key, const std::string& bytes) {
    element(key);
    append_dvb_text(m_out, bytes);
    return *this;
}

json_writer& json_writer::hex(const char* key, const uint8_t* data, size_t size) {
    element(key);
    m_out += '"';
    for (size_t i = 0; i < size; ++i) {
        m_out += kHex[data[i] >> 4];
        m_out += kHex[data[i] & 0xF];
    }
    m_out += '"';
    return *this;
}

void json_writer::clear() {
    m_out.clear();
    m_bFirst.clear();
}

}  // namespace kv_ts_inspect
