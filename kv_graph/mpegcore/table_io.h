#pragma once

// Walkers over table sections and the shared members of table_of. Included only by the
// table sources.
//
// A table describes what follows its section_length once, in
// `template <class IO> bool fields(IO& io)`, as a chain of calls in wire order:
//
//   io(name, field, bits)                      an integer field of 1..64 bits
//   io.reserved(field, bits)                   a field that views leave out
//   io.time(name, field)                       a 40-bit MJD + BCD time of day
//   io.duration(name, field)                   a 24-bit BCD time
//   io.length(name, n, bits, size)             a byte count: reading takes n from the
//                                              section, writing stores size() in n
//   io.descriptors(name, list, n, lenient)     a descriptor loop of n bytes
//   io.rest_descriptors(name, list)            a descriptor loop up to the CRC
//   io.entries(name, c, min[, key])            entries while `min` bytes are left in front
//                                              of the CRC
//   io.entries_within(name, c, n, min)         entries inside a loop of n bytes, while `min`
//                                              of them are left
//   io.crc(field)                              the CRC_32 that ends the section
//
// Entries are classes with a fields() of their own, held by shared pointer or by owning
// pointer in a std::list, or in a std::map by value or shared pointer under the key that
// `key` gives for an entry.
//
// The walkers: table_reader (the section's bytes into the fields; past the reader's data
// fields read as 0), table_writer, table_sizer (the section_length the writer gives), and
// walk::viewer (the fields by name, for a table_view).

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <utility>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/field_viewer.h"
#include "mpegcore/kvdescriptorlist.h"
#include "mpegcore/table_view.h"

namespace mpegcore {
namespace table_io {

template <class C>
void clear_entries(C& c) {
    c.clear();
}
template <class E>
void clear_entries(std::list<E*>& c) {
    for (E* e : c) {
        delete e;
    }
    c.clear();
}

// Loops as the sizer and the writer walk them: every entry, whatever bounds its loop.
template <class W>
class whole_loops : public walk::field_forms<W> {
public:
    bool rest_descriptors(const char* name, KVDescriptorList& list) {
        return self().descriptors(name, list);
    }
    template <class C, class... More>
    bool entries(const char*, C& c, More...) {
        walk::each_entry(c, self());
        return true;
    }
    template <class C, class... More>
    bool entries_within(const char* name, C& c, More...) {
        return entries(name, c);
    }

private:
    W& self() { return static_cast<W&>(*this); }
};

// Counts the bits a section's fields take when written.
class table_sizer : public whole_loops<table_sizer> {
public:
    template <class T>
    bool operator()(const char*, T&, size_t bits) {
        return add(bits);
    }
    template <class T, class F>
    bool length(const char*, T&, size_t bits, F) {
        return add(bits);
    }
    bool descriptors(const char*, KVDescriptorList& list, uint16_t = 0, bool = false) {
        return add(8 * size_t(list.getSize()));
    }
    bool crc(uint32_t&) { return add(32); }

    size_t bytes() const { return m_bits / 8; }

private:
    bool add(size_t bits) {
        m_bits += bits;
        return true;
    }
    size_t m_bits = 0;
};

// Reads the fields behind the common header of a section whose end is known: the loops
// end by that end (less the CRC) or by their own lengths, as each table says.
class table_reader : public walk::field_forms<table_reader> {
public:
    table_reader(KVSDK::KVBSReader& r, const uint8_t* section_end) : m_r(r), m_end(section_end) {}

    template <class T>
    bool operator()(const char*, T& v, size_t bits) {
        v = static_cast<T>(m_r.getBits(bits));
        return true;
    }
    template <class T, class F>
    bool length(const char* name, T& v, size_t bits, F) {
        return (*this)(name, v, bits);
    }
    // A damaged descriptor ends a lenient loop (those before it stay); anywhere else it
    // refuses the section, as does a loop that runs past the data.
    bool descriptors(const char*, KVDescriptorList& list, uint16_t length, bool lenient = false) {
        list.clear();
        return read_descriptor_loop(m_r, length, list, lenient);
    }
    bool rest_descriptors(const char* name, KVDescriptorList& list) {
        const int32_t n = body_left();
        list.clear();
        return n < 1 || descriptors(name, list, static_cast<uint16_t>(n), true);
    }
    // A loop length that overshoots the section leaves less than nothing in front of the
    // CRC, which ends these loops too.
    template <class C, class... Key>
    bool entries(const char*, C& c, int32_t min, Key... key) {
        clear_entries(c);
        while (body_left() >= min) {
            if (read_entry(c, key...) == nullptr) {
                return false;
            }
        }
        return true;
    }
    // Bounded by the loop's own length alone: past the data, entries read as zeros.
    template <class C>
    bool entries_within(const char*, C& c, uint16_t length, int32_t min) {
        clear_entries(c);
        for (int32_t left = length; left >= min;) {
            auto* e = read_entry(c);
            if (e == nullptr) {
                return false;
            }
            table_sizer s;
            e->fields(s);
            left -= static_cast<int32_t>(s.bytes());
        }
        return true;
    }
    bool crc(uint32_t& v) { return (*this)("CRC_32", v, 32); }

private:
    // Bytes left in front of the CRC; negative once the reader has passed it.
    int32_t body_left() const { return static_cast<int32_t>(m_end - m_r.getData()) - 4; }

