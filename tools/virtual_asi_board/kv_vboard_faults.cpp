// The fault list the board reads from its configuration:
// "dqbuf:from=5:count=3;streamon:always;open:once;vanish:from=7".

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "kv_vboard_board.h"

namespace kvvb {

namespace {

struct call_name {
    const char* name;
    int call;  // -1: vanish
};
constexpr call_name kCallNames[] = {
    {"open", KV_VB_OPEN},
    {"g_fmt", KV_VB_G_FMT},
    {"s_fmt", KV_VB_S_FMT},
    {"reqbufs", KV_VB_REQBUFS},
    {"querybuf", KV_VB_QUERYBUF},
    {"mmap", KV_VB_MMAP},
    {"qbuf", KV_VB_QBUF},
    {"dqbuf", KV_VB_DQBUF},
    {"streamon", KV_VB_STREAMON},
    {"counter", KV_VB_COUNTER},
    {"vanish", -1},
};

struct errno_name {
    const char* name;
    int value;
};
constexpr errno_name kErrnoNames[] = {
    {"EIO", EIO},       {"EBUSY", EBUSY},   {"EINVAL", EINVAL},       {"ENODEV", ENODEV},
    {"ENOMEM", ENOMEM}, {"EAGAIN", EAGAIN}, {"EINTR", EINTR},         {"ENOENT", ENOENT},
    {"EPERM", EPERM},   {"EACCES", EACCES}, {"ETIMEDOUT", ETIMEDOUT}, {"EFAULT", EFAULT},
    {"ENOSPC", ENOSPC}, {"EPIPE", EPIPE},   {"ENXIO", ENXIO},
};

bool parse_u32(const std::string& s, uint32_t& out) {
    if (s.empty() || s.size() > 10) {
        return false;
    }
    uint64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') {
            return false;
        }
        v = v * 10 + uint64_t(c - '0');
    }
    if (v > 0xffffffffu) {
        return false;
    }
    out = uint32_t(v);
    return true;
}

std::vector<std::string> split(const std::string& s, char sep) {
    std::vector<std::string> parts;
    size_t begin = 0;
    for (;;) {
        const size_t end = s.find(sep, begin);
        parts.push_back(s.substr(begin, end == std::string::npos ? end : end - begin));
        if (end == std::string::npos) {
            return parts;
        }
        begin = end + 1;
    }
}

std::string trim(const std::string& s) {
    const size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) {
        return "";
    }
    return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

bool parse_entry(const std::string& entry, fault_set& out) {
    const std::vector<std::string> parts = split(entry, ':');
    int call = -2;
    for (const call_name& n : kCallNames) {
        if (parts[0] == n.name) {
            call = n.call;
        }
    }
    if (call == -2) {
        return false;
    }
    fault_rule rule;
    rule.active = true;
    bool bCountGiven = false;
    for (size_t i = 1; i < parts.size(); ++i) {
        const std::string& p = parts[i];
        const size_t eq = p.find('=');
        const std::string key = p.substr(0, eq);
        const std::string value = eq == std::string::npos ? "" : p.substr(eq + 1);
        if (p == "once") {
            rule.from = 1;
            rule.count = 1;
            bCountGiven = true;
        } else if (p == "always") {
            rule.from = 1;
            rule.count = 0;
            bCountGiven = true;
        } else if (key == "from" && parse_u32(value, rule.from) && rule.from > 0) {
        } else if (key == "count" && parse_u32(value, rule.count)) {
            bCountGiven = true;
        } else if (key == "err") {
            uint32_t number = 0;
            bool bFound = parse_u32(value, number) && number > 0 && number < 4096;
            rule.err = int(number);
            for (const errno_name& e : kErrnoNames) {
                if (value == e.name) {
                    rule.err = e.value;
                    bFound = true;
                }
            }
            if (!bFound) {
                return false;
            }
        } else {
            return false;
        }
    }
    if (!bCountGiven) {
        rule.count = 1;
    }
    if (call == -1) {
        out.vanish_from = rule.from;
    } else {
        out.rules[call] = rule;
    }
    return true;
}

}  // namespace

bool parse_faults(const std::string& text, fault_set& out, std::string& error) {
    bool bOk = true;
    for (const std::string& raw : split(text, ';')) {
        const std::string entry = trim(raw);
        if (entry.empty()) {
            continue;
        }
        if (!parse_entry(entry, out)) {
            if (bOk) {
                error = "unknown fault '" + entry + "'";
            }
            bOk = false;
        }
    }
    return bOk;
}

}  // namespace kvvb
