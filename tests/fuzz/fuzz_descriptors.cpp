// A descriptor loop of the kind that bit 0 of the first input byte picks, the rest of the
// input being the loop. Whatever the list reads must survive a deep copy and write back as
// the bytes it came from; a buffer one byte short must make the write fail, not overrun.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "mpegcore/kvdescriptorlist.h"

using namespace mpegcore;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const uint8_t* loop = data + 1;
    const size_t length = size - 1;
    KVDescriptorList list((data[0] & 1) != 0 ? e_scte35_desc_type : e_ts_desc_type);
    KVSDK::KVBSReader reader(loop, length);
    const bool complete = list.read(reader);

    KVDescriptorList copy;
    list.copyTo(copy);
    list.clear();  // the copy must not lean on the original's objects

    // Each descriptor read is complete, so the list writes the start of the loop again; a
    // list read to the end leaves out only a tail too short for a descriptor.
    // Buffers of exactly the size written to, so that a write past them is caught.
    const size_t n = copy.getSize();
    const std::unique_ptr<uint8_t[]> out(new uint8_t[n]);
    KVSDK::KVBSWriter writer(out.get(), n);
    const bool written = copy.write(writer);
    writer.flush();
    if (!written || writer.getWritedBytes() != n || n > length ||
        std::memcmp(out.get(), loop, n) != 0 || (complete && length - n >= 3)) {
        __builtin_trap();
    }
    if (n > 0) {
        const std::unique_ptr<uint8_t[]> short_out(new uint8_t[n - 1]);
        KVSDK::KVBSWriter tight(short_out.get(), n - 1);
        if (copy.write(tight)) {
            __builtin_trap();
        }
    }
    return 0;
}