    // Reads one entry and keeps it; returns it, or nullptr (keeping nothing) on a refusal.
    template <class E>
    E* read_entry(std::list<std::shared_ptr<E>>& c) {
        auto e = std::make_shared<E>();
        if (!e->fields(*this)) {
            return nullptr;
        }
        c.push_back(e);
        return e.get();
    }
    template <class E>
    E* read_entry(std::list<E*>& c) {
        auto e = std::make_unique<E>();
        if (!e->fields(*this)) {
            return nullptr;
        }
        c.push_back(e.get());
        return e.release();
    }
    // A later entry under the same key replaces the earlier one.
    template <class K, class E, class Key>
    E* read_entry(std::map<K, std::shared_ptr<E>>& c, Key key) {
        auto e = std::make_shared<E>();
        if (!e->fields(*this)) {
            return nullptr;
        }
        c[key(*e)] = e;
        return e.get();
    }
    template <class K, class E, class Key>
    E* read_entry(std::map<K, E>& c, Key key) {
        E e;
        if (!e.fields(*this)) {
            return nullptr;
        }
        return &(c[key(e)] = e);
    }

    KVSDK::KVBSReader& m_r;
    const uint8_t* m_end;
};

// Writes the fields behind the common header. A field that does not fit is dropped and
// the writing goes on, so that the CRC and the size are still set; ok() tells whether all
// fitted.
class table_writer : public whole_loops<table_writer> {
public:
    // The section starts at `start`, with `capacity` bytes of room; `size` receives its
    // size once it is finished.
    table_writer(KVSDK::KVBSWriter& w, const uint8_t* start, size_t capacity,
                 uint16_t section_length, size_t& size)
        : m_w(w), m_start(start), m_capacity(capacity), m_length(section_length), m_size(size) {}

    template <class T>
    bool operator()(const char*, T& v, size_t bits) {
        return put(v, bits);
    }
    template <class T, class F>
    bool length(const char*, T& v, size_t bits, F size) {
        v = static_cast<T>(size());
        return put(v, bits);
    }
    bool descriptors(const char*, KVDescriptorList& list, uint16_t = 0, bool = false) {
        m_ok = list.write(m_w) && m_ok;
        return true;
    }
    // The CRC over the section's first section_length - 1 bytes, written if it still fits.
    bool crc(uint32_t& v) {
        m_bCrc = true;
        m_ok = finish_rendered_section(m_w, m_start, m_capacity, m_length, v, m_size) && m_ok;
        return true;
    }

    // Ends a section without CRC; returns whether everything fitted.
    bool finish() {
        if (!m_bCrc) {
            m_w.flush();
            m_size = std::min(m_length + size_t(3), m_capacity);
        }
        return m_ok;
    }

private:
    template <class T>
    bool put(T v, size_t bits) {
        m_ok = m_w.putBits(v, bits) && m_ok;
        return true;
    }

    KVSDK::KVBSWriter& m_w;
    const uint8_t* m_start;
    size_t m_capacity;
    uint16_t m_length;
    size_t& m_size;
    bool m_ok = true;
    bool m_bCrc = false;
};

}  // namespace table_io

template <class T, class B>
bool table_of<T, B>::read(KVSDK::KVBSReader& r) {
    if (!this->read_section_header(r)) {
        return false;
    }
    table_io::table_reader io(r, this->section_end());
    return static_cast<T&>(*this).fields(io);
}

template <class T, class B>
uint16_t table_of<T, B>::fields_length() const {
    // The sizer only looks at the fields; fields() is not const because the other walkers
    // fill them.
    table_io::table_sizer s;
    const_cast<T&>(static_cast<const T&>(*this)).fields(s);
    return static_cast<uint16_t>(s.bytes());
}

template <class T, class B>
bool table_of<T, B>::write_section(KVSDK::KVBSWriter& w, const uint8_t* start, size_t capacity,
                                   size_t& size) {
    // The common header, with section_length from calc_section_length().
    const bool ok = CBaseMpegTable::write(w);
    table_io::table_writer io(w, start, capacity, this->section_length, size);
    static_cast<T&>(*this).fields(io);
    return io.finish() && ok;
}

template <class T, class B>
bool table_of<T, B>::write(KVSDK::KVBSWriter& w) {
    w.flush();
    size_t size = 0;
    return write_section(w, w.getData(), w.getLength(), size);
}

template <class T, class B>
bool table_of<T, B>::render_into_buffer() {
    const size_t capacity = this->m_pDataTable != nullptr ? this->m_lMaxSize : 0;
    KVSDK::KVBSWriter w(this->m_pDataTable, capacity);
    return write_section(w, this->m_pDataTable, capacity, this->m_lSizeTable);
}

template <class T, class B>
void table_of<T, B>::view(table_view& v) const {
    v.field("table_id", this->table_id, table_view::format::number);
    v.field("section_syntax_indicator", this->section_syntax_indicator, table_view::format::number);
    v.field("section_length", this->section_length, table_view::format::number);
    walk::viewer io(v);
    const_cast<T&>(static_cast<const T&>(*this)).fields(io);
}

}  // namespace mpegcore
