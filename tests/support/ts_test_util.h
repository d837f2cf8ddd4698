// Helpers shared by the tests of the transport-stream core: byte strings, whole sections
// with their CRC, table reads from exactly sized buffers, packets, and the real captures.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "files.h"
#include "kvcore/kv_bitstream.h"
#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/TransportPacket.h"
#include "mpegcore/kvdescriptorlist.h"
#include "mpegcore/table_view.h"

namespace ts_test {

using Bytes = std::vector<uint8_t>;

// ----- byte strings -----

// Bytes from hex text: hex("47 1F FF") is {0x47, 0x1F, 0xFF}.
inline Bytes hex(const std::string& text) {
    Bytes out;
    std::istringstream in(text);
    std::string byte;
    while (in >> byte) {
        out.push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 16)));
    }
    return out;
}

// The characters of a text as hex, for names inside hex bodies: txt("eng") is "65 6E 67 ".
inline std::string txt(const std::string& s) {
    std::string out;
    char buf[4];
    for (unsigned char c : s) {
        std::snprintf(buf, sizeof(buf), "%02X ", c);
        out += buf;
    }
    return out;
}

inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) {
        all.insert(all.end(), p.begin(), p.end());
    }
    return all;
}

// ----- sections -----

// A whole section: table_id, `flags` as the top nibble of the second byte, section_length
// over `body` and the CRC, the body and a correct CRC-32.
inline Bytes section(uint8_t table_id, uint8_t flags, const Bytes& body) {
    const size_t length = body.size() + 4;
    Bytes s{table_id, uint8_t(flags | (length >> 8)), uint8_t(length)};
    s.insert(s.end(), body.begin(), body.end());
    const uint32_t crc = mpegcore::crc32_mpeg2(s.data(), s.size());
    for (int shift = 24; shift >= 0; shift -= 8) {
        s.push_back(uint8_t(crc >> shift));
    }
    return s;
}

// The same with the syntax, private and reserved bits all set, as DVB tables carry them.
inline Bytes section(uint8_t table_id, const Bytes& body) {
    return section(table_id, 0xF0, body);
}

// Reads from a heap copy of exactly the given bytes, so that AddressSanitizer catches any
// read past them.
template <class T>
bool read(T& table, const Bytes& bytes) {
    const std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), copy.get());
    KVSDK::KVBSReader r(copy.get(), bytes.size());
    return table.read(r);
}

// The section that RenderTable() writes into the table's own buffer.
template <class T>
Bytes render(T& table) {
    table.RenderTable();
    return Bytes(table.GetBuffer(), table.GetBuffer() + table.GetSizeBuffer());
}

// Every proper prefix of a good section is incomplete; the section followed by unrelated
// bytes (the rest of a payload unit) is accepted, unless its fields run past it.
template <class T>
void expect_prefixes_refused(const Bytes& s, bool bTail = true) {
    for (size_t n = 0; n < s.size(); ++n) {
        T table;
        EXPECT_FALSE(read(table, Bytes(s.begin(), s.begin() + n))) << "prefix " << n;
    }
    T table;
    EXPECT_TRUE(!bTail || read(table, cat({s, Bytes(7, 0xFF)})));
}

// The fields of a table or descriptor on one line, as its description names them:
// name=value with numbers in hex, text in quotes, lists as name=[{...} {...}], descriptor
// loops by their count. Golden files hold these lines.
class line_view : public mpegcore::table_view {
public:
    void field(const char* name, uint64_t value, format f) override {
        char hex[20];
        std::snprintf(hex, sizeof hex, "%llX", static_cast<unsigned long long>(value));
        add(name, f == format::number ? hex : mpegcore::format_field(value, f));
    }
    void text(const char* name, const std::string& value) override { add(name, "'" + value + "'"); }
    void bytes(const char* name, const uint8_t* data, size_t size) override {
        add(name, mpegcore::format_hex(data, size));
    }
    void descriptors(const char* name, const mpegcore::KVDescriptorList& list) override;
    void begin_list(const char* name) override { add(name, "["); }
    void begin_entry() override { add(nullptr, "{"); }
    void end_entry() override { m_text += "}"; }
    void end_list() override { m_text += "]"; }

    std::string text() const { return m_text; }

private:
    void add(const char* name, const std::string& value) {
        if (!m_text.empty() && m_text.back() != '[' && m_text.back() != '{') {
            m_text += ' ';
        }
        m_text += name != nullptr ? std::string(name) + "=" + value : value;
    }
    std::string m_text;
};

// Each descriptor as its tag and its fields (a raw one as its tag alone).
inline void line_view::descriptors(const char* name, const mpegcore::KVDescriptorList& list) {
    begin_list(name);
    for (const auto& d : list.descriptor) {
        begin_entry();
        field("tag", d->descriptor_tag, format::number);
        d->view(*this);
        end_entry();
    }
    end_list();
}

