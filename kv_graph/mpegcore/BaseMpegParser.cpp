#include "mpegcore/BaseMpegParser.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "mpegcore/base_descriptor.h"
#include "mpegcore/descriptors_mpeg.h"
#include "mpegcore/kvdescriptorlist.h"

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
        m_CAT.Clear();
        m_TSDT.Clear();
        m_EIT_Actual.Clear();
        m_EIT_Other.Clear();
        m_EIT_Actual_Shedule.Clear();
        m_EIT_Other_Shedule.Clear();
        m_SDT_Actual.Clear();
        m_SDT_Other.Clear();
        m_BAT.Clear();
        m_NIT_Actual.Clear();
        m_NIT_Other.Clear();
        m_TDT.Clear();
        m_TOT.Clear();
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

void CBaseMpegParser::copy_to_tail(const uint8_t* data, size_t size) {
    if (!m_pTailData.isValid() || m_pTailData.fullSize() < size) {
        m_pTailData.alloc(std::max(size, kTailReserve), kTailAlignment);
    }
    std::memcpy(m_pTailData.data(), data, size);
    m_lTailLength = size;
}

size_t CBaseMpegParser::Process(const uint8_t* data, size_t size) {
    const uint8_t* cursor = data;
    size_t length = size;
    if (m_bUseTail && m_lTailLength > 0) {
        // Join the held partial packet and the new bytes in the tail buffer.
        const size_t joined = m_lTailLength + size;
        if (m_pTailData.fullSize() < joined) {
            KVSDK::KVAlignMemory<uint8_t> grown;
            grown.alloc(joined, kTailAlignment);
            std::memcpy(grown.data(), m_pTailData.data(), m_lTailLength);
            m_pTailData = std::move(grown);
        }
        if (size > 0) {
            std::memcpy(m_pTailData.data() + m_lTailLength, data, size);
        }
        cursor = m_pTailData.data();
        length = joined;
        m_lTailLength = 0;
    }

    size_t consumed = 0;
    transport_packet packet;
    while (consumed + TS_PACKET_SIZE <= length) {
        if (cursor[consumed] != TS_SYNC_BYTE) {
            // Byte-by-byte search for the next sync byte.
            on_sync_byte_error();
            ++consumed;
            continue;
        }
        packet.decode_header(cursor + consumed);
        OnPreProcess(0, packet);
        ParserData(packet);
        OnProcess(0, packet);
        consumed += TS_PACKET_SIZE;
    }

    const size_t rest = length - consumed;
    if (rest > 0 && m_bUseTail) {
        // The rest may lie inside the tail buffer itself (when a tail was joined above), so
        // it goes through a local copy; it is at most 187 bytes.
        uint8_t held[TS_PACKET_SIZE];
        std::memcpy(held, cursor + consumed, rest);
        copy_to_tail(held, rest);
    }
    return consumed;
}

int CBaseMpegParser::ParserData(transport_packet& packet) {
    if (packet.PID > TS_MAX_PID) {
        return 0;
    }
    if (packet.has_adaptation_field()) {
        if (!ParserAdaptationField(packet)) {
            return 0;
        }
        if (packet.adaptation_field_control == 3) {
            const int64_t skip = packet.af.adaptation_field_length + 1;
            packet.pCurrDataPkt += skip;
            packet.lCurrSizePkt -= skip;
        }
        if (packet.af.adaptation_field_length != 0 && packet.af.PCR_flag == 1) {
            OnPCR(&packet);
        }
    }

    const CDataAccumulator* completed = m_pPIDs[packet.PID].putPacket(packet);

    switch (packet.PID) {
        case 0x0000:
        case 0x0001:
        case 0x0002:
        case 0x0010:
        case 0x0011:
        case 0x0012:
        case 0x0014:
            dispatch_psi(packet);
            break;
        case TS_NULL_PID:
            OnNULL(&packet);
            break;
        default:
            dispatch_other(packet, completed);
            break;
    }
    return 1;
}

bool CBaseMpegParser::open_section(uint16_t pid, KVSDK::KVBSReader& reader,
                                   uint8_t& table_id) const {
    const CDataAccumulator* unit = m_pPIDs[pid].getCurData();
    if (unit == nullptr || unit->getLength() < 3) {
        return false;
    }
    reader = KVSDK::KVBSReader(unit->get(), unit->getLength());
    reader.skipBytes(1);  // pointer field; sections are expected right behind it
    reader.lookBits<8>(table_id);
    return true;
}

template <class T, class Hook>
void CBaseMpegParser::parse_table(KVSDK::KVBSReader reader, CPacketWrapper<T>& wrapper, Hook hook) {
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (wrapper.Parser(reader)) {
        hook(wrapper.GetLast());
    }
}

