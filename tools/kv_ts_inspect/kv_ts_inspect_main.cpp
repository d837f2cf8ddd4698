// kv-ts-inspect [--summary-only] FILE|-
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kv_ts_inspector.h"

int main(int argc, char** argv) {
    // Standard output carries nothing but JSON lines. The core prints its one diagnostic
    // line to standard output, so that stream is pointed at standard error and the JSON
    // goes to the original standard output through a stream of its own.
    std::fflush(stdout);
    const int json_fd = ::dup(1);
    std::FILE* json = json_fd >= 0 ? ::fdopen(json_fd, "w") : nullptr;
    if (json == nullptr || ::dup2(2, 1) < 0) {
        std::perror("kv-ts-inspect: standard output");
        return 2;
    }
    const std::vector<std::string> args(argv + 1, argv + argc);
    const int status = kv_ts_inspect::run(args, json, stderr);
    std::fclose(json);
    return status;
}
