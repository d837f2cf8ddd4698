#include "mpegcore/kv_mpeg_time.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "ts_test_util.h"

using namespace mpegcore;

namespace {

constexpr uint64_t M = KVPcrStamp::range;  // 300 x 2^33
constexpr uint64_t H = M / 2;
constexpr uint64_t R = KVPtsStamp::range;  // 2^33
constexpr uint64_t kStep = 1080000;        // 40 ms in 27 MHz ticks

TEST(MpegTime, PcrWrapKeepsMonotonicTimeAdvancing) {
    // 40 ms steps from 50 steps before the wrap, starting on a multiple of 27 ticks so
    // that every step converts to exactly 400,000 units.
    const uint64_t start = (M - 50 * kStep) / 27 * 27;
    KVMonotonicPCR mono(start);
    KVPcrStamp prev(start);
    for (uint64_t i = 1; i <= 100; ++i) {
        const int64_t before = mono.toUnit();
        const KVPcrStamp s(start + i * kStep);  // reduced modulo M, as on the wire
        mono.next_stamp(s.base(), static_cast<uint16_t>(s.ext()));
        ASSERT_EQ(mono.m_pcr, start + i * kStep) << i;
        ASSERT_EQ(mono.toUnit() - before, 400000) << i;
        ASSERT_EQ((s - prev).m_duration, int64_t(kStep)) << i;
        ASSERT_TRUE(s > prev && prev < s) << i;
        prev = s;
    }
    EXPECT_EQ(mono.toStamp(), KVPcrStamp(start + 100 * kStep - M));

    // Any step back is a wrap, even a single tick; the same stamp again is none.
    KVMonotonicPCR m(M - 1);
    m.next_stamp(KVPcrStamp(M - 1));
    EXPECT_EQ(m.m_pcr, M - 1);
    m.next_stamp(KVPcrStamp(0));
    EXPECT_EQ(m.m_pcr, M);
    m.next_stamp(KVPcrStamp(999));
    m.next_stamp(KVPcrStamp(998));
    EXPECT_EQ(m.m_pcr, 2 * M + 998);
}

TEST(MpegTime, StampDifferenceAndOrderingAtBoundaries) {
    const KVPcrStamp zero(0), last(M - 1), half(H);
    EXPECT_EQ((zero - last).m_duration, 1);
    EXPECT_EQ((last - zero).m_duration, -1);
    EXPECT_TRUE(zero > last && last < zero);
    // Exactly half the range apart: positive both ways, neither stamp ahead.
    EXPECT_EQ((half - zero).m_duration, int64_t(H));
    EXPECT_EQ((zero - half).m_duration, int64_t(H));
    EXPECT_FALSE(half > zero || zero > half || half >= zero || half <= zero);
    EXPECT_EQ((KVPcrStamp(H + 1) - zero).m_duration, -int64_t(H - 1));
    EXPECT_TRUE(KVPcrStamp(H - 1) > zero && KVPcrStamp(H + 1) < zero);

    const KVPtsStamp p0(0), plast(R - 1), phalf(R / 2);
    EXPECT_TRUE(p0 > plast);
    EXPECT_EQ((p0 - plast).m_duration, 1);
    EXPECT_EQ((p0 - phalf).m_duration, int64_t(R / 2));
    EXPECT_FALSE(phalf > p0 || p0 > phalf);
    EXPECT_TRUE(KVPtsStamp(R / 2 - 1) > p0 && KVPtsStamp(R / 2 + 1) < p0);
}

TEST(MpegTime, MaskingWrappingAndUnits) {
    // PTS keeps 33 bits; the three PES parts sit at bits 0, 15 and 30.
    EXPECT_EQ(KVPtsStamp(R + 5).m_pts, 5u);
    EXPECT_EQ(KVPtsStamp(0x7FFF, 0x7FFF, 7).m_pts, R - 1);
    EXPECT_EQ(KVPtsStamp::make(0, 1, 1).m_pts, (1u << 30) + (1u << 15));
    EXPECT_EQ((KVPtsStamp(R - 1) + KVPtsDuration(1)).m_pts, 0u);
    EXPECT_EQ((KVPtsStamp(10) - KVPtsDuration(20)).m_pts, R - 10);
    // PCR stamps wrap at 300 x 2^33, not at a power of two.
    EXPECT_EQ((KVPcrStamp(M - 1) + KVPcrDuration(2)).m_pcr, 1u);
    EXPECT_EQ((KVPcrStamp(5) + KVPcrDuration(-6)).m_pcr, M - 1);
    const KVPcrStamp pcr(0x1FFFFFFFFull, 299);
    EXPECT_EQ(pcr.m_pcr, M - 1);
    EXPECT_EQ(pcr.base(), 0x1FFFFFFFFull);
    EXPECT_EQ(stamp_pts_to_pcr(KVPtsStamp(R - 1)).m_pcr, M - 300);
    EXPECT_EQ(stamp_pcr_to_pts(pcr).m_pts, R - 1);

    // One second on each clock, both ways; truncation toward zero.
    EXPECT_EQ(KVPtsStamp(90000).toUnit(), 10000000);
    EXPECT_EQ(KVPcrDuration::fromUnit(10000000).m_duration, 27000000);
    EXPECT_EQ(KVPtsDuration::fromUnit(10000000).m_duration, 90000);
    EXPECT_EQ(KVPcrDuration(-26).toUnit(), -9);
    EXPECT_EQ(KVPcrStamp(M - 1).toUnit(), 954437176888);
    // Setting a stamp from units drops the sign.
    KVPtsStamp a, b;
    a.setUnit(-1000);
    b.setUnit(1000);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a.m_pts, 9u);
}

