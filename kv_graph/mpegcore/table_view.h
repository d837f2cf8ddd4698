#pragma once

// What a view of a table sees: its fields in wire order, by name, as every table's single
// description walks them (see table_io.h). The text view below and the inspector's JSON
// are both built on it.

#include <cstddef>
#include <cstdint>
#include <string>

namespace mpegcore {

class KVDescriptorList;

class table_view {
public:
    // How a number reads: as it stands, as a 40-bit Modified Julian Date with a BCD time of
    // day ("2024-01-15 12:34:56"), as a 24-bit BCD time ("01:30:00") or as 16-bit BCD hours
    // and minutes ("01:30").
    enum class format { number, mjd_utc, bcd_time, bcd_hhmm };

    virtual ~table_view() = default;

    virtual void field(const char* name, uint64_t value, format f) = 0;
    // Characters as the stream carries them (DVB text, language codes).
    virtual void text(const char* name, const std::string& value) = 0;
    virtual void bytes(const char* name, const uint8_t* data, size_t size) = 0;
    virtual void descriptors(const char* name, const KVDescriptorList& list) = 0;
    // A list of entries: begin_list, then begin_entry, the entry's fields and end_entry per
    // entry, then end_list.
    virtual void begin_list(const char* name) = 0;
    virtual void begin_entry() = 0;
    virtual void end_entry() = 0;
    virtual void end_list() = 0;
};

// The date and time of a 40-bit MJD + BCD time: "YYYY-MM-DD hh:mm:ss".
std::string format_mjd_utc(uint64_t mjd_bcd);
// "hh:mm:ss" of a 24-bit BCD time.
std::string format_bcd_time(uint32_t bcd);
// A number as a view shows it in text.
std::string format_field(uint64_t value, table_view::format f);
// Bytes as lower-case hexadecimal digits.
std::string format_hex(const uint8_t* data, size_t size);

// A table as text: "NAME field=value ...", a list as "name:" followed by its entries, each
// on a line of its own and indented, and the fields after the list on a line of their own;
// a descriptor loop shows as its descriptor count.
template <class T>
std::string table_text(const char* name, const T& table);

// The text view's sink; table_text() drives it.
class text_view : public table_view {
public:
    explicit text_view(const char* name) : m_text(name) {}

    void field(const char* name, uint64_t value, format f) override;
    void text(const char* name, const std::string& value) override;
    void bytes(const char* name, const uint8_t* data, size_t size) override;
    void descriptors(const char* name, const KVDescriptorList& list) override;
    void begin_list(const char* name) override;
    void begin_entry() override { m_text += '\n'; }
    void end_entry() override {}
    void end_list() override;

    std::string text() const { return m_text.back() == '\n' ? m_text : m_text + '\n'; }

private:
    // Starts "name=": behind a space, or indented at the start of a line.
    void add(const char* name);

    std::string m_text;
    int m_depth = 0;
};

template <class T>
std::string table_text(const char* name, const T& table) {
    text_view v(name);
    table.view(v);
    return v.text();
}

}  // namespace mpegcore
