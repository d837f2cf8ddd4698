#include "mpegcore/NIT.h"

namespace mpegcore {

namespace {

// Fields after section_length up to the network descriptors (7 bytes),
// transport_stream_loop_length (2) and the CRC (4).
constexpr int kFixedLength = 13;
// transport_stream_id, original_network_id and the descriptors' length.
constexpr int kStreamHeaderSize = 6;

}  // namespace

void CBaseTransportStream::copyTo(CBaseTransportStream& to) const {
    to.transport_stream_id = transport_stream_id;
    to.original_network_id = original_network_id;
    to.reserved_future_use = reserved_future_use;
    descriptors.copyTo(to.descriptors);
    to.network_descriptors_length = to.descriptors.getSize();
}

CNIT::CNIT(uint8_t* buffer, size_t size) : CLongSectionTable(buffer, size) {}

void CNIT::Clear() {
    transport_stream.clear();
    descriptors.clear();
    CBaseMpegTable::Clear();
}

bool CNIT::read(KVSDK::KVBSReader& r) {
    if (!read_section_header(r)) {
        return false;
    }
    network_id = read_long_header(r);
    reserved_future_use = static_cast<uint8_t>(r.getBits(4));
    network_descriptors_length = static_cast<uint16_t>(r.getBits(12));

    descriptors.clear();
    transport_stream.clear();
    if (!read_descriptor_loop(r, network_descriptors_length, descriptors)) {
        return false;
    }
    reserved_future_use1 = static_cast<uint8_t>(r.getBits(4));
    transport_stream_loop_length = static_cast<uint16_t>(r.getBits(12));

    // Fewer than 6 bytes left cannot hold a transport stream and end the loop.
    int32_t remaining = transport_stream_loop_length;
    while (remaining > 5) {
        auto stream = std::make_shared<CBaseTransportStream>();
        stream->transport_stream_id = static_cast<uint16_t>(r.getBits(16));
        stream->original_network_id = static_cast<uint16_t>(r.getBits(16));
        stream->reserved_future_use = static_cast<uint8_t>(r.getBits(4));
        stream->network_descriptors_length = static_cast<uint16_t>(r.getBits(12));
        if (!read_descriptor_loop(r, stream->network_descriptors_length, stream->descriptors)) {
            return false;
        }
        remaining -= stream->network_descriptors_length + kStreamHeaderSize;
        transport_stream.push_back(std::move(stream));
    }
    CRC = static_cast<uint32_t>(r.getBits(32));
    return true;
}

uint16_t CNIT::calc_transport_stream_loop_length() const {
    size_t length = 0;
    for (const auto& stream : transport_stream) {
        length += stream->getSize();
    }
    return static_cast<uint16_t>(length);
}

uint16_t CNIT::section_length_of_contents() const {
    return static_cast<uint16_t>(kFixedLength + descriptors.getSize() +
                                 calc_transport_stream_loop_length());
}

uint16_t CNIT::calc_section_length() {
    return section_length_of_contents();
}

bool CNIT::RenderTable() {
    const size_t capacity = m_pDataTable != nullptr ? m_lMaxSize : 0;
    KVSDK::KVBSWriter w(m_pDataTable, capacity);
    bool ok = write(w);
    ok = write_long_header(w, network_id) && ok;
    ok = w.putBits<uint8_t>(reserved_future_use & 0xF, 4) && ok;
    network_descriptors_length = descriptors.getSize();
    ok = w.putBits<uint16_t>(network_descriptors_length & 0x0FFF, 12) && ok;
    ok = descriptors.write(w) && ok;
    ok = w.putBits<uint8_t>(reserved_future_use1 & 0xF, 4) && ok;
    transport_stream_loop_length = calc_transport_stream_loop_length();
    ok = w.putBits<uint16_t>(transport_stream_loop_length & 0x0FFF, 12) && ok;
    for (const auto& stream : transport_stream) {
        ok = w.putBits<uint16_t>(stream->transport_stream_id, 16) && ok;
        ok = w.putBits<uint16_t>(stream->original_network_id, 16) && ok;
        ok = w.putBits<uint8_t>(stream->reserved_future_use & 0xF, 4) && ok;
        ok = w.putBits<uint16_t>(stream->descriptors.getSize() & 0x0FFF, 12) && ok;
        ok = stream->descriptors.write(w) && ok;
    }
    ok =
        finish_rendered_section(w, m_pDataTable, capacity, section_length, CRC, m_lSizeTable) && ok;
    return ok;
}

void CNIT::copyTo(CNIT* target) const {
    if (target == nullptr || target == this) {
        return;
    }
    copyHeaderTo(*target);
    target->network_id = network_id;
    copy_versions_to(*target);
    target->reserved_future_use = reserved_future_use;
    descriptors.copyTo(target->descriptors);
    target->network_descriptors_length = target->descriptors.getSize();
    target->reserved_future_use1 = reserved_future_use1;
    // Appended behind the target's own streams, which stay, so that the streams of
    // several sections can be gathered into one copy.
    target->transport_stream_loop_length = 0;
    for (const auto& source : transport_stream) {
        auto stream = std::make_shared<CBaseTransportStream>();
        source->copyTo(*stream);
        target->transport_stream_loop_length =
            static_cast<uint16_t>(target->transport_stream_loop_length + stream->getSize());
        target->transport_stream.push_back(std::move(stream));
    }
    target->CRC = CRC;
    target->section_length = section_length_of_contents();
}

}  // namespace mpegcore
