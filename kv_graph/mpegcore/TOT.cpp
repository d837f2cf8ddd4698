#include "mpegcore/TOT.h"

#include "mpegcore/table_io.h"

namespace mpegcore {

namespace {

// UTC_time and descriptors_loop_length (7 bytes) and the CRC.
constexpr int kFixedLength = 11;

}  // namespace

template <class IO>
bool CTOT::fields(IO& io) {
    return io.time("UTC_time", UTC_time) && io.reserved(reserved1, 4) &&
           io.length("descriptors_loop_length", descriptors_loop_length, 12,
                     [&] { return descriptors.getSize(); }) &&
           io.descriptors("descriptors", descriptors, descriptors_loop_length, true) && io.crc(CRC);
}

template class table_of<CTOT>;

void CTOT::Clear() {
    descriptors.clear();
    CBaseMpegTable::Clear();
}

void CTOT::copyTo(CTOT* target) const {
    if (target == nullptr || target == this) {
        return;
    }
    copyHeaderTo(*target);
    target->UTC_time = UTC_time;
    target->reserved1 = reserved1;
    descriptors.copyTo(target->descriptors);
    target->descriptors_loop_length = target->descriptors.getSize();
    target->CRC = CRC;
    target->section_length = static_cast<uint16_t>(target->descriptors_loop_length + kFixedLength);
}

}  // namespace mpegcore
