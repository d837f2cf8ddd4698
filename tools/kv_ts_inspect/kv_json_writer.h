#pragma once

// A small JSON writer that appends one document to a string: objects, arrays, numbers,
// plain strings, DVB text and hex byte strings. Commas are placed by the writer; the
// caller only opens and closes containers in order.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kv_ts_inspect {

class json_writer {
public:
    // Members take a key; array elements are written with a null key.
    json_writer& begin_object(const char* key = nullptr);
    json_writer& end_object();
    json_writer& begin_array(const char* key = nullptr);
    json_writer& end_array();

    json_writer& number(const char* key, uint64_t value);
    json_writer& number(const char* key, int64_t value);
    json_writer& number(const char* key, unsigned value) { return number(key, uint64_t(value)); }
    json_writer& number(const char* key, int value) { return number(key, int64_t(value)); }
    // Finite values with `decimals` digits after the point; NaN and infinities as null.
    json_writer& real(const char* key, double value, int decimals);
    json_writer& boolean(const char* key, bool value);
    // Text that is already UTF-8 (names the tool makes itself).
    json_writer& string(const char* key, const std::string& value);
    // Text as carried in DVB service information; see append_dvb_text().
    json_writer& dvb_text(const char* key, const std::string& bytes);
    // Bytes as lower-case hex digits, two per byte.
    json_writer& hex(const char* key, const uint8_t* data, size_t size);

    const std::string& str() const { return m_out; }
    // Empties the text and forgets any open container.
    void clear();

private:
    // Writes the comma before a new element and, inside an object, its key.
    void element(const char* key);

    std::string m_out;
    std::vector<bool> m_bFirst;  // per open container: nothing written into it yet
};

// Appends `text` as a JSON string literal: quotes, backslash, control characters and DEL
// escaped; bytes of 0x80 and above are taken as UTF-8 and copied unchanged, so the caller
// must hand over valid UTF-8.
void append_json_string(std::string& out, const std::string& text);

// Appends DVB text bytes as a JSON string literal. Each byte becomes the character of the
// same number (U+0000..U+00FF): this keeps every byte recoverable, reads correctly for
// ASCII and Latin-1 text and keeps a leading character-table selector visible, e.g.
// "\u0005Name". Text announced as UTF-8 (first byte 0x15) is written as UTF-8 behind
// "\u0015", each byte that is not part of a well-formed sequence replaced by U+FFFD.
void append_dvb_text(std::string& out, const std::string& bytes);

}  // namespace kv_ts_inspect
