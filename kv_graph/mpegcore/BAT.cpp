#include "mpegcore/BAT.h"

#include <memory>

namespace mpegcore {

namespace {

// Fields after section_length up to the bouquet descriptors (7 bytes),
// transport_stream_loop_length (2) and the CRC (4).
constexpr int kFixedLength = 13;
// transport_stream_id, original_network_id and transport_descriptors_length.
constexpr int kStreamHeaderSize = 6;

}  // namespace

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
    : CLongSectionTable(buffer, size > 0 ? static_cast<size_t>(size) : 0) {}

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
    if (!read_section_header(r)) {
        return false;
    }
    bouquet_id = read_long_header(r);
    reserved_future_use2 = static_cast<uint8_t>(r.getBits(4));
    bouquet_descriptors_length = static_cast<uint16_t>(r.getBits(12));

    descriptors.clear();
    deleteStreams();
    if (!read_descriptor_loop(r, bouquet_descriptors_length, descriptors)) {
        return false;
    }
    reserved_future_use3 = static_cast<uint8_t>(r.getBits(4));
    transport_stream_loop_length = static_cast<uint16_t>(r.getBits(12));

    // Fewer than 6 bytes left cannot hold an entry and end the loop.
    int32_t remaining = transport_stream_loop_length;
    while (remaining > 5) {
        auto stream = std::make_unique<CBouquetAssociationStream>();
        stream->transport_stream_id = static_cast<uint16_t>(r.getBits(16));
        stream->original_network_id = static_cast<uint16_t>(r.getBits(16));
        stream->reserved_future_use = static_cast<uint8_t>(r.getBits(4));
        stream->transport_descriptors_length = static_cast<uint16_t>(r.getBits(12));
        // The transport descriptors go behind the bouquet descriptors in the table's own
        // list; the entry's list stays empty.
        if (!read_descriptor_loop(r, stream->transport_descriptors_length, descriptors)) {
            return false;
        }
        remaining -= stream->transport_descriptors_length + kStreamHeaderSize;
        BouquetAssociationStreamList.push_back(stream.release());
    }
    CRC = static_cast<uint32_t>(r.getBits(32));
    return true;
}

uint16_t CBAT::calc_transport_stream_loop_length() const {
    size_t length = 0;
    for (const CBouquetAssociationStream* stream : BouquetAssociationStreamList) {
        length += stream->getSize();
    }
    return static_cast<uint16_t>(length);
}

uint16_t CBAT::section_length_of_contents() const {
    return static_cast<uint16_t>(kFixedLength + calc_transport_stream_loop_length() +
                                 descriptors.getSize());
}

uint16_t CBAT::calc_section_length() {
    return section_length_of_contents();
}

bool CBAT::RenderTable() {
    const size_t capacity = m_pDataTable != nullptr ? m_lMaxSize : 0;
    KVSDK::KVBSWriter w(m_pDataTable, capacity);
    bool ok = write(w);
    ok = write_long_header(w, bouquet_id) && ok;
    ok = w.putBits<uint8_t>(reserved_future_use2 & 0xF, 4) && ok;
    bouquet_descriptors_length = descriptors.getSize();
    ok = w.putBits<uint16_t>(bouquet_descriptors_length & 0x0FFF, 12) && ok;
    ok = descriptors.write(w) && ok;
    ok = w.putBits<uint8_t>(reserved_future_use3 & 0xF, 4) && ok;
    transport_stream_loop_length = calc_transport_stream_loop_length();
    ok = w.putBits<uint16_t>(transport_stream_loop_length & 0x0FFF, 12) && ok;
    for (CBouquetAssociationStream* stream : BouquetAssociationStreamList) {
        ok = w.putBits<uint16_t>(stream->transport_stream_id, 16) && ok;
        ok = w.putBits<uint16_t>(stream->original_network_id, 16) && ok;
        ok = w.putBits<uint8_t>(stream->reserved_future_use & 0xF, 4) && ok;
        // The stored length as it stands, not recomputed.
        ok = w.putBits<uint16_t>(stream->transport_descriptors_length & 0x0FFF, 12) && ok;
        ok = stream->descriptors.write(w) && ok;
    }
    ok =
        finish_rendered_section(w, m_pDataTable, capacity, section_length, CRC, m_lSizeTable) && ok;
    return ok;
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
    target->section_length = section_length_of_contents();
}

}  // namespace mpegcore
