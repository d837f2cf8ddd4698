#pragma once

// Splice descriptors of SCTE 35 (read from lists of kind e_scte35_desc_type) and the cue
// identifier descriptor that marks a splice information PID in a PMT. Every splice
// descriptor starts with a 32-bit identifier, 0x43554549 ("CUEI"). Field names and widths
// are the standard's; each class's fields() in descriptors_scte35.cpp gives the wire layout.

#include <cstdint>
#include <string>
#include <vector>

#include "mpegcore/base_descriptor.h"

namespace mpegcore {

constexpr uint32_t kScte35Identifier = 0x43554549;  // "CUEI"

// Tag 0x8A (in ordinary lists).
class cue_identifier_descriptor : public descriptor_of<cue_identifier_descriptor> {
public:
    cue_identifier_descriptor() : descriptor_of(0x8A) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t cue_stream_type = 0;  // 8 bits
};

// Splice tag 0x00. Ordinary lists also read tag 0 with this class.
class avail_descriptor : public descriptor_of<avail_descriptor> {
public:
    avail_descriptor() : descriptor_of(0x00) {}
    template <class IO>
    bool fields(IO& io);

    uint32_t identifier = kScte35Identifier;  // 32 bits
    uint32_t provider_avail_id = 0;           // 32
};

// Splice tag 0x01.
class scte35_dtmf_descriptor : public descriptor_of<scte35_dtmf_descriptor> {
public:
    scte35_dtmf_descriptor() : descriptor_of(0x01) {}
    template <class IO>
    bool fields(IO& io);

    uint32_t identifier = kScte35Identifier;  // 32 bits
    uint8_t preroll = 0;                      // 8, tenths of a second
    uint8_t dtmf_count = 0;                   // 3
    uint8_t reserved = 0;                     // 5
    std::string DTMF_chars;                   // dtmf_count characters
};

// Splice tag 0x02. Fields after reserved1 are present only when
// segmentation_event_cancel_indicator is 0.
class scte35_segmentation_descriptor : public descriptor_of<scte35_segmentation_descriptor> {
public:
    struct component {
        template <class IO>
        bool fields(IO& io);

        uint8_t component_tag = 0;  // 8 bits
        uint8_t reserved = 0;       // 7
        uint64_t pts_offset = 0;    // 33
    };

    scte35_segmentation_descriptor() : descriptor_of(0x02) {}
    template <class IO>
    bool fields(IO& io);
    // Types whose descriptor may carry sub_segment_num and sub_segments_expected.
    bool has_sub_segments_type() const;

    uint32_t identifier = kScte35Identifier;          // 32 bits
    uint32_t segmentation_event_id = 0;               // 32
    uint8_t segmentation_event_cancel_indicator = 0;  // 1
    uint8_t reserved1 = 0;                            // 7
    uint8_t program_segmentation_flag = 0;            // 1
    uint8_t segmentation_duration_flag = 0;           // 1
    uint8_t delivery_not_restricted_flag = 0;         // 1
    // When delivery_not_restricted_flag is 0:
    uint8_t web_delivery_allowed_flag = 0;  // 1
    uint8_t no_regional_blackout_flag = 0;  // 1
    uint8_t archive_allowed_flag = 0;       // 1
    uint8_t device_restrictions = 0;        // 2
    // When delivery_not_restricted_flag is 1:
    uint8_t reserved2 = 0;  // 5
    // When program_segmentation_flag is 0:
    uint8_t component_count = 0;  // 8
    std::vector<component> components;
    // When segmentation_duration_flag is 1:
    uint64_t segmentation_duration = 0;    // 40, 90 kHz ticks
    uint8_t segmentation_upid_type = 0;    // 8
    uint8_t segmentation_upid_length = 0;  // 8
    std::vector<uint8_t> segmentation_upid;
    uint8_t segmentation_type_id = 0;  // 8
    uint8_t segment_num = 0;           // 8
    uint8_t segments_expected = 0;     // 8
    // Optional for the types of has_sub_segments_type(): true when the body carries them.
    bool has_sub_segments = false;
    uint8_t sub_segment_num = 0;        // 8
    uint8_t sub_segments_expected = 0;  // 8
};

// Splice tag 0x03, not produced.
class scte35_time_descriptor : public descriptor_of<scte35_time_descriptor> {
public:
    scte35_time_descriptor() : descriptor_of(0x03) {}
    template <class IO>
    bool fields(IO& io);

    uint32_t identifier = kScte35Identifier;  // 32 bits
    uint64_t TAI_seconds = 0;                 // 48
    uint32_t TAI_ns = 0;                      // 32
    uint16_t UTC_offset = 0;                  // 16
};

// The shared members of each class are instantiated once, in descriptors_scte35.cpp.
extern template class descriptor_of<cue_identifier_descriptor>;
extern template class descriptor_of<avail_descriptor>;
extern template class descriptor_of<scte35_dtmf_descriptor>;
extern template class descriptor_of<scte35_segmentation_descriptor>;
extern template class descriptor_of<scte35_time_descriptor>;

}  // namespace mpegcore
