#pragma once

// One descriptor: its header, a body kept raw or read into the named fields of a
// subclass, and the mechanics that every subclass with fields shares.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "kvcore/kv_align_memory.h"
#include "kvcore/kv_bitstream.h"

namespace mpegcore {

class table_view;

// Three characters of a language or country code, as carried in the stream.
using iso_code = std::array<char, 3>;

// One descriptor: the two-byte header and a body.
//
// This class itself keeps the body as raw bytes in descriptor_data; it stands for every tag
// without a class of its own. Subclasses read the body into named fields. A subclass keeps
// in descriptor_data only the body bytes after its last field (bytes it has no field for,
// an incomplete last entry), so that they write back unchanged.
//
// descriptor_length on write: write() recomputes it from the fields (and those trailing
// bytes), stores it back and writes it; the value held before is not trusted. Length and
// count fields inside a body (service_name_length, length_of_items, dtmf_count...) are
// recomputed from the data they count in the same way. A descriptor read from a stream
// therefore writes back byte for byte, and one whose fields were changed writes a
// consistent header. write() fails when the body would exceed 255 bytes or a count field
// cannot hold its count.
class base_descriptor {
public:
    base_descriptor();
    virtual ~base_descriptor();

    // A new, empty descriptor of the same class.
    virtual std::shared_ptr<base_descriptor> create() const;
    // Deep copy into `to`: no array or entry is shared afterwards. When `to` is of a
    // different class, only the header and descriptor_data are copied.
    virtual void copyTo(base_descriptor& to) const;
    // Appends header and body. Recomputes descriptor_length first (see above).
    virtual bool write(KVSDK::KVBSWriter& w);
    // Reads header and body; refuses a descriptor_length that runs past the reader's data
    // or a body whose fields do not fit it. Consumes exactly 2 + descriptor_length bytes on
    // success.
    virtual bool read(KVSDK::KVBSReader& r);
    // Body size that write() will give descriptor_length (may exceed 255; write() then
    // fails).
    virtual size_t body_size() const;
    // Hands the decoded fields to `v` by name; false, handing nothing, for a descriptor kept
    // as raw bytes.
    virtual bool view(table_view& v) const;

    uint8_t descriptor_tag = 0;
    uint8_t descriptor_length = 0;
    KVSDK::KVAlignMemory<uint8_t> descriptor_data;

protected:
    explicit base_descriptor(uint8_t tag);
    // Copies share descriptor_data; only subclasses use them, to build deep copies.
    base_descriptor(const base_descriptor&) = default;
    base_descriptor& operator=(const base_descriptor&) = default;
};

// Mechanics shared by every descriptor class with fields.
//
// D describes its body once, as `template <class IO> bool fields(IO& io)`, a run of calls on
// `io` in wire order (see kvdescriptor_io.h); reading, writing, sizing and deep copying are
// all driven by that one description, so they cannot disagree. B is the class D extends.
// The members are defined in kvdescriptor_io.h and instantiated once per class in the
// descriptor sources.
template <class D, class B = base_descriptor>
class descriptor_of : public B {
public:
    std::shared_ptr<base_descriptor> create() const override;
    void copyTo(base_descriptor& to) const override;
    bool write(KVSDK::KVBSWriter& w) override;
    bool read(KVSDK::KVBSReader& r) override;
    size_t body_size() const override;
    bool view(table_view& v) const override;

protected:
    explicit descriptor_of(uint8_t tag) { this->descriptor_tag = tag; }
};

// A descriptor of tag 0x7F, whose first body byte names the real descriptor. The body after
// that byte stays raw in descriptor_data.
class base_descriptor_extension : public descriptor_of<base_descriptor_extension> {
public:
    base_descriptor_extension() : descriptor_of(0x7F) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t descriptor_tag_extension = 0;  // 8 bits
};

extern template class descriptor_of<base_descriptor_extension>;

namespace desc_io {

// A copy of `from` in a new array of its own (an empty holder stays empty).
void copy_bytes(const KVSDK::KVAlignMemory<uint8_t>& from, KVSDK::KVAlignMemory<uint8_t>& to);

// Reads tag and length and moves the reader past the body, whose start it returns in
// `body`. Fails when the header or the body runs past the reader's data.
bool read_header(KVSDK::KVBSReader& r, base_descriptor& d, const uint8_t*& body);

}  // namespace desc_io

}  // namespace mpegcore
