#pragma once

// A strict JSON reader for the inspector's tests: it accepts exactly RFC 8259 documents
// (one value, optional white space around it), so a line the inspector gets wrong fails
// to parse. Numbers are kept as double (exact for every integer the inspector writes).

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace inspect_test {

struct Json {
    enum Kind { Null, Bool, Number, String, Array, Object } kind = Null;
    bool boolean = false;
    double number = 0;
    std::string text;  // UTF-8
    std::vector<Json> items;
    std::vector<std::pair<std::string, Json>> members;

    bool has(const std::string& key) const {
        for (const auto& m : members) {
            if (m.first == key) {
                return true;
            }
        }
        return false;
    }
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
    uint64_t u() const { return static_cast<uint64_t>(number); }
    static const Json& none() {
        static const Json n;
        return n;
    }
};

class JsonParser {
public:
    explicit JsonParser(const std::string& s) : m_s(s) {}

    bool parse(Json& out) { return value(out, 0) && (space(), m_at == m_s.size()); }

private:
    void space() {
        while (m_at < m_s.size() &&
               (m_s[m_at] == ' ' || m_s[m_at] == '\t' || m_s[m_at] == '\n' || m_s[m_at] == '\r')) {
            ++m_at;
        }
    }
    bool eat(char c) {
        space();
        if (m_at < m_s.size() && m_s[m_at] == c) {
            ++m_at;
            return true;
        }
        return false;
    }
    bool word(const char* w) {
        const std::string s(w);
        if (m_s.compare(m_at, s.size(), s) != 0) {
            return false;
        }
        m_at += s.size();
        return true;
    }
    static void utf8(std::string& out, unsigned c) {
        if (c < 0x80) {
            out += char(c);
        } else if (c < 0x800) {
            out += char(0xC0 | c >> 6), out += char(0x80 | (c & 0x3F));
        } else {
            out += char(0xE0 | c >> 12), out += char(0x80 | (c >> 6 & 0x3F)),
                out += char(0x80 | (c & 0x3F));
        }
    }
    bool string(std::string& out) {
        if (!eat('"')) {
            return false;
        }
        while (m_at < m_s.size()) {
            const unsigned char c = m_s[m_at++];
            if (c == '"') {
                return true;
            }
            if (c < 0x20) {
                return false;
            }
            if (c != '\\') {
                out += char(c);
                continue;
            }
            if (m_at >= m_s.size()) {
                return false;
            }
            const char e = m_s[m_at++];
            const char* simple = "\"\\/bfnrt";
            const char* value = "\"\\/\b\f\n\r\t";
            bool found = false;
            for (int i = 0; simple[i]; ++i) {
                if (e == simple[i]) {
                    out += value[i];
                    found = true;
                }
            }
            if (found) {
                continue;
            }
            if (e != 'u' || m_at + 4 > m_s.size()) {
                return false;
            }
            unsigned code = 0;
            for (int i = 0; i < 4; ++i) {
                const char h = m_s[m_at++];
                const int d = h >= '0' && h <= '9'   ? h - '0'
                              : h >= 'a' && h <= 'f' ? h - 'a' + 10
                              : h >= 'A' && h <= 'F' ? h - 'A' + 10
                                                     : -1;
                if (d < 0) {
                    return false;
                }
                code = code * 16 + unsigned(d);
            }
            utf8(out, code);  // the inspector never writes surrogate pairs
        }
        return false;
    }
    bool value(Json& v, int depth) {
        space();
        if (m_at >= m_s.size() || depth > 64) {
            return false;
        }
        const char c = m_s[m_at];
        if (c == '{') {
            ++m_at;
            v.kind = Json::Object;
            if (eat('}')) {
                return true;
            }
            do {
                std::string key;
                Json member;
                if (!string(key) || !eat(':') || !value(member, depth + 1)) {
                    return false;
                }
                v.members.emplace_back(std::move(key), std::move(member));
            } while (eat(','));
            return eat('}');
        }
        if (c == '[') {
            ++m_at;
            v.kind = Json::Array;
            if (eat(']')) {
                return true;
            }
            do {
                v.items.emplace_back();
                if (!value(v.items.back(), depth + 1)) {
                    return false;
                }
            } while (eat(','));
            return eat(']');
        }
        if (c == '"') {
            v.kind = Json::String;
            return string(v.text);
        }
        if (word("true") || word("false")) {
            v.kind = Json::Bool;
            v.boolean = c == 't';
            return true;
        }
        if (word("null")) {
            return true;
        }
        // -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?
        const size_t start = m_at;
        auto digits = [&] {
            const size_t from = m_at;
            while (m_at < m_s.size() && m_s[m_at] >= '0' && m_s[m_at] <= '9') {
                ++m_at;
            }
            return m_at > from;
        };
        if (m_s[m_at] == '-') {
            ++m_at;
        }
        if (m_at < m_s.size() && m_s[m_at] == '0') {
            ++m_at;
        } else if (!digits()) {
            return false;
        }
        if (m_at < m_s.size() && m_s[m_at] == '.' && (++m_at, !digits())) {
            return false;
        }
        if (m_at < m_s.size() && (m_s[m_at] == 'e' || m_s[m_at] == 'E')) {
            ++m_at;
            if (m_at < m_s.size() && (m_s[m_at] == '+' || m_s[m_at] == '-')) {
                ++m_at;
            }
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
    return JsonParser(text).parse(out);
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
