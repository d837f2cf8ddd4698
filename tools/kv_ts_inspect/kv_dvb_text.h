#pragma once

// Text as carried in DVB service information, made readable as UTF-8.

#include <string>

namespace kv_ts_inspect {

// Each byte becomes the character of the same number (U+0000..U+00FF): this keeps every
// byte recoverable, reads correctly for ASCII and Latin-1 text and keeps a leading
// character-table selector visible, e.g. "\u0005Name" in JSON. Text announced as UTF-8
// (first byte 0x15) stays UTF-8 behind that byte, each byte that is not part of a
// well-formed sequence replaced by U+FFFD.
std::string dvb_text(const std::string& bytes);

}  // namespace kv_ts_inspect
