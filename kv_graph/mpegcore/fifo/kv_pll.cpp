#include "mpegcore/fifo/kv_pll.h"

namespace mpegcore {

namespace {

// Times arrive in 100 ns units and are divided into seconds as doubles, then widened;
// the way back multiplies by the single-precision value.
constexpr double kUnitsPerSecond = 10000000.0;
constexpr float kUnitsPerSecondOut = 10000000.0f;
constexpr double kLoopGain = 0.0001;
// Updates are at least 20 ms of device time apart; the start value makes the first
// call after a lock start update for any non-negative device time.
constexpr int64_t kUpdateSpacing = 199999;
constexpr int64_t kSystemTimeLastStart = -200001;
// The integral term joins once more than kIntegralStart regulator values are held, of
// at most kWindow.
constexpr std::size_t kWindow = 1000;
constexpr std::size_t kIntegralStart = 500;
constexpr double kIntegralWeight = 0.01;

int64_t to_units(long double seconds) {
    // Conversion to an integer truncates toward zero.
    return static_cast<int64_t>(seconds * kUnitsPerSecondOut);
}

}  // namespace

kv_pll::kv_pll() : m_Filter(0) {}

void kv_pll::reset() {
    m_bFirstStamp = true;
}

int64_t kv_pll::set_stamp(int64_t llSystemTime, int64_t llStreamTime) {
    if (m_bFirstStamp) {
        ResetPLL(llSystemTime, llStreamTime);
        m_bFirstStamp = false;
        m_bRelock = false;
        m_dBase = 0;
        return llStreamTime;
    }
    if (m_bRelock) {
        m_bRelock = false;
        if (m_listIRegulator.size() > kIntegralStart) {
            // A loop that has learnt the rate keeps it: only its phase reference moves,
            // so that the phase error goes on from its last value, whatever happened to
            // the stream in between (a pause, a refill).
            const long double ds = llStreamTime / kUnitsPerSecond - m_dStreamTimeStart;
            const long double dDif = (llSystemTime / kUnitsPerSecond - m_dSystemTimeStart) -
                                     (m_dRegulator + ds);
            m_dSystemTimeStart += dDif - m_dA0;
            m_nSystemTimeLast = llSystemTime;
            return to_units(m_dStreamTimeStart + (m_dRegulator + ds) + m_dBase);
        }
        // Otherwise the correction reached so far stays and the loop starts over.
        m_dBase += m_dRegulator;
        ResetPLL(llSystemTime, llStreamTime);
        return to_units(llStreamTime / kUnitsPerSecond + m_dBase);
    }
    return SetTimeToPLL(llSystemTime, llStreamTime);
}

void kv_pll::ResetPLL(int64_t llSystemTime, int64_t llStreamTime) {
    m_dSystemTimeStart = llSystemTime / kUnitsPerSecond;
    m_dStreamTimeStart = llStreamTime / kUnitsPerSecond;
    m_nSystemTimeLast = kSystemTimeLastStart;
    m_lP = 0;
    m_dStreamTimeLast = 0;
    m_dK = kLoopGain;
    m_dRegulator = 0;
    m_Filter.Reset(0);
    m_dIRegulator = 0;
    m_listIRegulator.clear();
}

int64_t kv_pll::SetTimeToPLL(int64_t llSystemTime, int64_t llStreamTime) {
    const long double dStreamTime = llStreamTime / kUnitsPerSecond;
    const long double ds = dStreamTime - m_dStreamTimeStart;

    if (llSystemTime - m_nSystemTimeLast <= kUpdateSpacing) {
        return to_units(m_dStreamTimeStart + (m_dRegulator + ds) + m_dBase);
    }
    const long double dRegulatorBefore = m_dRegulator;

    // Phase error: elapsed device time minus elapsed corrected stream time.
    const long double dSystemTime = llSystemTime / kUnitsPerSecond;
    const long double dDif = (dSystemTime - m_dSystemTimeStart) - (m_dRegulator + ds);

    m_dA0 = dDif;
    const long double f = m_Filter.DigFil(dDif);
    m_dA = f;
    m_dRegulator = m_dRegulator + m_dK * f;

    m_listIRegulator.push_back(m_dRegulator);
    m_dIRegulator = m_dIRegulator + m_dRegulator;
    if (m_listIRegulator.size() > kWindow) {
        m_dIRegulator = m_dIRegulator - m_listIRegulator.front();
        m_listIRegulator.pop_front();
    }
    if (m_listIRegulator.size() > kIntegralStart) {
        // The quotient goes back into the store itself, so from here on the store is a
        // running mixture of the last quotient and the newer values rather than a plain
        // sum. The loop is tuned with this arithmetic; it is not a moving average.
        m_dIRegulator = m_dIRegulator / static_cast<long double>(m_listIRegulator.size());
        m_dRegulator = m_dRegulator + kIntegralWeight * m_dIRegulator;
    }

    // However far the phase is off (a stream that stopped while the clock ran on), the
    // correction moves at most at the bound's rate: it cannot run away with the FIFO.
    if (m_dLimit > 0 && m_nSystemTimeLast != kSystemTimeLastStart) {
        const long double dMax = m_dLimit * (dSystemTime - m_nSystemTimeLast / kUnitsPerSecond);
        if (m_dRegulator > dRegulatorBefore + dMax) {
            m_dRegulator = dRegulatorBefore + dMax;
        } else if (m_dRegulator < dRegulatorBefore - dMax) {
            m_dRegulator = dRegulatorBefore - dMax;
        }
    }

    m_nSystemTimeLast = llSystemTime;
    const long double result = m_dStreamTimeStart + (ds + m_dRegulator) + m_dBase;
    m_dStreamTimeLast = result;
    return to_units(result);
}

}  // namespace mpegcore
