#pragma once

#include <cstddef>
#include <cstdint>
#include <list>

#include "mpegcore/fifo/kv_butterworth.h"

namespace mpegcore {

// Software phase-locked loop that locks a stream time line (PCR or buffer time stamps,
// 100 ns units) to the output device's clock (also 100 ns units). It keeps a regulator,
// an offset in seconds added to the stream time, driven by the low-passed difference
// between elapsed device time and elapsed corrected stream time, so a stream clock that
// runs slightly fast or slow is squeezed or stretched onto the device clock. Computed
// in the 80-bit extended format.
//
// Not synchronised: one thread (the FIFO's producer) calls it.
class kv_pll {
public:
    kv_pll();

    // Unlocks: the next set_stamp takes its two times as the new origin.
    void reset();
    // The next set_stamp takes its two times as the loop's new phase reference, keeping
    // the corrected time line continuous (output anchored anew, after a pause or a
    // refill). A loop that has run long enough to learn the rate keeps it and goes on
    // from its last phase error; a younger one keeps its correction as a fixed offset
    // and starts over.
    void relock() { m_bRelock = true; }
    // Largest change of the correction in one update, as a rate against the device time
    // elapsed since the previous update (1e-4: 100 ppm); 0 or less: unbounded.
    void set_limit(long double dLimit) { m_dLimit = dLimit; }
    // Returns the corrected stream time for a stream time seen at the given device time.
    // The first call after construction or reset returns the stream time unchanged.
    int64_t set_stamp(int64_t llSystemTime, int64_t llStreamTime);

    // Takes both times as the origin of a new lock and clears the loop state.
    void ResetPLL(int64_t llSystemTime, int64_t llStreamTime);
    // Corrects a stream time, updating the regulator at most once per 20 ms of device
    // time.
    int64_t SetTimeToPLL(int64_t llSystemTime, int64_t llStreamTime);

    // Inspection.
    long double get_regulator() const { return m_dRegulator; }                   // seconds
    long double get_filter_output() const { return m_dA; }                       // seconds
    long double get_integral() const { return m_dIRegulator; }                   // integral store
    std::size_t get_regulator_count() const { return m_listIRegulator.size(); }  // <= 1000
    bool is_locked() const { return !m_bFirstStamp; }
    long double get_offset() const { return m_dBase; }  // seconds kept from earlier locks

private:
    long double m_dRegulator = 0;        // offset added to the stream time, seconds
    long double m_dA = 0;                // last filter output
    kv_butterworth m_Filter;             // loop filter
    long double m_dSystemTimeStart = 0;  // device time at lock start, seconds
    long double m_dStreamTimeStart = 0;  // stream time at lock start, seconds
    int64_t m_nSystemTimeLast = 0;       // device time of the last update, units
    long double m_dStreamTimeLast = 0;   // last corrected stream time of an update, seconds
    long double m_dK = 0;                // loop gain
    int32_t m_lP = 0;
    std::list<long double> m_listIRegulator;  // regulators of recent updates, oldest first
    long double m_dIRegulator = 0;            // integral store
    bool m_bFirstStamp = true;                // the next stamp restarts the lock
    bool m_bRelock = false;                   // the next stamp restarts it, continuously
    long double m_dBase = 0;                  // correction kept from earlier locks, seconds
    long double m_dA0 = 0;                    // phase error of the last update, seconds
    long double m_dLimit = 1e-4L;             // bound of the correction's rate
};

}  // namespace mpegcore
