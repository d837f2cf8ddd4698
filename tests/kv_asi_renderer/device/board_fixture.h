#pragma once

#include <dirent.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <ostream>
#include <string>

#include "kv_asi_renderer/kv_v4l2_asi_output_device.h"
#include "kv_vboard.h"

// How the emulated board is built: multi-planar only or not, paced by its clock or
// free-running (a frame leaves as soon as a buffer is queued).
struct BoardMode {
    bool mplane;
    bool freerun;
};

inline void PrintTo(const BoardMode& m, std::ostream* os) {
    *os << (m.mplane ? "multi-planar" : "single-plane")
        << (m.freerun ? ", free-running" : ", paced");
}

inline std::string mode_name(const testing::TestParamInfo<BoardMode>& info) {
    return std::string(info.param.mplane ? "Mplane" : "Splane") +
           (info.param.freerun ? "Freerun" : "Paced");
}

inline const BoardMode kAllModes[] = {{false, false}, {false, true}, {true, false}, {true, true}};

constexpr uint64_t kFrame = 200000;  // 100 ns units per 1/50 s frame
constexpr uint64_t kBufferBytes = 675000;

// Open descriptors of this process.
inline int open_fd_count() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (dirent* e = readdir(d)) {
            n += e->d_name[0] != '.';
        }
        closedir(d);
    }
    return n - 1;  // the directory stream itself
}

// Host mappings of the board's buffer memory still in place (the board's own view
// of it goes away with its buffers when the node is closed).
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

class BoardTest : public testing::TestWithParam<BoardMode> {
protected:
    static constexpr const char* kNode = "/dev/kvasi-device-test";

    void SetUp() override { add_board(); }
    void TearDown() override {
        dev.close_device();
        kv_vboard_remove_all();
    }

    void add_board(uint32_t first_sequence = 2, uint32_t sizeimage = 675000) {
        kv_vboard_config cfg;
        kv_vboard_default_config(&cfg);
        std::snprintf(cfg.node, sizeof(cfg.node), "%s", kNode);
        cfg.mplane = GetParam().mplane ? 1 : 0;
        cfg.freerun = GetParam().freerun ? 1 : 0;
        cfg.first_sequence = first_sequence;
        cfg.sizeimage = sizeimage;
        ASSERT_EQ(kv_vboard_add(&cfg), 0);
    }

    kv_vboard_counters counters() {
        kv_vboard_counters c;
        std::memset(&c, 0, sizeof(c));
        EXPECT_EQ(kv_vboard_get_counters(kNode, &c), 0);
        return c;
    }

    // Maps and queues the whole ring without filling it; true when every call
    // succeeded.
    bool prime() {
        for (int i = 0; i < 6; ++i) {
            uint64_t b = 0, e = 0, size = 0;
            uint8_t* data = nullptr;
            if (!dev.map(b, e, &data, size) || !dev.unmap()) {
                return false;
            }
        }
        return true;
    }

    kv_v4l2_asi_output_device dev;
};
