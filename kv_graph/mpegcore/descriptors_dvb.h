#pragma once

// Descriptors of DVB service information (ETSI EN 300 468), plus the logical channel
// descriptor (0x83) that DVB receivers commonly use. Field names and widths are the
// standard's; each class's fields() in descriptors_dvb.cpp gives the wire layout. Text
// fields hold the raw bytes, character-table selector included. Classes marked "not
// produced" are complete but a descriptor list reads their tags as plain base_descriptor.

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "mpegcore/base_descriptor.h"

namespace mpegcore {

// Tag 0x40.
class network_name_descriptor : public descriptor_of<network_name_descriptor> {
public:
    network_name_descriptor() : descriptor_of(0x40) {}
    template <class IO>
    bool fields(IO& io);

    std::string character;  // the whole body
};

// Tag 0x41.
class service_list_descriptor : public descriptor_of<service_list_descriptor> {
public:
    struct service {
        template <class IO>
        bool fields(IO& io);

        uint16_t service_id = 0;   // 16 bits
        uint8_t service_type = 0;  // 8
    };

    service_list_descriptor() : descriptor_of(0x41) {}
    template <class IO>
    bool fields(IO& io);

    std::vector<service> services;
};

// Tag 0x43, not produced.
class satellite_delivery_system_descriptor
    : public descriptor_of<satellite_delivery_system_descriptor> {
public:
    satellite_delivery_system_descriptor() : descriptor_of(0x43) {}
    template <class IO>
    bool fields(IO& io);

    uint32_t frequency = 0;         // 32 bits, BCD
    uint16_t orbital_position = 0;  // 16, BCD
    uint8_t west_east_flag = 0;     // 1
    uint8_t polarization = 0;       // 2
    uint8_t roll_off = 0;           // 2
    uint8_t modulation_system = 0;  // 1
    uint8_t modulation_type = 0;    // 2
    uint32_t symbol_rate = 0;       // 28, BCD
    uint8_t FEC_inner = 0;          // 4
};

// Tag 0x44, not produced.
class cable_delivery_system_descriptor : public descriptor_of<cable_delivery_system_descriptor> {
public:
    cable_delivery_system_descriptor() : descriptor_of(0x44) {}
    template <class IO>
    bool fields(IO& io);

    uint32_t frequency = 0;            // 32 bits, BCD
    uint16_t reserved_future_use = 0;  // 12
    uint8_t FEC_outer = 0;             // 4
    uint8_t modulation = 0;            // 8
    uint32_t symbol_rate = 0;          // 28, BCD
    uint8_t FEC_inner = 0;             // 4
};

// Tag 0x45.
class VBI_data_descriptor : public descriptor_of<VBI_data_descriptor> {
public:
    struct line {
        template <class IO>
        bool fields(IO& io);

        uint8_t reserved_future_use = 0;  // 2 bits
        uint8_t field_parity = 0;         // 1
        uint8_t line_offset = 0;          // 5
    };
    struct service {
        template <class IO>
        bool fields(IO& io);
        // Services 1, 2, 4, 5, 6 and 7 list lines; others carry reserved bytes.
        bool has_lines() const;

        uint8_t data_service_id = 0;                 // 8 bits
        uint8_t data_service_descriptor_length = 0;  // 8
        std::vector<line> lines;                     // when has_lines()
        std::vector<uint8_t> reserved_future_use;    // otherwise
    };

    VBI_data_descriptor() : descriptor_of(0x45) {}
    template <class IO>
    bool fields(IO& io);

    std::list<std::shared_ptr<service>> service_list;
};

// Tag 0x56 (teletext) and 0x46 (VBI teletext); read keeps the tag it met.
class teletext_descriptor : public descriptor_of<teletext_descriptor> {
public:
    struct item {
        template <class IO>
        bool fields(IO& io);

        iso_code ISO_639_language_code{};      // 24 bits
        uint8_t teletext_type = 0;             // 5
        uint8_t teletext_magazine_number = 0;  // 3
        uint8_t teletext_page_number = 0;      // 8
    };

    teletext_descriptor() : descriptor_of(0x56) {}
    template <class IO>
    bool fields(IO& io);

    std::list<std::shared_ptr<item>> teletext_list;
};

// Tag 0x47.
class bouquet_name_descriptor : public descriptor_of<bouquet_name_descriptor> {
public:
    bouquet_name_descriptor() : descriptor_of(0x47) {}
    template <class IO>
    bool fields(IO& io);

    std::string character;  // the whole body
};

// Tag 0x48.
class service_descriptor : public descriptor_of<service_descriptor> {
public:
    service_descriptor() : descriptor_of(0x48) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t service_type = 0;                  // 8 bits
    uint8_t service_provider_name_length = 0;  // 8
    std::string service_provider_name;
    uint8_t service_name_length = 0;  // 8
    std::string service_name;
};

// Tag 0x4D.
class short_event_descriptor : public descriptor_of<short_event_descriptor> {
public:
    short_event_descriptor() : descriptor_of(0x4D) {}
    template <class IO>
    bool fields(IO& io);

