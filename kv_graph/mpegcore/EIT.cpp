#include "mpegcore/EIT.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "mpegcore/table_io.h"

namespace mpegcore {

namespace {

// Fields after section_length up to the event loop (11 bytes) and the CRC.
constexpr int kFixedLength = 15;

// The decimal digits of `value` read as hexadecimal digits: 59 becomes 0x59.
uint64_t decimal_as_bcd(unsigned value) {
    char text[16];
    std::snprintf(text, sizeof(text), "%u", value);
    return std::strtoull(text, nullptr, 16);
}

// The hexadecimal digits of `value` read as a decimal number: 0x59 becomes 59. Reading
// stops at the first digit above 9, so 0x5A gives 5 and 0xA5 gives 0.
int bcd_as_decimal(unsigned value) {
    char text[16];
    std::snprintf(text, sizeof(text), "%x", value);
    return static_cast<int>(std::strtol(text, nullptr, 10));
}

}  // namespace

template <class IO>
bool CEventInfo::fields(IO& io) {
    return io("event_id", event_id, 16) && io.time("start_time", start_time) &&
           io.duration("duration", duration) && io("running_status", running_status, 3) &&
           io("free_CA_mode", free_CA_mode, 1) &&
           io.length("descriptors_loop_length", descriptors_loop_length, 12,
                     [&] { return descriptors.getSize(); }) &&
           io.descriptors("descriptors", descriptors, descriptors_loop_length, true);
}

template <class IO>
bool CEIT::fields(IO& io) {
    return long_header(io, "service_id", service_id) &&
           io("transport_stream_id", transport_stream_id, 16) &&
           io("original_network_id", original_network_id, 16) &&
           io("segment_last_section_number", segment_last_section_number, 8) &&
           io("last_table_id", last_table_id, 8) && io.entries("events", eventInfo, 12) &&
           io.crc(CRC);
}

template class table_of<CEIT, CLongSectionTable>;

void CEventInfo::copyTo(CEventInfo& to) const {
    if (&to == this) {
        return;
    }
    to.event_id = event_id;
    to.start_time = start_time;
    to.duration = duration;
    to.running_status = running_status;
    to.free_CA_mode = free_CA_mode;
    to.descriptors.clear();
    descriptors.copyTo(to.descriptors);
    to.descriptors_loop_length = to.descriptors.getSize();
}

uint32_t CEventInfo::time_to_duration(unsigned hours, unsigned minutes, unsigned seconds) {
    return static_cast<uint32_t>((decimal_as_bcd(hours) << 16) + (decimal_as_bcd(minutes) << 8) +
                                 decimal_as_bcd(seconds));
}

uint32_t CEventInfo::sec_to_duration(unsigned seconds) {
    return time_to_duration(seconds / 3600, (seconds % 3600) / 60, seconds % 60);
}

uint64_t CEventInfo::time_t_to_start_time(time_t t) {
    struct tm utc {};
    if (gmtime_r(&t, &utc) == nullptr) {
        return 0;
    }
    // Modified Julian Date from year, month and day; January and February count as months
    // 13 and 14 of the year before.
    const int l = utc.tm_mon <= 1 ? 1 : 0;
    const int64_t mjd = 14956 + utc.tm_mday +
                        static_cast<int64_t>(std::trunc((utc.tm_year - l) * 365.25)) +
                        static_cast<int64_t>(std::trunc((utc.tm_mon + 1 + 1 + 12 * l) * 30.6001));
    return (static_cast<uint64_t>(mjd) << 24) + time_to_duration(static_cast<unsigned>(utc.tm_hour),
                                                                 static_cast<unsigned>(utc.tm_min),
                                                                 static_cast<unsigned>(utc.tm_sec));
}

time_t CEventInfo::start_time_to_time_t(uint64_t start_time) {
    const int64_t mjd = static_cast<int64_t>(start_time >> 24);
    const int64_t y = static_cast<int64_t>(std::trunc((mjd - 15078.2) / 365.25));
    const int64_t year_days = static_cast<int64_t>(std::trunc(y * 365.25));
    const int64_t m = static_cast<int64_t>(std::trunc((mjd - 14956.1 - year_days) / 30.6001));
    const int64_t day = mjd - 14956 - year_days - static_cast<int64_t>(std::trunc(m * 30.6001));
    const int64_t k = (m == 14 || m == 15) ? 1 : 0;

    struct tm broken {};
    broken.tm_mday = static_cast<int>(day);
    broken.tm_mon = static_cast<int>(m - 12 * k);
    broken.tm_year = static_cast<int>(y + k + 1900);
    broken.tm_hour = bcd_as_decimal(static_cast<unsigned>((start_time >> 16) & 0xFF));
    broken.tm_min = bcd_as_decimal(static_cast<unsigned>((start_time >> 8) & 0xFF));
    broken.tm_sec = bcd_as_decimal(static_cast<unsigned>(start_time & 0xFF));
    return timegm(&broken);
}

void CEIT::Clear() {
    eventInfo.clear();
    CBaseMpegTable::Clear();
}

void CEIT::copyTo(CEIT* target) const {
    if (target == nullptr || target == this) {
        return;
    }
    copyHeaderTo(*target);
    target->service_id = service_id;
    copy_versions_to(*target);
    target->transport_stream_id = transport_stream_id;
    target->original_network_id = original_network_id;
    target->segment_last_section_number = segment_last_section_number;
    target->last_table_id = last_table_id;
    // The target's events are not emptied first, so the sections of one table can be
    // gathered into one copy.
    size_t length = kFixedLength;
    for (const auto& event : eventInfo) {
        auto copy = std::make_shared<CEventInfo>();
        event->copyTo(*copy);
        length += copy->getSize();
        target->eventInfo.push_back(std::move(copy));
    }
    target->CRC = CRC;
    target->section_length = static_cast<uint16_t>(length);
}

}  // namespace mpegcore