template <class T>
std::string view_text(const T& item) {
    line_view v;
    item.view(v);
    return v.text();
}

// ----- packets -----

// One packet: the adaptation field `af` (its length byte first) when not empty, then the
// payload when `payload` is set, stuffed with 0xFF.
inline Bytes packet(uint16_t pid, uint8_t cc, bool pusi, const Bytes& data, const Bytes& af = {},
                    bool payload = true) {
    const uint8_t afc = (af.empty() ? 0 : 2) | (payload ? 1 : 0);
    Bytes p = cat({{mpegcore::TS_SYNC_BYTE, uint8_t((pusi ? 0x40 : 0) | pid >> 8), uint8_t(pid),
                    uint8_t(afc << 4 | (cc & 0x0F))},
                   af,
                   data});
    p.resize(mpegcore::TS_PACKET_SIZE, 0xFF);
    return p;
}

// Adaptation field of 7 bytes carrying a PCR: 33-bit base, 6 reserved bits, 9-bit extension.
inline Bytes pcr_field(uint64_t base, unsigned ext) {
    const uint64_t v = base << 15 | 0x7E00 | ext;
    Bytes f{7, 0x10};
    for (int shift = 40; shift >= 0; shift -= 8) {
        f.push_back(uint8_t(v >> shift));
    }
    return f;
}

// A payload unit (a section behind its pointer_field, for instance) cut into packets of
// `pid`: payload only, the unit start flagged on the first, the last stuffed with 0xFF.
// `cc` is the continuity counter of the first packet and counts on.
inline std::vector<Bytes> packetize(uint16_t pid, const Bytes& unit, uint8_t& cc) {
    std::vector<Bytes> packets;
    for (size_t at = 0; at == 0 || at < unit.size(); at += 184) {
        const auto from = unit.begin() + at;
        packets.push_back(packet(pid, cc++, at == 0,
                                 Bytes(from, from + std::min<size_t>(184, unit.size() - at))));
    }
    return packets;
}

// A section behind a zero pointer_field, packetized into one byte string.
inline Bytes psi(uint16_t pid, uint8_t& cc, const Bytes& section) {
    Bytes out;
    for (const Bytes& p : packetize(pid, cat({{0x00}, section}), cc)) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

// ----- real captures -----

// A capture of the corpus, or nothing when it is absent.
inline Bytes load_capture(const std::string& name) {
    return kvtest::read_file(std::string(KV_CORPUS_DIR) + "/" + name);
}

// Names of the captures in the corpus, sorted; none when the corpus is absent.
inline std::vector<std::string> capture_names() {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& e : std::filesystem::directory_iterator(KV_CORPUS_DIR, error)) {
        if (e.path().extension() == ".ts") {
            names.push_back(e.path().filename().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The sections carried on `pid`, in the order their units complete, unchecked. A unit runs
// from the section its pointer_field points at up to the next pointed-to section, so a
// section that continues into a packet where a new one starts is kept.
inline std::vector<Bytes> gather_sections(const Bytes& ts, int pid) {
    std::vector<Bytes> sections;
    const auto split = [&sections](const Bytes& u) {
        for (size_t at = 0; at + 3 <= u.size() && u[at] != 0xFF;) {
            const size_t end = at + 3 + ((u[at + 1] & 0x0F) << 8 | u[at + 2]);
            if (end > u.size()) {
                break;
            }
            sections.emplace_back(u.begin() + at, u.begin() + end);
            at = end;
        }
    };
    std::map<int, Bytes> units;  // by PID, from its first unit start on
    for (size_t i = 0; i + 188 <= ts.size(); i += 188) {
        const uint8_t* p = &ts[i];
        const int packet_pid = (p[1] & 0x1F) << 8 | p[2];
        const size_t start = 4 + ((p[3] & 0x20) ? 1 + p[4] : 0);
        if (p[0] != 0x47 || packet_pid != pid || !(p[3] & 0x10) || start >= 188) {
            continue;
        }
        const auto unit = units.find(packet_pid);
        if (!(p[1] & 0x40)) {
            if (unit != units.end()) {
                unit->second.insert(unit->second.end(), p + start, p + 188);
            }
            continue;
        }
        const size_t first = start + 1 + p[start];
        if (first > 188) {
            continue;
        }
        if (unit != units.end()) {
            unit->second.insert(unit->second.end(), p + start + 1, p + first);
            split(unit->second);
        }
        units[packet_pid].assign(p + first, p + 188);
    }
    for (const auto& u : units) {
        split(u.second);
    }
    return sections;
}

}  // namespace ts_test
