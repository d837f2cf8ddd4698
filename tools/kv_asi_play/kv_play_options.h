#pragma once

// The player's command line.

#include <glib.h>

#include <string>

namespace kv_asi_play {

constexpr const char* kProgram = "kv-asi-play";

struct options {
    std::string strSource;
    std::string strDevice;
    bool bBufferSize = false;
    guint nBufferSize = 0;
    bool bLatency = false;
    guint nLatency = 0;
    int nPll = -1;  // -1: left to the element
    guint nTimeControl = 0;
    bool bResetWhenEmpty = false;
    std::string strAlarmSource = kProgram;
    bool bLoop = false;
    double dDuration = 0;
    std::string strIface;
    std::string strCapture;
    std::string strBoardStats;
    std::string strBoardLib;
    std::string strPlugin;
};

bool is_udp(const std::string& source);
// udp://ADDRESS:PORT (ADDRESS may be a bracketed IPv6 address), port 1..65535.
bool valid_udp_uri(const std::string& uri);

// Returns -1 to go on, else the exit status once the help, the version or an error was
// printed.
int parse_options(int argc, char** argv, options& o);

}  // namespace kv_asi_play
