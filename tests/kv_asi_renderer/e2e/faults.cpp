// Faults on the way to the line: the node vanishing mid-play, DQBUF failing for a while and
// garbage between packets. The element keeps running, reports through statistics, alarms
// and the last error, and recovers on its own where it is built to.

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "wire_fixture.h"

namespace {

using kvtest::ts_stream;
using wire::kPcrPacingLimitNs;
using wire::kWordsPerFrame;

// Both the streaming and the output thread are busy with the device when it goes.
using WireFaultsConcurrency = wire::WireTest;
using WireFaults = wire::WireTest;

constexpr int64_t kFaultNs = 1200000000;  // where the stream meets its fault

// Plays in real time; 1.2 s in, at_fault runs and the feed skips skip_ns of the stream,
// the rest leaving shift_ns sooner than its stream time says.
class WireFaultsRealTime : public wire::RealTimeWireTest {
protected:
    wire::outcome play_with_fault(const ts_stream& s, const wire::settings& st, int64_t skip_ns,
                                  int64_t shift_ns, const std::function<void()>& at_fault = {}) {
        return run(st, [&] {
            const steady::time_point origin = steady::now();
            feed(s, 0, s.packet_at(kFaultNs), origin);
            if (at_fault) {
                at_fault();
            }
            feed(s, s.packet_at(kFaultNs + skip_ns), s.packets(),
                 origin - std::chrono::nanoseconds(shift_ns));
        });
    }
};

// The line up to the end of its first run.
std::vector<wire::record> before_fault(const wire::capture& c,
                                       const std::vector<std::vector<wire::record>>& runs) {
    return c.between(0, runs[0].back().word + 1);
}
std::vector<wire::record> joined(std::vector<wire::record> a, const std::vector<wire::record>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Descriptors the element holds on a board node (the board keeps its capture file open).
int node_descriptors() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (dirent* e = readdir(d)) {
            char link[64] = {};
            const std::string path = std::string("/proc/self/fd/") + e->d_name;
            n += readlink(path.c_str(), link, sizeof(link) - 1) > 0 &&
                 std::string(link) == "/memfd:kv_vboard (deleted)";
        }
        closedir(d);
    }
    return n;
}

