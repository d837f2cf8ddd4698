#pragma once

#include <cstdint>

namespace mpegcore {

// The output clock: the device's current time in 100 ns units. The FIFO reads it for
// every pushed buffer when PLL pacing is on. Never destroyed through this interface,
// so the destructor is protected and not virtual.
class kv_clock {
public:
    virtual int64_t get_clock_time() = 0;

protected:
    ~kv_clock() = default;
};

}  // namespace mpegcore
