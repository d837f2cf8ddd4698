// Throughput of the base parser, in packets per second, over real captures held in
// memory and fed in 4096-byte chunks (the default block size of GStreamer's file source),
// so that partial packets are carried between calls as in play-out. One benchmark per
// capture; BM_ParserLargestCapture is the figure that the 3 M packets/s target applies
// to.
//
//   bench_parser [benchmark options]     the Google Benchmark run
//   bench_parser --loop FILE N           parses FILE N times the same way and prints the
//                                        packet count, for timing from outside
//                                        (scripts/bench-parser)

#include <benchmark/benchmark.h>
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "mpegcore/BaseMpegParser.h"

namespace {

constexpr size_t kChunk = 4096;

std::vector<uint8_t> load(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// Parses `ts` once in kChunk pieces; returns the packets framed.
size_t parse(mpegcore::CBaseMpegParser& parser, const std::vector<uint8_t>& ts) {
    size_t consumed = 0;
    for (size_t at = 0; at < ts.size(); at += kChunk) {
        consumed += parser.Process(ts.data() + at, std::min(kChunk, ts.size() - at));
    }
    return consumed / mpegcore::TS_PACKET_SIZE;
}

void BM_Parser(benchmark::State& state, const std::string& path) {
    const std::vector<uint8_t> ts = load(path);
    if (ts.size() < mpegcore::TS_PACKET_SIZE) {
        state.SkipWithError(("cannot read " + path).c_str());
        return;
    }
    // One parser for the whole run: after the first pass its tables are known, as in a
    // long play-out.
    mpegcore::CBaseMpegParser parser(true);
    size_t packets = 0;
    for (auto _ : state) {
        packets += parse(parser, ts);
    }
    state.SetItemsProcessed(static_cast<int64_t>(packets));
    state.SetBytesProcessed(static_cast<int64_t>(packets * mpegcore::TS_PACKET_SIZE));
}

std::vector<std::string> captures() {
    std::vector<std::string> names;
    if (DIR* dir = opendir(KV_CORPUS_DIR)) {
        while (dirent* e = readdir(dir)) {
            const std::string name = e->d_name;
            if (name.size() > 3 && name.compare(name.size() - 3, 3, ".ts") == 0) {
                names.push_back(name);
            }
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

int loop(const char* path, long n) {
    const std::vector<uint8_t> ts = load(path);
    if (ts.empty() || n <= 0) {
        std::fprintf(stderr, "bench_parser: cannot read %s or bad count\n", path);
        return 2;
    }
    mpegcore::CBaseMpegParser parser(true);
    size_t packets = 0;
    for (long i = 0; i < n; ++i) {
        packets += parse(parser, ts);
    }
    std::printf("packets %zu\n", packets);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--loop") {
        return loop(argv[2], std::atol(argv[3]));
    }
    std::string largest;
    long largest_size = -1;
    for (const std::string& name : captures()) {
        const std::string path = std::string(KV_CORPUS_DIR) + "/" + name;
        std::ifstream in(path, std::ios::binary | std::ios::ate);
        const long size = static_cast<long>(in.tellg());
        if (size > largest_size) {
            largest_size = size;
            largest = path;
        }
        benchmark::RegisterBenchmark(("BM_Parser/" + name).c_str(), BM_Parser, path);
    }
    if (!largest.empty()) {
        benchmark::RegisterBenchmark("BM_ParserLargestCapture", BM_Parser, largest);
    } else {
        std::fprintf(stderr, "bench_parser: no captures in %s\n", KV_CORPUS_DIR);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
