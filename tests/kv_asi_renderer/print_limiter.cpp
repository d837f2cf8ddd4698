// Diagnostic lines that repeat print at most once a second, with the count of those held
// back; different lines do not hold each other back.

#include <glib.h>
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <string>
#include <thread>

#include "kv_asi_renderer/kv_asi_messages.h"

namespace {

std::string g_out;

TEST(PrintLimiter, RepeatsWithinASecondAreCountedInTheNextLine) {
    GPrintFunc old = g_set_print_handler([](const gchar* s) { g_out += s; });
    kv_print_limiter p;
    for (int i = 0; i < 5; ++i) {
        p.print("x: skip pkt = %d\n", 10 + i);  // numbers aside, one line
        p.print("x: %s\n", i % 2 ? "Fifo emptied" : "Large gap in flow time");
    }
    EXPECT_EQ(g_out, "x: skip pkt = 10\nx: Large gap in flow time\nx: Fifo emptied\n");
    EXPECT_EQ(p.get_suppressed(), 7u);

    g_out.clear();
    std::this_thread::sleep_for(kv_print_limiter::kInterval + std::chrono::milliseconds(20));
    p.print("x: skip pkt = %d\n", 99);
    p.print("x: Fifo emptied\n");  // a literal of its own: the text decides
    EXPECT_TRUE(std::regex_match(
        g_out, std::regex("x: skip pkt = 99 \\[4 more in 1\\.\\d s\\]\n"
                          "x: Fifo emptied \\[1 more in 1\\.\\d s\\]\n")))
        << g_out;
    g_set_print_handler(old);
}

}  // namespace
