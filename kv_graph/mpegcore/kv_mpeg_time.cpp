#include "mpegcore/kv_mpeg_time.h"

namespace mpegcore {

namespace {

// Shortest signed distance from b to a on a circle of size r. A distance of exactly
// half the circle counts as positive.
int64_t circular_difference(uint64_t a, uint64_t b, uint64_t r) {
    const int64_t range = static_cast<int64_t>(r);
    const int64_t half = range / 2;
    const int64_t v = static_cast<int64_t>(a - b);
    int64_t f = v % range;
    if (f < 0) {
        f += range;
    }
    if (f <= half) {
        return f;
    }
    if (v > half || v < -half) {
        return v - range;
    }
    return v;
}

// True when a lies strictly between 0 and half the circle ahead of b. Shifting by one
// and a half circles before reducing moves "just ahead" above the half mark and "just
// behind" below it, with both the zero and the half-circle distance landing on or
// below it.
bool circular_greater(uint64_t a, uint64_t b, uint64_t r) {
    return (a - b + r + r / 2) % r > r / 2;
}

int64_t magnitude(int64_t v) {
    return v < 0 ? -v : v;
}

}  // namespace

// ---- KVPtsDuration / KVPtsStamp ---------------------------------------------------

KVPtsDuration KVPtsDuration::fromUnit(int64_t units) {
    return KVPtsDuration(
        static_cast<int64_t>(static_cast<uint64_t>(units * 9 / 1000) & KVPtsStamp::mask));
}

void KVPtsStamp::setUnit(int64_t units) {
    m_pts = static_cast<uint64_t>(magnitude(units) * 9 / 1000) & mask;
}

KVPtsStamp KVPtsStamp::operator+(const KVPtsDuration& d) const {
    KVPtsStamp s(*this);
    s += d;
    return s;
}

KVPtsStamp KVPtsStamp::operator-(const KVPtsDuration& d) const {
    KVPtsStamp s(*this);
    s -= d;
    return s;
}

KVPtsStamp& KVPtsStamp::operator+=(const KVPtsDuration& d) {
    m_pts = (m_pts + static_cast<uint64_t>(d.m_duration)) & mask;
    return *this;
}

KVPtsStamp& KVPtsStamp::operator-=(const KVPtsDuration& d) {
    m_pts = (m_pts - static_cast<uint64_t>(d.m_duration)) & mask;
    return *this;
}

KVPtsDuration KVPtsStamp::operator-(const KVPtsStamp& s) const {
    return KVPtsDuration(circular_difference(m_pts, s.m_pts, range));
}

bool KVPtsStamp::operator>(const KVPtsStamp& s) const {
    return circular_greater(m_pts, s.m_pts, range);
}

// ---- KVPcrDuration / KVPcrStamp ---------------------------------------------------

KVPcrDuration KVPcrDuration::fromUnit(int64_t units) {
    return KVPcrDuration(
        static_cast<int64_t>(static_cast<uint64_t>(units * 27 / 10) % KVPcrStamp::range));
}

void KVPcrStamp::setUnit(int64_t units) {
    m_pcr = static_cast<uint64_t>(magnitude(units) * 27 / 10) % range;
}

KVPcrStamp KVPcrStamp::operator+(const KVPcrDuration& d) const {
    KVPcrStamp s(*this);
    s += d;
    return s;
}

KVPcrStamp KVPcrStamp::operator-(const KVPcrDuration& d) const {
    KVPcrStamp s(*this);
    s -= d;
    return s;
}

KVPcrStamp& KVPcrStamp::operator+=(const KVPcrDuration& d) {
    m_pcr = (m_pcr + range + static_cast<uint64_t>(d.m_duration)) % range;
    return *this;
}

KVPcrStamp& KVPcrStamp::operator-=(const KVPcrDuration& d) {
    m_pcr = (m_pcr + range - static_cast<uint64_t>(d.m_duration)) % range;
    return *this;
}

KVPcrDuration KVPcrStamp::operator-(const KVPcrStamp& s) const {
    return KVPcrDuration(circular_difference(m_pcr, s.m_pcr, range));
}

bool KVPcrStamp::operator>(const KVPcrStamp& s) const {
    return circular_greater(m_pcr, s.m_pcr, range);
}

// ---- KVMonotonicPCR ---------------------------------------------------------------

KVMonotonicPCR& KVMonotonicPCR::next_stamp(const KVPcrStamp& stamp) {
    const uint64_t r = KVPcrStamp::range;
    uint64_t wraps = m_pcr / r;
    if (stamp.m_pcr < m_pcr % r) {
        ++wraps;
    }
    m_pcr = wraps * r + stamp.m_pcr;
    return *this;
}

// ---- conversions between the two clocks -------------------------------------------

KVPcrStamp stamp_pts_to_pcr(const KVPtsStamp& pts) {
    return KVPcrStamp(pts.m_pts * 300);
}

KVPtsStamp stamp_pcr_to_pts(const KVPcrStamp& pcr) {
    return KVPtsStamp(pcr.m_pcr / 300);
}

KVPcrDuration duration_pts_to_pcr(const KVPtsDuration& d) {
    return KVPcrDuration(d.m_duration * 300);
}

KVPtsDuration duration_pcr_to_pts(const KVPcrDuration& d) {
    return KVPtsDuration(d.m_duration / 300);
}

// ---- kv_jitter_pid ----------------------------------------------------------------

void kv_jitter_pid::init_time_point(int64_t time, uint64_t base, uint16_t extension) {
    m_nTime = time;
    m_pcr = KVMonotonicPCR(base, extension);
}

void kv_jitter_pid::set_next_time_point(int64_t time, uint64_t base, uint16_t extension) {
    const int64_t t0 = m_nTime;
    const int64_t p0 = m_pcr.toUnit();
    m_pcr.next_stamp(base, extension);
    m_nTime = time;
    m_nJitter = calc_jitter(t0, p0, time, m_pcr.toUnit());
}

int64_t kv_jitter_pid::calc_jitter(int64_t t0, int64_t p0, int64_t t1, int64_t p1) {
    return magnitude((p1 - p0) - (t1 - t0));
}

}  // namespace mpegcore
