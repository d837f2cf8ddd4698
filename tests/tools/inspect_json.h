#pragma once

// A strict reader of the JSON objects the inspector writes: anything but one well-formed
// object in the subset it writes (no exponents, escapes \" \\ \n \r \t and \u00XX below
// 0x80, no repeated member) fails. The document becomes a flat map from paths to values:
// members by name and items by index, joined with '.' ("services.0.service_id"); strings
// unescaped, numbers and literals as written, containers as "{}" or "[]".

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace inspect_test {

using Json = std::map<std::string, std::string>;

// The value at `path`, or "" when there is none.
inline std::string at(const Json& j, const std::string& path) {
    const auto v = j.find(path);
    return v == j.end() ? std::string() : v->second;
}

class JsonReader {
public:
    JsonReader(const std::string& s, Json& out) : m_s(s), m_out(out) {}
    bool document() {
        return (space(), peek() == '{') && value("") && (space(), m_at == m_s.size());
    }

private:
    char peek() const { return m_at < m_s.size() ? m_s[m_at] : '\0'; }
    void space() { m_at = std::min(m_s.find_first_not_of(" \t\n\r", m_at), m_s.size()); }
    bool eat(char c) {
        space();
        return peek() == c && ++m_at != 0;
    }
    bool digits() {
        const size_t from = m_at;
        m_at = std::min(m_s.find_first_not_of("0123456789", m_at), m_s.size());
        return m_at > from;
    }
    bool string(std::string& out) {
        static const char kEscape[] = "\"\\nrt", kValue[] = "\"\\\n\r\t";
        if (!eat('"')) {
            return false;
        }
        while (m_at < m_s.size()) {
            const unsigned char c = m_s[m_at++];
            const char* e = peek() != '\0' ? std::strchr(kEscape, peek()) : nullptr;
            if (c == '"' || c < 0x20) {
                return c == '"';
            } else if (c != '\\') {
                out += char(c);
            } else if (e != nullptr) {
                out += kValue[e - kEscape];
                ++m_at;
            } else if (m_s.compare(m_at, 3, "u00") == 0 && m_at + 5 <= m_s.size() &&
                       m_s.find_first_not_of("0123456789abcdef", m_at + 3) >= m_at + 5 &&
                       m_s[m_at + 3] < '8') {
                out += char(std::strtoul(m_s.substr(m_at + 3, 2).c_str(), nullptr, 16));
                m_at += 5;
            } else {
                return false;
            }
        }
        return false;
    }
    bool value(const std::string& path) {
        space();
        const auto slot = m_out.emplace(path, std::string());
        if (!slot.second) {
            return false;
        }
        std::string& text = slot.first->second;
        if (peek() == '{' || peek() == '[') {
            const bool object = m_s[m_at++] == '{';
            const char close = object ? '}' : ']';
            text = object ? "{}" : "[]";
            if (eat(close)) {
                return true;
            }
            for (size_t i = 0;; ++i) {
                std::string key = object ? "" : std::to_string(i);
                if ((object && !(string(key) && eat(':'))) ||
                    !value(path.empty() ? key : path + "." + key)) {
                    return false;
                }
                if (!eat(',')) {
                    return eat(close);
                }
            }
        }
        if (peek() == '"') {
            return string(text);
        }
        for (const char* word : {"null", "false", "true"}) {
            if (m_s.compare(m_at, std::strlen(word), word) == 0) {
                m_at += std::strlen(word);
                text = word;
                return true;
            }
        }
        // -?(0|[1-9][0-9]*)(\.[0-9]+)?
        const size_t start = m_at;
        m_at += peek() == '-';
        if ((peek() == '0' ? (++m_at, false) : !digits()) ||
            (peek() == '.' && (++m_at, !digits()))) {
            return false;
        }
        text = m_s.substr(start, m_at - start);
        return true;
    }

    const std::string& m_s;
    Json& m_out;
    size_t m_at = 0;
};

inline bool parse_json(const std::string& text, Json& out) {
    out.clear();
    return JsonReader(text, out).document();
}

}  // namespace inspect_test
