#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "kvcore/kv_memory_manager.h"
#include "mpegcore/BaseMpegParser.h"
#include "mpegcore/TransportPacket.h"
#include "mpegcore/fifo/kv_mpegts_item.h"
#include "mpegcore/fifo/kv_pll.h"
#include "mpegcore/kv_clock.h"
#include "mpegcore/kv_mpeg_time.h"

namespace mpegcore {

// Where the due times of stored packets come from.
enum kv_fifo_time_control : int32_t {
    pcr_time_type = 0,    // the PCRs of one PID
    stamp_time_type = 1,  // the time pushed with each buffer
};

// Timed transport-stream FIFO between the sink pad and the output thread.
//
// The producer pushes raw bytes with push_data(); the FIFO frames 188-byte packets,
// stores them in items (blocks of the configured item size carved once from a memory
// reservation and recycled afterwards) and gives every item a due time on the output
// clock, in 100 ns units. Anchors carry a time of their own: a PCR of the pacing PID
// (the first PID seen with a PCR), or the last packet of each pushed buffer in stamp
// pacing (a buffer's time is that of the packet that completes it, as a timestamping
// parser or a network source stamps it); with a clock, anchor times go through a PLL
// that locks the stream to the clock. Items between two anchors are spread evenly over the anchors' interval, so an
// item becomes visible to get_data() only once the following anchor has arrived.
//
// Time-base changes keep the stream: a PCR discontinuity that the stream flags
// (discontinuity_indicator on a PCR of the pacing PID, as splicers and looping players
// set it), or an unflagged step of 2 s or more either way, places the new PCRs right
// behind the previous anchor at the last interval's per-packet rate and carries that
// offset on to every later PCR; nothing stored is touched. The unflagged step is still
// reported, through take_time_base_notice() and the error text "Large gap in flow time".
// The 33-bit PCR is unwrapped the shortest way round, so a step back is a step back and
// a real wrap goes on seamlessly.
//
// Failures never throw: they set is_reset() together with a text (get_error()) and, for
// a full pool or an emptied FIFO, is_overflow() or is_underflow(). While is_reset() is
// set all input is dropped; the owner calls reset().
//
// Threads: one producer (push_data) and one consumer (get_data, revert, the fullness and
// the front and back times). reset() may be called from the consumer while the producer
// pushes: the queues and flags are reset at once, and the producer's own state (pacing
// PID, first-anchor flag, PLL, unwrapped PCR, items still waiting for their time) is
// reset by the producer before the next packet it handles. create() and destroy() need
// a quiet producer and no items out between get_data() and revert().
class kv_mpegts_fifo : private CBaseMpegParser {
public:
    using jitter_map = std::map<uint16_t, kv_jitter_pid>;

    kv_mpegts_fifo();
    ~kv_mpegts_fifo() override;

    kv_mpegts_fifo(const kv_mpegts_fifo&) = delete;
    kv_mpegts_fifo& operator=(const kv_mpegts_fifo&) = delete;

    // Reserves nCapacity bytes for items of nItemSize bytes (at most nCapacity /
    // nItemSize items exist at any time, wherever they are), takes the clock (none: no
    // PLL) and the pacing mode, and clears the failure state. With bResetWhenEmpty an
    // empty FIFO after the first stored item counts as a failure. Returns false only
    // for an item size of 0.
    bool create(size_t nCapacity, size_t nItemSize, std::shared_ptr<kv_clock> pClock,
                kv_fifo_time_control eTimeControl, bool bResetWhenEmpty);
    // Releases every item, the clock and the parser's tables; back to the constructed
    // state except for the memory reservation, which the next create() reuses.
    void destroy();
    // Recycles every stored and waiting item, forgets the pacing PID, the PLL lock and
    // the unwrapped PCR, clears the failure state and the jitter map. A partly filled
    // item, the last error text and the pending buffer time are kept.
    void reset();

