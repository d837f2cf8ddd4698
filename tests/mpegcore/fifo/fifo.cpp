#include "mpegcore/fifo/kv_mpegts_fifo.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "ts_test_util.h"

using namespace mpegcore;

namespace {

constexpr size_t kPkt = 188;
constexpr int64_t kEnd = std::numeric_limits<int64_t>::max();
using timed = std::pair<int64_t, uint32_t>;  // due time, tag of the item's last packet

// Appends a packet of `pid` tagged in its last four bytes, with a PCR (27 MHz) if pcr >= 0.
void add_packet(ts_test::Bytes& ts, uint16_t pid, uint32_t tag, int64_t pcr = -1) {
    ts_test::Bytes p = ts_test::packet(
        pid, uint8_t(tag), false, {},
        pcr < 0 ? ts_test::Bytes{} : ts_test::pcr_field(uint64_t(pcr) / 300, unsigned(pcr % 300)));
    std::memcpy(&p[kPkt - 4], &tag, 4);
    ts.insert(ts.end(), p.begin(), p.end());
}

int64_t units(int64_t pcr) {
    return pcr * 10 / 27;
}

// Everything due up to tTo, handed back at once. The window start lies after every item
// on purpose: it must not hold late items back.
std::vector<timed> pull(kv_mpegts_fifo& fifo, int64_t tTo) {
    kv_mpegts_items items;
    fifo.get_data(kEnd, tTo, items);
    std::vector<timed> out;
    for (auto& item : items) {
        EXPECT_TRUE(item->has_time());
        uint32_t tag;
        std::memcpy(&tag, item->get_data() + item->get_length() - 4, 4);
        out.emplace_back(item->time(), tag);
    }
    fifo.revert(items);
    return out;
}

TEST(FifoPcr, AnchorsInterpolationAndWindow) {
    // Three packets before the first PCR are dropped; a PCR on PID 0x200 is a plain packet.
    // Anchor spacings that do not divide by the packets between them: each time is its
    // own share of the interval, truncated, so no error adds up along it.
    const int64_t pcr[] = {27000000, 27270070, 27540139, 27810000};
    ts_test::Bytes ts;
    uint32_t tag = 0;
    for (int i = 0; i < 3; ++i) {
        add_packet(ts, 0x100, tag++);
    }
    for (int a = 0; a < 4; ++a) {
        for (int i = 0; i < (a < 3 ? 10 : 1); ++i) {
            add_packet(ts, i == 4 ? 0x200 : 0x100, tag++, i == 0 ? pcr[a] : i == 4 ? 1 : -1);
        }
    }
    kv_mpegts_fifo fifo;
    ASSERT_TRUE(fifo.create(100 * kPkt, kPkt, nullptr, pcr_time_type, false));
    fifo.push_data(0, ts.data(), ts.size() - kPkt);
    for (int a = 0; a < 3; ++a) {
        if (a == 2) {  // the third anchor is held back until the fourth arrives
            EXPECT_TRUE(pull(fifo, kEnd).empty());
            fifo.push_data(0, ts.data() + ts.size() - kPkt, kPkt);
        }
        const int64_t t0 = units(pcr[a]), span = units(pcr[a + 1]) - t0;
        EXPECT_EQ(fifo.get_front_time(), t0);
        // Due exactly at the window end goes; one unit before it nothing does.
        EXPECT_TRUE(pull(fifo, t0 - 1).empty());
        std::vector<timed> expected;
        for (int i = 0; i < 10; ++i) {
            expected.emplace_back(t0 + span * i / 10, 3 + 10 * a + i);
        }
        EXPECT_EQ(pull(fifo, t0 + span * 9 / 10), expected);
    }
    EXPECT_FALSE(fifo.is_reset());
}

TEST(FifoPcr, CaptureMatchesIndependentTimes) {
    for (const char* name : {"test-072.ts", "test-025.ts"}) {
        const ts_test::Bytes ts = ts_test::load_capture(name);
        if (ts.empty()) {
            GTEST_SKIP() << "no capture " << name << " in " << KV_CORPUS_DIR;
        }
        // Anchors: the PCRs of the first PID seen with one, unwrapped, in units.
        std::vector<std::pair<size_t, int64_t>> anchors;
        int pid = -1;
        uint64_t last = 0, wraps = 0;
        for (size_t i = 0; i < ts.size() / kPkt; ++i) {
            const uint8_t* p = &ts[i * kPkt];
            const int this_pid = (p[1] & 0x1F) << 8 | p[2];
            if (!(p[3] & 0x20) || p[4] < 7 || p[4] > 183 || !(p[5] & 0x10) ||
                (pid >= 0 && this_pid != pid)) {
                continue;
            }
            pid = this_pid;
            const uint64_t v =
                (uint64_t(p[6]) << 25 | p[7] << 17 | p[8] << 9 | p[9] << 1 | p[10] >> 7) * 300 +
                ((p[10] & 1) << 8 | p[11]);
            wraps += !anchors.empty() && v < last;
            last = v;
            anchors.emplace_back(i, int64_t(wraps * (300ull << 33) + v) * 10 / 27);
        }
        ASSERT_GT(anchors.size(), 10u) << name;

        kv_mpegts_fifo fifo;
        ASSERT_TRUE(fifo.create(ts.size(), kPkt, nullptr, pcr_time_type, false));
        std::mt19937 rng(7);
        for (size_t at = 0, len; at < ts.size(); at += len) {
            len = std::min<size_t>(rng() % 5000, ts.size() - at);
            fifo.push_data(0, ts.data() + at, len);
        }
        kv_mpegts_items items;
        fifo.get_data(0, kEnd, items);
        ASSERT_FALSE(fifo.is_reset()) << fifo.get_error();
        ASSERT_EQ(items.size(), anchors.back().first - anchors.front().first) << name;
        for (size_t a = 0, k = 0; a + 1 < anchors.size(); ++a) {
            const size_t span = anchors[a + 1].first - anchors[a].first;
            const int64_t d = anchors[a + 1].second - anchors[a].second;
            for (size_t i = 0; i < span; ++i, ++k) {
                ASSERT_EQ(items[k]->time(), anchors[a].second + d * int64_t(i) / int64_t(span))
                    << name << k;
                ASSERT_EQ(
                    0, std::memcmp(items[k]->get_data(), &ts[(anchors[a].first + i) * kPkt], kPkt));
            }
        }
        fifo.revert(items);
    }
}

// Six PCR intervals of 40 ms (ten packets each, 40,000 units a packet), the fourth PCR
// changed. A flagged discontinuity or a step of 2 s or more either way is placed right
// behind the previous anchor, exactly where an unchanged stream would have been; only the
// unflagged one is reported. A smaller step stays a step (back is not a wrap), and a real
// wrap of the 33-bit counter goes on. End of stream times the tail at the last step, and
// an emptied FIFO is no failure after it. Nothing is ever dropped.
TEST(FifoPcr, TimeBaseChangesAndEndOfStreamKeepEveryPacket) {
    constexpr int64_t kPeriod = (int64_t(1) << 33) * 300;
    const int64_t p0 = 2700000000, top = kPeriod - 3 * 1080000 + 270;
    const struct {
        const char* label;
        int64_t first, jump;
        bool flagged, notice;
        int64_t shift;  // units the PCRs from the fourth on are off an unchanged stream
    } cases[] = {
        {"unchanged", p0, 0, false, false, 0},
        {"flagged, 10 s back", p0, -270000000, true, false, 0},
        {"flagged, 0.1 ms on", p0, 2700, true, false, 0},
        {"3 s ahead", p0, 81000000, false, true, 0},
        {"3 s back", p0, -81000000, false, true, 0},
        {"2 s less a tick ahead", p0, 52919999, false, false, 19599999},
        {"100 ms back", p0, -2700000, false, false, -1000000},
        {"wrap", top, 0, false, false, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        ts_test::Bytes ts;
        for (uint32_t i = 0; i < 60; ++i) {
            const int64_t k = i / 10;
            const int64_t pcr = c.first + k * 1080000 + (k >= 3 ? c.jump : 0);
            add_packet(ts, 0x100, i, i % 10 ? -1 : pcr % kPeriod);
            if (i == 30 && c.flagged) {
                ts[ts.size() - kPkt + 5] |= 0x80;  // discontinuity_indicator
            }
        }
        kv_mpegts_fifo fifo;
        ASSERT_TRUE(fifo.create(100 * kPkt, kPkt, nullptr, pcr_time_type, true));
        fifo.push_data(0, ts.data(), ts.size());
        EXPECT_EQ(fifo.take_time_base_notice(), c.notice);
        EXPECT_FALSE(fifo.take_time_base_notice());
        EXPECT_EQ(fifo.get_error(), c.notice ? "Large gap in flow time" : "");
        EXPECT_FALSE(fifo.is_reset());
        EXPECT_FALSE(fifo.is_ended());
        EXPECT_EQ(pull(fifo, kEnd).size(), 50u);  // the last anchor waits for a next one
        fifo.end_of_stream();
        EXPECT_TRUE(fifo.is_ended());
        const std::vector<timed> tail = pull(fifo, kEnd);
        ASSERT_EQ(tail.size(), 10u);
        const int64_t t50 = units(c.first) + 5 * 400000 + c.shift;
        for (uint32_t i = 0; i < 10; ++i) {
            EXPECT_EQ(tail[i], timed(t50 + i * 40000, 50 + i));
        }
        EXPECT_EQ(fifo.get_anchor_interval(), c.shift > 0 ? 400000 + c.shift : 400000);
        EXPECT_TRUE(pull(fifo, kEnd).empty());
        EXPECT_FALSE(fifo.is_reset()) << "emptied after the end: no failure";
        fifo.reset();
        EXPECT_FALSE(fifo.is_ended());
        EXPECT_EQ(fifo.get_anchor_interval(), 0);
    }
}

TEST(FifoFailures, OverflowUnderflowResetAndDestroy) {
    // PCRs every fourth packet, 10,000 units per packet; PID 0x300 from packet 20 on.
    ts_test::Bytes ts;
    for (uint32_t i = 0; i < 40; ++i) {
        add_packet(ts, i < 20 ? 0x100 : 0x300, i, i % 4 ? -1 : int64_t(27000000 + i * 27000));
    }
    auto due = [](uint32_t i) { return units(27000000 + i * 27000); };
    const uint8_t* pkt = ts.data();
    kv_mpegts_fifo fifo;
    ASSERT_TRUE(fifo.create(6 * kPkt + kPkt / 2, kPkt, nullptr, pcr_time_type, true));
    EXPECT_TRUE(pull(fifo, kEnd).empty());
    EXPECT_FALSE(fifo.is_reset()) << "empty before the first item is no underflow";

    // Six items fit, the two in the caller's hands included: the seventh packet overflows.
    fifo.push_data(0, pkt, 5 * kPkt);
    kv_mpegts_items held;
    fifo.get_data(0, due(1), held);
    ASSERT_EQ(held.size(), 2u);
    fifo.push_data(0, pkt + 5 * kPkt, kPkt);
    EXPECT_FALSE(fifo.is_reset());
    fifo.push_data(0, pkt + 6 * kPkt, kPkt);
    EXPECT_TRUE(fifo.is_reset() && fifo.is_overflow() && !fifo.is_underflow());
    EXPECT_EQ(fifo.get_error(), "There is not enough memory in fifo");
    // Input stays dropped even with room again; what is stored still goes out.
    fifo.revert(held);
    fifo.push_data(0, pkt + 7 * kPkt, 2 * kPkt);
    EXPECT_EQ(pull(fifo, kEnd), (std::vector<timed>{{due(2), 2}, {due(3), 3}}));

    // reset clears the failure but keeps its text; the next PCR PID paces and the six
    // blocks are recycled.
    fifo.reset();
    EXPECT_FALSE(fifo.is_reset() || fifo.is_overflow());
    EXPECT_EQ(fifo.get_error(), "There is not enough memory in fifo");
    EXPECT_EQ(fifo.get_front_time(), 0);
    fifo.push_data(0, pkt + 20 * kPkt, kPkt);
    for (uint32_t i = 20; i < 36; i += 4) {
        fifo.push_data(0, pkt + (i + 1) * kPkt, 4 * kPkt);
        EXPECT_EQ(pull(fifo, kEnd),
                  (std::vector<timed>{
                      {due(i), i}, {due(i + 1), i + 1}, {due(i + 2), i + 2}, {due(i + 3), i + 3}}));
    }
    ASSERT_FALSE(fifo.is_reset()) << fifo.get_error();

    // Drained after items were stored: an underflow, with the times left as they were.
    EXPECT_TRUE(pull(fifo, kEnd).empty());
    EXPECT_TRUE(fifo.is_reset() && fifo.is_underflow() && !fifo.is_overflow());
    EXPECT_EQ(fifo.get_error(), "Fifo emptied");
    EXPECT_EQ(fifo.get_back_time(), due(35));
    EXPECT_EQ(fifo.get_front_time(), due(35));

    // destroy drops the text and every item; create starts a clean FIFO.
    fifo.destroy();
    EXPECT_EQ(fifo.get_error(), "");
    ASSERT_TRUE(fifo.create(2 * kPkt, kPkt, nullptr, pcr_time_type, false));
    fifo.push_data(0, pkt, 3 * kPkt);
    EXPECT_TRUE(fifo.is_overflow());
    EXPECT_FALSE(fifo.create(kPkt, 0, nullptr, pcr_time_type, false));
}

TEST(FifoFailures, ResetKeepsPartlyFilledItem) {
    // Items of two packets: the odd packet before reset stays in the open item and the
    // first anchor after it completes the item. The PCR starting over lower is no wrap.
    ts_test::Bytes ts;
    for (uint32_t i = 0; i < 7; ++i) {
        add_packet(ts, 0x100, i, i % 2 ? -1 : 2700000 * int64_t(i < 4 ? i + 1 : i - 3));
    }
    kv_mpegts_fifo fifo;
    ASSERT_TRUE(fifo.create(20 * kPkt, 2 * kPkt, nullptr, pcr_time_type, true));
    fifo.push_data(0, ts.data(), 3 * kPkt);
    fifo.reset();
    fifo.push_data(0, ts.data() + 4 * kPkt, 3 * kPkt);
    kv_mpegts_items items;
    fifo.get_data(0, kEnd, items);
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0]->time(), units(2700000));
    EXPECT_EQ(0, std::memcmp(items[0]->get_data(), &ts[2 * kPkt], kPkt));
    EXPECT_EQ(0, std::memcmp(items[0]->get_data() + kPkt, &ts[4 * kPkt], kPkt));
    fifo.revert(items);
}

