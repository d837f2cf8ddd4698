#include "kv_play_board.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "kv_play_console.h"

namespace kv_asi_play {

namespace {

// The node the virtual board answers for in a player of its own.
const char* const kBoardNode = "/dev/kvasi-play0";

std::string exe_dir() {
    char path[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0) {
        return ".";
    }
    path[n] = '\0';
    std::string s(path);
    const size_t slash = s.rfind('/');
    return slash == std::string::npos ? "." : s.substr(0, slash);
}

bool is_file(const std::string& path) {
    return !path.empty() && access(path.c_str(), R_OK) == 0;
}

std::string first_file(std::initializer_list<std::string> candidates) {
    for (const std::string& c : candidates) {
        if (is_file(c)) {
            return c;
        }
    }
    return "";
}

#ifndef KV_PLAY_BUILTIN_BOARD
std::string find_board_lib(const options& o) {
    if (!o.strBoardLib.empty()) {
        return o.strBoardLib;
    }
    const char* env = std::getenv("KV_VBOARD_LIB");
    return first_file({env != nullptr ? env : "",
                       exe_dir() + "/../virtual_asi_board/libkv_vboard.so", KV_PLAY_BOARD_LIB});
}
#endif

}  // namespace

std::string find_plugin(const options& o) {
    if (!o.strPlugin.empty()) {
        return o.strPlugin;
    }
    return first_file(
        {exe_dir() + "/../../kv_graph/kv_asi_renderer/libkv_asi_renderer.so", KV_PLAY_PLUGIN_FILE});
}

int run_on_virtual_board(const options& o, char** argv) {
#ifndef KV_PLAY_BUILTIN_BOARD
    const std::string lib = find_board_lib(o);
    if (!is_file(lib)) {
        fail("the virtual ASI board (libkv_vboard.so) was not found" +
             (lib.empty() ? std::string() : " at " + lib) +
             ": give --board-lib, or --device for a real board");
        return 1;
    }
    const char* preload = std::getenv("LD_PRELOAD");
    const std::string strPreload =
        lib + (preload != nullptr && *preload != '\0' ? ":" + std::string(preload) : "");
    setenv("LD_PRELOAD", strPreload.c_str(), 1);
    setenv(kBoardLibVar, lib.c_str(), 1);
#endif
    setenv("KV_VBOARD_NODES", kBoardNode, 1);
    if (!o.strCapture.empty()) {
        setenv("KV_VBOARD_CAPTURE", o.strCapture.c_str(), 1);
    }
    if (!o.strBoardStats.empty()) {
        setenv("KV_VBOARD_STATS", o.strBoardStats.c_str(), 1);
    }
    setenv(kBoardNodeVar, kBoardNode, 1);
    execv("/proc/self/exe", argv);
    fail(std::string("cannot start on the virtual board: ") + std::strerror(errno));
    return 1;
}

bool enter_virtual_board(std::string& node) {
    node = std::getenv(kBoardNodeVar);
    // The first call the board sees also makes it read its settings.
    const int fd = open(node.c_str(), O_RDWR);
    if (fd < 0) {
        fail("the virtual ASI board is not active: cannot open " + node + ": " +
             std::strerror(errno));
        return false;
    }
    close(fd);
    if (const char* lib = std::getenv(kBoardLibVar)) {
        const char* preload = std::getenv("LD_PRELOAD");
        std::string rest = preload != nullptr ? preload : "";
        const std::string prefix(lib);
        if (rest.compare(0, prefix.size(), prefix) == 0) {
            rest.erase(0, prefix.size());
            if (!rest.empty() && rest[0] == ':') {
                rest.erase(0, 1);
            }
        }
        if (rest.empty()) {
            unsetenv("LD_PRELOAD");
        } else {
            setenv("LD_PRELOAD", rest.c_str(), 1);
        }
    }
    for (const char* name : {"KV_VBOARD_NODES", "KV_VBOARD_CAPTURE", "KV_VBOARD_STATS",
                             "KV_VBOARD_FAULTS", kBoardNodeVar, kBoardLibVar}) {
        unsetenv(name);
    }
    return true;
}

}  // namespace kv_asi_play
