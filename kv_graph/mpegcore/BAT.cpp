#include "mpegcore/BAT.h"

#include <memory>

#include "mpegcore/table_io.h"

namespace mpegcore {

namespace {

// transport_stream_id, original_network_id and transport_descriptors_length.
constexpr int kStreamHeaderSize = 6;

}  // namespace

template <class IO>
bool CBouquetAssociationStream::fields(IO& io) {
    return io("transport_stream_id", transport_stream_id, 16) &&
           io("original_network_id", original_network_id, 16) &&
           io.reserved(reserved_future_use, 4) &&
           io("transport_descriptors_length", transport_descriptors_length, 12) &&
           io.descriptors("descriptors", descriptors, transport_descriptors_length);
}

template <class IO>
bool CBAT::fields(IO& io) {
    return long_header(io, "bouquet_id", bouquet_id) && io.reserved(reserved_future_use2, 4) &&
           io.length("bouquet_descriptors_length", bouquet_descriptors_length, 12,
                     [&] { return descriptors.getSize(); }) &&
           io.descriptors("descriptors", descriptors, bouquet_descriptors_length) &&
           io.reserved(reserved_future_use3, 4) &&
           io.length("transport_stream_loop_length", transport_stream_loop_length, 12,
                     [&] { return calc_transport_stream_loop_length(); }) &&
           io.entries_within("transport_streams", BouquetAssociationStreamList,
                             transport_stream_loop_length, kStreamHeaderSize) &&
           io.crc(CRC);
}

template class table_of<CBAT, CLongSectionTable>;

void CBouquetAssociationStream::copyTo(CBouquetAssociationStream& to) const {
    to.transport_stream_id = transport_stream_id;
    to.original_network_id = original_network_id;
    to.reserved_future_use = reserved_future_use;
    descriptors.copyTo(to.descriptors);
    // The entry's 6 header bytes are counted in as well.
    to.transport_descriptors_length =
        static_cast<uint16_t>(to.descriptors.getSize() + kStreamHeaderSize);
}

CBAT::CBAT(uint8_t* buffer, long size)
    : table_of(buffer, size > 0 ? static_cast<size_t>(size) : 0) {}

CBAT::~CBAT() {
    deleteStreams();
}

void CBAT::deleteStreams() {
    for (CBouquetAssociationStream* stream : BouquetAssociationStreamList) {
        delete stream;
    }
    BouquetAssociationStreamList.clear();
}

void CBAT::Clear() {
    deleteStreams();
    descriptors.clear();
    CBaseMpegTable::Clear();
}

bool CBAT::read(KVSDK::KVBSReader& r) {
    const bool ok = table_of::read(r);
    // The transport descriptors join the table's own list, behind the bouquet descriptors.
    for (CBouquetAssociationStream* stream : BouquetAssociationStreamList) {
        descriptors.descriptor.splice(descriptors.descriptor.end(), stream->descriptors.descriptor);
    }
    return ok;
}

uint16_t CBAT::calc_transport_stream_loop_length() const {
    size_t length = 0;
    for (const CBouquetAssociationStream* stream : BouquetAssociationStreamList) {
        length += stream->getSize();
    }
    return static_cast<uint16_t>(length);
}

void CBAT::copyTo(CBAT* target) const {
    if (target == nullptr || target == this) {
        return;
    }
    copyHeaderTo(*target);
    target->bouquet_id = bouquet_id;
    copy_versions_to(*target);
    target->reserved_future_use2 = reserved_future_use2;
    descriptors.copyTo(target->descriptors);
    target->bouquet_descriptors_length = target->descriptors.getSize();
    target->reserved_future_use3 = reserved_future_use3;
    // Appended behind the target's own entries, which stay.
    target->transport_stream_loop_length = 0;
    for (const CBouquetAssociationStream* source : BouquetAssociationStreamList) {
        auto stream = std::make_unique<CBouquetAssociationStream>();
        source->copyTo(*stream);
        target->transport_stream_loop_length =
            static_cast<uint16_t>(target->transport_stream_loop_length +
                                  stream->descriptors.getSize() + kStreamHeaderSize);
        target->BouquetAssociationStreamList.push_back(stream.release());
    }
    target->CRC = CRC;
    target->section_length = fields_length();
}

}  // namespace mpegcore
