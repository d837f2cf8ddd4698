#pragma once

// Value types for the two MPEG-2 transport-stream clocks and their conversion to the
// system time unit (100 ns, 10,000,000 units per second):
//  - the 90 kHz presentation clock, a 33-bit counter (KVPtsStamp / KVPtsDuration);
//  - the 27 MHz program clock reference, 33-bit base x 300 + 9-bit extension, which
//    wraps at 300 x 2^33 ticks, about 26.5 hours (KVPcrStamp / KVPcrDuration);
//  - KVMonotonicPCR, the 27 MHz counter unwrapped into an ever-growing count;
//  - kv_jitter_pid, the per-PID PCR jitter meter.
// Each type is a single 64-bit field with value semantics. Stamps live on a circle:
// differences give the shortest signed distance around it and ordering asks whether
// one stamp lies less than half the circle ahead of the other.

#include <cstdint>
#include <map>

namespace mpegcore {

// Signed duration in 90 kHz ticks; plain signed arithmetic, no wrapping.
class KVPtsDuration {
public:
    int64_t m_duration = 0;

    KVPtsDuration() = default;
    explicit KVPtsDuration(int64_t ticks) : m_duration(ticks) {}

    // ticks x 1000 / 9, truncated toward zero.
    int64_t toUnit() const { return m_duration * 1000 / 9; }
    // units x 9 / 1000, kept to the low 33 bits (a negative input therefore comes back
    // as a large positive tick count).
    static KVPtsDuration fromUnit(int64_t units);

    KVPtsDuration operator+(const KVPtsDuration& d) const {
        return KVPtsDuration(m_duration + d.m_duration);
    }
    KVPtsDuration operator-(const KVPtsDuration& d) const {
        return KVPtsDuration(m_duration - d.m_duration);
    }
    KVPtsDuration& operator+=(const KVPtsDuration& d) {
        m_duration += d.m_duration;
        return *this;
    }
    KVPtsDuration& operator-=(const KVPtsDuration& d) {
        m_duration -= d.m_duration;
        return *this;
    }

    bool operator==(const KVPtsDuration& d) const { return m_duration == d.m_duration; }
    bool operator!=(const KVPtsDuration& d) const { return m_duration != d.m_duration; }
    bool operator<(const KVPtsDuration& d) const { return m_duration < d.m_duration; }
    bool operator>(const KVPtsDuration& d) const { return m_duration > d.m_duration; }
    bool operator<=(const KVPtsDuration& d) const { return m_duration <= d.m_duration; }
    bool operator>=(const KVPtsDuration& d) const { return m_duration >= d.m_duration; }
};

// 90 kHz stamp, kept to 33 bits.
class KVPtsStamp {
public:
    static constexpr uint64_t range = uint64_t(1) << 33;
    static constexpr uint64_t half_range = range / 2;
    static constexpr uint64_t mask = range - 1;

    uint64_t m_pts = 0;

    KVPtsStamp() = default;
    explicit KVPtsStamp(uint64_t value) : m_pts(value & mask) {}
    // The three parts of a PES time stamp field: bits 14..0, 29..15 and 32..30. The
    // parts are added as given, without masking them to their field widths.
    KVPtsStamp(uint16_t low, uint16_t mid, uint8_t high)
        : m_pts(uint64_t(low) + (uint64_t(mid) << 15) + (uint64_t(high) << 30)) {}
    static KVPtsStamp make(uint16_t low, uint16_t mid, uint8_t high) {
        return KVPtsStamp(low, mid, high);
    }

    // pts x 1000 / 9.
    int64_t toUnit() const { return static_cast<int64_t>(m_pts) * 1000 / 9; }
    // Takes the magnitude of units: a negative time maps to the same stamp as its
    // positive counterpart.
    void setUnit(int64_t units);

    KVPtsStamp operator+(const KVPtsDuration& d) const;
    KVPtsStamp operator-(const KVPtsDuration& d) const;
    KVPtsStamp& operator+=(const KVPtsDuration& d);
    KVPtsStamp& operator-=(const KVPtsDuration& d);

    // Shortest signed distance from s to this stamp; exactly half the range is positive.
    KVPtsDuration operator-(const KVPtsStamp& s) const;

    bool operator==(const KVPtsStamp& s) const { return m_pts == s.m_pts; }
    bool operator!=(const KVPtsStamp& s) const { return m_pts != s.m_pts; }
    // True when this stamp lies strictly less than half the range ahead of s.
    bool operator>(const KVPtsStamp& s) const;
    bool operator<(const KVPtsStamp& s) const { return s > *this; }
    bool operator>=(const KVPtsStamp& s) const { return *this == s || *this > s; }
    bool operator<=(const KVPtsStamp& s) const { return *this == s || *this < s; }
};

// Signed duration in 27 MHz ticks; plain signed arithmetic, no wrapping.
class KVPcrDuration {
public:
    int64_t m_duration = 0;

    KVPcrDuration() = default;
    explicit KVPcrDuration(int64_t ticks) : m_duration(ticks) {}

    // ticks x 10 / 27, truncated toward zero.
    int64_t toUnit() const { return m_duration * 10 / 27; }
    // units x 27 / 10, read as unsigned and reduced modulo the PCR range.
    static KVPcrDuration fromUnit(int64_t units);

    KVPcrDuration operator+(const KVPcrDuration& d) const {
        return KVPcrDuration(m_duration + d.m_duration);
    }
    KVPcrDuration operator-(const KVPcrDuration& d) const {
        return KVPcrDuration(m_duration - d.m_duration);
    }