    iso_code ISO_639_language_code{};  // 24 bits
    uint8_t event_name_length = 0;     // 8
    std::string event_name_char;
    uint8_t text_length = 0;  // 8
    std::string text_char;
};

// Tag 0x4E.
class extended_event_descriptor : public descriptor_of<extended_event_descriptor> {
public:
    struct item {
        template <class IO>
        bool fields(IO& io);

        uint8_t item_description_length = 0;  // 8 bits
        std::string item_description_char;
        uint8_t item_length = 0;  // 8
        std::string item_char;
    };

    extended_event_descriptor() : descriptor_of(0x4E) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t descriptor_number = 0;       // 4 bits
    uint8_t last_descriptor_number = 0;  // 4
    iso_code ISO_639_language_code{};    // 24
    uint8_t length_of_items = 0;         // 8, bytes taken by items
    std::vector<item> items;
    uint8_t text_length = 0;  // 8
    std::string text_char;
};

// Tag 0x50, not produced.
class component_descriptor : public descriptor_of<component_descriptor> {
public:
    component_descriptor() : descriptor_of(0x50) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t stream_content_ext = 0;    // 4 bits
    uint8_t stream_content = 0;        // 4
    uint8_t component_type = 0;        // 8
    uint8_t component_tag = 0;         // 8
    iso_code ISO_639_language_code{};  // 24
    std::string text_char;             // the rest of the body
};

// Tag 0x52.
class stream_identifier_descriptor : public descriptor_of<stream_identifier_descriptor> {
public:
    stream_identifier_descriptor() : descriptor_of(0x52) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t component_tag = 0;  // 8 bits
};

// Tag 0x55.
class parental_rating_descriptor : public descriptor_of<parental_rating_descriptor> {
public:
    struct parental {
        template <class IO>
        bool fields(IO& io);

        iso_code country_code{};  // 24 bits
        uint8_t rating = 0;       // 8
    };

    parental_rating_descriptor() : descriptor_of(0x55) {}
    template <class IO>
    bool fields(IO& io);

    std::vector<parental> parentals;
};

// One 13-byte entry of a local_time_offset_descriptor.
struct local_time_offset_entry {
    template <class IO>
    bool fields(IO& io);

    iso_code country_code{};                 // 24 bits
    uint8_t country_region_id = 0;           // 6
    uint8_t reserved = 0;                    // 1
    uint8_t local_time_offset_polarity = 0;  // 1 (1: behind UTC)
    uint16_t local_time_offset = 0;          // 16, BCD hours and minutes
    uint64_t time_of_change = 0;             // 40, 16-bit MJD and BCD UTC hh mm ss
    uint16_t next_time_offset = 0;           // 16, BCD hours and minutes
};

// Tag 0x58: 13-byte entries while at least 13 body bytes are left; a shorter rest stays in
// descriptor_data.
class local_time_offset_descriptor : public descriptor_of<local_time_offset_descriptor> {
public:
    local_time_offset_descriptor() : descriptor_of(0x58) {}
    template <class IO>
    bool fields(IO& io);

    std::list<std::shared_ptr<local_time_offset_entry>> m_listEntry;
};

// Tag 0x59.
class subtitling_descriptor : public descriptor_of<subtitling_descriptor> {
public:
    struct item {
        template <class IO>
        bool fields(IO& io);

        iso_code ISO_639_language_code{};  // 24 bits
        uint8_t subtitling_type = 0;       // 8
        uint16_t composition_page_id = 0;  // 16
        uint16_t ancillary_page_id = 0;    // 16
    };

    subtitling_descriptor() : descriptor_of(0x59) {}
    template <class IO>
    bool fields(IO& io);

    std::list<std::shared_ptr<item>> subtitling_list;
};

// Tag 0x5A, not produced.
class terrestrial_delivery_system_descriptor
    : public descriptor_of<terrestrial_delivery_system_descriptor> {
public:
    terrestrial_delivery_system_descriptor() : descriptor_of(0x5A) {}
    template <class IO>
    bool fields(IO& io);

    uint32_t centre_frequency = 0;       // 32 bits, units of 10 Hz
    uint8_t bandwidth = 0;               // 3
    uint8_t priority = 0;                // 1
    uint8_t Time_Slicing_indicator = 0;  // 1
    uint8_t MPE_FEC_indicator = 0;       // 1
    uint8_t reserved_future_use = 0;     // 2
    uint8_t constellation = 0;           // 2
    uint8_t hierarchy_information = 0;   // 3
    uint8_t code_rate_HP_stream = 0;     // 3
    uint8_t code_rate_LP_stream = 0;     // 3
    uint8_t guard_interval = 0;          // 2
    uint8_t transmission_mode = 0;       // 2
    uint8_t other_frequency_flag = 0;    // 1
    uint32_t reserved_future_use1 = 0;   // 32
};

// Tag 0x5F.
class private_data_specifier_descriptor : public descriptor_of<private_data_specifier_descriptor> {
public:
    private_data_specifier_descriptor() : descriptor_of(0x5F) {}
    template <class IO>
    bool fields(IO& io);

