// What the element tells the application on the bus: an ERROR with the reason and what to
// do when it cannot run, a WARNING, once, for a stream it cannot play as it is.

#include <cerrno>

#include "element_fixture.h"

namespace {

using kvtest::bus_text;

class ElementMessages : public kvtest::ElementTest {
protected:
    void SetUp() override {
        ElementTest::SetUp();
        bus = gst_bus_new();
        gst_element_set_bus(el, bus);
    }
    void TearDown() override {
        if (h) {
            gst_element_set_state(el, GST_STATE_NULL);
            gst_element_set_bus(el, nullptr);
        }
        gst_object_unref(bus);
        ElementTest::TearDown();
    }
    kvtest::bus_log taken() {
        kvtest::bus_log log;
        log.take(bus);
        return log;
    }

    GstBus* bus = nullptr;
};

// Settings and boards that cannot work refuse READY with one ERROR that names the setting
// or gives the OS's reason, and says what to do; nothing stays open.
TEST_F(ElementMessages, RefusalsPostAnErrorWithTheReason) {
    const GQuark R = GST_RESOURCE_ERROR;
    const std::string node = std::string("\"") + kNode + "\": ";
    const struct {
        const char* label;
        std::function<void()> setup;
        int code;
        std::string error;
    } cases[] = {
        {"no node", [&] { g_object_set(el, "v4l2", "", nullptr); }, GST_RESOURCE_ERROR_SETTINGS,
         "\"v4l2\" is not set (name the ASI output's device node, e.g. v4l2=/dev/video0)"},
        {"missing node", [&] { g_object_set(el, "v4l2", "/dev/kvasi-missing", nullptr); },
         GST_RESOURCE_ERROR_NOT_FOUND,
         "Cannot open the ASI device \"/dev/kvasi-missing\": No such file or directory (check the "
         "\"v4l2\" property and that the board's driver is loaded)"},
        {"no permission", [&] { kv_vboard_set_fault(kNode, KV_VB_OPEN, 1, 1, EACCES); },
         GST_RESOURCE_ERROR_NOT_AUTHORIZED,
         "Cannot open the ASI device " + node +
             "Permission denied (the user needs access to the device node, e.g. membership of "
             "the video group)"},
        {"busy", [&] { kv_vboard_set_fault(kNode, KV_VB_OPEN, 1, 1, EBUSY); },
         GST_RESOURCE_ERROR_BUSY,
         "Cannot open the ASI device " + node +
             "Device or resource busy (another program is using the device)"},
        {"mapping fails", [&] { kv_vboard_set_fault(kNode, KV_VB_MMAP, 3, 1, ENOMEM); },
         GST_RESOURCE_ERROR_SETTINGS,
         "Cannot set up the ASI device " + node +
             "mmap: Cannot allocate memory (the system is short of memory for the device's "
             "buffers)"},
        {"FIFO below a packet", [&] { g_object_set(el, "buffer-size", 100u, nullptr); },
         GST_RESOURCE_ERROR_SETTINGS,
         "\"buffer-size\" 100 bytes is below one transport packet of 188 bytes (buffer-size must "
         "hold the latency's worth of the stream)"},
        {"short driver buffers",
         [&] {
             kv_vboard_remove_all();
             add_vboard(kNode, false, true, 2, 600000);
         },
         GST_RESOURCE_ERROR_SETTINGS,
         "Cannot set up the ASI device " + node +
             "driver buffer 0 holds 600000 bytes, a frame needs 675000"},
    };
    const int fds = open_fd_count();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        g_object_set(el, "v4l2", kNode, "buffer-size", 4u << 20, nullptr);
        kv_vboard_clear_faults(kNode);
        c.setup();
        EXPECT_EQ(set_state(GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
        const kvtest::bus_log log = taken();
        EXPECT_EQ(log.errors, std::vector<std::string>{bus_text(R, c.code, c.error)});
        EXPECT_TRUE(log.warnings.empty()) << testing::PrintToString(log.warnings);
        EXPECT_EQ(open_fd_count(), fds);
    }
}

// Streams that cannot play as they are: one WARNING each that says which and what to do,
// while the element plays on; the statistics show nothing meaningless meanwhile.
TEST_F(ElementMessages, StreamsThatCannotPlayAreWarnedOfOnce) {
    const GQuark S = GST_STREAM_ERROR;
    std::vector<uint8_t> nulls(7 * 188, 0xFF);
    for (size_t i = 0; i < nulls.size(); i += 188) {
        const uint8_t header[] = {0x47, 0x1F, 0xFF, 0x10};
        std::memcpy(&nulls[i], header, sizeof(header));
    }
    // Buffers of null packets every 10 ms for 2.5 s, with the given stamps.
    auto trickle = [&](const std::function<GstClockTime(int)>& stamp) {
        for (int k = 0; k < 250; ++k) {
            GstBuffer* b = gst_buffer_new_memdup(nulls.data(), nulls.size());
            GST_BUFFER_PTS(b) = stamp(k);
            ASSERT_EQ(gst_harness_push(h, b), GST_FLOW_OK);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    };
    const kvtest::ts_stream fast = kvtest::generated(250000000, 0.3);
    // Less than the FIFO holds and than the latency: nothing overflows or plays.
    const kvtest::ts_stream steady = kvtest::generated(38000000, 0.15);
    const std::string no_stamp =
        "No usable time stamp for 2 s: buffers arrive without time stamps, or with time stamps "
        "that do not move on; nothing can be played (put a time-stamping parser upstream "
        "(tsparse set-timestamps=true), or pace by PCR (\"time-control\" 0))";
    const struct {
        const char* label;
        guint time_control, buffer_size, latency;
        std::function<void()> feed;
        std::string warning;  // in full, or the start of it
    } cases[] = {
        {"no PCR", 0, 4u << 20, 120, [&] { trickle([](int) { return GST_CLOCK_TIME_NONE; }); },
         bus_text(S, GST_STREAM_ERROR_FORMAT,
                  "No PCR for 2 s: the stream cannot be timed and nothing is played (play a "
                  "stream that carries PCRs, or pace by buffer time stamps (\"time-control\" "
                  "1))")},
        {"no stamps", 1, 4u << 20, 120, [&] { trickle([](int) { return GST_CLOCK_TIME_NONE; }); },
         bus_text(S, GST_STREAM_ERROR_FORMAT, no_stamp)},
        {"stamps going back", 1, 4u << 20, 120,
         [&] { trickle([](int k) { return GstClockTime(10 * GST_SECOND - k * GST_MSECOND); }); },
         bus_text(S, GST_STREAM_ERROR_FORMAT, no_stamp)},
        {"faster than the line", 0, 64u << 20, 1000,
         [&] { push_packets(fast, 0, fast.packets()); },
         bus_text(S, GST_STREAM_ERROR_FORMAT, "The stream runs at 250.0")},
        {"FIFO too small for the latency", 0, 1u << 20, 1000,
         [&] { push_packets(steady, 0, steady.packets()); },
         bus_text(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SETTINGS,
                  "\"buffer-size\" 1048576 bytes holds 221 ms of this 38.0 Mbit/s stream, less "
                  "than the 1000 ms of latency")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        g_object_set(el, "time-control", c.time_control, "buffer-size", c.buffer_size, "latency",
                     c.latency, nullptr);
        play();
        c.feed();
        kvtest::bus_log log;
        EXPECT_TRUE(eventually([&] {
            log.take(bus);
            return !log.warnings.empty();
        }, std::chrono::seconds(10)));
        EXPECT_EQ(stat("Fullness fifo").find('-'), std::string::npos) << stat("Fullness fifo");
        EXPECT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        log.take(bus);
        EXPECT_TRUE(log.errors.empty()) << testing::PrintToString(log.errors);
        ASSERT_EQ(log.warnings.size(), 1u) << testing::PrintToString(log.warnings);
        EXPECT_EQ(log.warnings[0].substr(0, c.warning.size()), c.warning);
    }
}

}  // namespace