    bool operator==(const KVPcrDuration& d) const { return m_duration == d.m_duration; }
    bool operator!=(const KVPcrDuration& d) const { return m_duration != d.m_duration; }
    bool operator<(const KVPcrDuration& d) const { return m_duration < d.m_duration; }
    bool operator>(const KVPcrDuration& d) const { return m_duration > d.m_duration; }
    bool operator<=(const KVPcrDuration& d) const { return m_duration <= d.m_duration; }
    bool operator>=(const KVPcrDuration& d) const { return m_duration >= d.m_duration; }
};

// 27 MHz stamp, normally in [0, 300 x 2^33).
class KVPcrStamp {
public:
    static constexpr uint64_t range = 300 * (uint64_t(1) << 33);
    static constexpr uint64_t half_range = range / 2;

    uint64_t m_pcr = 0;

    KVPcrStamp() = default;
    explicit KVPcrStamp(uint64_t value) : m_pcr(value % range) {}
    // base x 300 + extension, as carried in the adaptation field; not reduced.
    KVPcrStamp(uint64_t base, uint16_t extension) : m_pcr(base * 300 + extension) {}

    uint64_t base() const { return m_pcr / 300; }
    uint64_t ext() const { return m_pcr % 300; }

    // pcr x 10 / 27.
    int64_t toUnit() const { return static_cast<int64_t>(m_pcr) * 10 / 27; }
    // Takes the magnitude of units, as KVPtsStamp::setUnit does.
    void setUnit(int64_t units);

    KVPcrStamp operator+(const KVPcrDuration& d) const;
    KVPcrStamp operator-(const KVPcrDuration& d) const;
    KVPcrStamp& operator+=(const KVPcrDuration& d);
    KVPcrStamp& operator-=(const KVPcrDuration& d);

    // Shortest signed distance from s to this stamp; exactly half the range is positive.
    KVPcrDuration operator-(const KVPcrStamp& s) const;

    bool operator==(const KVPcrStamp& s) const { return m_pcr == s.m_pcr; }
    bool operator!=(const KVPcrStamp& s) const { return m_pcr != s.m_pcr; }
    // True when this stamp lies strictly less than half the range ahead of s.
    bool operator>(const KVPcrStamp& s) const;
    bool operator<(const KVPcrStamp& s) const { return s > *this; }
    bool operator>=(const KVPcrStamp& s) const { return *this == s || *this > s; }
    bool operator<=(const KVPcrStamp& s) const { return *this == s || *this < s; }
};

// The 27 MHz counter unwrapped: number of wraps x range + current stamp.
class KVMonotonicPCR {
public:
    uint64_t m_pcr = 0;

    KVMonotonicPCR() = default;
    explicit KVMonotonicPCR(uint64_t value) : m_pcr(value % KVPcrStamp::range) {}
    KVMonotonicPCR(uint64_t base, uint16_t extension) : m_pcr(base * 300 + extension) {}
    KVMonotonicPCR(const KVMonotonicPCR&) = default;

    // The assignments copy the raw value as it is (no reduction).
    KVMonotonicPCR& operator=(const KVMonotonicPCR&) = default;
    KVMonotonicPCR& operator=(const KVPcrStamp& s) {
        m_pcr = s.m_pcr;
        return *this;
    }
    KVMonotonicPCR& operator=(uint64_t value) {
        m_pcr = value;
        return *this;
    }

    // Moves to the given stamp. A stamp below the current position within the period
    // is taken as a wrap of the 27 MHz counter and adds one whole period, however small
    // the step back; an equal stamp does not.
    KVMonotonicPCR& next_stamp(const KVPcrStamp& stamp);
    KVMonotonicPCR& next_stamp(uint64_t base, uint16_t extension) {
        return next_stamp(KVPcrStamp(base, extension));
    }

    // pcr x 10 / 27.
    int64_t toUnit() const { return static_cast<int64_t>(m_pcr) * 10 / 27; }
    KVPcrDuration toDuration() const { return KVPcrDuration(static_cast<int64_t>(m_pcr)); }
    KVPcrStamp toStamp() const { return KVPcrStamp(m_pcr); }
};

KVPcrStamp stamp_pts_to_pcr(const KVPtsStamp& pts);
KVPtsStamp stamp_pcr_to_pts(const KVPcrStamp& pcr);
KVPcrDuration duration_pts_to_pcr(const KVPtsDuration& d);
KVPtsDuration duration_pcr_to_pts(const KVPcrDuration& d);

// PCR jitter of one PID: how far the spacing of its last two PCRs disagrees with the
// spacing of their arrival times, in units. Kept in maps from PID to meter.
class kv_jitter_pid {
public:
    int64_t m_nJitter = 0;  // last jitter, units
    int64_t m_nTime = 0;    // arrival time of the last PCR, units
    KVMonotonicPCR m_pcr;   // last PCR, unwrapped

    // Starts the meter at its first PCR; the jitter is left as it is.
    void init_time_point(int64_t time, uint64_t base, uint16_t extension);
    // Takes the next PCR and its arrival time and measures the jitter against the last.
    void set_next_time_point(int64_t time, uint64_t base, uint16_t extension);

    // |(p1 - p0) - (t1 - t0)|
    static int64_t calc_jitter(int64_t t0, int64_t p0, int64_t t1, int64_t p1);
};

}  // namespace mpegcore