    // A buffer without a time (stamp pacing only).
    static constexpr int64_t kNoTime = INT64_MIN;

    // Feeds a buffer of bytes in any chunking; tTime (100 ns units) is its time, used
    // only in stamp pacing, where a buffer of kNoTime joins the next stamped one. Does
    // nothing while is_reset() is set.
    void push_data(int64_t tTime, const uint8_t* pData, size_t nSize);
    // Appends to `items`, oldest first, every item whose due time is not later than
    // tTo. tFrom is not a lower bound: late items are handed out too.
    void get_data(int64_t tFrom, int64_t tTo, kv_mpegts_items& items);
    // Takes items back for reuse and empties `items`.
    void revert(kv_mpegts_items& items);

    // End of stream (producer thread): the items still waiting for a next anchor are
    // timed at the last anchor interval's per-packet rate and become visible. From then
    // on an empty FIFO is no failure, until reset().
    void end_of_stream();
    bool is_ended() const { return m_bEnded.load(std::memory_order_relaxed); }
    // True once after each unflagged time-base step (any thread).
    bool take_time_base_notice() { return m_bTimeBaseNotice.exchange(false); }
    // Longest interval between two consecutive anchors since the last reset, in 100 ns
    // units (0 before the second anchor). An item becomes visible only once the anchor
    // after it has arrived, so this is how far the newest stored item may lag.
    int64_t get_anchor_interval() const {
        return m_tMaxAnchorInterval.load(std::memory_order_relaxed);
    }
    // Anchors (PCRs of the pacing PID, or stamped buffers) since construction, and the
    // stream's rate over the last whole anchor interval in bits per second (0 until the
    // second anchor after a reset). Any thread.
    uint64_t get_anchor_count() const { return m_nAnchors.load(std::memory_order_relaxed); }
    int64_t get_rate() const { return m_nRate.load(std::memory_order_relaxed); }
    // From the consumer thread: the PLL restarts its lock at the next anchor, keeping the
    // corrected time line continuous.
    void relock_clock() { m_bRelock.store(true, std::memory_order_release); }
    // Bound of the PLL's correction in ppm (0: none); kept across create and reset.
    void set_pll_limit_ppm(double ppm) { m_pll.set_limit(ppm > 0 ? ppm * 1e-6L : 0); }

    size_t get_capacity() const { return m_nCapacity; }
    // Due time of the newest stored item minus that of the oldest.
    int64_t get_fullness() const;
    int64_t get_front_time() const { return m_tStartFifo.load(std::memory_order_relaxed); }
    int64_t get_back_time() const { return m_tStopFifo.load(std::memory_order_relaxed); }

    bool is_reset() const { return m_bNeedReset.load(std::memory_order_relaxed); }
    bool is_underflow() const { return m_bFifoUnderflow.load(std::memory_order_relaxed); }
    bool is_overflow() const { return m_bFifoOverflow.load(std::memory_order_relaxed); }
    std::string get_error() const;

    // Copy of the per-PID PCR jitter map.
    jitter_map get_jitters() const;
    // Measures the PCR of `packet` against the current anchor time in the jitter map.
    // The packet path does not call it; an owner that wants jitter figures calls it on
    // the producer thread for packets that carry a PCR.
    void add_jitter_to_statistics(const transport_packet& packet);

private:
    using recursive_lock = std::lock_guard<std::recursive_mutex>;

    void OnProcess(unsigned int index, transport_packet& packet) override;

