#pragma once

// Walkers over descriptor bodies and the shared members of descriptor_of. Included only by
// the descriptor sources.
//
// A descriptor class describes its body once, in `template <class IO> bool fields(IO& io)`,
// as a chain of calls in wire order; plain `if`s on fields already walked express optional
// parts. Every call names the field as views show it. The calls:
//
//   io(name, field, bits)          an integer field of 1..64 bits
//   io.reserved(field, bits)       an integer field that views leave out
//   io.time(name, field)           a 40-bit MJD + BCD time of day
//   io.hhmm(name, field)           a 16-bit BCD hours and minutes
//   io.code(name, c)               a three-character code
//   io.count(name, n, bits, size)  a length or count field; reading takes n from the stream,
//                                  writing stores `size` (derived from the data it counts)
//                                  in n; views leave it out
//   io.bytes(name, c, n)           n bytes into a string (text) or byte vector
//   io.rest(name, c, max)          the rest of the body, at most max bytes
//   io.entries(name, list)         entries repeated while at least one whole entry is left
//   io.entries(name, list, n)      entries filling exactly the next n bytes
//   io.entries_n(name, list, n)    exactly n entries
//   io.present(flag)               whether an optional trailing part follows: reading sets
//                                  flag when body bytes are left, the other walkers follow
//                                  flag
//
// Entries are structs with a fields() of their own, held by value in a std::vector or by
// shared pointer in a std::list.
//
// The walkers: body_reader (refuses any field that would run past the body), body_writer,
// body_sizer (counts the bits the writer would produce), body_cloner (gives a copied
// object its own entries in place of the shared ones), and walk::viewer (the fields by
// name, for a table_view).

#include <algorithm>
#include <cstring>
#include <list>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/base_descriptor.h"
#include "mpegcore/field_viewer.h"

namespace mpegcore {
namespace desc_io {

template <class E>
E& add_entry(std::vector<E>& v) {
    return v.emplace_back();
}
template <class E>
E& add_entry(std::list<std::shared_ptr<E>>& l) {
    l.push_back(std::make_shared<E>());
    return *l.back();
}
using walk::entry_of;

// Counts the bits a body would take when written.
class body_sizer : public walk::field_forms<body_sizer> {
public:
    template <class T>
    bool operator()(const char*, T&, size_t bits) {
        m_bits += bits;
        return true;
    }
    bool code(const char*, iso_code&) { return add(3); }
    template <class T>
    bool count(const char*, T&, size_t bits, size_t) {
        m_bits += bits;
        return true;
    }
    template <class C>
    bool bytes(const char*, C& c, size_t) {
        return add(c.size());
    }
    template <class C>
    bool rest(const char*, C& c, size_t = SIZE_MAX) {
        return add(c.size());
    }
    template <class L>
    bool entries(const char*, L& list, size_t = 0) {
        return walk::each_entry(list, *this);
    }
    template <class L>
    bool entries_n(const char* name, L& list, size_t) {
        return entries(name, list);
    }
    bool present(bool& flag) { return flag; }

    size_t bytes() const { return (m_bits + 7) / 8; }

private:
    bool add(size_t n) {
        m_bits += 8 * n;
        return true;
    }
    size_t m_bits = 0;
};

// Encoded size of a list's entries, for count fields that hold a byte length.
template <class L>
size_t size_of(L& list) {
    body_sizer s;
    s.entries(nullptr, list);
    return s.bytes();
}

// Reads a body through a reader bounded to it, refusing any field that runs past the body
// (or past the current range of an io.entries(list, n)).
class body_reader : public walk::field_forms<body_reader> {
public:
    body_reader(const uint8_t* body, size_t length) : m_r(body, length), m_bits(8 * length) {}

