#include "mpegcore/SDT.h"

#include "mpegcore/table_io.h"

namespace mpegcore {

namespace {

// Fields after section_length up to the service loop (8 bytes) and the CRC.
constexpr int kFixedLength = 12;

}  // namespace

template <class IO>
bool CServiceDescriptionSection::fields(IO& io) {
    return io("service_id", service_id, 16) && io.reserved(reserved_future_use, 6) &&
           io("EIT_schedule_flag", EIT_schedule_flag, 1) &&
           io("EIT_present_following_flag", EIT_present_following_flag, 1) &&
           io("running_status", running_status, 3) && io("free_CA_mode", free_CA_mode, 1) &&
           io.length("descriptors_loop_length", descriptors_loop_length, 12,
                     [&] { return descriptors.getSize(); }) &&
           io.descriptors("descriptors", descriptors, descriptors_loop_length);
}

template <class IO>
bool CSDT::fields(IO& io) {
    return long_header(io, "transport_stream_id", transport_stream_id) &&
           io("original_network_id", original_network_id, 16) &&
           io.reserved(reserved_future_use1, 8) &&
           io.entries("services", sds, 5,
                      [](const CServiceDescriptionSection& s) { return s.service_id; }) &&
           io.crc(CRC);
}

template class table_of<CSDT, CLongSectionTable>;

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

void CSDT::Clear() {
    sds.clear();
    CBaseMpegTable::Clear();
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
