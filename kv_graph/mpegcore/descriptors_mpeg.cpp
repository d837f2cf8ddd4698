#include "mpegcore/descriptors_mpeg.h"

#include "mpegcore/kvdescriptor_io.h"

namespace mpegcore {

template <class IO>
bool video_stream_descriptor::fields(IO& io) {
    if (!(io("multiple_frame_rate_flag", multiple_frame_rate_flag, 1) &&
          io("frame_rate_code", frame_rate_code, 4) &&
          io("MPEG_1_only_flag", MPEG_1_only_flag, 1) &&
          io("constrained_parameter_flag", constrained_parameter_flag, 1) &&
          io("still_picture_flag", still_picture_flag, 1))) {
        return false;
    }
    if (MPEG_1_only_flag != 0) {
        return true;
    }
    return io("profile_and_level_indication", profile_and_level_indication, 8) &&
           io("chroma_format", chroma_format, 2) &&
           io("frame_rate_extension_flag", frame_rate_extension_flag, 1) &&
           io.reserved(reserved, 5);
}

template <class IO>
bool audio_stream_descriptor::fields(IO& io) {
    return io("free_format_flag", free_format_flag, 1) && io("ID", ID, 1) &&
           io("layer", layer, 2) &&
           io("variable_rate_audio_indicator", variable_rate_audio_indicator, 1) &&
           io.reserved(reserved, 3);
}

template <class IO>
bool hierarchy_descriptor::fields(IO& io) {
    return io.reserved(reserved1, 4) && io("hierarchy_type", hierarchy_type, 4) &&
           io.reserved(reserved2, 2) && io("hierarchy_layer_index", hierarchy_layer_index, 6) &&
           io.reserved(reserved3, 2) &&
           io("hierarchy_embedded_layer_index", hierarchy_embedded_layer_index, 6) &&
           io.reserved(reserved4, 2) && io("hierarchy_channel", hierarchy_channel, 6);
}

template <class IO>
bool registration_descriptor::fields(IO& io) {
    return io("format_identifier", format_identifier, 32) &&
           io.rest("additional_identification_info", additional_identification_info, 188);
}

template <class IO>
bool data_stream_alignment_descriptor::fields(IO& io) {
    return io("alignment_type", alignment_type, 8);
}

template <class IO>
bool target_background_grid_descriptor::fields(IO& io) {
    return io("horizontal_size", horizontal_size, 14) && io("vertical_size", vertical_size, 14) &&
           io("aspect_ratio_information", aspect_ratio_information, 4);
}

template <class IO>
bool video_window_descriptor::fields(IO& io) {
    return io("horizontal_offset", horizontal_offset, 14) &&
           io("vertical_offset", vertical_offset, 14) && io("window_priority", window_priority, 4);
}

template <class IO>
bool CA_descriptor::fields(IO& io) {
    return io("CA_system_ID", CA_system_ID, 16) && io.reserved(reserved, 3) &&
           io("CA_PID", CA_PID, 13) && io.rest("private_data_byte", private_data_byte, 188);
}

template <class IO>
bool ISO_639_language_descriptor::language_item::fields(IO& io) {
    return io.code("ISO_639_language_code", ISO_639_language_code) &&
           io("audio_type", audio_type, 8);
}

template <class IO>
bool ISO_639_language_descriptor::fields(IO& io) {
    return io.entries("languages", language_list);
}

template <class IO>
bool system_clock_descriptor::fields(IO& io) {
    return io("external_clock_reference_indicator", external_clock_reference_indicator, 1) &&
           io.reserved(reserved, 1) && io("clock_accuracy_integer", clock_accuracy_integer, 6) &&
           io("clock_accuracy_exponent", clock_accuracy_exponent, 3) && io.reserved(reserved1, 5);
}

template <class IO>
bool multiplex_buffer_utilization_descriptor::fields(IO& io) {
    return io("bound_valid_flag", bound_valid_flag, 1) &&
           io("LTW_offset_lower_bound", LTW_offset_lower_bound, 15) && io.reserved(reserved, 1) &&
           io("LTW_offset_upper_bound", LTW_offset_upper_bound, 15);
}

template <class IO>
bool copyright_descriptor::fields(IO& io) {
    return io("copyright_identifier", copyright_identifier, 32) &&
           io.rest("additional_copyright_info", additional_copyright_info);
}

template <class IO>
bool maximum_bitrate_descriptor::fields(IO& io) {
    return io.reserved(reserved, 2) && io("maximum_bitrate", maximum_bitrate, 22);
}

template <class IO>
bool private_data_indicator_descriptor::fields(IO& io) {
    return io("private_data_indicator", private_data_indicator, 32);
}

template <class IO>
bool smoothing_buffer_descriptor::fields(IO& io) {
    return io.reserved(reserved, 2) && io("sb_leak_rate", sb_leak_rate, 22) &&
           io.reserved(reserved1, 2) && io("sb_size", sb_size, 22);
}

template <class IO>
bool STD_descriptor::fields(IO& io) {
    return io.reserved(reserved, 7) && io("leak_valid_flag", leak_valid_flag, 1);
}

template <class IO>
bool ibp_descriptor::fields(IO& io) {
    return io("closed_gop_flag", closed_gop_flag, 1) &&
           io("identical_gop_flag", identical_gop_flag, 1) &&
           io("max_gop_length", max_gop_length, 14);
}

template class descriptor_of<video_stream_descriptor>;
template class descriptor_of<audio_stream_descriptor>;
template class descriptor_of<hierarchy_descriptor>;
template class descriptor_of<registration_descriptor>;
template class descriptor_of<data_stream_alignment_descriptor>;
template class descriptor_of<target_background_grid_descriptor>;
template class descriptor_of<video_window_descriptor>;
template class descriptor_of<CA_descriptor>;
template class descriptor_of<ISO_639_language_descriptor>;
template class descriptor_of<system_clock_descriptor>;
template class descriptor_of<multiplex_buffer_utilization_descriptor>;
template class descriptor_of<copyright_descriptor>;
template class descriptor_of<maximum_bitrate_descriptor>;
template class descriptor_of<private_data_indicator_descriptor>;
template class descriptor_of<smoothing_buffer_descriptor>;
template class descriptor_of<STD_descriptor>;
template class descriptor_of<ibp_descriptor>;

}  // namespace mpegcore
