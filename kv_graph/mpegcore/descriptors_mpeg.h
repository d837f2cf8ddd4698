#pragma once

// Descriptors of MPEG-2 Systems (ISO/IEC 13818-1). Field names and widths are the
// standard's; each class's fields() in descriptors_mpeg.cpp gives the wire layout.
// Classes marked "not produced" are complete but a descriptor list reads their tags as
// plain base_descriptor.

#include <cstdint>
#include <vector>

#include "mpegcore/base_descriptor.h"

namespace mpegcore {

// Tag 0x02.
class video_stream_descriptor : public descriptor_of<video_stream_descriptor> {
public:
    video_stream_descriptor() : descriptor_of(0x02) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t multiple_frame_rate_flag = 0;    // 1 bit
    uint8_t frame_rate_code = 0;             // 4
    uint8_t MPEG_1_only_flag = 0;            // 1
    uint8_t constrained_parameter_flag = 0;  // 1
    uint8_t still_picture_flag = 0;          // 1
    // Present only when MPEG_1_only_flag is 0.
    uint8_t profile_and_level_indication = 0;  // 8
    uint8_t chroma_format = 0;                 // 2
    uint8_t frame_rate_extension_flag = 0;     // 1
    uint8_t reserved = 0;                      // 5
};

// Tag 0x03.
class audio_stream_descriptor : public descriptor_of<audio_stream_descriptor> {
public:
    audio_stream_descriptor() : descriptor_of(0x03) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t free_format_flag = 0;               // 1 bit
    uint8_t ID = 0;                             // 1
    uint8_t layer = 0;                          // 2
    uint8_t variable_rate_audio_indicator = 0;  // 1
    uint8_t reserved = 0;                       // 3
};

// Tag 0x04, not produced.
class hierarchy_descriptor : public descriptor_of<hierarchy_descriptor> {
public:
    hierarchy_descriptor() : descriptor_of(0x04) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t reserved1 = 0;                       // 4 bits
    uint8_t hierarchy_type = 0;                  // 4
    uint8_t reserved2 = 0;                       // 2
    uint8_t hierarchy_layer_index = 0;           // 6
    uint8_t reserved3 = 0;                       // 2
    uint8_t hierarchy_embedded_layer_index = 0;  // 6
    uint8_t reserved4 = 0;                       // 2
    uint8_t hierarchy_channel = 0;               // 6
};

// Tag 0x05.
class registration_descriptor : public descriptor_of<registration_descriptor> {
public:
    registration_descriptor() : descriptor_of(0x05) {}
    template <class IO>
    bool fields(IO& io);

    uint32_t format_identifier = 0;  // 32 bits
    // The rest of the body, up to 188 bytes (anything beyond stays in descriptor_data).
    std::vector<uint8_t> additional_identification_info;
};

// Tag 0x06, not produced.
class data_stream_alignment_descriptor : public descriptor_of<data_stream_alignment_descriptor> {
public:
    data_stream_alignment_descriptor() : descriptor_of(0x06) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t alignment_type = 0;  // 8 bits
};

// Tag 0x07, not produced.
class target_background_grid_descriptor : public descriptor_of<target_background_grid_descriptor> {
public:
    target_background_grid_descriptor() : descriptor_of(0x07) {}
    template <class IO>
    bool fields(IO& io);

    uint16_t horizontal_size = 0;          // 14 bits
    uint16_t vertical_size = 0;            // 14
    uint8_t aspect_ratio_information = 0;  // 4
};

// Tag 0x08, not produced.
class video_window_descriptor : public descriptor_of<video_window_descriptor> {
public:
    video_window_descriptor() : descriptor_of(0x08) {}
    template <class IO>
    bool fields(IO& io);

    uint16_t horizontal_offset = 0;  // 14 bits
    uint16_t vertical_offset = 0;    // 14
    uint8_t window_priority = 0;     // 4
};

// Tag 0x09. The parser routes ECM and EMM packets by CA_PID.
class CA_descriptor : public descriptor_of<CA_descriptor> {
public:
    CA_descriptor() : descriptor_of(0x09) {}
    template <class IO>
    bool fields(IO& io);

    uint16_t CA_system_ID = 0;  // 16 bits
    uint8_t reserved = 0;       // 3
    uint16_t CA_PID = 0;        // 13
    // The rest of the body, up to 188 bytes (anything beyond stays in descriptor_data).
    std::vector<uint8_t> private_data_byte;
};

// Tag 0x0A.
class ISO_639_language_descriptor : public descriptor_of<ISO_639_language_descriptor> {
public:
    struct language_item {
        template <class IO>
        bool fields(IO& io);