    template <class T>
    bool operator()(const char*, T& v, size_t bits) {
        if (bits > m_bits) {
            return false;
        }
        v = static_cast<T>(m_r.getBits(bits));
        m_bits -= bits;
        return true;
    }
    bool code(const char*, iso_code& c) {
        if (m_bits < 24) {
            return false;
        }
        for (char& ch : c) {
            ch = static_cast<char>(m_r.getBits(8));
        }
        m_bits -= 24;
        return true;
    }
    template <class T>
    bool count(const char*, T& v, size_t bits, size_t) {
        return (*this)(nullptr, v, bits);
    }
    template <class C>
    bool bytes(const char*, C& c, size_t n) {
        if (n > left()) {
            return false;
        }
        c.resize(n);
        for (auto& b : c) {
            b = static_cast<std::remove_reference_t<decltype(b)>>(m_r.getBits(8));
        }
        m_bits -= 8 * n;
        return true;
    }
    template <class C>
    bool rest(const char* name, C& c, size_t max = SIZE_MAX) {
        return bytes(name, c, std::min(left(), max));
    }
    // Entries while at least one whole entry (the size of an empty one) is left.
    template <class L>
    bool entries(const char*, L& list) {
        list.clear();
        using E = std::remove_reference_t<decltype(entry_of(*list.begin()))>;
        E empty;
        body_sizer s;
        empty.fields(s);
        const size_t min = std::max<size_t>(s.bytes(), 1);
        while (left() >= min) {
            if (add_entry(list).fields(*this) == false) {
                return false;
            }
        }
        return true;
    }
    // Entries that fill exactly the next n bytes.
    template <class L>
    bool entries(const char*, L& list, size_t n) {
        list.clear();
        if (n > left()) {
            return false;
        }
        const size_t outside = m_bits - 8 * n;
        m_bits = 8 * n;
        while (m_bits != 0) {
            const size_t before = m_bits;
            if (add_entry(list).fields(*this) == false || m_bits == before) {
                return false;
            }
        }
        m_bits = outside;
        return true;
    }
    template <class L>
    bool entries_n(const char*, L& list, size_t n) {
        list.clear();
        for (size_t i = 0; i < n; ++i) {
            if (add_entry(list).fields(*this) == false) {
                return false;
            }
        }
        return true;
    }
    bool present(bool& flag) {
        flag = m_bits >= 8;
        return flag;
    }

    // Whole bytes left in the current range.
    size_t left() const { return m_bits / 8; }

    // Keeps the bytes after the last field. Fails when the fields ended inside a byte.
    bool keep_rest(KVSDK::KVAlignMemory<uint8_t>& data) {
        data.dealloc();
        if (m_bits % 8 != 0) {
            return false;
        }
        const size_t n = left();
        if (n == 0) {
            return true;
        }
        if (!data.alloc(n, 0)) {
            return false;
        }
        std::memcpy(data.data(), m_r.getData(), n);
        m_r.skipBytes(n);
        m_bits = 0;
        return true;
    }

private:
    KVSDK::KVBSReader m_r;
    size_t m_bits;  // bits left in the current range
};

// Writes a body; count fields take the size of what they count.
class body_writer : public walk::field_forms<body_writer> {
public:
    explicit body_writer(KVSDK::KVBSWriter& w) : m_w(w) {}

    template <class T>
    bool operator()(const char*, T& v, size_t bits) {
        return m_w.putBits(static_cast<uint64_t>(v), bits);
    }
    bool code(const char*, iso_code& c) {
        for (char ch : c) {
            if (!m_w.putBits(static_cast<uint8_t>(ch), 8)) {
                return false;
            }
        }
        return true;
    }
    template <class T>
    bool count(const char*, T& v, size_t bits, size_t size) {
        if (bits < 64 && (size >> bits) != 0) {
            return false;  // the field cannot hold the count
        }
        v = static_cast<T>(size);
        return (*this)(nullptr, v, bits);
    }
    template <class C>
    bool bytes(const char*, C& c, size_t) {
        for (auto b : c) {
            if (!m_w.putBits(static_cast<uint8_t>(b), 8)) {
                return false;
            }
        }
        return true;
    }
    template <class C>
    bool rest(const char*, C& c, size_t = SIZE_MAX) {
        return bytes(nullptr, c, 0);
    }
    template <class L>
    bool entries(const char*, L& list, size_t = 0) {
        return walk::each_entry(list, *this);
    }
    template <class L>
    bool entries_n(const char* name, L& list, size_t) {
        return entries(name, list);
    }
    bool present(bool& flag) { return flag; }

