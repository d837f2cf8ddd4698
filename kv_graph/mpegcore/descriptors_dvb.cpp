#include "mpegcore/descriptors_dvb.h"

#include "mpegcore/kvdescriptor_io.h"

namespace mpegcore {

template <class IO>
bool network_name_descriptor::fields(IO& io) {
    return io.rest("network_name", character, 256);
}

template <class IO>
bool service_list_descriptor::service::fields(IO& io) {
    return io("service_id", service_id, 16) && io("service_type", service_type, 8);
}

template <class IO>
bool service_list_descriptor::fields(IO& io) {
    return io.entries("services", services);
}

template <class IO>
bool satellite_delivery_system_descriptor::fields(IO& io) {
    return io("frequency", frequency, 32) && io("orbital_position", orbital_position, 16) &&
           io("west_east_flag", west_east_flag, 1) && io("polarization", polarization, 2) &&
           io("roll_off", roll_off, 2) && io("modulation_system", modulation_system, 1) &&
           io("modulation_type", modulation_type, 2) && io("symbol_rate", symbol_rate, 28) &&
           io("FEC_inner", FEC_inner, 4);
}

template <class IO>
bool cable_delivery_system_descriptor::fields(IO& io) {
    return io("frequency", frequency, 32) && io.reserved(reserved_future_use, 12) &&
           io("FEC_outer", FEC_outer, 4) && io("modulation", modulation, 8) &&
           io("symbol_rate", symbol_rate, 28) && io("FEC_inner", FEC_inner, 4);
}

template <class IO>
bool VBI_data_descriptor::line::fields(IO& io) {
    return io.reserved(reserved_future_use, 2) && io("field_parity", field_parity, 1) &&
           io("line_offset", line_offset, 5);
}

bool VBI_data_descriptor::service::has_lines() const {
    switch (data_service_id) {
        case 0x01:
        case 0x02:
        case 0x04:
        case 0x05:
        case 0x06:
        case 0x07:
            return true;
        default:
            return false;
    }
}

template <class IO>
bool VBI_data_descriptor::service::fields(IO& io) {
    if (!io("data_service_id", data_service_id, 8)) {
        return false;
    }
    if (has_lines()) {
        // One byte per line.
        return io.count("data_service_descriptor_length", data_service_descriptor_length, 8,
                        lines.size()) &&
               io.entries("lines", lines, data_service_descriptor_length);
    }
    return io.count("data_service_descriptor_length", data_service_descriptor_length, 8,
                    reserved_future_use.size()) &&
           io.bytes("reserved_future_use", reserved_future_use, data_service_descriptor_length);
}

template <class IO>
bool VBI_data_descriptor::fields(IO& io) {
    return io.entries("service_list", service_list);
}

template <class IO>
bool teletext_descriptor::item::fields(IO& io) {
    return io.code("ISO_639_language_code", ISO_639_language_code) &&
           io("teletext_type", teletext_type, 5) &&
           io("teletext_magazine_number", teletext_magazine_number, 3) &&
           io("teletext_page_number", teletext_page_number, 8);
}

template <class IO>
bool teletext_descriptor::fields(IO& io) {
    return io.entries("pages", teletext_list);
}

template <class IO>
bool bouquet_name_descriptor::fields(IO& io) {
    return io.rest("bouquet_name", character);
}

template <class IO>
bool service_descriptor::fields(IO& io) {
    return io("service_type", service_type, 8) &&
           io.count("service_provider_name_length", service_provider_name_length, 8,
                    service_provider_name.size()) &&
           io.bytes("service_provider_name", service_provider_name, service_provider_name_length) &&
           io.count("service_name_length", service_name_length, 8, service_name.size()) &&
           io.bytes("service_name", service_name, service_name_length);
}

template <class IO>
bool short_event_descriptor::fields(IO& io) {
    return io.code("ISO_639_language_code", ISO_639_language_code) &&
           io.count("event_name_length", event_name_length, 8, event_name_char.size()) &&
           io.bytes("event_name", event_name_char, event_name_length) &&
           io.count("text_length", text_length, 8, text_char.size()) &&
           io.bytes("text", text_char, text_length);
}

template <class IO>
bool extended_event_descriptor::item::fields(IO& io) {
    return io.count("item_description_length", item_description_length, 8,
                    item_description_char.size()) &&
           io.bytes("item_description", item_description_char, item_description_length) &&
           io.count("item_length", item_length, 8, item_char.size()) &&
           io.bytes("item", item_char, item_length);
}

template <class IO>
bool extended_event_descriptor::fields(IO& io) {
    return io("descriptor_number", descriptor_number, 4) &&
           io("last_descriptor_number", last_descriptor_number, 4) &&
           io.code("ISO_639_language_code", ISO_639_language_code) &&
           io.count("length_of_items", length_of_items, 8, desc_io::size_of(items)) &&
           io.entries("items", items, length_of_items) &&
           io.count("text_length", text_length, 8, text_char.size()) &&
           io.bytes("text", text_char, text_length);
}

template <class IO>
bool component_descriptor::fields(IO& io) {
    return io("stream_content_ext", stream_content_ext, 4) &&
           io("stream_content", stream_content, 4) && io("component_type", component_type, 8) &&
           io("component_tag", component_tag, 8) &&
           io.code("ISO_639_language_code", ISO_639_language_code) && io.rest("text", text_char);
}

template <class IO>
bool stream_identifier_descriptor::fields(IO& io) {
    return io("component_tag", component_tag, 8);
}

template <class IO>
bool parental_rating_descriptor::parental::fields(IO& io) {
    return io.code("country_code", country_code) && io("rating", rating, 8);
}

template <class IO>
bool parental_rating_descriptor::fields(IO& io) {
    return io.entries("ratings", parentals);
}

template <class IO>
bool local_time_offset_entry::fields(IO& io) {
    return io.code("country_code", country_code) && io("country_region_id", country_region_id, 6) &&
           io.reserved(reserved, 1) &&
           io("local_time_offset_polarity", local_time_offset_polarity, 1) &&
           io.hhmm("local_time_offset", local_time_offset) &&
           io.time("time_of_change", time_of_change) &&
           io.hhmm("next_time_offset", next_time_offset);
}

template <class IO>
bool local_time_offset_descriptor::fields(IO& io) {
    return io.entries("offsets", m_listEntry);
}

template <class IO>
bool subtitling_descriptor::item::fields(IO& io) {
    return io.code("ISO_639_language_code", ISO_639_language_code) &&
           io("subtitling_type", subtitling_type, 8) &&
           io("composition_page_id", composition_page_id, 16) &&
           io("ancillary_page_id", ancillary_page_id, 16);
}

template <class IO>
bool subtitling_descriptor::fields(IO& io) {
    return io.entries("subtitles", subtitling_list);
}

template <class IO>
bool terrestrial_delivery_system_descriptor::fields(IO& io) {
    return io("centre_frequency", centre_frequency, 32) && io("bandwidth", bandwidth, 3) &&
           io("priority", priority, 1) && io("Time_Slicing_indicator", Time_Slicing_indicator, 1) &&
           io("MPE_FEC_indicator", MPE_FEC_indicator, 1) && io.reserved(reserved_future_use, 2) &&
           io("constellation", constellation, 2) &&
           io("hierarchy_information", hierarchy_information, 3) &&
           io("code_rate_HP_stream", code_rate_HP_stream, 3) &&
           io("code_rate_LP_stream", code_rate_LP_stream, 3) &&
           io("guard_interval", guard_interval, 2) &&
           io("transmission_mode", transmission_mode, 2) &&
           io("other_frequency_flag", other_frequency_flag, 1) &&
           io.reserved(reserved_future_use1, 32);
}

template <class IO>
bool private_data_specifier_descriptor::fields(IO& io) {
    return io("private_data_specifier", private_data_specifier, 32);
}

template <class IO>
bool ac3_descriptor::fields(IO& io) {
    return io("component_type_flag", component_type_flag, 1) && io("bsid_flag", bsid_flag, 1) &&
           io("mainid_flag", mainid_flag, 1) && io("asvc_flag", asvc_flag, 1) &&
           io.reserved(reserved_flags, 4) &&
           (component_type_flag == 0 || io("component_type", component_type, 8)) &&
           (bsid_flag == 0 || io("bsid", bsid, 8)) &&
           (mainid_flag == 0 || io("mainid", mainid, 8)) &&
           (asvc_flag == 0 || io("asvc", asvc, 8)) &&
           io.rest("additional_info_byte", additional_info_byte);
}

template <class IO>
bool T2_delivery_system_descriptor::fields(IO& io) {
    if (!(base_descriptor_extension::fields(io) && io("plp_id", plp_id, 8) &&
          io("T2_system_id", T2_system_id, 16))) {
        return false;
    }
    if (!io.present(has_transmission_parameters)) {
        return true;
    }
    return io("SISO_MISO", SISO_MISO, 2) && io("bandwidth", bandwidth, 4) &&
           io.reserved(reserved_future_use, 2) && io("guard_interval", guard_interval, 3) &&
           io("transmission_mode", transmission_mode, 3) &&
           io("other_frequency_flag", other_frequency_flag, 1) && io("tfs_flag", tfs_flag, 1);
}

template <class IO>
bool extension_descriptor::fields(IO& io) {
    return base_descriptor_extension::fields(io) && io.rest("selector_bytes", selector_bytes);
}

template <class IO>
bool logical_channel_descriptor::service::fields(IO& io) {
    return io("service_id", service_id, 16) &&
           io("visible_service_flag", visible_service_flag, 1) && io.reserved(reserved, 5) &&
           io("logical_channel_number", logical_channel_number, 10);
}

template <class IO>
bool logical_channel_descriptor::fields(IO& io) {
    return io.entries("channels", m_listService);
}

template class descriptor_of<base_descriptor_extension>;  // tag 0x7F, any family
template class descriptor_of<network_name_descriptor>;
template class descriptor_of<service_list_descriptor>;
template class descriptor_of<satellite_delivery_system_descriptor>;
template class descriptor_of<cable_delivery_system_descriptor>;
template class descriptor_of<VBI_data_descriptor>;
template class descriptor_of<teletext_descriptor>;
template class descriptor_of<bouquet_name_descriptor>;
template class descriptor_of<service_descriptor>;
template class descriptor_of<short_event_descriptor>;
template class descriptor_of<extended_event_descriptor>;
template class descriptor_of<component_descriptor>;
template class descriptor_of<stream_identifier_descriptor>;
template class descriptor_of<parental_rating_descriptor>;
template class descriptor_of<local_time_offset_descriptor>;
template class descriptor_of<subtitling_descriptor>;
template class descriptor_of<terrestrial_delivery_system_descriptor>;
template class descriptor_of<private_data_specifier_descriptor>;
template class descriptor_of<ac3_descriptor>;
template class descriptor_of<T2_delivery_system_descriptor, base_descriptor_extension>;
template class descriptor_of<extension_descriptor, base_descriptor_extension>;
template class descriptor_of<logical_channel_descriptor>;

}  // namespace mpegcore
