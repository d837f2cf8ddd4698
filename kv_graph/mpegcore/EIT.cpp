#include "mpegcore/EIT.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace mpegcore {

namespace {

// Fields after section_length up to the event loop (11 bytes) and the CRC.
constexpr int kFixedLength = 15;
// event_id, start_time, duration, the flags and descriptors_loop_length.
constexpr int kEventHeaderSize = 12;

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

bool CEventInfo::read(KVSDK::KVBSReader& r) {
    event_id = static_cast<uint16_t>(r.getBits(16));
    start_time = r.getBits(40);
    duration = static_cast<uint32_t>(r.getBits(24));
    running_status = static_cast<uint8_t>(r.getBits(3));
    free_CA_mode = static_cast<uint8_t>(r.getBits(1));
    descriptors_loop_length = static_cast<uint16_t>(r.getBits(12));
    descriptors.clear();
    return read_descriptor_loop(r, descriptors_loop_length, descriptors, true);
}

bool CEventInfo::write(KVSDK::KVBSWriter& w) {
    bool ok = w.putBits<uint16_t>(event_id, 16);
    ok = w.putBits<uint64_t>(start_time & 0xFFFFFFFFFFull, 40) && ok;
    ok = w.putBits<uint32_t>(duration & 0xFFFFFF, 24) && ok;
    ok = w.putBits<uint8_t>(running_status & 7, 3) && ok;
    ok = w.putBits<uint8_t>(free_CA_mode & 1, 1) && ok;
    ok = w.putBits<uint16_t>(descriptors_loop_length & 0x0FFF, 12) && ok;
    ok = descriptors.write(w) && ok;
    return ok;
}

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

CEIT::CEIT(uint8_t* buffer, size_t size) : CLongSectionTable(buffer, size) {}

void CEIT::Clear() {
    eventInfo.clear();
    CBaseMpegTable::Clear();
}

bool CEIT::read(KVSDK::KVBSReader& r) {
    if (!read_section_header(r)) {
        return false;
    }
    service_id = read_long_header(r);
    transport_stream_id = static_cast<uint16_t>(r.getBits(16));
    original_network_id = static_cast<uint16_t>(r.getBits(16));
    segment_last_section_number = static_cast<uint8_t>(r.getBits(8));
    last_table_id = static_cast<uint8_t>(r.getBits(8));

    eventInfo.clear();
    // Fewer than 12 bytes cannot hold an event and end the loop, as does a descriptor loop
    // that overshoots the section.
    while (body_length(r) >= kEventHeaderSize) {
        auto event = std::make_shared<CEventInfo>();
        if (!event->read(r)) {
            return false;
        }
        eventInfo.push_back(std::move(event));
    }
    CRC = static_cast<uint32_t>(r.getBits(32));
    return true;
}

uint16_t CEIT::calc_section_length() {
    size_t length = kFixedLength;
    for (const auto& event : eventInfo) {
        length += event->getSize();
    }
    return static_cast<uint16_t>(length);
}

bool CEIT::write_section(KVSDK::KVBSWriter& w, const uint8_t* start, size_t capacity,
                         size_t& size) {
    bool ok = CBaseMpegTable::write(w);
    ok = write_long_header(w, service_id) && ok;
    ok = w.putBits<uint16_t>(transport_stream_id, 16) && ok;
    ok = w.putBits<uint16_t>(original_network_id, 16) && ok;
    ok = w.putBits<uint8_t>(segment_last_section_number, 8) && ok;
    ok = w.putBits<uint8_t>(last_table_id, 8) && ok;
    for (const auto& event : eventInfo) {
        ok = event->write(w) && ok;
    }
    ok = finish_rendered_section(w, start, capacity, section_length, CRC, size) && ok;
    return ok;
}

bool CEIT::write(KVSDK::KVBSWriter& w) {
    w.flush();
    size_t size = 0;
    return write_section(w, w.getData(), w.getLength(), size);
}

bool CEIT::RenderTable() {
    const size_t capacity = m_pDataTable != nullptr ? m_lMaxSize : 0;
    KVSDK::KVBSWriter w(m_pDataTable, capacity);
    return write_section(w, m_pDataTable, capacity, m_lSizeTable);
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
