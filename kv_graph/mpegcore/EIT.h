#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <list>
#include <memory>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/LongSectionTable.h"
#include "mpegcore/kvdescriptorlist.h"

namespace mpegcore {

// One event of an EIT section, with the conversions between the 40-bit MJD + BCD start
// time, the 24-bit BCD duration and ordinary seconds.
class CEventInfo {
public:
    CEventInfo() = default;
    virtual ~CEventInfo() = default;

    CEventInfo(const CEventInfo&) = delete;
    CEventInfo& operator=(const CEventInfo&) = delete;

    // A descriptor refused inside the event's loop ends the loop without refusing the
    // section; a loop that runs past the data refuses it.
    template <class IO>
    bool fields(IO& io);
    // Copies the scalar fields and a deep copy of the descriptors; the target's
    // descriptors_loop_length becomes the copied list's size.
    void copyTo(CEventInfo& to) const;
    // Size in a section: the 12 header bytes and the descriptors.
    uint16_t getSize() const { return static_cast<uint16_t>(12 + descriptors.getSize()); }

    // hours, minutes and seconds as two BCD digits each (0xHHMMSS). Each value is turned
    // into BCD by reading its decimal digits as hexadecimal ones; values of 100 or more are
    // not refused and spill into the next field (hours 123 give 0x123 << 16).
    static uint32_t time_to_duration(unsigned hours, unsigned minutes, unsigned seconds);
    // A number of seconds as a BCD duration.
    static uint32_t sec_to_duration(unsigned seconds);
    // A UTC time as a start time: the Modified Julian Date in bits 39-24 and the BCD time
    // of day below it.
    static uint64_t time_t_to_start_time(time_t t);
    // The inverse decoding of a start time. Its broken-down time receives the month and
    // year terms of the date formula unadjusted (month field M' - 12K, year field the full
    // year), so the result lies far from the time that time_t_to_start_time() encodes. It
    // is kept so for the programs that rely on it; nothing in this library calls it.
    static time_t start_time_to_time_t(uint64_t start_time);

    uint16_t event_id = 0;                 // 16 bits
    uint64_t start_time = 0;               // 40
    uint32_t duration = 0;                 // 24
    uint8_t running_status = 0;            // 3
    uint8_t free_CA_mode = 0;              // 1
    uint16_t descriptors_loop_length = 0;  // 12
    KVDescriptorList descriptors;
};

// One section of an Event Information Table: present/following or schedule, of the actual
// or of another transport stream. Events are kept in section order; they are read while at
// least 12 bytes are left in front of the CRC.
class CEIT : public table_of<CEIT, CLongSectionTable> {
public:
    using EventList = std::list<std::shared_ptr<CEventInfo>>;

    explicit CEIT(uint8_t* buffer = nullptr, size_t size = 1024) : table_of(buffer, size) {}
    ~CEIT() override = default;

    // Empties the events and the scratch buffer.
    void Clear() override;
    template <class IO>
    bool fields(IO& io);

    // Writes the section as write() does into the scratch buffer;
    // GetBuffer()/GetSizeBuffer() then hold it.
    bool RenderTable() { return render_into_buffer(); }
    // Copies the header fields and the CRC into `target` and appends a deep copy of every
    // event to the target's events, whose earlier events stay. The target's section_length
    // counts this table's events only. A null target (or this table itself) is ignored.
    void copyTo(CEIT* target) const;
    void copyTo(CEIT& target) const { copyTo(&target); }

    uint16_t service_id = 0;                  // 16 bits
    uint16_t transport_stream_id = 0;         // 16
    uint16_t original_network_id = 0;         // 16
    uint8_t segment_last_section_number = 0;  // 8
    uint8_t last_table_id = 0;                // 8
    EventList eventInfo;
    uint32_t CRC = 0;
};

extern template class table_of<CEIT, CLongSectionTable>;

}  // namespace mpegcore
