#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "kvcore/kv_align_memory.h"
#include "kvcore/kv_bitstream.h"
#include "mpegcore/BAT.h"
#include "mpegcore/BaseMpegProgram.h"
#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/BasePID.h"
#include "mpegcore/CAT.h"
#include "mpegcore/DataAccumulator.h"
#include "mpegcore/EIT.h"
#include "mpegcore/NIT.h"
#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "mpegcore/SDT.h"
#include "mpegcore/TDT.h"
#include "mpegcore/TOT.h"
#include "mpegcore/TSDT.h"
#include "mpegcore/TransportPacket.h"
#include "mpegcore/kv_mpeg_alarm_event.h"

namespace mpegcore {

// PMT wrappers by PMT PID.
using CMapPMT = std::map<uint16_t, std::shared_ptr<CPacketWrapper<CPMT>>>;

// Transport-stream demultiplexer from which every consumer of a stream derives.
//
// It keeps per-PID state for all 8192 PIDs, assembles and parses the tables that travel
// on the fixed PIDs and on the PMT PIDs of the PAT, and reports everything through
// virtual hooks that do nothing by default; a subclass overrides the hooks it needs.
// Table pointers handed to hooks stay owned by the parser and are valid only until the
// next packet of their PID. m_cs is held while tables are parsed or swapped and while
// table hooks run; PID state and the packet hooks run without it.
class CBaseMpegParser : public kv_mpeg_alarm_event {
public:
    static constexpr size_t kPidCount = 8192;

    // `bUseTail`: carry an incomplete packet at the end of one call over to the next.
    explicit CBaseMpegParser(bool bUseTail = true);
    ~CBaseMpegParser() override;

    CBaseMpegParser(const CBaseMpegParser&) = delete;
    CBaseMpegParser& operator=(const CBaseMpegParser&) = delete;

    // Stream-error hooks. By default each passes the error on to the receiver set with
    // set_alarm_event(), if any.
    void on_scrambler_pid(uint16_t PID) override;
    void on_tei_pid(uint16_t PID) override;
    void on_ts_sync_lost() override;
    void on_sync_byte_error() override;
    void on_pat_error(uint16_t code) override;
    void on_cc_error(uint16_t PID) override;
    void on_pmt_error(uint16_t PID, uint16_t code) override;
    void on_pid_error(uint16_t PID) override;

    // Returns the parser to its constructed state; the tail buffer is released and made
    // again when needed.
    virtual void Clear();

    // Packet hooks. `index` is always 0.
    virtual void OnPreProcess(unsigned int /*index*/, const transport_packet& /*packet*/) {}
    virtual void OnProcess(unsigned int /*index*/, transport_packet& /*packet*/) {}

    // Table hooks, called with m_cs held and the newly parsed table.
    virtual void OnPAT(CPAT* /*pat*/) {}
    // `program` is the PAT entry of the PMT's PID.
    virtual void OnPMT(CBaseMpegProgram* /*program*/, CPMT* /*pmt*/) {}
    virtual void OnCAT(CCAT* /*cat*/) {}
    virtual void OnTSDT(CTSDT* /*tsdt*/) {}
    virtual void OnSDT(CSDT* /*sdt*/) {}
    virtual void OnEIT(CEIT* /*eit*/) {}
    virtual void OnNIT(CNIT* /*nit*/) {}
    virtual void OnTDT(CTDT* /*tdt*/) {}
    virtual void OnTOT(CTOT* /*tot*/) {}

    // Every packet of an elementary PID listed in a PMT; also a PCR packet on the PCR PID,
    // with a null stream.
    virtual void OnPES(uint16_t /*pmt_pid*/, const CBaseStreamTypeMap* /*stream*/,
                       transport_packet* /*packet*/) {}
    // A whole payload unit of an elementary PID is complete.
    virtual void OnPES(uint16_t /*pmt_pid*/, CBaseStreamTypeMap* /*stream*/,
                       const uint8_t* /*data*/, size_t /*length*/) {}
    // Every packet of an elementary PID, after the first form, with its program number.
    virtual void OnPES(uint16_t /*pmt_pid*/, uint16_t /*program_number*/,
                       const CBaseStreamTypeMap* /*stream*/, transport_packet* /*packet*/) {}
    // Any packet carrying a PCR.
    virtual void OnPCR(transport_packet* /*packet*/) {}
    // Packet on a PID named by a CA descriptor of the CAT.
    virtual void OnEMM(transport_packet* /*packet*/) {}
    // Packet on a PID named by a CA descriptor of a PMT.
    virtual void OnECM(transport_packet* /*packet*/) {}
    virtual void OnBAT(CBAT* /*bat*/) {}
    // Packet on the null PID.
    virtual void OnNULL(transport_packet* /*packet*/) {}
    // Packet that no table claimed.
    virtual void onOtherPid(transport_packet* /*packet*/) {}

