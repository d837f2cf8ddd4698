#pragma once
// The emulated board shared by the device, engine, element and end-to-end tests, counts of
// what the process still holds (descriptors, threads, buffer mappings) for leak checks,
// and the liveness wait they all use.

#include <dirent.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "kv_asi_renderer/kv_v4l2_asi_output_device.h"
#include "kv_vboard.h"

constexpr uint64_t kFrame = 200000;  // 100 ns units per 1/50 s frame
constexpr uint64_t kBufferBytes = 675000;

// Entries of a /proc/self directory: open descriptors ("fd") or threads ("task").
inline int proc_self_count(const char* what) {
    int n = 0;
    if (DIR* d = opendir((std::string("/proc/self/") + what).c_str())) {
        while (dirent* e = readdir(d)) {
            n += e->d_name[0] != '.';
        }
        closedir(d);
    }
    return n;
}

inline int open_fd_count() {
    return proc_self_count("fd") - 1;  // the directory stream itself
}
inline int thread_count() {
    return proc_self_count("task");
}

// Polls cond until it holds or a deadline generous even for a sanitized build on a loaded
// machine passes. Only for liveness: nothing here measures speed.
inline bool eventually(const std::function<bool()>& cond,
                       std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Host mappings of the board's buffer memory still in place.
inline int board_mapping_count() {
    int n = 0;
    if (FILE* f = std::fopen("/proc/self/maps", "r")) {
        char line[1024];
        while (std::fgets(line, sizeof(line), f)) {
            n += std::strstr(line, "kv_vboard_buffers") != nullptr;
        }
        std::fclose(f);
    }
    return n;
}

// Adds (or replaces) the board answering for `node`; a free-running board sends a frame
// as soon as a buffer is queued, a paced one follows its clock.
inline void add_vboard(const char* node, bool mplane, bool freerun, uint32_t first_sequence = 2,
                       uint32_t sizeimage = 675000, const std::string& capture = "") {
    kv_vboard_config cfg;
    kv_vboard_default_config(&cfg);
    std::snprintf(cfg.node, sizeof(cfg.node), "%s", node);
    std::snprintf(cfg.capture, sizeof(cfg.capture), "%s", capture.c_str());
    cfg.mplane = mplane;
    cfg.freerun = freerun;
    cfg.first_sequence = first_sequence;
    cfg.sizeimage = sizeimage;
    ASSERT_EQ(kv_vboard_add(&cfg), 0);
}

inline kv_vboard_counters board_counters(const char* node) {
    kv_vboard_counters c{};
    EXPECT_EQ(kv_vboard_get_counters(node, &c), 0);
    return c;
}

struct BoardMode {
    bool mplane;
    bool freerun;
};

inline std::string mode_name(const testing::TestParamInfo<BoardMode>& info) {
    return std::string(info.param.mplane ? "Mplane" : "Splane") +
           (info.param.freerun ? "Freerun" : "Paced");
}

inline const BoardMode kAllModes[] = {{false, false}, {false, true}, {true, false}, {true, true}};

// One device on one board, in every mode.
class BoardTest : public testing::TestWithParam<BoardMode> {
protected:
    static constexpr const char* kNode = "/dev/kvasi-device-test";

    void SetUp() override { add_board(); }
    void TearDown() override {
        dev.close_device();
        kv_vboard_remove_all();
    }
    void add_board(uint32_t first_sequence = 2, uint32_t sizeimage = 675000) {
        add_vboard(kNode, GetParam().mplane, GetParam().freerun, first_sequence, sizeimage);
    }
    kv_vboard_counters counters() { return board_counters(kNode); }

    // Maps and queues buffer after buffer; true when every call succeeded.
    bool cycle(int buffers, uint64_t* begin = nullptr) {
        for (int i = 0; i < buffers; ++i) {
            uint64_t b = 0, e = 0, size = 0;
            uint8_t* data = nullptr;
            if (!dev.map(b, e, &data, size) || !dev.unmap()) {
                return false;
            }
            if (begin != nullptr) {
                *begin = b;
            }
        }
        return true;
    }
    bool prime() { return cycle(6); }

    kv_v4l2_asi_output_device dev;
};