// A buffer's time is that of its last packet; the packets before it follow from the
// previous buffer's last packet, the first buffer's go back from it at the next
// interval's rate. Stamps may run backwards. A buffer with no whole packet stamps
// nothing: its packet is completed and stamped by the next buffer.
TEST(FifoStamp, BufferTimesAnchorLastPackets) {
    ts_test::Bytes ts;
    for (uint32_t i = 0; i < 8; ++i) {
        add_packet(ts, 0x100, i);
    }
    kv_mpegts_fifo fifo;
    ASSERT_TRUE(fifo.create(20 * kPkt, kPkt, nullptr, stamp_time_type, true));
    fifo.push_data(100, ts.data(), 3 * kPkt);
    fifo.push_data(93, ts.data() + 3 * kPkt, kPkt);
    fifo.push_data(500, ts.data() + 4 * kPkt, 100);
    fifo.push_data(600, ts.data() + 4 * kPkt + 100, 2 * kPkt - 100);
    fifo.push_data(700, ts.data() + 6 * kPkt, 2 * kPkt);
    EXPECT_EQ(pull(fifo, kEnd),
              (std::vector<timed>{
                  {114, 0}, {107, 1}, {100, 2}, {93, 3}, {346, 4}, {600, 5}, {650, 6}}));
    EXPECT_EQ(fifo.get_anchor_interval(), 507);
    fifo.end_of_stream();  // the last anchor waited for a next one only
    EXPECT_EQ(pull(fifo, kEnd), (std::vector<timed>{{700, 7}}));

    // One buffer, then the end: no rate is known, so its packets all go at its time.
    fifo.reset();
    fifo.push_data(500, ts.data(), 3 * kPkt);
    fifo.end_of_stream();
    EXPECT_EQ(pull(fifo, kEnd), (std::vector<timed>{{500, 0}, {500, 1}, {500, 2}}));
}

}  // namespace
