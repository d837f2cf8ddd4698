#include "mpegcore/base_descriptor.h"

#include <cstring>

namespace mpegcore {

namespace desc_io {

void copy_bytes(const KVSDK::KVAlignMemory<uint8_t>& from, KVSDK::KVAlignMemory<uint8_t>& to) {
    if (&from == &to) {
        return;
    }
    // Let go first: `to` may share the array of `from`, and alloc() would reuse it.
    to.dealloc();
    if (!from.isValid() || !to.alloc(from.size(), from.alignment())) {
        return;
    }
    if (from.size() != 0) {
        std::memcpy(to.data(), from.data(), from.size());
    }
}

bool read_header(KVSDK::KVBSReader& r, base_descriptor& d, const uint8_t*& body) {
    if (r.getLength() < 2) {
        return false;
    }
    d.descriptor_tag = static_cast<uint8_t>(r.getBits(8));
    d.descriptor_length = static_cast<uint8_t>(r.getBits(8));
    if (r.getLength() < d.descriptor_length) {
        return false;
    }
    body = r.getData();
    r.skipBytes(d.descriptor_length);
    return true;
}

}  // namespace desc_io

// ---- base_descriptor ----

base_descriptor::base_descriptor() = default;
base_descriptor::base_descriptor(uint8_t tag) : descriptor_tag(tag) {}
base_descriptor::~base_descriptor() = default;

std::shared_ptr<base_descriptor> base_descriptor::create() const {
    return std::make_shared<base_descriptor>();
}

void base_descriptor::copyTo(base_descriptor& to) const {
    if (&to == this) {
        return;
    }
    to.descriptor_tag = descriptor_tag;
    to.descriptor_length = descriptor_length;
    desc_io::copy_bytes(descriptor_data, to.descriptor_data);
}

bool base_descriptor::write(KVSDK::KVBSWriter& w) {
    const size_t length = body_size();
    if (length > 255) {
        return false;
    }
    descriptor_length = static_cast<uint8_t>(length);
    bool ok = w.putBits<8>(descriptor_tag) && w.putBits<8>(descriptor_length);
    for (size_t i = 0; ok && i < descriptor_data.size(); ++i) {
        ok = w.putBits<8>(descriptor_data[i]);
    }
    return ok;
}

bool base_descriptor::read(KVSDK::KVBSReader& r) {
    descriptor_data.dealloc();
    const uint8_t* body = nullptr;
    if (!desc_io::read_header(r, *this, body)) {
        return false;
    }
    if (descriptor_length != 0) {
        if (!descriptor_data.alloc(descriptor_length, 0)) {
            return false;
        }
        std::memcpy(descriptor_data.data(), body, descriptor_length);
    }
    return true;
}

size_t base_descriptor::body_size() const {
    return descriptor_data.size();
}

bool base_descriptor::view(table_view&) const {
    return false;
}

}  // namespace mpegcore
