#include "kv_asi_renderer/kv_asi_messages.h"

#include <glib.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

std::string kv_errno_text(int nErrno) {
    return nErrno != 0 ? std::string(g_strerror(nErrno)) : std::string("unknown error");
}

std::string kv_errno_hint(int nErrno) {
    switch (nErrno) {
        case EACCES:
        case EPERM:
            return "the user needs access to the device node, e.g. membership of the video group";
        case ENOENT:
            return "check the \"v4l2\" property and that the board's driver is loaded";
        case ENODEV:
        case ENXIO:
            return "the board or its driver went away; see the kernel log (dmesg)";
        case EBUSY:
            return "another program is using the device";
        case ENOMEM:
            return "the system is short of memory for the device's buffers";
        case EIO:
            return "the board reported a fault; see the kernel log (dmesg)";
        case EINVAL:
        case ENOTTY:
            return "the driver refused the request: is this node an ASI output?";
        default:
            return std::string();
    }
}

void kv_print_limiter::print(const char* fmt, ...) {
    char line[512];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(line, sizeof(line), fmt, args);
    va_end(args);
    // The line without its numbers says what it is about: "skip pkt = 3" repeats
    // "skip pkt = 16", while two different error texts are two lines.
    char key[kKeySize] = {};
    for (size_t i = 0, k = 0; line[i] != '\0' && k + 1 < kKeySize; ++i) {
        if (line[i] < '0' || line[i] > '9') {
            key[k++] = line[i];
        }
    }

    const auto now = std::chrono::steady_clock::now();
    uint64_t nHeld = 0;
    double dSince = 0;
    {
        std::lock_guard<std::mutex> lock(m_cs);
        // The line's slot, else a free one, else the one quiet for longest.
        slot* s = nullptr;
        slot* oldest = &m_slots[0];
        for (slot& c : m_slots) {
            if (c.bUsed && std::strcmp(c.key, key) == 0) {
                s = &c;
                break;
            }
            if (!c.bUsed || (oldest->bUsed && c.tLast < oldest->tLast)) {
                oldest = &c;
            }
        }
        if (s == nullptr) {
            s = oldest;
            *s = slot{};
            s->bUsed = true;
            std::memcpy(s->key, key, sizeof(key));
        } else if (now - s->tLast < kInterval) {
            ++s->nHeld;
            ++m_nSuppressed;
            return;
        }
        nHeld = s->nHeld;
        dSince = std::chrono::duration<double>(now - s->tLast).count();
        s->nHeld = 0;
        s->tLast = now;
    }
    if (nHeld == 0) {
        g_print("%s", line);
        return;
    }
    // The count goes before the line's own end.
    size_t n = std::strlen(line);
    const bool bNewline = n > 0 && line[n - 1] == '\n';
    if (bNewline) {
        line[--n] = '\0';
    }
    g_print("%s [%llu more in %.1f s]%s", line, static_cast<unsigned long long>(nHeld), dSince,
            bNewline ? "\n" : "");
}

uint64_t kv_print_limiter::get_suppressed() const {
    std::lock_guard<std::mutex> lock(m_cs);
    return m_nSuppressed;
}