TEST(MpegTime, JitterOfLatePcrAcrossWrap) {
    kv_jitter_pid j;
    // PCRs 40 ms apart around the wrap of the 33-bit base; the second arrives 5 ms late,
    // so both its own spacing and the next one's are 5 ms off.
    const uint64_t base0 = 0x1FFFFFFFFull - 6000, base2 = (base0 + 7200) & 0x1FFFFFFFFull;
    j.init_time_point(1000000, base0, 0);
    j.set_next_time_point(1450000, base0 + 3600, 0);
    EXPECT_EQ(j.m_nJitter, 50000);
    j.set_next_time_point(1800000, base2, 0);
    EXPECT_EQ(j.m_nJitter, 50000);
    EXPECT_EQ(j.m_pcr.m_pcr, M + base2 * 300);
    j.set_next_time_point(2200000, base2 + 3600, 0);
    EXPECT_EQ(j.m_nJitter, 0);
}

TEST(MpegTime, RealCapturePcrWalk) {
    const ts_test::Bytes ts = ts_test::load_capture("test-025.ts");
    if (ts.empty()) {
        GTEST_SKIP() << "capture not present";
    }
    // PCRs of the program's PCR PID (256), with arrival times from a constant packet
    // rate over the capture, as a constant-bitrate multiplex delivers them.
    std::vector<std::pair<size_t, KVPcrStamp>> pcrs;
    for (size_t i = 0; i + 188 <= ts.size(); i += 188) {
        const uint8_t* p = &ts[i];
        if ((((p[1] & 0x1F) << 8) | p[2]) == 256 && (p[3] & 0x20) && p[4] >= 7 && (p[5] & 0x10)) {
            const uint64_t base =
                (uint64_t(p[6]) << 25) | (p[7] << 17) | (p[8] << 9) | (p[9] << 1) | (p[10] >> 7);
            pcrs.emplace_back(i / 188, KVPcrStamp(base, uint16_t(((p[10] & 1) << 8) | p[11])));
        }
    }
    ASSERT_GT(pcrs.size(), 50u);
    const double units_per_packet = double((pcrs.back().second - pcrs[0].second).toUnit()) /
                                    double(pcrs.back().first - pcrs[0].first);
    kv_jitter_pid meter;
    meter.init_time_point(0, pcrs[0].second.base(), uint16_t(pcrs[0].second.ext()));
    int64_t worst = 0;
    for (size_t k = 1; k < pcrs.size(); ++k) {
        const int64_t t = int64_t(double(pcrs[k].first - pcrs[0].first) * units_per_packet);
        meter.set_next_time_point(t, pcrs[k].second.base(), uint16_t(pcrs[k].second.ext()));
        worst = std::max(worst, meter.m_nJitter);
    }
    // The multiplexer's own PCR jitter: present, but well under 2 ms.
    EXPECT_GT(worst, 0);
    EXPECT_LT(worst, 20000);
}

}  // namespace
