#include "kv_play_console.h"

#include "kv_play_options.h"

namespace kv_asi_play {

console& out() {
    static console c;
    return c;
}

void say(const std::string& text) {
    out().message(std::string(kProgram) + ": " + text);
}

void fail(const std::string& text) {
    out().message(std::string(kProgram) + ": " + text, true);
}

void print_handler(const gchar* text) {
    out().message(text);
}

}  // namespace kv_asi_play
