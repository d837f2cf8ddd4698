#pragma once

// The player's console: the live statistics line and the messages printed around it.

#include <glib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <string>

namespace kv_asi_play {

class console {
public:
    console() : m_bTty(isatty(STDOUT_FILENO) != 0) {}

    // One message line on stdout (or stderr), clearing and redrawing the live line.
    void message(const std::string& text, bool bError = false) {
        std::lock_guard<std::mutex> lock(m_cs);
        clear_live();
        std::FILE* f = bError ? stderr : stdout;
        std::fputs(text.c_str(), f);
        if (text.empty() || text.back() != '\n') {
            std::fputc('\n', f);
        }
        std::fflush(f);
        draw_live();
    }

    // The statistics line: rewritten in place on a terminal, one line each otherwise.
    void status(const std::string& line) {
        std::lock_guard<std::mutex> lock(m_cs);
        if (!m_bTty) {
            std::printf("%s\n", line.c_str());
            std::fflush(stdout);
            return;
        }
        m_strLive = line;
        winsize ws;
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 1 &&
            m_strLive.size() >= ws.ws_col) {
            m_strLive.resize(ws.ws_col - 1);
        }
        clear_live();
        draw_live();
    }

    // Leaves the live line standing and moves below it.
    void finish() {
        std::lock_guard<std::mutex> lock(m_cs);
        if (m_bTty && !m_strLive.empty()) {
            std::fputc('\n', stdout);
            std::fflush(stdout);
        }
        m_strLive.clear();
    }

private:
    void clear_live() {
        if (m_bTty && !m_strLive.empty()) {
            std::fputs("\r\033[K", stdout);
        }
    }
    void draw_live() {
        if (m_bTty && !m_strLive.empty()) {
            std::fputs(m_strLive.c_str(), stdout);
            std::fflush(stdout);
        }
    }

    std::mutex m_cs;
    const bool m_bTty;
    std::string m_strLive;
};

// The one console of the program.
console& out();
// "kv-asi-play: text" as a message, on standard output or, for a failure, standard error.
void say(const std::string& text);
void fail(const std::string& text);
// The element's own diagnostics (g_print) go through the console too.
void print_handler(const gchar* text);

}  // namespace kv_asi_play