void CBaseMpegParser::dispatch_psi(transport_packet& packet) {
    const uint16_t pid = packet.PID;
    KVSDK::KVBSReader reader;
    uint8_t table_id = 0;
    if (!open_section(pid, reader, table_id)) {
        if (pid == 0x0012) {
            std::printf("mpegcore: eit pkt skip\n");
        }
        return;
    }
    switch (pid) {
        case 0x0000:
            parse_table(reader, m_PAT, [this](CPAT* pat) {
                ClearPMT(*pat);
                OnPAT(pat);
            });
            break;
        case 0x0001:
            parse_table(reader, m_CAT, [this](CCAT* cat) { OnCAT(cat); });
            break;
        case 0x0002:
            parse_table(reader, m_TSDT, [this](CTSDT* tsdt) { OnTSDT(tsdt); });
            break;
        case 0x0010:
            if (table_id == 0x40) {
                parse_table(reader, m_NIT_Actual, [this](CNIT* nit) { OnNIT(nit); });
            } else if (table_id == 0x41) {
                parse_table(reader, m_NIT_Other, [this](CNIT* nit) { OnNIT(nit); });
            }
            break;
        case 0x0011:
            if (table_id == 0x42) {
                parse_table(reader, m_SDT_Actual, [this](CSDT* sdt) { OnSDT(sdt); });
            } else if (table_id == 0x46) {
                parse_table(reader, m_SDT_Other, [this](CSDT* sdt) { OnSDT(sdt); });
            } else if (table_id == 0x4A) {
                parse_table(reader, m_BAT, [this](CBAT* bat) { OnBAT(bat); });
            }
            break;
        case 0x0012: {
            auto on_eit = [this](CEIT* eit) { OnEIT(eit); };
            if (table_id == 0x4E) {
                parse_table(reader, m_EIT_Actual, on_eit);
            } else if (table_id == 0x4F) {
                parse_table(reader, m_EIT_Other, on_eit);
            } else if (table_id >= 0x50 && table_id <= 0x5F) {
                parse_table(reader, m_EIT_Actual_Shedule, on_eit);
            } else if (table_id >= 0x60 && table_id <= 0x6F) {
                parse_table(reader, m_EIT_Other_Shedule, on_eit);
            }
            break;
        }
        case 0x0014:
            if (table_id == 0x73) {
                parse_table(reader, m_TOT, [this](CTOT* tot) { OnTOT(tot); });
            } else if (table_id == 0x70) {
                parse_table(reader, m_TDT, [this](CTDT* tdt) { OnTDT(tdt); });
            }
            break;
        default:
            break;
    }
}

void CBaseMpegParser::on_pmt_packet(uint16_t pid) {
    KVSDK::KVBSReader reader;
    uint8_t table_id = 0;
    if (!open_section(pid, reader, table_id)) {
        return;
    }
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    std::shared_ptr<CPacketWrapper<CPMT>>& wrapper = m_MapPMT[pid];
    if (!wrapper) {
        wrapper = std::make_shared<CPacketWrapper<CPMT>>();
    }
    if (wrapper->Parser(reader)) {
        CBaseMpegProgram& program = m_PAT.GetLast()->program_map[pid];
        OnPMT(&program, wrapper->GetLast());
    }
}

// Calls `on_match` for every CA descriptor of `list` that names `pid`.
template <class F>
static void for_each_ca_pid(const KVDescriptorList& list, uint16_t pid, F on_match) {
    for (const auto& d : list.descriptor) {
        if (d->descriptor_tag != 0x09) {
            continue;
        }
        const auto* ca = dynamic_cast<const CA_descriptor*>(d.get());
        if (ca != nullptr && ca->CA_PID == pid) {
            on_match();
        }
    }
}

void CBaseMpegParser::dispatch_other(transport_packet& packet, const CDataAccumulator* completed) {
    const uint16_t pid = packet.PID;
    if (!m_PAT.IsValid()) {
        onOtherPid(&packet);
        return;
    }
    if (m_PAT.GetLast()->program_map.count(pid) != 0) {
        on_pmt_packet(pid);
        return;
    }

    for (auto& entry : m_MapPMT) {
        const uint16_t pmt_pid = entry.first;
        CPMT* pmt = entry.second->GetLast();
        auto stream = pmt->stream_map.find(pid);
        if (stream != pmt->stream_map.end()) {
            CBaseStreamTypeMap* map = stream->second.get();
            if (completed != nullptr && completed->getLength() != 0) {
                OnPES(pmt_pid, map, completed->get(), completed->getLength());
            }
            OnPES(pmt_pid, static_cast<const CBaseStreamTypeMap*>(map), &packet);
            OnPES(pmt_pid, pmt->program_number, map, &packet);
        } else if (pid == pmt->PCR_PID && packet.has_adaptation_field() &&
                   packet.af.adaptation_field_length >= 7 && packet.af.PCR_flag == 1) {
            for (const auto& es : pmt->stream_map) {
                m_pPIDs[es.first & TS_MAX_PID].putPCR(packet);
            }
            OnPES(pmt_pid, static_cast<const CBaseStreamTypeMap*>(nullptr), &packet);
        } else {
            for_each_ca_pid(pmt->descriptors, pid, [&] { OnECM(&packet); });
        }
    }
    if (m_CAT.IsValid()) {
        for_each_ca_pid(m_CAT.GetLast()->descriptors, pid, [&] { OnEMM(&packet); });
    }
    onOtherPid(&packet);
}

}  // namespace mpegcore