    void on_process_by_pcr(const transport_packet& packet);
    void on_process_by_stamp(const transport_packet& packet);
    // Stamp pacing: the last packet stored from the pushed buffer takes its time.
    void stamp_last_packet();
    // Stores an anchor packet and stamps its item with m_tTimeStamp.
    bool add_to_fifo(const transport_packet& packet);
    // Stores a packet without a time of its own.
    bool append_to_fifo(const transport_packet& packet);
    // Copies the packet into m_pItem, taking a new item when there is none.
    bool fill_item(const transport_packet& packet);
    // A recycled or newly carved item holding the start of the packet, or none when the
    // pool is exhausted.
    std::unique_ptr<kv_mpegts_item> make_item(const transport_packet& packet);
    // Times the waiting items between the oldest and the newest anchor and makes them
    // visible; the newest anchor stays behind.
    void copy_to_use();
    // Caller holds m_csItems.
    void update_start_stop();
    int64_t time_to_pll(int64_t tTime);
    // The packet's PCR as a time on the continuous time line: unwrapped the shortest way
    // round, time-base changes carried over.
    int64_t next_pcr_time(const transport_packet& packet);
    // Books an anchor at time t (after the PLL) for the interval statistics.
    void count_anchor(int64_t t);
    void fail(const char* text, std::atomic<bool>* pFlag);
    // The producer's share of reset(), run on the producer thread.
    void reset_stream();
    void take_pending_reset() {
        if (m_bResetStream.load(std::memory_order_acquire)) {
            reset_stream();
        }
    }
    void release_items();

    mutable std::recursive_mutex m_csItems;  // m_listItems, m_bStarted, m_strError, times
    kv_mpegts_items m_listItems;             // timed items, oldest first
    size_t m_nCapacity = 0;
    size_t m_nItemSize = TS_PACKET_SIZE;
    int64_t m_tTimeStamp = 0;         // newest anchor time, after the PLL
    int64_t m_tTrembling = 20000000;  // PCR jumps of this size or more change the time base (2 s)
    // Producer only: the unwrapped PCR (27 MHz), the offset that carries time-base changes
    // (100 ns units) and the previous anchor before the PLL.
    int64_t m_nPcr = 0;
    int64_t m_tBaseOffset = 0;
    int64_t m_tLastAnchor = 0;
    // Producer only: the previous anchor after the PLL, the packets stored since it (it
    // included), and the last whole interval with its packet count.
    int64_t m_tPrevAnchor = 0;
    size_t m_nSinceAnchor = 0;
    int64_t m_tLastInterval = 0;
    size_t m_nLastIntervalPackets = 0;
    std::atomic<int64_t> m_tMaxAnchorInterval{0};
    std::atomic<int64_t> m_nRate{0};
    std::atomic<uint64_t> m_nAnchors{0};
    kv_fifo_time_control m_time_control = pcr_time_type;
    KVSDK::KVMemoryManager m_memory_manager;  // under m_csFreeItems
    std::recursive_mutex m_csFreeItems;       // m_listFreeItems, m_memory_manager
    kv_mpegts_items m_listFreeItems;
    kv_mpegts_items m_listTmpItems;           // producer only: full items waiting for their time
    bool m_bFirst = true;                     // no anchor since the last reset
    bool m_bStarted = false;                  // an item has reached m_listItems
    int32_t m_pid_pcr = -1;                   // pacing PID, -1 until the first PCR
    std::unique_ptr<kv_mpegts_item> m_pItem;  // the item being filled
    kv_pll m_pll;
    std::shared_ptr<kv_clock> m_pClock;
    std::atomic<int64_t> m_tStartFifo{0};  // due time of the oldest item
    std::atomic<int64_t> m_tStopFifo{0};   // due time of the newest item
    std::atomic<bool> m_bNeedReset{false};
    bool m_bResetWhenEmpty = true;
    std::string m_strError;
    std::atomic<bool> m_bFifoUnderflow{false};
    std::atomic<bool> m_bFifoOverflow{false};
    std::atomic<bool> m_bResetStream{false};  // reset() left the producer's share pending
    std::atomic<bool> m_bEnded{false};
    std::atomic<bool> m_bTimeBaseNotice{false};
    std::atomic<bool> m_bRelock{false};
    mutable std::mutex m_csMapJitter;
    jitter_map m_mapJitter;
};

}  // namespace mpegcore
