#pragma once

#include <cstddef>
#include <cstdint>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/BaseMpegTable.h"

namespace mpegcore {

// Time and Date Table section: the current UTC time as a 16-bit Modified Julian Date and
// the BCD time of day (CEventInfo converts it to and from seconds). The section carries no
// CRC.
class CTDT : public table_of<CTDT> {
public:
    explicit CTDT(uint8_t* buffer = nullptr, size_t size = 1024);
    // A section ready to write: table_id 0x70, both flags 0, reserved 3, section_length 5.
    explicit CTDT(uint64_t utc_time, uint8_t* buffer = nullptr, size_t size = 1024);
    ~CTDT() override = default;

    // Reads the common header and UTC_time. Refuses only when fewer than 5 bytes follow the
    // header; neither the table id nor section_length is checked, and there is no CRC.
    bool read(KVSDK::KVBSReader& r) override;
    template <class IO>
    bool fields(IO& io) {
        return io.time("UTC_time", UTC_time);
    }

    // Writes the common header (section_length 5) and UTC_time into the scratch buffer;
    // GetBuffer()/GetSizeBuffer() then hold the section. Returns true when it fitted.
    bool RenderTable() { return render_into_buffer(); }
    // Copies the header fields and UTC_time into `target`, whose section_length becomes 5.
    // A null target is ignored.
    void copyTo(CTDT* target) const;
    void copyTo(CTDT& target) const { copyTo(&target); }

    uint64_t UTC_time = 0;  // 40 bits
};

extern template class table_of<CTDT>;

}  // namespace mpegcore