    // Frames the bytes into 188-byte packets, carrying an incomplete packet over to the
    // next call when tails are used, and hands each packet through OnPreProcess(),
    // ParserData() and OnProcess(). Returns the number of bytes consumed into packets.
    size_t Process(const uint8_t* data, size_t size);

    // Handles one packet: its adaptation field, its PID state and the table or hook its
    // PID leads to. Returns 1 when the packet was handled, 0 when it was refused.
    int ParserData(transport_packet& packet);

    // Reads the adaptation field at the packet's payload cursor into `packet.af`. Fails,
    // leaving `af` unchanged, when its length is above 183 or its private data length is
    // above 188. The cursor is not moved.
    static bool ParserAdaptationField(transport_packet& packet);

    // Reports a scrambled packet (scrambling control 1) through on_scrambler_pid() and a
    // packet with its error indicator set through on_tei_pid().
    void analyze_packet(transport_packet& packet);

    // Placeholder for PES parsing; returns 1.
    int ParcerPESPacket(const uint8_t* data);

    // Drops every PMT whose PID the given PAT no longer lists, resetting the PID state of
    // that PMT PID and of the elementary PIDs of the PMT.
    void ClearPMT(const CPAT& pat);

    // Receiver of the stream-error hooks (not owned; null for none).
    void set_alarm_event(kv_mpeg_alarm_event* sink);

    // State of `pid` (0..8191).
    const CBasePID& getPIDState(uint16_t pid) const { return m_pPIDs[pid & TS_MAX_PID]; }

protected:
    void _clear();

private:
    // Parses the section under `reader` into `wrapper` with m_cs held and, on success,
    // calls `hook` with the new table.
    template <class T, class Hook>
    void parse_table(KVSDK::KVBSReader reader, CPacketWrapper<T>& wrapper, Hook hook);
    // Opens a reader on `pid`'s current payload unit positioned on the table id, behind
    // the pointer field; false when the unit is missing or shorter than 3 bytes.
    bool open_section(uint16_t pid, KVSDK::KVBSReader& reader, uint8_t& table_id) const;
    void dispatch_psi(transport_packet& packet);
    void dispatch_other(transport_packet& packet, const CDataAccumulator* completed);
    void on_pmt_packet(uint16_t pid);
    void copy_to_tail(const uint8_t* data, size_t size);

protected:
    CPacketWrapper<CPAT> m_PAT;
    CPacketWrapper<CCAT> m_CAT;
    CPacketWrapper<CTSDT> m_TSDT;
    CPacketWrapper<CEIT> m_EIT_Actual;          // table id 0x4E
    CPacketWrapper<CEIT> m_EIT_Other;           // table id 0x4F
    CPacketWrapper<CEIT> m_EIT_Actual_Shedule;  // table ids 0x50..0x5F
    CPacketWrapper<CEIT> m_EIT_Other_Shedule;   // table ids 0x60..0x6F
    CPacketWrapper<CSDT> m_SDT_Actual;          // table id 0x42
    CPacketWrapper<CSDT> m_SDT_Other;           // table id 0x46
    CPacketWrapper<CBAT> m_BAT;                 // table id 0x4A
    CPacketWrapper<CNIT> m_NIT_Actual;          // table id 0x40
    CPacketWrapper<CNIT> m_NIT_Other;           // table id 0x41
    CPacketWrapper<CTDT> m_TDT;                 // table id 0x70
    CPacketWrapper<CTOT> m_TOT;                 // table id 0x73
    CMapPMT m_MapPMT;
    std::unique_ptr<CBasePID[]> m_pPIDs;        // indexed by PID
    std::recursive_mutex m_cs;                  // guards the table wrappers and m_MapPMT
    KVSDK::KVAlignMemory<uint8_t> m_pTailData;  // incomplete packet carried between calls
    size_t m_lTailLength = 0;
    bool m_bUseTail = true;
    kv_mpeg_alarm_event* m_p_mpeg_alarm_event = nullptr;
};

}  // namespace mpegcore
