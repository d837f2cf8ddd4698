#pragma once

#include <cstdint>
#include <memory>

#include "mpegcore/DataAccumulator.h"
#include "mpegcore/TransportPacket.h"

namespace mpegcore {

class kv_mpeg_alarm_event;

// State of one PID: continuity checking, byte counting, bit rate between PCRs and the
// collection of the current payload unit.
class CBasePID {
public:
    CBasePID();
    virtual ~CBasePID() = default;

    CBasePID(const CBasePID&) = delete;
    CBasePID& operator=(const CBasePID&) = delete;

    // Forgets the counter, the byte count, the last PCR and the unit in progress. The
    // error count and the last measured rate are kept.
    virtual void clear();

    // Counts the packet, checks its continuity counter and collects its payload. Returns
    // the unit that this packet's unit start completed (possibly empty), or nullptr when
    // the packet starts no unit.
    virtual const CDataAccumulator* putPacket(const transport_packet& packet);

    // Measures the bit rate of this PID over the bytes counted since the previous PCR.
    virtual void putPCR(const transport_packet& packet);

    // Unit being collected; nullptr before the first packet with payload.
    const CDataAccumulator* getCurData() const { return m_pCurrent.get(); }
    // Unit completed most recently; nullptr before the first packet with payload.
    const CDataAccumulator* getLastData() const { return m_pLast.get(); }

    void set_alarm_event(kv_mpeg_alarm_event* sink) { m_p_mpeg_alarm_event = sink; }

    // Counter value meaning "no packet seen yet".
    static constexpr uint8_t kNoCounter = 255;

    uint8_t continuity_counter = kNoCounter;
    uint64_t data_counter = 0;             // bytes counted since the last PCR
    int64_t continuity_counter_error = 0;  // since construction; clear() keeps it
    int64_t lastPCR = 0;                   // 100 ns units
    int64_t data_rate_pcr = 0;             // bits per second

protected:
    std::unique_ptr<CDataAccumulator> m_pCurrent;
    std::unique_ptr<CDataAccumulator> m_pLast;
    kv_mpeg_alarm_event* m_p_mpeg_alarm_event = nullptr;  // not owned
    bool m_bPayload = false;  // a unit start was seen since the last clear()
};

}  // namespace mpegcore
