#include "mpegcore/descriptors_scte35.h"

#include "mpegcore/kvdescriptor_io.h"

namespace mpegcore {

template <class IO>
bool cue_identifier_descriptor::fields(IO& io) {
    return io("cue_stream_type", cue_stream_type, 8);
}

template <class IO>
bool avail_descriptor::fields(IO& io) {
    return io("identifier", identifier, 32) && io("provider_avail_id", provider_avail_id, 32);
}

template <class IO>
bool scte35_dtmf_descriptor::fields(IO& io) {
    return io("identifier", identifier, 32) && io("preroll", preroll, 8) &&
           io.count("dtmf_count", dtmf_count, 3, DTMF_chars.size()) && io.reserved(reserved, 5) &&
           io.bytes("DTMF_chars", DTMF_chars, dtmf_count);
}

template <class IO>
bool scte35_segmentation_descriptor::component::fields(IO& io) {
    return io("component_tag", component_tag, 8) && io.reserved(reserved, 7) &&
           io("pts_offset", pts_offset, 33);
}

bool scte35_segmentation_descriptor::has_sub_segments_type() const {
    return segmentation_type_id == 0x34 || segmentation_type_id == 0x36 ||
           segmentation_type_id == 0x38 || segmentation_type_id == 0x3A;
}

template <class IO>
bool scte35_segmentation_descriptor::fields(IO& io) {
    if (!(io("identifier", identifier, 32) &&
          io("segmentation_event_id", segmentation_event_id, 32) &&
          io("segmentation_event_cancel_indicator", segmentation_event_cancel_indicator, 1) &&
          io.reserved(reserved1, 7))) {
        return false;
    }
    if (segmentation_event_cancel_indicator != 0) {
        return true;
    }
    if (!(io("program_segmentation_flag", program_segmentation_flag, 1) &&
          io("segmentation_duration_flag", segmentation_duration_flag, 1) &&
          io("delivery_not_restricted_flag", delivery_not_restricted_flag, 1))) {
        return false;
    }
    const bool restrictions =
        delivery_not_restricted_flag == 0
            ? io("web_delivery_allowed_flag", web_delivery_allowed_flag, 1) &&
                  io("no_regional_blackout_flag", no_regional_blackout_flag, 1) &&
                  io("archive_allowed_flag", archive_allowed_flag, 1) &&
                  io("device_restrictions", device_restrictions, 2)
            : io.reserved(reserved2, 5);
    if (!restrictions) {
        return false;
    }
    if (program_segmentation_flag == 0 &&
        !(io.count("component_count", component_count, 8, components.size()) &&
          io.entries_n("components", components, component_count))) {
        return false;
    }
    if (segmentation_duration_flag != 0 &&
        !io("segmentation_duration", segmentation_duration, 40)) {
        return false;
    }
    if (!(io("segmentation_upid_type", segmentation_upid_type, 8) &&
          io.count("segmentation_upid_length", segmentation_upid_length, 8,
                   segmentation_upid.size()) &&
          io.bytes("segmentation_upid", segmentation_upid, segmentation_upid_length) &&
          io("segmentation_type_id", segmentation_type_id, 8) &&
          io("segment_num", segment_num, 8) && io("segments_expected", segments_expected, 8))) {
        return false;
    }
    if (!has_sub_segments_type() || !io.present(has_sub_segments)) {
        return true;
    }
    return io("sub_segment_num", sub_segment_num, 8) &&
           io("sub_segments_expected", sub_segments_expected, 8);
}

template <class IO>
bool scte35_time_descriptor::fields(IO& io) {
    return io("identifier", identifier, 32) && io("TAI_seconds", TAI_seconds, 48) &&
           io("TAI_ns", TAI_ns, 32) && io("UTC_offset", UTC_offset, 16);
}

template class descriptor_of<cue_identifier_descriptor>;
template class descriptor_of<avail_descriptor>;
template class descriptor_of<scte35_dtmf_descriptor>;
template class descriptor_of<scte35_segmentation_descriptor>;
template class descriptor_of<scte35_time_descriptor>;

}  // namespace mpegcore
