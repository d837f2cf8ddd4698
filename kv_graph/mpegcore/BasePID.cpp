#include "mpegcore/BasePID.h"

#include <limits>

#include "mpegcore/kv_mpeg_alarm_event.h"

namespace mpegcore {

namespace {

constexpr size_t kAccumulatorSize = 4095;
constexpr double kUnitsPerSecond = 10000000.0;

}  // namespace

CBasePID::CBasePID() {
    clear();
}

void CBasePID::clear() {
    continuity_counter = kNoCounter;
    data_counter = 0;
    lastPCR = 0;
    m_bPayload = false;
    if (m_pCurrent) {
        m_pCurrent->clear();
    }
    if (m_pLast) {
        m_pLast->clear();
    }
}

const CDataAccumulator* CBasePID::putPacket(const transport_packet& packet) {
    // Counts what follows the header or the adaptation field preceding a payload; a
    // packet that is all adaptation field still counts its 184 bytes.
    if (packet.lCurrSizePkt > 0) {
        data_counter += static_cast<uint64_t>(packet.lCurrSizePkt);
    }
    if (packet.PID == TS_NULL_PID) {
        return nullptr;
    }

    // A packet without payload repeats the counter; every other control value, the
    // reserved 0 included, advances it. A repeated packet with payload is therefore
    // counted as an error.
    if (continuity_counter != kNoCounter) {
        const uint8_t step = packet.adaptation_field_control == 2 ? 0 : 1;
        const uint8_t expected = static_cast<uint8_t>((continuity_counter + step) & 0x0F);
        if ((packet.continuity_counter & 0x0F) != expected) {
            ++continuity_counter_error;
            if (m_p_mpeg_alarm_event) {
                m_p_mpeg_alarm_event->on_cc_error(packet.PID);
            }
        }
    }
    continuity_counter = packet.continuity_counter & 0x0F;

    if (!m_pCurrent) {
        m_pCurrent.reset(new CDataAccumulator(kAccumulatorSize));
        m_pLast.reset(new CDataAccumulator(kAccumulatorSize));
    }
    if (!packet.has_payload()) {
        return nullptr;
    }
    const size_t n = packet.lCurrSizePkt > 0 ? static_cast<size_t>(packet.lCurrSizePkt) : 0;
    if (packet.payload_unit_start_indicator) {
        m_pCurrent.swap(m_pLast);
        m_pCurrent->clear();
        m_bPayload = true;
        m_pCurrent->addData(packet.pCurrDataPkt, n);
        return m_pLast.get();
    }
    // A continuation before any unit start belongs to a unit whose start was missed.
    if (m_bPayload) {
        m_pCurrent->addData(packet.pCurrDataPkt, n);
    }
    return nullptr;
}

void CBasePID::putPCR(const transport_packet& packet) {
    const int64_t pcr = packet.af.pcr() * 10 / 27;
    const int64_t elapsed = pcr - lastPCR;
    // A PCR that did not advance (a repeat, a wrap or a jump back) gives no rate.
    if (elapsed > 0) {
        const double rate = static_cast<double>(data_counter) * 8.0 /
                            (static_cast<double>(elapsed) / kUnitsPerSecond);
        constexpr double kMax = static_cast<double>(std::numeric_limits<int64_t>::max());
        data_rate_pcr =
            rate < kMax ? static_cast<int64_t>(rate) : std::numeric_limits<int64_t>::max();
    }
    data_counter = 0;
    lastPCR = pcr;
}

}  // namespace mpegcore
