#include "mpegcore/NIT.h"

#include "mpegcore/table_io.h"

namespace mpegcore {

template <class IO>
bool CBaseTransportStream::fields(IO& io) {
    return io("transport_stream_id", transport_stream_id, 16) &&
           io("original_network_id", original_network_id, 16) &&
           io.reserved(reserved_future_use, 4) &&
           io.length("transport_descriptors_length", network_descriptors_length, 12,
                     [&] { return descriptors.getSize(); }) &&
           io.descriptors("descriptors", descriptors, network_descriptors_length);
}

template <class IO>
bool CNIT::fields(IO& io) {
    return long_header(io, "network_id", network_id) && io.reserved(reserved_future_use, 4) &&
           io.length("network_descriptors_length", network_descriptors_length, 12,
                     [&] { return descriptors.getSize(); }) &&
           io.descriptors("descriptors", descriptors, network_descriptors_length) &&
           io.reserved(reserved_future_use1, 4) &&
           io.length("transport_stream_loop_length", transport_stream_loop_length, 12,
                     [&] { return calc_transport_stream_loop_length(); }) &&
           io.entries_within("transport_streams", transport_stream, transport_stream_loop_length,
                             6) &&
           io.crc(CRC);
}

template class table_of<CNIT, CLongSectionTable>;

void CBaseTransportStream::copyTo(CBaseTransportStream& to) const {
    to.transport_stream_id = transport_stream_id;
    to.original_network_id = original_network_id;
    to.reserved_future_use = reserved_future_use;
    descriptors.copyTo(to.descriptors);
    to.network_descriptors_length = to.descriptors.getSize();
}

void CNIT::Clear() {
    transport_stream.clear();
    descriptors.clear();
    CBaseMpegTable::Clear();
}

uint16_t CNIT::calc_transport_stream_loop_length() const {
    size_t length = 0;
    for (const auto& stream : transport_stream) {
        length += stream->getSize();
    }
    return static_cast<uint16_t>(length);
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
    target->section_length = fields_length();
}

}  // namespace mpegcore
