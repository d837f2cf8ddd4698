#include "mpegcore/fifo/kv_mpegts_fifo.h"

#include <utility>

#include "kvcore/kv_ring_queue.h"

namespace mpegcore {

namespace {

constexpr const char* kErrorNoMemory = "There is not enough memory in fifo";
constexpr const char* kErrorEmptied = "Fifo emptied";
constexpr const char* kErrorGap = "Large gap in flow time";

// A PCR is present when the packet has an adaptation field long enough for it and the
// field's PCR flag is set.
bool carries_pcr(const transport_packet& packet) {
    return (packet.adaptation_field_control == 2 || packet.adaptation_field_control == 3) &&
           packet.af.adaptation_field_length >= 7 && packet.af.PCR_flag == 1;
}

void move_all(kv_mpegts_items& from, kv_mpegts_items& to) {
    for (auto& item : from) {
        to.push_back(std::move(item));
    }
    from.clear();
}

}  // namespace

kv_mpegts_fifo::kv_mpegts_fifo() : CBaseMpegParser(true) {}

kv_mpegts_fifo::~kv_mpegts_fifo() = default;

bool kv_mpegts_fifo::create(size_t nCapacity, size_t nItemSize, std::shared_ptr<kv_clock> pClock,
                            kv_fifo_time_control eTimeControl, bool bResetWhenEmpty) {
    if (nItemSize == 0) {
        return false;
    }
    recursive_lock lockItems(m_csItems);
    recursive_lock lockFree(m_csFreeItems);
    // Items of an earlier create() point into the reservation that is about to be carved
    // again from its start; keeping them would hand out the same bytes twice.
    if (m_pItem || !m_listItems.empty() || !m_listTmpItems.empty() || !m_listFreeItems.empty()) {
        release_items();
        m_bResetStream.store(true, std::memory_order_release);
    }
    m_nCapacity = nCapacity;
    m_nItemSize = nItemSize;
    m_pClock = std::move(pClock);
    m_time_control = eTimeControl;
    m_bResetWhenEmpty = bResetWhenEmpty;
    m_bFifoUnderflow = false;
    m_bFifoOverflow = false;
    m_bNeedReset = false;
    m_bStarted = false;
    m_bEnded = false;
    m_tStartFifo = 0;
    m_tStopFifo = 0;
    m_memory_manager.reset(nCapacity);
    // Every item fits in each queue at once: moving items along never allocates.
    const size_t nItems = nCapacity / nItemSize;
    m_listItems.reserve(nItems);
    m_listFreeItems.reserve(nItems);
    m_listTmpItems.reserve(nItems);
    return true;
}

void kv_mpegts_fifo::release_items() {
    m_listItems.clear();
    m_listFreeItems.clear();
    m_listTmpItems.clear();
    m_pItem.reset();
}

void kv_mpegts_fifo::destroy() {
    {
        recursive_lock lockItems(m_csItems);
        recursive_lock lockFree(m_csFreeItems);
        release_items();
        m_bStarted = false;
        m_strError.clear();
    }
    m_bResetStream = false;
    m_bEnded = false;
    m_bFirst = true;
    m_pid_pcr = -1;
    m_pll.reset();
    m_tMaxAnchorInterval = 0;
    m_nRate = 0;
    m_pClock.reset();
    m_nCapacity = 0;
    m_nItemSize = TS_PACKET_SIZE;
    m_bNeedReset = false;
    m_bFifoUnderflow = false;
    m_bFifoOverflow = false;
    CBaseMpegParser::Clear();
}

void kv_mpegts_fifo::reset() {
    {
        recursive_lock lockItems(m_csItems);
        recursive_lock lockFree(m_csFreeItems);
        move_all(m_listItems, m_listFreeItems);
        m_bStarted = false;
        m_tStartFifo = 0;
        m_tStopFifo = 0;
        // The waiting items and the pacing state belong to the producer, which may be
        // inside push_data right now; it resets them before its next packet.
        m_bResetStream.store(true, std::memory_order_release);
        m_bNeedReset = false;
        m_bFifoUnderflow = false;
        m_bFifoOverflow = false;
        m_bEnded = false;
        m_tMaxAnchorInterval = 0;
        m_nRate = 0;
    m_nRate = 0;
    }
    std::lock_guard<std::mutex> lockJitter(m_csMapJitter);
    m_mapJitter.clear();
}

void kv_mpegts_fifo::reset_stream() {
    m_bResetStream.store(false, std::memory_order_relaxed);
    {
        recursive_lock lockFree(m_csFreeItems);
        move_all(m_listTmpItems, m_listFreeItems);
    }
    m_pid_pcr = -1;
    m_bFirst = true;
    m_pll.reset();
    m_tMaxAnchorInterval = 0;
    m_nRate = 0;
}

void kv_mpegts_fifo::push_data(int64_t tTime, const uint8_t* pData, size_t nSize) {
    take_pending_reset();
    if (m_bNeedReset.load(std::memory_order_relaxed)) {
        return;
    }
    if (m_time_control != stamp_time_type) {
        Process(pData, nSize);
        return;
    }
    if (tTime == kNoTime) {
        // No stamp: its packets wait, and take their times from the next stamped buffer.
        Process(pData, nSize);
        return;
    }
    // A buffer's time is the due time of its last packet: that is when the packet that
    // completes the buffer was stamped upstream (a timestamping parser at the PCR that
    // ends the buffer, a network source at arrival).
    m_tTimeStamp = time_to_pll(tTime);
    const size_t nBefore = m_nSinceAnchor;
    Process(pData, nSize);
    if (m_nSinceAnchor > nBefore && !m_bNeedReset.load(std::memory_order_relaxed)) {
        stamp_last_packet();
    }
}

void kv_mpegts_fifo::stamp_last_packet() {
    const bool bFirst = m_bFirst;
    m_bFirst = false;
    if (bFirst) {
        m_nLastIntervalPackets = 0;
        m_nSinceAnchor = 0;  // the packets before the first anchor are timed backwards
    }
    count_anchor(m_tTimeStamp);
    m_nSinceAnchor = 0;
    if (m_pItem) {
        m_pItem->set_time(m_tTimeStamp);  // it completes with the next buffer's bytes
    } else if (!m_listTmpItems.empty()) {
        m_listTmpItems.back()->set_time(m_tTimeStamp);
        copy_to_use();
    }
}

void kv_mpegts_fifo::OnProcess(unsigned int /*index*/, transport_packet& packet) {
    take_pending_reset();
    // A failure raised while this buffer is being framed drops the rest of it as well.
    if (m_bNeedReset.load(std::memory_order_relaxed)) {
        return;
    }
    if (m_time_control == stamp_time_type) {
        on_process_by_stamp(packet);
    } else {
        on_process_by_pcr(packet);
    }
}

int64_t kv_mpegts_fifo::time_to_pll(int64_t tTime) {
    if (!m_pClock) {
        return tTime;
    }
    if (m_bRelock.exchange(false, std::memory_order_acquire)) {
        m_pll.relock();
    }
    return m_pll.set_stamp(m_pClock->get_clock_time(), tTime);
}

int64_t kv_mpegts_fifo::next_pcr_time(const transport_packet& packet) {
    constexpr int64_t kPeriod = (int64_t{1} << 33) * 300;
    const int64_t pcr = static_cast<int64_t>(packet.af.program_clock_reference_base) * 300 +
                        packet.af.program_clock_reference_extension;
    if (m_bFirst) {
        m_nPcr = pcr;
        m_tBaseOffset = 0;
        return m_nPcr * 10 / 27;
    }
    // The shortest way round from the previous PCR: less than half the period ahead is
    // ahead (a wrap included), anything else is behind.
    int64_t step = ((pcr - m_nPcr) % kPeriod + kPeriod) % kPeriod;
    if (step >= kPeriod / 2) {
        step -= kPeriod;
    }
    m_nPcr += step;
    const int64_t t = m_nPcr * 10 / 27 + m_tBaseOffset;

    const bool bFlagged = packet.af.discontinuity_indicator != 0;
    const bool bJump = !(t > m_tLastAnchor - m_tTrembling && t < m_tLastAnchor + m_tTrembling);
    if (!bFlagged && !bJump) {
        return t;
    }
    // A new time base: this PCR goes right behind the previous anchor, at the rate of
    // the last whole interval, and every later one follows it.
    int64_t predicted = m_tLastAnchor;
    if (m_nLastIntervalPackets > 0) {
        predicted += m_tLastInterval * static_cast<int64_t>(m_nSinceAnchor) /
                     static_cast<int64_t>(m_nLastIntervalPackets);
    }
    m_tBaseOffset += predicted - t;
    if (!bFlagged) {
        {
            recursive_lock lock(m_csItems);
            m_strError = kErrorGap;
        }
        m_bTimeBaseNotice = true;
    }
    return predicted;
}

void kv_mpegts_fifo::count_anchor(int64_t t) {
    if (m_nSinceAnchor > 0) {
        m_tLastInterval = t - m_tPrevAnchor;
        m_nLastIntervalPackets = m_nSinceAnchor;
        if (m_tLastInterval > m_tMaxAnchorInterval.load(std::memory_order_relaxed)) {
            m_tMaxAnchorInterval.store(m_tLastInterval, std::memory_order_relaxed);
        }
        if (m_tLastInterval > 0) {
            // Bits per second: packets x item bits over the interval in 100 ns units.
            const auto bits = static_cast<unsigned __int128>(m_nSinceAnchor) * m_nItemSize * 8;
            m_nRate.store(static_cast<int64_t>(bits * 10000000 /
                                               static_cast<uint64_t>(m_tLastInterval)),
                          std::memory_order_relaxed);
        }
    }
    m_nAnchors.fetch_add(1, std::memory_order_relaxed);
    m_tPrevAnchor = t;
    m_nSinceAnchor = 1;
}

void kv_mpegts_fifo::on_process_by_pcr(const transport_packet& packet) {
    if (m_bFirst) {
        // Nothing is stored before the first PCR; its PID paces the stream from now on.
        if (!carries_pcr(packet)) {
            return;
        }
        m_tLastAnchor = next_pcr_time(packet);
        m_bFirst = false;
        m_pid_pcr = packet.PID;
        m_nSinceAnchor = 0;
        m_nLastIntervalPackets = 0;
        m_tTimeStamp = time_to_pll(m_tLastAnchor);
        count_anchor(m_tTimeStamp);
        add_to_fifo(packet);
        return;
    }
    if (packet.PID == m_pid_pcr && carries_pcr(packet)) {
        m_tLastAnchor = next_pcr_time(packet);
        m_tTimeStamp = time_to_pll(m_tLastAnchor);
        count_anchor(m_tTimeStamp);
        add_to_fifo(packet);
        return;
    }
    if (append_to_fifo(packet)) {
        ++m_nSinceAnchor;
    }
}

void kv_mpegts_fifo::on_process_by_stamp(const transport_packet& packet) {
    if (append_to_fifo(packet)) {
        ++m_nSinceAnchor;
    }
}

void kv_mpegts_fifo::end_of_stream() {
    take_pending_reset();
    if (m_pItem && m_pItem->get_length() > 0) {
        m_listTmpItems.push_back(std::move(m_pItem));
    }
    const size_t n = m_listTmpItems.size();
    if (n > 0) {
        // The waiting items follow the last anchor at the last interval's rate (before
        // it too, for the first buffer's packets in stamp pacing).
        size_t a = 0;
        while (a + 1 < n && !m_listTmpItems[a]->has_time()) {
            ++a;
        }
        const int64_t first =
            m_listTmpItems[a]->has_time() ? m_listTmpItems[a]->time() : m_tTimeStamp;
        recursive_lock lock(m_csItems);
        for (int64_t i = -static_cast<int64_t>(a); !m_listTmpItems.empty(); ++i) {
            std::unique_ptr<kv_mpegts_item> item = std::move(m_listTmpItems.front());
            m_listTmpItems.pop_front();
            int64_t t = first;
            if (m_nLastIntervalPackets > 0) {
                t += m_tLastInterval * i / static_cast<int64_t>(m_nLastIntervalPackets);
            }
            item->set_time(t);
            m_listItems.push_back(std::move(item));
        }
        update_start_stop();
        m_bStarted = true;
    }
    m_bEnded = true;
}

void kv_mpegts_fifo::fail(const char* text, std::atomic<bool>* pFlag) {
    recursive_lock lock(m_csItems);
    m_strError = text;
    if (pFlag) {
        pFlag->store(true, std::memory_order_relaxed);
    }
    m_bNeedReset.store(true, std::memory_order_relaxed);
}

std::unique_ptr<kv_mpegts_item> kv_mpegts_fifo::make_item(const transport_packet& packet) {
    std::unique_ptr<kv_mpegts_item> item;
    {
        recursive_lock lock(m_csFreeItems);
        if (!m_listFreeItems.empty()) {
            item = std::move(m_listFreeItems.front());
            m_listFreeItems.pop_front();
            item->clear();
        } else {
            // Without a reservation large enough for one item nothing can be carved.
            uint8_t* pBlock =
                m_nCapacity >= m_nItemSize ? m_memory_manager.lock(m_nItemSize) : nullptr;
            if (pBlock == nullptr) {
                return nullptr;
            }
            item = std::make_unique<kv_mpegts_item>(pBlock, m_nItemSize);
            m_memory_manager.commit(m_nItemSize);
        }
    }
    item->copy_from(packet.pStartDataPkt, static_cast<size_t>(packet.lSizePkt));
    return item;
}

bool kv_mpegts_fifo::fill_item(const transport_packet& packet) {
    if (m_pItem) {
        m_pItem->copy_from(packet.pStartDataPkt, static_cast<size_t>(packet.lSizePkt));
        return true;
    }
    m_pItem = make_item(packet);
    if (!m_pItem) {
        fail(kErrorNoMemory, &m_bFifoOverflow);
        return false;
    }
    return true;
}

bool kv_mpegts_fifo::add_to_fifo(const transport_packet& packet) {
    if (!fill_item(packet)) {
        return false;
    }
    // When several anchors fall into one item, the last one wins.
    m_pItem->set_time(m_tTimeStamp);
    if (m_pItem->is_full()) {
        m_listTmpItems.push_back(std::move(m_pItem));
        copy_to_use();
    }
    return true;
}

bool kv_mpegts_fifo::append_to_fifo(const transport_packet& packet) {
    if (!fill_item(packet)) {
        return false;
    }
    if (m_pItem->is_full()) {
        const bool bTimed = m_pItem->has_time();
        m_listTmpItems.push_back(std::move(m_pItem));
        if (bTimed) {
            copy_to_use();
        }
    }
    return true;
}

void kv_mpegts_fifo::copy_to_use() {
    const size_t n = m_listTmpItems.size();
    // The oldest waiting item is the previous anchor, except at the start of stamp
    // pacing, where the first buffer's packets before its last one wait untimed.
    size_t a = 0;
    while (a < n && !m_listTmpItems[a]->has_time()) {
        ++a;
    }
    if (a + 1 >= n) {
        return;
    }
    const int64_t first = m_listTmpItems[a]->time();
    const int64_t span = m_listTmpItems.back()->time() - first;
    const int64_t count = static_cast<int64_t>(n - 1 - a);

    // Spread by position, not by bytes. Each time is the exact share of the interval
    // (truncated on its own): a step truncated once and added up would run up to a
    // unit per packet early, which a stream at the line's limit cannot absorb. Untimed
    // items before the anchor go back from it at the same rate.
    recursive_lock lock(m_csItems);
    for (int64_t i = -static_cast<int64_t>(a); m_listTmpItems.size() > 1; ++i) {
        std::unique_ptr<kv_mpegts_item> item = std::move(m_listTmpItems.front());
        m_listTmpItems.pop_front();
        const int64_t t = first + span * i / count;
        item->set_time(t);
        m_tStopFifo.store(t, std::memory_order_relaxed);
        m_listItems.push_back(std::move(item));
    }
    update_start_stop();
    m_bStarted = true;
}

void kv_mpegts_fifo::update_start_stop() {
    if (m_listItems.empty()) {
        m_tStartFifo.store(m_tStopFifo.load(std::memory_order_relaxed), std::memory_order_relaxed);
    } else {
        m_tStartFifo.store(m_listItems.front()->time(), std::memory_order_relaxed);
        m_tStopFifo.store(m_listItems.back()->time(), std::memory_order_relaxed);
    }
}

void kv_mpegts_fifo::get_data(int64_t /*tFrom*/, int64_t tTo, kv_mpegts_items& items) {
    recursive_lock lock(m_csItems);
    if (m_listItems.empty()) {
        if (m_bStarted && m_bResetWhenEmpty && !m_bEnded.load(std::memory_order_relaxed)) {
            m_strError = kErrorEmptied;
            m_bFifoUnderflow.store(true, std::memory_order_relaxed);
            m_bNeedReset.store(true, std::memory_order_relaxed);
            return;
        }
        update_start_stop();
        return;
    }
    // Late items are handed out as well: the window start is no lower bound.
    while (!m_listItems.empty()) {
        const int64_t t = m_listItems.front()->time();
        m_tStartFifo.store(t, std::memory_order_relaxed);
        if (tTo < t) {
            break;
        }
        items.push_back(std::move(m_listItems.front()));
        m_listItems.pop_front();
    }
    update_start_stop();
}

void kv_mpegts_fifo::revert(kv_mpegts_items& items) {
    recursive_lock lock(m_csFreeItems);
    move_all(items, m_listFreeItems);
}

int64_t kv_mpegts_fifo::get_fullness() const {
    recursive_lock lock(m_csItems);
    return m_tStopFifo.load(std::memory_order_relaxed) -
           m_tStartFifo.load(std::memory_order_relaxed);
}

std::string kv_mpegts_fifo::get_error() const {
    recursive_lock lock(m_csItems);
    return m_strError;
}

kv_mpegts_fifo::jitter_map kv_mpegts_fifo::get_jitters() const {
    std::lock_guard<std::mutex> lock(m_csMapJitter);
    return m_mapJitter;
}

void kv_mpegts_fifo::add_jitter_to_statistics(const transport_packet& packet) {
    const uint64_t base = packet.af.program_clock_reference_base;
    const uint16_t extension = packet.af.program_clock_reference_extension;
    std::lock_guard<std::mutex> lock(m_csMapJitter);
    auto it = m_mapJitter.find(packet.PID);
    if (it != m_mapJitter.end()) {
        it->second.set_next_time_point(m_tTimeStamp, base, extension);
    } else {
        kv_jitter_pid jitter;
        jitter.init_time_point(m_tTimeStamp, base, extension);
        m_mapJitter.emplace(packet.PID, jitter);
    }
}

}  // namespace mpegcore
