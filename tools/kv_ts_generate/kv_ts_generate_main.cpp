// kv-ts-generate: writes a constant-rate test transport stream (see --help).
#include <cstdio>
#include <string>
#include <vector>

#include "kv_ts_generator.h"

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    return kv_ts_generate::run(args, stderr);
}
