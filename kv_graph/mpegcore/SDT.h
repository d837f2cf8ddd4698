#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

#include "mpegcore/BaseMpegTable.h"
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

    template <class IO>
    bool fields(IO& io);

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
// service with the same id replaces an earlier one. Fewer than 5 bytes in front of the CRC
// cannot hold a service and end the loop, as does a loop length that overshoots the
// section.
class CSDT : public table_of<CSDT, CLongSectionTable> {
public:
    using ServiceMap = std::map<uint16_t, std::shared_ptr<CServiceDescriptionSection>>;

    explicit CSDT(uint8_t* buffer = nullptr, size_t size = 1024) : table_of(buffer, size) {}
    ~CSDT() override = default;

    // Empties the services and the scratch buffer.
    void Clear() override;
    template <class IO>
    bool fields(IO& io);

    // Writes the section into the scratch buffer, as write() does (the services in
    // service_id order); GetBuffer()/GetSizeBuffer() then hold it. The CRC is left out when
    // it does not fit. Returns true when the whole section, CRC included, fitted.
    bool RenderTable() { return render_into_buffer(); }
    // Copies the header fields, the CRC and a deep copy of every service into `target`,
    // replacing services with the same id but keeping the target's others; the target's
    // section_length counts this table's services only. A null target (or this table
    // itself) is ignored.
    void copyTo(CSDT* target) const;
    void copyTo(CSDT& target) const { copyTo(&target); }

    uint16_t transport_stream_id = 0;  // 16 bits
    uint16_t original_network_id = 0;  // 16
    uint8_t reserved_future_use1 = 0;  // 8
    ServiceMap sds;
    uint32_t CRC = 0;
};

extern template class table_of<CSDT, CLongSectionTable>;

}  // namespace mpegcore
