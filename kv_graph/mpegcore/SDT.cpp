#include "mpegcore/SDT.h"

namespace mpegcore {

namespace {

// Fields after section_length up to the service loop (8 bytes) and the CRC.
constexpr int kFixedLength = 12;
// service_id, the flags and descriptors_loop_length.
constexpr int kServiceHeaderSize = 5;

}  // namespace

void CServiceDescriptionSection::copyTo(CServiceDescriptionSection& to) const {
    to.service_id = service_id;
    to.reserved_future_use = reserved_future_use;
    to.EIT_schedule_flag = EIT_schedule_flag;
    to.EIT_present_following_flag = EIT_present_following_flag;
    to.running_status = running_status;
    to.free_CA_mode = free_CA_mode;
    to.descriptors.clear();
    descriptors.copyTo(to.descriptors);
    to.descriptors_loop_length = to.descriptors.getSize();
}

CSDT::CSDT(uint8_t* buffer, size_t size) : CLongSectionTable(buffer, size) {}

void CSDT::Clear() {
    sds.clear();
    CBaseMpegTable::Clear();
}

bool CSDT::read(KVSDK::KVBSReader& r) {
    if (!read_section_header(r)) {
        return false;
    }
    transport_stream_id = read_long_header(r);
    original_network_id = static_cast<uint16_t>(r.getBits(16));
    reserved_future_use1 = static_cast<uint8_t>(r.getBits(8));

    sds.clear();
    // Fewer than 5 bytes cannot hold a service and end the loop, as does a loop length that
    // overshoots the section.
    while (body_length(r) >= kServiceHeaderSize) {
        auto service = std::make_shared<CServiceDescriptionSection>();
        service->service_id = static_cast<uint16_t>(r.getBits(16));
        service->reserved_future_use = static_cast<uint8_t>(r.getBits(6));
        service->EIT_schedule_flag = static_cast<uint8_t>(r.getBits(1));
        service->EIT_present_following_flag = static_cast<uint8_t>(r.getBits(1));
        service->running_status = static_cast<uint8_t>(r.getBits(3));
        service->free_CA_mode = static_cast<uint8_t>(r.getBits(1));
        service->descriptors_loop_length = static_cast<uint16_t>(r.getBits(12));
        if (!read_descriptor_loop(r, service->descriptors_loop_length, service->descriptors)) {
            return false;
        }
        sds[service->service_id] = std::move(service);
    }
    CRC = static_cast<uint32_t>(r.getBits(32));
    return true;
}

uint16_t CSDT::section_length_of_services() const {
    size_t length = kFixedLength;
    for (const auto& entry : sds) {
        length += entry.second->getSize();
    }
    return static_cast<uint16_t>(length);
}

uint16_t CSDT::calc_section_length() {
    return section_length_of_services();
}

bool CSDT::RenderTable() {
    KVSDK::KVBSWriter w(m_pDataTable, m_pDataTable != nullptr ? m_lMaxSize : 0);
    bool ok = write(w);
    ok = write_long_header(w, transport_stream_id) && ok;
    ok = w.putBits<uint16_t>(original_network_id, 16) && ok;
    ok = w.putBits<uint8_t>(reserved_future_use1, 8) && ok;
    for (const auto& entry : sds) {
        const CServiceDescriptionSection& service = *entry.second;
        ok = w.putBits<uint16_t>(service.service_id, 16) && ok;
        ok = w.putBits<uint8_t>(service.reserved_future_use & 0x3F, 6) && ok;
        ok = w.putBits<uint8_t>(service.EIT_schedule_flag & 1, 1) && ok;
        ok = w.putBits<uint8_t>(service.EIT_present_following_flag & 1, 1) && ok;
        ok = w.putBits<uint8_t>(service.running_status & 7, 3) && ok;
        ok = w.putBits<uint8_t>(service.free_CA_mode & 1, 1) && ok;
        ok = w.putBits<uint16_t>(service.descriptors.getSize() & 0x0FFF, 12) && ok;
        ok = entry.second->descriptors.write(w) && ok;
    }
    ok = finish_rendered_section(w, m_pDataTable, m_pDataTable != nullptr ? m_lMaxSize : 0,
                                 section_length, CRC, m_lSizeTable) &&
         ok;
    return ok;
}

void CSDT::copyTo(CSDT* target) const {
    if (target == nullptr || target == this) {
        return;
    }
    copyHeaderTo(*target);
    target->transport_stream_id = transport_stream_id;
    copy_versions_to(*target);
    target->original_network_id = original_network_id;
    target->reserved_future_use1 = reserved_future_use1;
    target->CRC = CRC;
    // The target's services are not emptied first: ids that this table does not carry
    // stay, so sections of one table can be gathered into one copy.
    size_t length = kFixedLength;
    for (const auto& entry : sds) {
        auto service = std::make_shared<CServiceDescriptionSection>();
        entry.second->copyTo(*service);
        length += service->getSize();
        target->sds[entry.first] = std::move(service);
    }
    target->section_length = static_cast<uint16_t>(length);
}

}  // namespace mpegcore
