#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "kv_asi_renderer/kv_asi_messages.h"
#include "mpegcore/fifo/kv_mpegts_item.h"

// Lays transport-stream packets out as ten-bit ASI words in one device frame and keeps
// what has to continue into the next frame: the rest of a packet cut at the frame's end
// (or the first packet that found no room) and the idle words still owed after the last
// packet.
//
// Word format: a data word is the byte OR 0x100, the idle word is 0. Four consecutive
// words w0..w3 are stored as the 40-bit value w0 + w1 * 2^10 + w2 * 2^20 + w3 * 2^30 in
// five bytes, least significant byte first.
//
// Word i of a frame [tBegin, tEnd) of N words has the time index_to_time(tBegin, tEnd, i,
// N). Each packet starts at the first word whose time has reached its due time (late
// packets at once; times are compared by their difference, so a time line may cross
// zero), and every packet is followed by exactly two idle words; all other
// words are idle. A pending carry is sent from the first word of the next frame that is
// filled, whatever its time.
//
// Not synchronised: the output thread owns the filler and its carry state.
class kv_asi_frame_filler {
public:
    // Room for the largest packet that may be carried (204 bytes; 188 are used). Longer
    // items are carried cut to this size.
    static constexpr size_t kCarrySize = 204;

    kv_asi_frame_filler();

    // Drops the carried packet and the owed idle words.
    void reset();
    // Drops the carried packet only; owed idle words stay.
    void clear_carry() { m_nSizeSrc = 0; }

    // tBegin + (tEnd - tBegin) * nIndex / nSamples, the product in 128-bit unsigned
    // arithmetic and the division truncating. Returns tBegin for nSamples == 0.
    static uint64_t index_to_time(uint64_t tBegin, uint64_t tEnd, size_t nIndex, uint64_t nSamples);

    // Fills nSamples / 4 groups of four words (5 bytes each) at pData with the items, in
    // the order given, starting with the carry of the previous call. nSize is the
    // buffer's size and is not used as a bound: the buffer must hold the groups.
    // Items that cannot start in this frame: the first one is carried whole into the
    // next frame (unless a packet is already cut at the end), every other one is dropped
    // and counted in nSkipTSPackets with a "skip pkt" message. An item without data or
    // with length 0 takes one idle word. Items are read in place, not modified.
    void fill_asi_data(uint64_t tBegin, uint64_t tEnd, uint8_t* pData, size_t nSize,
                       uint64_t nSamples, const mpegcore::kv_mpegts_items& items,
                       std::atomic<uint64_t>& nSkipTSPackets);

    // Data words are packed with vector instructions where the processor has them (x86
    // with AVX2), else four bytes at a time; the output is the same. Turning it off lets
    // tests and benchmarks exercise the plain path.
    void set_vector_packing(bool bOn);
    bool get_vector_packing() const { return m_bVectorPacking; }

    // Carry state, for the owner's statistics and for tests.
    size_t get_carry_size() const { return m_nSizeSrc; }
    const uint8_t* get_carry_data() const { return m_pDataSrc.get(); }
    size_t get_stuffing() const { return m_nStuffing; }

private:
    // After the frame is full: the rest of a cut packet, or else the first item that found
    // no room, is kept for the next frame; the items behind it are counted as skipped.
    void keep_for_next_frame(const uint8_t* pCursor, size_t nPending,
                             mpegcore::kv_mpegts_items::const_iterator it,
                             const mpegcore::kv_mpegts_items& items,
                             std::atomic<uint64_t>& nSkipTSPackets);

    std::unique_ptr<uint8_t[]> m_pDataSrc;  // carried packet bytes, kCarrySize
    size_t m_nSizeSrc = 0;                  // bytes pending in m_pDataSrc
    size_t m_nStuffing = 0;                 // idle words owed after the last packet
    kv_print_limiter m_print;
    bool m_bVectorPacking;                  // see set_vector_packing
};
