#pragma once

// A strict JSON reader for the inspector's tests: only RFC 8259 documents parse, so a line
// the inspector gets wrong fails. Numbers are doubles (exact for every integer written).

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace inspect_test {

struct Json {
    enum Kind { Null, Bool, Number, String, Array, Object } kind = Null;
    double number = 0;  // 0 or 1 for a Bool
    std::string text;   // UTF-8
    std::vector<Json> items;
    std::vector<std::pair<std::string, Json>> members;

    // A missing member or item reads as null.
    const Json& operator[](const std::string& key) const {
        for (const auto& m : members) {
            if (m.first == key) {
                return m.second;
            }
        }
        return none();
    }
    const Json& operator[](size_t i) const { return i < items.size() ? items[i] : none(); }
    bool has(const std::string& key) const { return &(*this)[key] != &none(); }
    uint64_t u() const { return static_cast<uint64_t>(number); }
    static const Json& none() {
        static const Json n;
        return n;
    }
};

class JsonReader {
public:
    explicit JsonReader(const std::string& s) : m_s(s) {}
    bool document(Json& out) { return value(out, 0) && (space(), m_at == m_s.size()); }

private:
    char peek() const { return m_at < m_s.size() ? m_s[m_at] : '\0'; }
    void space() {
        while (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r') {
            ++m_at;
        }
    }
    bool eat(char c) {
        space();
        if (peek() != c) {  // never '\0'
            return false;
        }
        ++m_at;
        return true;
    }
    bool digits() {
        const size_t from = m_at;
        while (peek() >= '0' && peek() <= '9') {
            ++m_at;
        }
        return m_at > from;
    }
    bool string(std::string& out) {
        static const char kEscape[] = "\"\\/bfnrt", kValue[] = "\"\\/\b\f\n\r\t";
        if (!eat('"')) {
            return false;
        }
        while (m_at < m_s.size()) {
            const unsigned char c = m_s[m_at++];
            if (c == '"' || c < 0x20) {
                return c == '"';
            }
            if (c != '\\') {
                out += char(c);
                continue;
            }
            const char e = peek();
            if (const char* p = e != '\0' ? std::strchr(kEscape, e) : nullptr) {
                out += kValue[p - kEscape];
                ++m_at;
                continue;
            }
            if (e != 'u' || m_at + 5 > m_s.size() ||
                m_s.find_first_not_of("0123456789abcdefABCDEF", m_at + 1) < m_at + 5) {
                return false;
            }
            // One code point below U+10000: the inspector writes no surrogate pairs.
            const unsigned code =
                unsigned(std::strtoul(m_s.substr(m_at + 1, 4).c_str(), nullptr, 16));
            m_at += 5;
            if (code < 0x80) {
                out += char(code);
            } else if (code < 0x800) {
                out += {char(0xC0 | code >> 6), char(0x80 | (code & 0x3F))};
            } else {
                out += {char(0xE0 | code >> 12), char(0x80 | (code >> 6 & 0x3F)),
                        char(0x80 | (code & 0x3F))};
            }
        }
        return false;
    }
    bool value(Json& v, int depth) {
        space();
        if (depth > 64) {
            return false;
        }
        if (peek() == '{' || peek() == '[') {
            const bool object = m_s[m_at++] == '{';
            const char close = object ? '}' : ']';
            v.kind = object ? Json::Object : Json::Array;
            if (eat(close)) {
                return true;
            }
            do {
                std::pair<std::string, Json> m;
                if ((object && !(string(m.first) && eat(':'))) || !value(m.second, depth + 1)) {
                    return false;
                }
                if (object) {
                    v.members.push_back(std::move(m));
                } else {
                    v.items.push_back(std::move(m.second));
                }
            } while (eat(','));
            return eat(close);
        }
        if (peek() == '"') {
            v.kind = Json::String;
            return string(v.text);
        }
        for (const char* word : {"null", "false", "true"}) {
            if (m_s.compare(m_at, std::strlen(word), word) == 0) {
                m_at += std::strlen(word);
                v.kind = *word == 'n' ? Json::Null : Json::Bool;
                v.number = *word == 't';
                return true;
            }
        }
        // -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?
        const size_t start = m_at;
        if (peek() == '-') {
            ++m_at;
        }
        if (peek() == '0') {
            ++m_at;
        } else if (!digits()) {
            return false;
        }
        if (peek() == '.' && (++m_at, !digits())) {
            return false;
        }
        if (peek() == 'e' || peek() == 'E') {
            m_at += m_at + 1 < m_s.size() && (m_s[m_at + 1] == '+' || m_s[m_at + 1] == '-') ? 2 : 1;
            if (!digits()) {
                return false;
            }
        }
        v.kind = Json::Number;
        v.number = std::strtod(m_s.substr(start, m_at - start).c_str(), nullptr);
        return true;
    }

    const std::string& m_s;
    size_t m_at = 0;
};

inline bool parse_json(const std::string& text, Json& out) {
    out = Json();
    return JsonReader(text).document(out);
}

// The bytes of DVB text as the inspector writes it: one character per byte, or after a
// leading U+0015 the UTF-8 bytes as they stand.
inline std::string dvb_bytes(const std::string& utf8) {
    if (!utf8.empty() && utf8[0] == 0x15) {
        return utf8;
    }
    std::string out;
    for (size_t i = 0; i < utf8.size(); ++i) {
        const unsigned char c = utf8[i];
        if (c < 0x80) {
            out += char(c);
        } else if ((c & 0xE0) == 0xC0 && c <= 0xC3 && i + 1 < utf8.size()) {
            out += char((c & 0x03) << 6 | (utf8[++i] & 0x3F));
        } else {
            out += "<not a byte>";
        }
    }
    return out;
}

}  // namespace inspect_test
