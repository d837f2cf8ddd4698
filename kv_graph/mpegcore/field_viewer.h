#pragma once

// What the descriptor and table walkers share: reaching the entry behind an element of a
// container, the calls that reduce to a plain integer field, and the viewer that hands a
// description's fields to a table_view by name.
// Included only by kvdescriptor_io.h and table_io.h.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "mpegcore/base_descriptor.h"
#include "mpegcore/table_view.h"

namespace mpegcore {
namespace walk {

// The entry behind an element: held by value, by shared or owning pointer, or as a map's
// value.
template <class E>
E& entry_of(E& e) {
    return e;
}
template <class E>
E& entry_of(std::shared_ptr<E>& p) {
    return *p;
}
template <class E>
E& entry_of(E*& p) {
    return *p;
}
template <class K, class V>
auto& entry_of(std::pair<const K, V>& kv) {
    return entry_of(kv.second);
}

// The calls that every walker but the viewer handles as a plain integer field.
template <class W>
class field_forms {
public:
    template <class T>
    bool reserved(T& v, size_t bits) {
        return self()(nullptr, v, bits);
    }
    bool time(const char* name, uint64_t& v) { return self()(name, v, 40); }
    bool duration(const char* name, uint32_t& v) { return self()(name, v, 24); }
    bool hhmm(const char* name, uint16_t& v) { return self()(name, v, 16); }

private:
    W& self() { return static_cast<W&>(*this); }
};

// Walks every entry's fields with `io`; false at the first entry that refuses.
template <class C, class IO>
bool each_entry(C& c, IO& io) {
    for (auto& e : c) {
        if (!entry_of(e).fields(io)) {
            return false;
        }
    }
    return true;
}

// Hands the fields of a descriptor or table description to a view by name: integers as
// numbers (times formatted), strings as text, byte vectors as bytes, descriptor loops as
// loops. Reserved, count and length-of-a-count fields of descriptors stay out; a table's
// lengths show as the section carries them.
class viewer {
public:
    explicit viewer(table_view& v) : m_v(v) {}

    template <class T>
    bool operator()(const char* name, T& v, size_t) {
        m_v.field(name, static_cast<uint64_t>(v), table_view::format::number);
        return true;
    }
    template <class T>
    bool reserved(T&, size_t) {
        return true;
    }
    bool time(const char* name, uint64_t& v) { return show(name, v, table_view::format::mjd_utc); }
    bool duration(const char* name, uint32_t& v) {
        return show(name, v, table_view::format::bcd_time);
    }
    bool hhmm(const char* name, uint16_t& v) { return show(name, v, table_view::format::bcd_hhmm); }
    bool code(const char* name, iso_code& c) {
        m_v.text(name, std::string(c.data(), c.size()));
        return true;
    }
    template <class T>
    bool count(const char*, T&, size_t, size_t) {
        return true;
    }
    template <class T, class F>
    bool length(const char* name, T& v, size_t bits, F) {
        return (*this)(name, v, bits);
    }
    bool bytes(const char* name, std::string& c, size_t = 0) {
        m_v.text(name, c);
        return true;
    }
    bool bytes(const char* name, std::vector<uint8_t>& c, size_t = 0) {
        m_v.bytes(name, c.data(), c.size());
        return true;
    }
    template <class C>
    bool rest(const char* name, C& c, size_t = SIZE_MAX) {
        return bytes(name, c);
    }
    bool present(bool& flag) { return flag; }
    template <class L>
    bool descriptors(const char* name, L& list, uint16_t = 0, bool = false) {
        m_v.descriptors(name, list);
        return true;
    }
    template <class L>
    bool rest_descriptors(const char* name, L& list) {
        return descriptors(name, list);
    }
    template <class C, class... More>
    bool entries(const char* name, C& c, More...) {
        m_v.begin_list(name);
        for (auto& e : c) {
            m_v.begin_entry();
            entry_of(e).fields(*this);
            m_v.end_entry();
        }
        m_v.end_list();
        return true;
    }
    template <class C, class... More>
    bool entries_n(const char* name, C& c, More...) {
        return entries(name, c);
    }
    template <class C, class... More>
    bool entries_within(const char* name, C& c, More...) {
        return entries(name, c);
    }
    bool crc(uint32_t& v) { return (*this)("CRC_32", v, 32); }

private:
    bool show(const char* name, uint64_t v, table_view::format f) {
        m_v.field(name, v, f);
        return true;
    }

    table_view& m_v;
};

}  // namespace walk
}  // namespace mpegcore