TEST_F(WireFaultsConcurrency, NodeVanishingMidPlayStopsTheLineButNotTheElement) {
    wire::settings st;
    st.freerun = true;
    st.latency_ms = 100;
    st.buffer_size = 1 << 20;  // about 1.6 s of this stream
    st.direct = true;
    build(st);
    const ts_stream s = kvtest::generated(5000000, 6);
    const size_t second = s.packet_at(1000000000);
    ASSERT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);  // pads active
    feed(s, 0, second);
    play();
    ASSERT_TRUE(eventually([&] { return counters().packets > 0; }));

    kv_vboard_vanish(kNode);
    const uint64_t sent = counters().packets;
    // The source goes on: the FIFO fills up, overflows and resets; the line stays down.
    feed(s, second, s.packets());
    EXPECT_TRUE(
        eventually([&] { return m_manager.count(eAlarmRemuxerOutputOverflow) > 0; }));
    EXPECT_TRUE(eventually([&] { return stat("Reset") != "0"; }));
    EXPECT_EQ(stat("Last error"), "There is not enough memory in fifo");
    EXPECT_EQ(counters().packets, sent);
    GstState state = GST_STATE_VOID_PENDING;
    EXPECT_EQ(gst_element_get_state(m_sink, &state, nullptr, 0), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(state, GST_STATE_PLAYING);
    EXPECT_EQ(bus_errors(), 0u);

    // Stopping does not hang and leaves nothing open; starting fails until the node is back.
    ASSERT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(node_descriptors(), 0);
    EXPECT_EQ(set_state(GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    add_vboard(kNode, false, true, 2, 675000, m_capture);
    play();
    feed(s, 0, second);
    EXPECT_TRUE(eventually([&] { return counters().packets > 0; }));
    EXPECT_EQ(set_state(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(node_descriptors(), 0);
}

TEST_F(WireFaultsRealTime, DqbufFailingForAWhileCostsFramesNotPackets) {
    const std::string kWrite = "gst-resource-error-quark " + std::to_string(GST_RESOURCE_ERROR_WRITE) + ": ";
    const ts_stream s = kvtest::generated(5000000, 3);
    // Six failures, retried ever further apart (5 ms doubling: about 0.3 s in all),
    // outlast the six queued buffers: the board sends idle frames and the element sees a
    // gap in the frame numbers.
    const wire::outcome o = play_with_fault(
        s, wire::settings(), 0, 0, [&] { kv_vboard_set_fault(kNode, KV_VB_DQBUF, 1, 6, EIO); });
    EXPECT_GT(o.board.idle_frames, 0u);
    EXPECT_EQ(o.skip_hw, o.board.idle_frames);
    EXPECT_EQ(o.skip_ts + o.resets, 0u);
    EXPECT_EQ(o.underflows + o.overflows, 0u);
    // Each fault counted, one warning for the episode, one for the frames it cost.
    EXPECT_EQ(o.last_error, "VIDIOC_DQBUF: " + std::string(std::strerror(EIO)) + " (6 device faults)");
    EXPECT_EQ(o.warnings,
              (std::vector<std::string>{
                  kWrite + "The ASI device failed: VIDIOC_DQBUF: " +
                      std::string(std::strerror(EIO)) +
                      "; retrying, at most a second apart (the board reported a fault; see the "
                      "kernel log (dmesg))",
                  kWrite + "The board sent " + std::to_string(o.skip_hw) +
                      " frame(s) without data: output fell behind the line (the machine is "
                      "overloaded or the output thread was held up; more in the statistics "
                      "(\"Skip HW frames\"))"}));

    // None is lost. After the outage the six buffers sent during it come back with old
    // frame numbers, so for six frames the line runs late; the next buffer's number shows
    // the gap, the packets still due go out at once and the line is back on time.
    const kv_asi_analyze::report all = wire::analyze(o.line.records, &s);
    EXPECT_EQ(all.source.matched, all.packets);
    EXPECT_EQ(all.source.missing + all.source.repeated + all.source.altered, 0u);
    EXPECT_LE(all.source.unsent_tail, wire::unsent_tail_limit(s));
    const auto runs = o.line.runs(5 * kWordsPerFrame);
    ASSERT_EQ(runs.size(), 2u) << "one outage";
    wire::pcr_accuracy(wire::analyze(joined(before_fault(o.line, runs),
                                            o.line.between(runs[1].front().word + 10 * kWordsPerFrame))),
                       s, "5 Mbit/s across a DQBUF outage", kPcrPacingLimitNs);
}

// Garbage between buffers, free-running (PCR accuracy on the line needs no real time).
// Without a sync byte the parser skips it whole; with one it frames one false packet.
TEST_F(WireFaults, GarbageBetweenPacketsIsSkipped) {
    const ts_stream s = kvtest::generated(38000000, 1);
    uint8_t clean[61], false_sync[61];
    std::memset(clean, 0xA5, sizeof(clean));
    std::memset(false_sync, 0x00, sizeof(false_sync));
    const uint8_t null_header[] = {0x47, 0x1F, 0xFF, 0x10};  // the false packet goes out as one
    std::memcpy(false_sync + 10, null_header, sizeof(null_header));

    for (const uint8_t* garbage : {clean, false_sync}) {
        SCOPED_TRACE(garbage == clean ? "no sync byte" : "false sync byte");
        wire::settings st;
        st.freerun = true;
        st.latency_ms = 100;
        st.direct = true;
        size_t runs = 0;  // of garbage, one after every tenth buffer
        const wire::outcome o = run(st, [&] {
            for (size_t i = 0; i < s.packets(); i += 10 * kBufferPackets, ++runs) {
                feed(s, i, std::min(s.packets(), i + 10 * kBufferPackets));
                push(gst_buffer_new_memdup(garbage, sizeof(clean)));
            }
        });
        EXPECT_EQ(o.resets, 0u);
        EXPECT_EQ(o.last_error, "");
        EXPECT_EQ(o.board.word_violations + o.board.bytes_partial, 0u);

        const kv_asi_analyze::report all = wire::analyze(o.line.records, &s);
        EXPECT_EQ(all.source.repeated + all.source.unsent_head, 0u);
        if (garbage == clean) {
            EXPECT_EQ(all.source.matched, all.packets);
            EXPECT_EQ(all.source.missing + all.source.altered, 0u);
            EXPECT_LE(all.source.unsent_tail, wire::unsent_tail_limit(s));
        } else {
            // Each run costs the packet the false one ran into; a sync byte in the rest of
            // that packet may frame one more false packet and cut the next one.
            const size_t hit = runs - 1;
            EXPECT_GE(all.source.altered, hit);
            EXPECT_LE(all.source.altered + all.source.missing, 3 * hit);
        }
        wire::pcr_accuracy(wire::analyze(o.line.records), s,
                           garbage == clean ? "38 Mbit/s, garbage" : "38 Mbit/s, false syncs",
                           kPcrPacingLimitNs);
        TearDown();
        SetUp();
    }
}

}  // namespace