        iso_code ISO_639_language_code{};  // 24 bits
        uint8_t audio_type = 0;            // 8
    };

    ISO_639_language_descriptor() : descriptor_of(0x0A) {}
    template <class IO>
    bool fields(IO& io);

    std::vector<language_item> language_list;
};

// Tag 0x0B, not produced.
class system_clock_descriptor : public descriptor_of<system_clock_descriptor> {
public:
    system_clock_descriptor() : descriptor_of(0x0B) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t external_clock_reference_indicator = 0;  // 1 bit
    uint8_t reserved = 0;                            // 1
    uint8_t clock_accuracy_integer = 0;              // 6
    uint8_t clock_accuracy_exponent = 0;             // 3
    uint8_t reserved1 = 0;                           // 5
};

// Tag 0x0C.
class multiplex_buffer_utilization_descriptor
    : public descriptor_of<multiplex_buffer_utilization_descriptor> {
public:
    multiplex_buffer_utilization_descriptor() : descriptor_of(0x0C) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t bound_valid_flag = 0;         // 1 bit
    uint16_t LTW_offset_lower_bound = 0;  // 15
    uint8_t reserved = 0;                 // 1
    uint16_t LTW_offset_upper_bound = 0;  // 15
};

// Tag 0x0D, not produced.
class copyright_descriptor : public descriptor_of<copyright_descriptor> {
public:
    copyright_descriptor() : descriptor_of(0x0D) {}
    template <class IO>
    bool fields(IO& io);

    uint32_t copyright_identifier = 0;  // 32 bits
    std::vector<uint8_t> additional_copyright_info;
};

// Tag 0x0E, not produced.
class maximum_bitrate_descriptor : public descriptor_of<maximum_bitrate_descriptor> {
public:
    maximum_bitrate_descriptor() : descriptor_of(0x0E) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t reserved = 0;          // 2 bits
    uint32_t maximum_bitrate = 0;  // 22, in units of 50 bytes/s
};

// Tag 0x0F, not produced.
class private_data_indicator_descriptor : public descriptor_of<private_data_indicator_descriptor> {
public:
    private_data_indicator_descriptor() : descriptor_of(0x0F) {}
    template <class IO>
    bool fields(IO& io);

    uint32_t private_data_indicator = 0;  // 32 bits
};

// Tag 0x10.
class smoothing_buffer_descriptor : public descriptor_of<smoothing_buffer_descriptor> {
public:
    smoothing_buffer_descriptor() : descriptor_of(0x10) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t reserved = 0;       // 2 bits
    uint32_t sb_leak_rate = 0;  // 22
    uint8_t reserved1 = 0;      // 2
    uint32_t sb_size = 0;       // 22
};

// Tag 0x11.
class STD_descriptor : public descriptor_of<STD_descriptor> {
public:
    STD_descriptor() : descriptor_of(0x11) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t reserved = 0;         // 7 bits
    uint8_t leak_valid_flag = 0;  // 1
};

// Tag 0x12, not produced.
class ibp_descriptor : public descriptor_of<ibp_descriptor> {
public:
    ibp_descriptor() : descriptor_of(0x12) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t closed_gop_flag = 0;     // 1 bit
    uint8_t identical_gop_flag = 0;  // 1
    uint16_t max_gop_length = 0;     // 14
};

// The shared members of each class are instantiated once, in descriptors_mpeg.cpp.
extern template class descriptor_of<video_stream_descriptor>;
extern template class descriptor_of<audio_stream_descriptor>;
extern template class descriptor_of<hierarchy_descriptor>;
extern template class descriptor_of<registration_descriptor>;
extern template class descriptor_of<data_stream_alignment_descriptor>;
extern template class descriptor_of<target_background_grid_descriptor>;
extern template class descriptor_of<video_window_descriptor>;
extern template class descriptor_of<CA_descriptor>;
extern template class descriptor_of<ISO_639_language_descriptor>;
extern template class descriptor_of<system_clock_descriptor>;
extern template class descriptor_of<multiplex_buffer_utilization_descriptor>;
extern template class descriptor_of<copyright_descriptor>;
extern template class descriptor_of<maximum_bitrate_descriptor>;
extern template class descriptor_of<private_data_indicator_descriptor>;
extern template class descriptor_of<smoothing_buffer_descriptor>;
extern template class descriptor_of<STD_descriptor>;
extern template class descriptor_of<ibp_descriptor>;

}  // namespace mpegcore
