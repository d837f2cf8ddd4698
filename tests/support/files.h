#pragma once

// Files for the tests: whole files in and out, and paths of their own under TMPDIR.

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace kvtest {

inline std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

inline void write_file(const std::string& path, const std::vector<uint8_t>& data) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
}

// A path of this process's own in TMPDIR (or /tmp).
inline std::string temp_path(const std::string& name) {
    const char* dir = std::getenv("TMPDIR");
    return std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/kv_test_" +
           std::to_string(getpid()) + "_" + name;
}

}  // namespace kvtest
