#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

#include "kvcore/kv_bitstream.h"
#include "mpegcore/LongSectionTable.h"
#include "mpegcore/kvdescriptorlist.h"

namespace mpegcore {

// One service of an SDT section.
class CServiceDescriptionSection {
public:
    CServiceDescriptionSection() = default;
    virtual ~CServiceDescriptionSection() = default;

    CServiceDescriptionSection(const CServiceDescriptionSection&) = delete;
    CServiceDescriptionSection& operator=(const CServiceDescriptionSection&) = delete;

    // Copies the scalar fields and a deep copy of the descriptors; the target's
    // descriptors_loop_length becomes the copied list's size.
    void copyTo(CServiceDescriptionSection& to) const;
    // Size in the section: the 5 fixed bytes and the descriptors.
    uint16_t getSize() const { return static_cast<uint16_t>(5 + descriptors.getSize()); }

    uint16_t service_id = 0;                 // 16 bits
    uint8_t reserved_future_use = 0;         // 6
    uint8_t EIT_schedule_flag = 0;           // 1
    uint8_t EIT_present_following_flag = 0;  // 1
    uint8_t running_status = 0;              // 3
    uint8_t free_CA_mode = 0;                // 1
    uint16_t descriptors_loop_length = 0;    // 12
    KVDescriptorList descriptors;
};

// One section of a Service Description Table (actual or other transport stream).
//
// The services are kept keyed and sorted by service_id, not in section order: a later
// service with the same id replaces an earlier one.
class CSDT : public CLongSectionTable {
public:
    using ServiceMap = std::map<uint16_t, std::shared_ptr<CServiceDescriptionSection>>;

    explicit CSDT(uint8_t* buffer = nullptr, size_t size = 1024);
    ~CSDT() override = default;

    // Empties the services and the scratch buffer.
    void Clear() override;
    // Refuses an incomplete section, one with a bad CRC (before any field after the common
    // header is read) and one whose descriptor loop runs past the data. The table id is not
    // checked. Fields read before a refusal stay as read.
    bool read(KVSDK::KVBSReader& r) override;
    // 12 + the size of every service, each recomputed from its descriptors.
    uint16_t calc_section_length() override;

    // Writes the section into the scratch buffer: the common header (section_length from
    // calc_section_length()), the header fields, the services in service_id order with
    // their loop lengths recomputed, and the CRC if it still fits. Fields that do not fit
    // the buffer are dropped. GetBuffer()/GetSizeBuffer() then hold the section. Returns
    // true when the whole section, CRC included, fitted.
    bool RenderTable();

    // Copies the header fields, the CRC and a deep copy of every service into `target`,
    // replacing services with the same id but keeping the target's others; the target's
    // section_length counts this table's services only. A null target (or this table
    // itself) is ignored.
    void copyTo(CSDT* target) const;
    void copyTo(CSDT& target) const { copyTo(&target); }

    uint16_t transport_stream_id = 0;    // 16 bits
    uint16_t original_network_id = 0;    // 16
    uint8_t reserved_future_use1 = 0;    // 8
    ServiceMap sds;
    uint32_t CRC = 0;

private:
    uint16_t section_length_of_services() const;
};

}  // namespace mpegcore
