#include "mpegcore/BaseMpegParser.h"

namespace mpegcore {

namespace {

// Room for the longest incomplete packet, 8-byte aligned.
constexpr size_t kTailReserve = TS_PACKET_SIZE - 1;
constexpr size_t kTailAlignment = 8;

}  // namespace

CBaseMpegParser::CBaseMpegParser(bool bUseTail)
    : m_pPIDs(new CBasePID[kPidCount]), m_bUseTail(bUseTail) {
    m_pTailData.alloc(kTailReserve, kTailAlignment);
    for (size_t pid = 0; pid < kPidCount; ++pid) {
        m_pPIDs[pid].set_alarm_event(this);
    }
}

CBaseMpegParser::~CBaseMpegParser() = default;

void CBaseMpegParser::on_scrambler_pid(uint16_t PID) {
    if (m_p_mpeg_alarm_event) {
        m_p_mpeg_alarm_event->on_scrambler_pid(PID);
    }
}

void CBaseMpegParser::on_tei_pid(uint16_t PID) {
    if (m_p_mpeg_alarm_event) {
        m_p_mpeg_alarm_event->on_tei_pid(PID);
    }
}

void CBaseMpegParser::on_ts_sync_lost() {
    if (m_p_mpeg_alarm_event) {
        m_p_mpeg_alarm_event->on_ts_sync_lost();
    }
}

void CBaseMpegParser::on_sync_byte_error() {
    if (m_p_mpeg_alarm_event) {
        m_p_mpeg_alarm_event->on_sync_byte_error();
    }
}

void CBaseMpegParser::on_pat_error(uint16_t code) {
    if (m_p_mpeg_alarm_event) {
        m_p_mpeg_alarm_event->on_pat_error(code);
    }
}

void CBaseMpegParser::on_cc_error(uint16_t PID) {
    if (m_p_mpeg_alarm_event) {
        m_p_mpeg_alarm_event->on_cc_error(PID);
    }
}

void CBaseMpegParser::on_pmt_error(uint16_t PID, uint16_t code) {
    if (m_p_mpeg_alarm_event) {
        m_p_mpeg_alarm_event->on_pmt_error(PID, code);
    }
}

void CBaseMpegParser::on_pid_error(uint16_t PID) {
    if (m_p_mpeg_alarm_event) {
        m_p_mpeg_alarm_event->on_pid_error(PID);
    }
}

void CBaseMpegParser::set_alarm_event(kv_mpeg_alarm_event* sink) {
    // The parser is already the receiver of its PID states; pointing it at itself would
    // make every hook call itself.
    m_p_mpeg_alarm_event = sink != this ? sink : nullptr;
}

void CBaseMpegParser::Clear() {
    _clear();
}

void CBaseMpegParser::_clear() {
    {
        std::lock_guard<std::recursive_mutex> lock(m_cs);
        m_PAT.Clear();
        m_MapPMT.clear();
    }
    m_pTailData.dealloc();
    m_lTailLength = 0;
    for (size_t pid = 0; pid < kPidCount; ++pid) {
        m_pPIDs[pid].clear();
    }
}

bool CBaseMpegParser::ParserAdaptationField(transport_packet& packet) {
    const size_t size = packet.lCurrSizePkt > 0 ? static_cast<size_t>(packet.lCurrSizePkt) : 0;
    return adaptation_field::read(packet.pCurrDataPkt, size, packet.af);
}

void CBaseMpegParser::analyze_packet(transport_packet& packet) {
    if (packet.transport_scrambling_control == 1) {
        on_scrambler_pid(packet.PID);
    }
    if (packet.transport_error_indicator == 1) {
        on_tei_pid(packet.PID);
    }
}

int CBaseMpegParser::ParcerPESPacket(const uint8_t* /*data*/) {
    return 1;
}

void CBaseMpegParser::ClearPMT(const CPAT& pat) {
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    for (auto it = m_MapPMT.begin(); it != m_MapPMT.end();) {
        const uint16_t pmt_pid = it->first;
        if (pat.program_map.count(pmt_pid) != 0) {
            ++it;
            continue;
        }
        m_pPIDs[pmt_pid & TS_MAX_PID].clear();
        const CPacketWrapper<CPMT>& wrapper = *it->second;
        if (wrapper.IsValid()) {
            for (const auto& stream : wrapper.GetLast()->stream_map) {
                m_pPIDs[stream.first & TS_MAX_PID].clear();
            }
        }
        it = m_MapPMT.erase(it);
    }
}

}  // namespace mpegcore