    uint32_t private_data_specifier = 0;  // 32 bits
};

// Tag 0x6A. Each flag says whether the field of the same name follows.
class ac3_descriptor : public descriptor_of<ac3_descriptor> {
public:
    ac3_descriptor() : descriptor_of(0x6A) {}
    template <class IO>
    bool fields(IO& io);

    uint8_t component_type_flag = 0;            // 1 bit
    uint8_t bsid_flag = 0;                      // 1
    uint8_t mainid_flag = 0;                    // 1
    uint8_t asvc_flag = 0;                      // 1
    uint8_t reserved_flags = 0;                 // 4
    uint8_t component_type = 0;                 // 8
    uint8_t bsid = 0;                           // 8
    uint8_t mainid = 0;                         // 8
    uint8_t asvc = 0;                           // 8
    std::vector<uint8_t> additional_info_byte;  // the rest of the body
};

// Tag 0x7F, extension tag 0x04. The cell loop after tfs_flag stays raw in descriptor_data.
class T2_delivery_system_descriptor
    : public descriptor_of<T2_delivery_system_descriptor, base_descriptor_extension> {
public:
    T2_delivery_system_descriptor() : descriptor_of(0x7F) { descriptor_tag_extension = 0x04; }
    template <class IO>
    bool fields(IO& io);

    uint8_t plp_id = 0;         // 8 bits
    uint16_t T2_system_id = 0;  // 16
    // The transmission parameters below are optional: true when the body carries them.
    bool has_transmission_parameters = false;
    uint8_t SISO_MISO = 0;             // 2
    uint8_t bandwidth = 0;             // 4
    uint8_t reserved_future_use = 0;   // 2
    uint8_t guard_interval = 0;        // 3
    uint8_t transmission_mode = 0;     // 3
    uint8_t other_frequency_flag = 0;  // 1
    uint8_t tfs_flag = 0;              // 1
};

// Tag 0x7F with any extension tag but 0x04.
class extension_descriptor : public descriptor_of<extension_descriptor, base_descriptor_extension> {
public:
    extension_descriptor() : descriptor_of(0x7F) {}
    template <class IO>
    bool fields(IO& io);

    std::vector<uint8_t> selector_bytes;  // the body after the extension tag
};

// Tag 0x83: logical channel numbers of services.
class logical_channel_descriptor : public descriptor_of<logical_channel_descriptor> {
public:
    struct service {
        template <class IO>
        bool fields(IO& io);

        uint16_t service_id = 0;              // 16 bits
        uint8_t visible_service_flag = 0;     // 1
        uint8_t reserved = 0;                 // 5
        uint16_t logical_channel_number = 0;  // 10
    };

    logical_channel_descriptor() : descriptor_of(0x83) {}
    template <class IO>
    bool fields(IO& io);

    std::vector<service> m_listService;
};

// The shared members of each class are instantiated once, in descriptors_dvb.cpp.
extern template class descriptor_of<network_name_descriptor>;
extern template class descriptor_of<service_list_descriptor>;
extern template class descriptor_of<satellite_delivery_system_descriptor>;
extern template class descriptor_of<cable_delivery_system_descriptor>;
extern template class descriptor_of<VBI_data_descriptor>;
extern template class descriptor_of<teletext_descriptor>;
extern template class descriptor_of<bouquet_name_descriptor>;
extern template class descriptor_of<service_descriptor>;
extern template class descriptor_of<short_event_descriptor>;
extern template class descriptor_of<extended_event_descriptor>;
extern template class descriptor_of<component_descriptor>;
extern template class descriptor_of<stream_identifier_descriptor>;
extern template class descriptor_of<parental_rating_descriptor>;
extern template class descriptor_of<local_time_offset_descriptor>;
extern template class descriptor_of<subtitling_descriptor>;
extern template class descriptor_of<terrestrial_delivery_system_descriptor>;
extern template class descriptor_of<private_data_specifier_descriptor>;
extern template class descriptor_of<ac3_descriptor>;
extern template class descriptor_of<T2_delivery_system_descriptor, base_descriptor_extension>;
extern template class descriptor_of<extension_descriptor, base_descriptor_extension>;
extern template class descriptor_of<logical_channel_descriptor>;

}  // namespace mpegcore
