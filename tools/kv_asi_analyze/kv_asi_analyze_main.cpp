// kv-asi-analyze CAPTURE [--source FILE.ts] [--json] [--max-pcr-ac NS]
#include <cstdio>
#include <string>
#include <vector>

#include "kv_asi_analyzer.h"

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    std::string out, err;
    const int status = kv_asi_analyze::run(args, out, err);
    fputs(out.c_str(), stdout);
    fputs(err.c_str(), stderr);
    return status;
}
