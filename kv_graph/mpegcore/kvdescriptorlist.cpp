#include "mpegcore/kvdescriptorlist.h"

#include "mpegcore/descriptors_dvb.h"
#include "mpegcore/descriptors_mpeg.h"
#include "mpegcore/descriptors_scte35.h"

namespace mpegcore {

// ---- KVDescriptorList ----

KVDescriptorList::KVDescriptorList(KVDescriptorType t) : m_type(t) {}
KVDescriptorList::~KVDescriptorList() = default;

bool KVDescriptorList::read(KVSDK::KVBSReader& r) {
    switch (m_type) {
        case e_ts_desc_type:
            return readTS(r);
        case e_scte35_desc_type:
            return readSCTE35(r);
    }
    return false;
}

template <class T>
bool KVDescriptorList::add(KVSDK::KVBSReader& r) {
    auto d = std::make_shared<T>();
    if (!d->read(r)) {
        return false;
    }
    descriptor.push_back(std::move(d));
    return true;
}

bool KVDescriptorList::readTS(KVSDK::KVBSReader& r) {
    // Fewer than 3 bytes cannot hold a descriptor with a body; they are left unread.
    while (r.getLength() >= 3) {
        uint8_t tag = 0;
        r.lookBits<8>(tag);
        bool ok = false;
        // clang-format off
        switch (tag) {
            // Splice avail descriptors turn up under tag 0 in ordinary loops too.
            case 0x00: ok = add<avail_descriptor>(r); break;
            case 0x02: ok = add<video_stream_descriptor>(r); break;
            case 0x03: ok = add<audio_stream_descriptor>(r); break;
            case 0x05: ok = add<registration_descriptor>(r); break;
            case 0x09: ok = add<CA_descriptor>(r); break;
            case 0x0A: ok = add<ISO_639_language_descriptor>(r); break;
            case 0x0C: ok = add<multiplex_buffer_utilization_descriptor>(r); break;
            case 0x10: ok = add<smoothing_buffer_descriptor>(r); break;
            case 0x11: ok = add<STD_descriptor>(r); break;
            case 0x40: ok = add<network_name_descriptor>(r); break;
            case 0x41: ok = add<service_list_descriptor>(r); break;
            case 0x45: ok = add<VBI_data_descriptor>(r); break;
            case 0x46:  // VBI teletext: same body as teletext
            case 0x56: ok = add<teletext_descriptor>(r); break;
            case 0x47: ok = add<bouquet_name_descriptor>(r); break;
            case 0x48: ok = add<service_descriptor>(r); break;
            case 0x4D: ok = add<short_event_descriptor>(r); break;
            case 0x4E: ok = add<extended_event_descriptor>(r); break;
            case 0x52: ok = add<stream_identifier_descriptor>(r); break;
            case 0x55: ok = add<parental_rating_descriptor>(r); break;
            case 0x58: ok = add<local_time_offset_descriptor>(r); break;
            case 0x59: ok = add<subtitling_descriptor>(r); break;
            case 0x5F: ok = add<private_data_specifier_descriptor>(r); break;
            case 0x6A: ok = add<ac3_descriptor>(r); break;
            case 0x7F: {
                // The extension tag is the first body byte, after tag and length.
                uint32_t head = 0;
                r.lookBits<24>(head);
                if ((head & 0xFF) == 0x04) {
                    ok = add<T2_delivery_system_descriptor>(r);
                } else {
                    ok = add<extension_descriptor>(r);
                }
                break;
            }
            case 0x83: ok = add<logical_channel_descriptor>(r); break;
            case 0x8A: ok = add<cue_identifier_descriptor>(r); break;
            default: ok = add<base_descriptor>(r); break;
        }
        // clang-format on
        if (!ok) {
            return false;
        }
    }
    return true;
}

bool KVDescriptorList::readSCTE35(KVSDK::KVBSReader& r) {
    while (r.getLength() >= 3) {
        uint8_t tag = 0;
        r.lookBits<8>(tag);
        bool ok = false;
        // clang-format off
        switch (tag) {
            case 0x00: ok = add<avail_descriptor>(r); break;
            case 0x01: ok = add<scte35_dtmf_descriptor>(r); break;
            case 0x02: ok = add<scte35_segmentation_descriptor>(r); break;
            default: ok = add<base_descriptor>(r); break;
        }
        // clang-format on
        if (!ok) {
            return false;
        }
    }
    return true;
}

bool KVDescriptorList::write(KVSDK::KVBSWriter& w) {
    for (auto& d : descriptor) {
        if (d && !d->write(w)) {
            return false;
        }
    }
    return true;
}

void KVDescriptorList::copyTo(KVDescriptorList& to) const {
    if (&to == this) {
        return;
    }
    to.descriptor.clear();
    to.m_type = m_type;
    for (const auto& d : descriptor) {
        if (d) {
            auto copy = d->create();
            d->copyTo(*copy);
            to.descriptor.push_back(std::move(copy));
        }
    }
}

void KVDescriptorList::clear() {
    descriptor.clear();
}

uint16_t KVDescriptorList::getSize() const {
    size_t size = 0;
    for (const auto& d : descriptor) {
        if (d) {
            size += 2 + d->body_size();
        }
    }
    return static_cast<uint16_t>(size);
}

std::shared_ptr<base_descriptor> KVDescriptorList::find(uint8_t tag) const {
    for (const auto& d : descriptor) {
        if (d && d->descriptor_tag == tag) {
            return d;
        }
    }
    return {};
}

}  // namespace mpegcore
