#pragma once

// What goes out on the virtual board's line: the frame geometry, the word format and
// the decoder that turns the frames the board sends back into transport packets.

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace kvvb {

// One frame of the line: 540000 ten-bit words, 1/50 s at 27,000,000 words per second.
constexpr uint32_t kWordsPerFrame = 540000;
// Four ten-bit words pack into five bytes.
constexpr uint32_t kBytesPerFrame = kWordsPerFrame / 4 * 5;
// The board's counter runs at 148.5 MHz: 5.5 ticks per word, 2,970,000 per frame.
constexpr uint64_t kTicksPerSecond = 148500000;
constexpr uint64_t kTicksPerFrame = kTicksPerSecond / 50;
constexpr size_t kPacketSize = 188;
// Capture record: 4-byte big-endian word-clock stamp, then the packet.
constexpr size_t kRecordSize = 192;
// Stamps are the word index on the line modulo 2^30.
constexpr uint32_t kStampMask = (1u << 30) - 1;

struct line_counters {
    uint64_t word_violations = 0;  // words neither data (0x100 | byte) nor idle (0)
    uint64_t packets = 0;          // whole packets reassembled
    uint64_t bytes_partial = 0;    // data bytes that did not end up in a whole packet
};

// Decodes the words of the frames the board sends, reassembles 188-byte packets across
// frame borders and writes each one as a capture record. A packet begins at a data
// word 0x147 seen outside a packet; idle words inside a packet are skipped (the sender
// may hold the rest of a cut packet back for a few frames); a violation inside a
// packet abandons it.
class line_decoder {
public:
    // Records go to out when it is not null; the caller keeps the file.
    void set_output(FILE* out) { m_pOut = out; }

    // One frame: nBytes of packed words (complete five-byte groups are decoded, the
    // rest of the frame's 540000 words counts as idle); nFirstWord is the line index
    // of the frame's first word.
    void frame(const uint8_t* pData, size_t nBytes, uint64_t nFirstWord);

    // The line stopped: an unfinished packet is dropped and counted as partial bytes.
    void end_of_stream();

    const line_counters& counters() const { return m_counters; }

private:
    void word(uint32_t w, uint64_t nWord, bool& bIn, size_t& nFill);

    FILE* m_pOut = nullptr;
    line_counters m_counters;
    bool m_bInPacket = false;
    size_t m_nFill = 0;
    uint8_t m_record[kRecordSize] = {};
};

// Packs words into the line's byte format (w0 + w1 << 10 + w2 << 20 + w3 << 30, five
// bytes, least significant first). nWords must be a multiple of four; used by tests and
// by hosts that build frames by hand.
void pack_words(const uint16_t* pWords, size_t nWords, uint8_t* pOut);

}  // namespace kvvb
