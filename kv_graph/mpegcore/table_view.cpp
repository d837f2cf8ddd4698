#include "mpegcore/table_view.h"

#include <cstdio>

#include "mpegcore/kvdescriptorlist.h"

namespace mpegcore {

namespace {

// Two BCD digits.
std::string bcd(unsigned byte) {
    const char text[3] = {"0123456789abcdef"[(byte >> 4) & 0xF], "0123456789abcdef"[byte & 0xF], 0};
    return text;
}

}  // namespace

std::string format_mjd_utc(uint64_t mjd_bcd) {
    // Modified Julian Date to calendar date.
    const long mjd = static_cast<long>((mjd_bcd >> 24) & 0xFFFF);
    const long y1 = static_cast<long>((mjd - 15078.2) / 365.25);
    const long m1 = static_cast<long>((mjd - 14956.1 - static_cast<long>(y1 * 365.25)) / 30.6001);
    const long day = mjd - 14956 - static_cast<long>(y1 * 365.25) - static_cast<long>(m1 * 30.6001);
    const long k = (m1 == 14 || m1 == 15) ? 1 : 0;
    const long year = 1900 + y1 + k;
    const long month = m1 - 1 - 12 * k;
    char text[48];
    std::snprintf(text, sizeof text, "%04ld-%02ld-%02ld ", year, month, day);
    return text + format_bcd_time(static_cast<uint32_t>(mjd_bcd & 0xFFFFFF));
}

std::string format_bcd_time(uint32_t value) {
    return bcd((value >> 16) & 0xFF) + ":" + bcd((value >> 8) & 0xFF) + ":" + bcd(value & 0xFF);
}

std::string format_field(uint64_t value, table_view::format f) {
    switch (f) {
        case table_view::format::mjd_utc:
            return format_mjd_utc(value);
        case table_view::format::bcd_time:
            return format_bcd_time(static_cast<uint32_t>(value));
        case table_view::format::bcd_hhmm:
            return format_bcd_time(static_cast<uint32_t>(value << 8)).substr(0, 5);
        case table_view::format::number:
            break;
    }
    return std::to_string(value);
}

std::string format_hex(const uint8_t* data, size_t size) {
    static const char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * size);
    for (size_t i = 0; i < size; ++i) {
        text += kHex[data[i] >> 4];
        text += kHex[data[i] & 0xF];
    }
    return text;
}

void text_view::add(const char* name) {
    if (m_text.back() == '\n') {
        m_text.append(2 * size_t(m_depth), ' ');
    } else {
        m_text += ' ';
    }
    m_text += std::string(name) + "=";
}

void text_view::field(const char* name, uint64_t value, format f) {
    add(name);
    m_text += format_field(value, f);
}

void text_view::text(const char* name, const std::string& value) {
    add(name);
    m_text += "\"" + value + "\"";
}

void text_view::bytes(const char* name, const uint8_t* data, size_t size) {
    add(name);
    m_text += format_hex(data, size);
}

void text_view::descriptors(const char* name, const KVDescriptorList& list) {
    add(name);
    m_text += std::to_string(list.descriptor.size());
}

void text_view::begin_list(const char* name) {
    m_text += std::string(" ") + name + ":";
    ++m_depth;
}

void text_view::end_list() {
    --m_depth;
    m_text += '\n';
}

}  // namespace mpegcore
