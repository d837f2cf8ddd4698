#include "mpegcore/fifo/kv_pll.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

using namespace mpegcore;

namespace {

TEST(Pll, FirstStampUpdateWindowAndTruncation) {
    kv_pll pll;
    const int64_t big = (int64_t(1) << 62) + 1;  // more than a double holds
    EXPECT_EQ(pll.set_stamp(555, big), big);
    pll.reset();

    const int64_t sys0 = 1000000000, str0 = 500000000;
    EXPECT_EQ(pll.set_stamp(sys0, str0), str0);
    EXPECT_EQ(pll.set_stamp(sys0, str0), str0);  // the second call always updates
    EXPECT_EQ(pll.get_regulator_count(), 1u);
    // 199,999 units after the last update: no update, whatever the stream did.
    EXPECT_NEAR(pll.set_stamp(sys0 + 199999, str0 + 100000), str0 + 100000, 1);
    EXPECT_EQ(pll.get_regulator_count(), 1u);
    EXPECT_EQ(pll.get_regulator(), 0.0L);
    // 200,000 units: update; the stream ran ahead, so the regulator pulls it back.
    pll.set_stamp(sys0 + 200000, str0 + 300000);
    const long double reg = pll.get_regulator();
    EXPECT_LT(reg, 0.0L);
    // The window counts from the last update, not from the last call.
    pll.set_stamp(sys0 + 300000, str0 + 400000);
    EXPECT_EQ(pll.get_regulator(), reg);
    pll.set_stamp(sys0 + 400000, str0 + 600000);
    EXPECT_EQ(pll.get_regulator_count(), 3u);

    // With the origin at 0 and no correction, 3 units come back from seconds as
    // 2.99999999999999986; both signs truncate toward zero.
    pll.reset();
    pll.set_stamp(0, 0);
    pll.set_stamp(0, 0);
    EXPECT_EQ(pll.get_regulator_count(), 1u);
    EXPECT_EQ(pll.set_stamp(1, 3), 2);
    EXPECT_EQ(pll.set_stamp(2, -3), -2);
}

// A stream clock 50 ppm fast (and slow) against the device clock, stamped every 20 ms of
// device time for two simulated hours: the regulator's slope settles at -drift, and the
// corrected stream keeps a constant lag of about drift x 20 ms / 0.0001 = 10 ms instead of
// drifting away by 360 ms.
TEST(Pll, LocksStreamRunning50ppmOff) {
    for (const double ppm : {50.0, -50.0}) {
        SCOPED_TRACE(ppm);
        const double sign = ppm > 0 ? 1 : -1;
        kv_pll pll;
        const int64_t sys0 = 123456789, str0 = 987654321;
        double err = 0, err_60 = 0, worst = 0;
        long double reg_7140 = 0;
        for (int64_t k = 0; k <= 50 * 7200; ++k) {
            const int64_t dsys = k * 200000;
            const int64_t dstr = std::llround(double(dsys) * (1 + ppm * 1e-6));
            // Corrected elapsed stream time minus elapsed device time, in units.
            err = double(pll.set_stamp(sys0 + dsys, str0 + dstr) - str0 - dsys);
            ASSERT_GE(err * sign, -1) << "overshoot at update " << k;
            worst = std::max(worst, std::fabs(err));
            err_60 = k == 50 * 60 ? err : err_60;
            reg_7140 = k == 50 * 7140 ? pll.get_regulator() : reg_7140;
        }
        EXPECT_GT(std::fabs(err_60), 0.9 * 30000);  // barely corrected after a minute
        EXPECT_NEAR(double(pll.get_regulator() - reg_7140) / 60, -ppm * 1e-6, 0.005e-6);
        // The lag left (under 10 ms with the integral term), and the worst on the way.
        EXPECT_TRUE(err * sign > 90000 && err * sign < 100000) << err;
        EXPECT_LT(worst, 125000);
        EXPECT_EQ(pll.get_regulator_count(), 1000u);
    }
}

// The stream stops for 10 s while the device clock runs on (a pause), after the loop has
// locked onto a stream 50 ppm fast. Resumed as is, the phase error of 10 s would make the
// correction slew without end; the bound holds its rate to 100 ppm. Relocked at the
// resume (as the output does when it anchors again), the corrected time line goes on
// without a step and the loop starts from there.
TEST(Pll, BoundedCorrectionAndRelockAcrossAPause) {
    for (const bool relock : {false, true}) {
        SCOPED_TRACE(relock ? "relock" : "no relock");
        kv_pll pll;
        const int64_t sys0 = 123456789, str0 = 987654321, pause = 100000000;
        long double worst_rate = 0, last_reg = 0;
        int64_t last_sys = sys0, last_out = 0;
        for (int64_t k = 0; k <= 50 * 900; ++k) {
            const bool after = k > 50 * 600;
            const int64_t dsys = k * 200000 + (after ? pause : 0);
            const int64_t dstr = std::llround(double(k * 200000) * (1 + 50e-6));
            if (relock && k == 50 * 600 + 1) {
                pll.relock();
            }
            const int64_t out = pll.set_stamp(sys0 + dsys, str0 + dstr);
            if (k > 1) {
                const long double dreg = pll.get_regulator() + pll.get_offset() - last_reg;
                worst_rate = std::max(worst_rate, std::fabs(dreg) * 1e7L / (sys0 + dsys - last_sys));
            }
            if (relock && k == 50 * 600 + 1) {
                EXPECT_NEAR(double(out - last_out), 200010, 2) << "no step at the relock";
            }
            last_reg = pll.get_regulator() + pll.get_offset();
            last_sys = sys0 + dsys;
            last_out = out;
        }
        EXPECT_LE(worst_rate, 100e-6L + 1e-9L);
        // Relocked, the loop goes back to pulling the fast stream in; otherwise it chases
        // the pause, at no more than the bound's rate.
        if (relock) {
            EXPECT_LT(pll.get_regulator(), 0.0L);
        } else {
            EXPECT_GT(pll.get_regulator(), 5e-3L);
        }
    }
}

}  // namespace
