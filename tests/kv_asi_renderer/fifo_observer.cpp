#include <gtest/gtest.h>

#include <chrono>

#include "kv_asi_renderer/kv_fifo_observer.h"

using namespace std::chrono_literals;

TEST(FifoObserver, UnderflowIsReportedOnlyBeyondTheLatency) {
    std::chrono::steady_clock::time_point now{std::chrono::hours(1)};
    kv_fifo_observer o([&now] { return now; });
    o.init(100, 1000);

    o.send_data(5000);  // nothing stored yet: no comparison
    o.add_data(7, 9000, 5000);
    EXPECT_FALSE(o.isReset()) << "sent up to exactly the stored time is no underflow";

    o.add_data(7, 9000, 4999);  // only the PLL-corrected time counts: underflow begins
    now += 100ms;
    o.send_data(5001);
    EXPECT_FALSE(o.isReset()) << "exactly the latency is tolerated";
    now += 999us;
    o.send_data(5002);
    EXPECT_FALSE(o.isReset()) << "100.999 ms truncates to 100 ms";
    now += 1us;
    o.send_data(5003);
    EXPECT_TRUE(o.isReset());
    EXPECT_EQ(o.get_last_error(), "Fifo underflow");

    // reset() forgets both reports but not the episode, and init() keeps the request.
    o.reset();
    EXPECT_FALSE(o.isReset());
    EXPECT_EQ(o.get_last_error(), "");
    o.send_data(6000);
    o.add_data(7, 9000, 5000);
    EXPECT_TRUE(o.isReset()) << "still the underflow that began 101 ms ago";
    o.init(500, 1000);
    EXPECT_TRUE(o.isReset());

    // The producer catching up ends the episode; the next one starts from scratch.
    o.reset();
    o.add_data(7, 9000, 6000);
    o.send_data(6000);
    o.add_data(7, 9000, 5999);
    now += 500ms;
    o.send_data(6000);
    EXPECT_FALSE(o.isReset());
    now += 1ms;
    o.send_data(6000);
    EXPECT_TRUE(o.isReset());
}
