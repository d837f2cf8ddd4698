// One section of the table class that the first input byte picks, read as the parser reads
// it (through a CPacketWrapper). An accepted table is copied into a table over a buffer of
// a size the same byte picks, rendered and written back; a section that the writer
// completes must read again. Out-of-bounds access and leaks are left to the sanitizers.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>

#include "mpegcore/BAT.h"
#include "mpegcore/CAT.h"
#include "mpegcore/EIT.h"
#include "mpegcore/NIT.h"
#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "mpegcore/SDT.h"
#include "mpegcore/TDT.h"
#include "mpegcore/TOT.h"
#include "mpegcore/TSDT.h"

using namespace mpegcore;

namespace {

template <class T>
void round_trip(const uint8_t* data, size_t size, size_t capacity) {
    CPacketWrapper<T> wrapper;
    KVSDK::KVBSReader reader(data, size);
    if (!wrapper.Parser(reader)) {
        return;
    }
    // Exactly `capacity` bytes on the heap, so that a write past them is caught.
    const std::unique_ptr<uint8_t[]> buffer(new uint8_t[capacity]());
    T copy(buffer.get(), capacity);
    wrapper.GetLast()->copyTo(copy);

    size_t written = 0;
    if constexpr (std::is_same_v<decltype(copy.RenderTable()), std::string>) {
        // PAT and PMT render text and write sections through a bit writer.
        if (copy.RenderTable().empty()) {
            __builtin_trap();
        }
        KVSDK::KVBSWriter writer(buffer.get(), capacity);
        if (!copy.write(writer)) {
            return;
        }
        written = writer.getWritedBytes();
    } else {
        if (!copy.RenderTable()) {
            return;
        }
        written = copy.GetSizeBuffer();
    }
    // What the writer completes is a section the reader accepts. The BAT is the exception:
    // its copies count the entries' 6 header bytes into their stored loop lengths, which it
    // then writes as they stand.
    KVSDK::KVBSReader again(buffer.get(), written);
    if (!wrapper.Parser(again) && !std::is_same_v<T, CBAT>) {
        __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    // Bits 0-3: the table class. Bit 4: put a correct CRC into the section, so that mutated
    // sections get past the check and into the body readers. Bits 5-7: the usual 1024-byte
    // table buffer, or one of 0 to 183 bytes that most sections overflow.
    const unsigned choice = data[0] >> 5;
    const size_t capacity = choice < 4 ? 1024 : (choice - 4) * 61;
    const size_t length = size - 1;
    const std::unique_ptr<uint8_t[]> section(new uint8_t[length]);
    std::memcpy(section.get(), data + 1, length);
    if ((data[0] & 0x10) != 0 && length >= 3) {
        const size_t end = 3 + ((section[1] & 0x0F) << 8 | section[2]);
        if (end >= 7 && end <= length) {
            const uint32_t crc = crc32_mpeg2(section.get(), end - 4);
            for (size_t i = 0; i < 4; ++i) {
                section[end - 4 + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
            }
        }
    }
    using RoundTrip = void (*)(const uint8_t*, size_t, size_t);
    static const RoundTrip kClasses[] = {
        round_trip<CPAT>, round_trip<CPMT>, round_trip<CCAT>, round_trip<CTSDT>, round_trip<CNIT>,
        round_trip<CSDT>, round_trip<CBAT>, round_trip<CEIT>, round_trip<CTDT>,  round_trip<CTOT>};
    kClasses[(data[0] & 0x0F) % 10](section.get(), length, capacity);
    return 0;
}