    bool raw(const KVSDK::KVAlignMemory<uint8_t>& data) {
        for (size_t i = 0; i < data.size(); ++i) {
            if (!m_w.putBits(data[i], 8)) {
                return false;
            }
        }
        return true;
    }

private:
    KVSDK::KVBSWriter& m_w;
};

// Walks a freshly assigned copy and replaces every shared entry by a copy of its own.
class body_cloner : public walk::field_forms<body_cloner> {
public:
    template <class T>
    bool operator()(const char*, T&, size_t) {
        return true;
    }
    bool code(const char*, iso_code&) { return true; }
    template <class T>
    bool count(const char*, T&, size_t, size_t) {
        return true;
    }
    template <class C>
    bool bytes(const char*, C&, size_t) {
        return true;
    }
    template <class C>
    bool rest(const char*, C&, size_t = SIZE_MAX) {
        return true;
    }
    template <class E>
    bool entries(const char*, std::list<std::shared_ptr<E>>& list, size_t = 0) {
        for (auto& p : list) {
            if (p) {
                p = std::make_shared<E>(*p);
                p->fields(*this);
            }
        }
        return true;
    }
    template <class E>
    bool entries(const char*, std::vector<E>& list, size_t = 0) {
        for (auto& e : list) {
            e.fields(*this);
        }
        return true;
    }
    template <class L>
    bool entries_n(const char* name, L& list, size_t) {
        return entries(name, list);
    }
    bool present(bool& flag) { return flag; }
};

}  // namespace desc_io

template <class IO>
bool base_descriptor_extension::fields(IO& io) {
    return io("descriptor_tag_extension", descriptor_tag_extension, 8);
}

template <class D, class B>
std::shared_ptr<base_descriptor> descriptor_of<D, B>::create() const {
    return std::make_shared<D>();
}

template <class D, class B>
void descriptor_of<D, B>::copyTo(base_descriptor& to) const {
    D* target = dynamic_cast<D*>(&to);
    if (target == nullptr) {
        base_descriptor::copyTo(to);
        return;
    }
    if (target == this) {
        return;
    }
    *target = static_cast<const D&>(*this);
    desc_io::copy_bytes(this->descriptor_data, target->descriptor_data);
    desc_io::body_cloner cloner;
    target->fields(cloner);
}

template <class D, class B>
bool descriptor_of<D, B>::write(KVSDK::KVBSWriter& w) {
    const size_t length = body_size();
    if (length > 255) {
        return false;
    }
    this->descriptor_length = static_cast<uint8_t>(length);
    desc_io::body_writer io(w);
    return w.putBits<8>(this->descriptor_tag) && w.putBits<8>(this->descriptor_length) &&
           static_cast<D&>(*this).fields(io) && io.raw(this->descriptor_data);
}

template <class D, class B>
bool descriptor_of<D, B>::read(KVSDK::KVBSReader& r) {
    D& self = static_cast<D&>(*this);
    self = D();  // nothing of an earlier read survives (optional parts, entries)
    const uint8_t* body = nullptr;
    if (!desc_io::read_header(r, *this, body)) {
        return false;
    }
    desc_io::body_reader io(body, this->descriptor_length);
    return self.fields(io) && io.keep_rest(this->descriptor_data);
}

template <class D, class B>
size_t descriptor_of<D, B>::body_size() const {
    // The sizer only looks at the fields; fields() is not const because the other walkers
    // fill them.
    desc_io::body_sizer s;
    const_cast<D&>(static_cast<const D&>(*this)).fields(s);
    return s.bytes() + this->descriptor_data.size();
}

template <class D, class B>
bool descriptor_of<D, B>::view(table_view& v) const {
    walk::viewer io(v);
    const_cast<D&>(static_cast<const D&>(*this)).fields(io);
    return true;
}

}  // namespace mpegcore
