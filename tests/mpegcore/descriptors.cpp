// Descriptor lists and every descriptor class: fields at their bit positions, write-back
// and deep copies, the tag tables of both list kinds, loop bounds, and the loops of the
// real captures.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <typeindex>
#include <typeinfo>
#include <vector>

#include "mpegcore/kvdescriptorlist.h"
#include "ts_test_util.h"

namespace {

using namespace mpegcore;
using namespace ts_test;

iso_code code(const char* s) {
    return {s[0], s[1], s[2]};
}

std::type_index type_of(const base_descriptor& d) {
    return typeid(d);
}

bool read_list(KVDescriptorList& list, const Bytes& b) {
    KVSDK::KVBSReader r(b.data(), b.size());
    return list.read(r);
}

// Writes into a buffer of exactly getSize() bytes, so a size that disagrees with what
// write() produces shows up as a failed write or a short count.
Bytes write_list(KVDescriptorList& list) {
    Bytes out(list.getSize());
    KVSDK::KVBSWriter w(out.data(), out.size());
    EXPECT_TRUE(list.write(w));
    w.flush();
    EXPECT_EQ(w.getWritedBytes(), out.size());
    return out;
}

Bytes write_one(base_descriptor& d) {
    Bytes out(2 + d.body_size());
    KVSDK::KVBSWriter w(out.data(), out.size());
    EXPECT_TRUE(d.write(w));
    w.flush();
    EXPECT_EQ(w.getWritedBytes(), out.size());
    return out;
}

// One descriptor as bytes, the class it must read as, and a check of its fields.
struct Case {
    const char* name;
    Bytes bytes;
    // Reads the bytes: through a list for classes a list produces, directly otherwise.
    std::function<std::shared_ptr<base_descriptor>(const Bytes&)> read;
    std::type_index type;
    std::function<void(base_descriptor&)> check;
};

// Classes whose fields are whole bytes or plain text get no field check of their own: the
// round trip covers them.
template <class T>
Case listed(const char* name, const std::string& bytes, std::function<void(T&)> check = {},
            KVDescriptorType kind = e_ts_desc_type) {
    auto read = [kind](const Bytes& b) -> std::shared_ptr<base_descriptor> {
        KVDescriptorList list(kind);
        if (!read_list(list, b) || list.descriptor.size() != 1) {
            return nullptr;
        }
        return list.descriptor.front();
    };
    return {name, hex(bytes), read, typeid(T), [check](base_descriptor& d) {
                if (check) {
                    check(dynamic_cast<T&>(d));
                }
            }};
}

template <class T>
Case direct(const char* name, const std::string& bytes, std::function<void(T&)> check = {}) {
    auto read = [](const Bytes& b) -> std::shared_ptr<base_descriptor> {
        auto d = std::make_shared<T>();
        KVSDK::KVBSReader r(b.data(), b.size());
        return d->read(r) && r.getLength() == 0 ? d : nullptr;
    };
    return {name, hex(bytes), read, typeid(T), [check](base_descriptor& d) {
                if (check) {
                    check(dynamic_cast<T&>(d));
                }
            }};
}

// Fields as one list of numbers, so that a case checks all of them in one comparison.
uint64_t num(uint64_t x) {
    return x;
}
uint64_t num(const iso_code& c) {
    return uint64_t(uint8_t(c[0])) << 16 | uint64_t(uint8_t(c[1])) << 8 | uint8_t(c[2]);
}
template <class... T>
std::vector<uint64_t> V(const T&... x) {
    return {num(x)...};
}

std::vector<Case> cases() {
    const std::string cuei = "43 55 45 49 ";
    std::vector<Case> cs;
    cs.push_back(listed<video_stream_descriptor>("video", "02 03 AA 48 7F", [](auto& d) {
        EXPECT_EQ(
            V(d.multiple_frame_rate_flag, d.frame_rate_code, d.MPEG_1_only_flag,
              d.constrained_parameter_flag, d.still_picture_flag, d.profile_and_level_indication,
              d.chroma_format, d.frame_rate_extension_flag, d.reserved),
            V(1, 5, 0, 1, 0, 0x48, 1, 1, 0x1F));
    }));
    cs.push_back(listed<video_stream_descriptor>("video MPEG-1", "02 01 1D", [](auto& d) {
        EXPECT_EQ(V(d.frame_rate_code, d.MPEG_1_only_flag, d.still_picture_flag,
                    d.profile_and_level_indication),
                  V(3, 1, 1, 0));
    }));
    cs.push_back(listed<audio_stream_descriptor>("audio", "03 01 AB", [](auto& d) {
        EXPECT_EQ(V(d.free_format_flag, d.ID, d.layer, d.variable_rate_audio_indicator, d.reserved),
                  V(1, 0, 2, 1, 3));
    }));
    cs.push_back(direct<hierarchy_descriptor>("hierarchy", "04 04 F3 C5 C2 C7", [](auto& d) {
        EXPECT_EQ(V(d.reserved1, d.hierarchy_type, d.hierarchy_layer_index,
                    d.hierarchy_embedded_layer_index, d.hierarchy_channel),
                  V(0xF, 3, 5, 2, 7));
    }));
    cs.push_back(
        listed<registration_descriptor>("registration", "05 06 48 44 4D 56 FF 01", [](auto& d) {
            EXPECT_EQ(d.format_identifier, 0x48444D56u);
            EXPECT_EQ(d.additional_identification_info, (Bytes{0xFF, 0x01}));
        }));
    cs.push_back(direct<data_stream_alignment_descriptor>("alignment", "06 01 02"));
    cs.push_back(
        direct<target_background_grid_descriptor>("grid", "07 04 0B 40 24 03", [](auto& d) {
            EXPECT_EQ(V(d.horizontal_size, d.vertical_size, d.aspect_ratio_information),
                      V(720, 576, 3));
        }));
    cs.push_back(direct<video_window_descriptor>("window", "08 04 01 90 0C 89", [](auto& d) {
        EXPECT_EQ(V(d.horizontal_offset, d.vertical_offset, d.window_priority), V(100, 200, 9));
    }));
    cs.push_back(listed<CA_descriptor>("CA", "09 06 0B 00 E1 23 AA BB", [](auto& d) {
        EXPECT_EQ(V(d.CA_system_ID, d.reserved, d.CA_PID), V(0x0B00, 7, 0x123));
        EXPECT_EQ(d.private_data_byte, (Bytes{0xAA, 0xBB}));
    }));
    cs.push_back(listed<ISO_639_language_descriptor>(
        "language", "0A 08 " + txt("eng") + "01 " + txt("deu") + "03", [](auto& d) {
            ASSERT_EQ(d.language_list.size(), 2u);
            const auto &a = d.language_list[0], &b = d.language_list[1];
            EXPECT_EQ(
                V(a.ISO_639_language_code, a.audio_type, b.ISO_639_language_code, b.audio_type),
                V(code("eng"), 1, code("deu"), 3));
        }));
    cs.push_back(direct<system_clock_descriptor>("system clock", "0B 02 AA BF", [](auto& d) {
        EXPECT_EQ(V(d.external_clock_reference_indicator, d.reserved, d.clock_accuracy_integer,
                    d.clock_accuracy_exponent, d.reserved1),
                  V(1, 0, 42, 5, 0x1F));
    }));
    cs.push_back(listed<multiplex_buffer_utilization_descriptor>(
        "multiplex buffer", "0C 04 92 34 D6 78", [](auto& d) {
            EXPECT_EQ(V(d.bound_valid_flag, d.LTW_offset_lower_bound, d.reserved,
                        d.LTW_offset_upper_bound),
                      V(1, 0x1234, 1, 0x5678));
        }));
    cs.push_back(direct<copyright_descriptor>("copyright", "0D 05 01 02 03 04 05", [](auto& d) {
        EXPECT_EQ(d.copyright_identifier, 0x01020304u);
        EXPECT_EQ(d.additional_copyright_info, Bytes{0x05});
    }));
    cs.push_back(direct<maximum_bitrate_descriptor>(
        "maximum bitrate", "0E 03 C1 23 45",
        [](auto& d) { EXPECT_EQ(V(d.reserved, d.maximum_bitrate), V(3, 0x12345)); }));
    cs.push_back(
        direct<private_data_indicator_descriptor>("private data indicator", "0F 04 01 02 03 04"));
    cs.push_back(
        listed<smoothing_buffer_descriptor>("smoothing", "10 06 C1 23 45 83 AB CD", [](auto& d) {
            EXPECT_EQ(V(d.reserved, d.sb_leak_rate, d.reserved1, d.sb_size),
                      V(3, 0x12345, 2, 0x3ABCD));
        }));
    cs.push_back(listed<STD_descriptor>("STD", "11 01 FD", [](auto& d) {
        EXPECT_EQ(V(d.reserved, d.leak_valid_flag), V(0x7E, 1));
    }));
    cs.push_back(direct<ibp_descriptor>("ibp", "12 02 9A BC", [](auto& d) {
        EXPECT_EQ(V(d.closed_gop_flag, d.identical_gop_flag, d.max_gop_length), V(1, 0, 0x1ABC));
    }));
    cs.push_back(listed<network_name_descriptor>("network name", "40 05 " + txt("Net 1")));
    cs.push_back(
        listed<service_list_descriptor>("service list", "41 06 00 01 01 12 34 19", [](auto& d) {
            ASSERT_EQ(d.services.size(), 2u);
            EXPECT_EQ(V(d.services[1].service_id, d.services[1].service_type), V(0x1234, 0x19));
        }));
    cs.push_back(direct<satellite_delivery_system_descriptor>(
        "satellite", "43 0B 01 17 50 00 01 92 CE 02 75 00 03", [](auto& d) {
            EXPECT_EQ(
                V(d.frequency, d.orbital_position, d.west_east_flag, d.polarization, d.roll_off,
                  d.modulation_system, d.modulation_type, d.symbol_rate, d.FEC_inner),
                V(0x01175000, 0x0192, 1, 2, 1, 1, 2, 0x0275000, 3));
        }));
    cs.push_back(direct<cable_delivery_system_descriptor>(
        "cable", "44 0B 03 46 00 00 FF F2 03 00 68 75 05", [](auto& d) {
            EXPECT_EQ(V(d.frequency, d.reserved_future_use, d.FEC_outer, d.modulation,
                        d.symbol_rate, d.FEC_inner),
                      V(0x03460000, 0xFFF, 2, 3, 0x0068750, 5));
        }));
    cs.push_back(listed<VBI_data_descriptor>("VBI data", "45 07 01 02 E5 D7 03 01 FF", [](auto& d) {
        ASSERT_EQ(d.service_list.size(), 2u);
        const auto& s = *d.service_list.front();
        ASSERT_EQ(s.lines.size(), 2u);
        EXPECT_EQ(V(s.lines[0].reserved_future_use, s.lines[0].field_parity, s.lines[0].line_offset,
                    s.lines[1].field_parity, s.lines[1].line_offset),
                  V(3, 1, 5, 0, 23));
        EXPECT_TRUE(d.service_list.back()->lines.empty());
        EXPECT_EQ(d.service_list.back()->reserved_future_use, Bytes{0xFF});
    }));
    cs.push_back(listed<teletext_descriptor>(
        "teletext", "56 0A " + txt("eng") + "08 00 " + txt("fin") + "17 88", [](auto& d) {
            ASSERT_EQ(d.teletext_list.size(), 2u);
            const auto& t = *d.teletext_list.back();
            EXPECT_EQ(V(t.ISO_639_language_code, t.teletext_type, t.teletext_magazine_number,
                        t.teletext_page_number),
                      V(code("fin"), 2, 7, 0x88));
        }));
    cs.push_back(listed<bouquet_name_descriptor>("bouquet name", "47 02 " + txt("Bq")));
    cs.push_back(listed<service_descriptor>(
        "service", "48 0E 01 04 " + txt("Prov") + "07 " + txt("Channel"), [](auto& d) {
            EXPECT_EQ(V(d.service_type, d.service_provider_name_length, d.service_name_length),
                      V(1, 4, 7));
            EXPECT_EQ(d.service_provider_name + "|" + d.service_name, "Prov|Channel");
        }));
    cs.push_back(listed<short_event_descriptor>(
        "short event", "4D 0E " + txt("fin") + "04 " + txt("News") + "05 " + txt("Today"),
        [](auto& d) {
            EXPECT_EQ(d.ISO_639_language_code, code("fin"));
            EXPECT_EQ(d.event_name_char + "|" + d.text_char, "News|Today");
        }));
    cs.push_back(listed<extended_event_descriptor>(
        "extended event",
        "4E 14 12 " + txt("eng") + "0B 03 " + txt("Dir") + "03 " + txt("Ann") + "00 01 " +
            txt("x") + "03 " + txt("Txt"),
        [](auto& d) {
            EXPECT_EQ(V(d.descriptor_number, d.last_descriptor_number, d.length_of_items),
                      V(1, 2, 11));
            ASSERT_EQ(d.items.size(), 2u);
            EXPECT_EQ(d.items[0].item_description_char + "|" + d.items[0].item_char + "|" +
                          d.items[1].item_description_char + "|" + d.items[1].item_char + "|" +
                          d.text_char,
                      "Dir|Ann||x|Txt");
        }));
    cs.push_back(
        direct<component_descriptor>("component", "50 08 F1 03 01 " + txt("engHD"), [](auto& d) {
            EXPECT_EQ(V(d.stream_content_ext, d.stream_content, d.component_type, d.component_tag,
                        d.ISO_639_language_code),
                      V(0xF, 1, 3, 1, code("eng")));
            EXPECT_EQ(d.text_char, "HD");
        }));
    cs.push_back(listed<stream_identifier_descriptor>("stream identifier", "52 01 42"));
    cs.push_back(listed<parental_rating_descriptor>(
        "parental rating", "55 08 " + txt("FIN") + "0C " + txt("SWE") + "0F", [](auto& d) {
            ASSERT_EQ(d.parentals.size(), 2u);
            EXPECT_EQ(V(d.parentals[1].country_code, d.parentals[1].rating), V(code("SWE"), 0x0F));
        }));
    cs.push_back(listed<local_time_offset_descriptor>(
        "local time offset", "58 0D " + txt("FIN") + "06 02 00 E3 F2 03 00 00 03 00", [](auto& d) {
            ASSERT_EQ(d.m_listEntry.size(), 1u);
            const auto& e = *d.m_listEntry.front();
            EXPECT_EQ(
                V(e.country_code, e.country_region_id, e.reserved, e.local_time_offset_polarity,
                  e.local_time_offset, e.time_of_change, e.next_time_offset),
                V(code("FIN"), 1, 1, 0, 0x0200, 0xE3F2030000, 0x0300));
        }));
    cs.push_back(listed<subtitling_descriptor>(
        "subtitling", "59 08 " + txt("eng") + "10 00 01 00 02", [](auto& d) {
            ASSERT_EQ(d.subtitling_list.size(), 1u);
            const auto& s = *d.subtitling_list.front();
            EXPECT_EQ(V(s.ISO_639_language_code, s.subtitling_type, s.composition_page_id,
                        s.ancillary_page_id),
                      V(code("eng"), 0x10, 1, 2));
        }));
    cs.push_back(direct<terrestrial_delivery_system_descriptor>(
        "terrestrial", "5A 0B 02 FA F0 80 1B 8A 6D FF FF FF FF", [](auto& d) {
            EXPECT_EQ(V(d.centre_frequency, d.bandwidth, d.priority, d.Time_Slicing_indicator,
                        d.MPE_FEC_indicator, d.reserved_future_use, d.constellation,
                        d.hierarchy_information, d.code_rate_HP_stream, d.code_rate_LP_stream,
                        d.guard_interval, d.transmission_mode, d.other_frequency_flag,
                        d.reserved_future_use1),
                      V(0x02FAF080, 0, 1, 1, 0, 3, 2, 1, 2, 3, 1, 2, 1, 0xFFFFFFFF));
        }));
    cs.push_back(
        listed<private_data_specifier_descriptor>("private data specifier", "5F 04 00 00 00 28"));
    cs.push_back(listed<ac3_descriptor>("ac3", "6A 04 AF 42 05 99", [](auto& d) {
        EXPECT_EQ(V(d.component_type_flag, d.bsid_flag, d.mainid_flag, d.asvc_flag,
                    d.reserved_flags, d.component_type, d.bsid, d.mainid, d.asvc),
                  V(1, 0, 1, 0, 0xF, 0x42, 0, 5, 0));
        EXPECT_EQ(d.additional_info_byte, Bytes{0x99});
    }));
    cs.push_back(listed<T2_delivery_system_descriptor>(
        "T2 delivery", "7F 0D 04 01 80 01 4B AA 00 01 04 C4 B4 00 00", [](auto& d) {
            EXPECT_EQ(
                V(d.descriptor_tag_extension, d.plp_id, d.T2_system_id,
                  d.has_transmission_parameters, d.SISO_MISO, d.bandwidth, d.reserved_future_use,
                  d.guard_interval, d.transmission_mode, d.other_frequency_flag, d.tfs_flag),
                V(4, 1, 0x8001, 1, 1, 2, 3, 5, 2, 1, 0));
            EXPECT_EQ(d.descriptor_data.size(), 7u);  // the cell loop, kept raw
        }));
    cs.push_back(listed<T2_delivery_system_descriptor>(
        "T2 delivery, short", "7F 04 04 02 00 03",
        [](auto& d) { EXPECT_FALSE(d.has_transmission_parameters); }));
    cs.push_back(listed<extension_descriptor>("extension", "7F 03 05 AA BB", [](auto& d) {
        EXPECT_EQ(d.descriptor_tag_extension, 5);
        EXPECT_EQ(d.selector_bytes, (Bytes{0xAA, 0xBB}));
    }));
    cs.push_back(listed<logical_channel_descriptor>(
        "logical channel", "83 08 00 01 FC 01 00 02 7F FF", [](auto& d) {
            ASSERT_EQ(d.m_listService.size(), 2u);
            const auto &a = d.m_listService[0], &b = d.m_listService[1];
            EXPECT_EQ(V(a.service_id, a.visible_service_flag, a.reserved, a.logical_channel_number,
                        b.service_id, b.visible_service_flag, b.logical_channel_number),
                      V(1, 1, 0x1F, 1, 2, 0, 0x3FF));
        }));
    cs.push_back(listed<cue_identifier_descriptor>("cue identifier", "8A 01 01"));
    cs.push_back(listed<avail_descriptor>("avail", "00 08 " + cuei + "00 00 01 35", [](auto& d) {
        EXPECT_EQ(V(d.identifier, d.provider_avail_id), V(kScte35Identifier, 0x135));
    }));
    cs.push_back(listed<scte35_dtmf_descriptor>(
        "DTMF", "01 09 " + cuei + "32 7F " + txt("121"),
        [](auto& d) {
            EXPECT_EQ(V(d.preroll, d.dtmf_count, d.reserved), V(0x32, 3, 0x1F));
            EXPECT_EQ(d.DTMF_chars, "121");
        },
        e_scte35_desc_type));
    cs.push_back(listed<scte35_segmentation_descriptor>(
        "segmentation",
        "02 1E " + cuei +
            "48 00 00 8F 7F DF 00 52 65 C0 00 08 08 00 00 00 00 2C A5 6C 8E 34 01 01 01 02",
        [](auto& d) {
            EXPECT_EQ(
                V(d.segmentation_event_id, d.reserved1, d.program_segmentation_flag,
                  d.segmentation_duration_flag, d.delivery_not_restricted_flag,
                  d.web_delivery_allowed_flag, d.no_regional_blackout_flag, d.archive_allowed_flag,
                  d.device_restrictions, d.segmentation_duration, d.segmentation_upid_type,
                  d.segmentation_upid_length, d.segmentation_type_id, d.segment_num,
                  d.segments_expected, d.has_sub_segments, d.sub_segment_num,
                  d.sub_segments_expected),
                V(0x4800008F, 0x7F, 1, 1, 0, 1, 1, 1, 3, 0x005265C000, 8, 8, 0x34, 1, 1, 1, 1, 2));
        },
        e_scte35_desc_type));
    cs.push_back(listed<scte35_segmentation_descriptor>(
        "segmentation, components",
        "02 16 " + cuei + "00 00 00 01 7F 3F 01 01 FF 00 00 00 01 00 00 30 00 00",
        [](auto& d) {
            ASSERT_EQ(d.components.size(), 1u);
            const auto& c = d.components[0];
            EXPECT_EQ(
                V(d.delivery_not_restricted_flag, d.reserved2, d.component_count, c.component_tag,
                  c.reserved, c.pts_offset, d.segmentation_type_id, d.has_sub_segments),
                V(1, 0x1F, 1, 1, 0x7F, 0x100000001, 0x30, 0));
        },
        e_scte35_desc_type));
    cs.push_back(listed<scte35_segmentation_descriptor>(
        "segmentation, cancelled", "02 09 " + cuei + "00 00 00 02 FF",
        [](auto& d) { EXPECT_EQ(d.segmentation_event_cancel_indicator, 1); }, e_scte35_desc_type));
    cs.push_back(direct<scte35_time_descriptor>(
        "time", "03 10 " + cuei + "00 00 5F 5E 10 00 1D CD 65 00 00 25", [](auto& d) {
            EXPECT_EQ(V(d.TAI_seconds, d.TAI_ns, d.UTC_offset), V(0x5F5E1000, 0x1DCD6500, 37));
        }));
    cs.push_back(listed<base_descriptor>("unknown tag", "13 03 01 02 03", [](auto& d) {
        ASSERT_EQ(d.descriptor_data.size(), 3u);
        EXPECT_EQ(d.descriptor_data[2], 3);
    }));
    return cs;
}

// Every class: bytes -> read -> fields -> write gives the same bytes; a deep copy made with
// create() + copyTo() writes the same bytes and does not change when the original does.
TEST(DescriptorRoundTrip, EveryClassReadsItsFieldsAndWritesBackIdentically) {
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.name);
        std::shared_ptr<base_descriptor> d = c.read(c.bytes);
        ASSERT_TRUE(d) << "refused";
        ASSERT_EQ(type_of(*d), c.type);
        EXPECT_EQ(d->descriptor_tag, c.bytes[0]);
        EXPECT_EQ(d->descriptor_length, c.bytes[1]);
        c.check(*d);
        // Every body byte went into a field: a class that forgot one would still write back
        // identically, from the bytes it keeps raw.
        if (c.type != typeid(base_descriptor) && c.type != typeid(T2_delivery_system_descriptor)) {
            EXPECT_FALSE(d->descriptor_data.isValid());
        }
        EXPECT_EQ(d->body_size() + 2, c.bytes.size());
        EXPECT_EQ(write_one(*d), c.bytes);

        std::shared_ptr<base_descriptor> copy = d->create();
        ASSERT_EQ(type_of(*copy), c.type);
        d->copyTo(*copy);
        c.check(*copy);
        EXPECT_EQ(write_one(*copy), c.bytes);

        // Scribbling over the original's raw bytes must leave the copy alone.
        if (d->descriptor_data.isValid()) {
            std::fill(d->descriptor_data.data(),
                      d->descriptor_data.data() + d->descriptor_data.size(), 0xEE);
        }
        EXPECT_EQ(write_one(*copy), c.bytes);
    }
}

// Entries held by shared pointer must be copied, not shared.
TEST(DescriptorRoundTrip, DeepCopyOwnsItsSharedEntries) {
    KVDescriptorList list;
    const Bytes bytes =
        hex("56 05 " + txt("eng") + "08 00 58 0D " + txt("FIN") +
            "06 02 00 E3 F2 03 00 00 03 00 45 03 01 01 E5 59 08 " + txt("eng") + "10 00 01 00 02");
    ASSERT_TRUE(read_list(list, bytes));
    ASSERT_EQ(list.descriptor.size(), 4u);
    KVDescriptorList copy(e_scte35_desc_type);
    list.copyTo(copy);
    EXPECT_EQ(copy.getType(), e_ts_desc_type);

    auto& tt = dynamic_cast<teletext_descriptor&>(*list.find(0x56));
    tt.teletext_list.front()->teletext_page_number = 0x99;
    auto& lto = dynamic_cast<local_time_offset_descriptor&>(*list.find(0x58));
    lto.m_listEntry.front()->local_time_offset = 0x1111;
    auto& vbi = dynamic_cast<VBI_data_descriptor&>(*list.find(0x45));
    vbi.service_list.front()->lines.clear();
    auto& sub = dynamic_cast<subtitling_descriptor&>(*list.find(0x59));
    sub.subtitling_list.front()->composition_page_id = 7;

    EXPECT_EQ(write_list(copy), bytes);
    EXPECT_NE(write_list(list), bytes);
}

// Which class each tag gives, in both kinds of list.
TEST(DescriptorFactory, TagsPickTheirClassesInBothKinds) {
    struct Pick {
        const char* bytes;
        std::type_index ts;
        std::type_index scte;
    };
    const std::vector<Pick> picks = {
        {"00 08 43 55 45 49 00 00 00 01", typeid(avail_descriptor), typeid(avail_descriptor)},
        {"01 06 43 55 45 49 00 00", typeid(base_descriptor), typeid(scte35_dtmf_descriptor)},
        {"02 09 43 55 45 49 00 00 00 02 FF", typeid(video_stream_descriptor),
         typeid(scte35_segmentation_descriptor)},
        {"09 04 0B 00 E1 23", typeid(CA_descriptor), typeid(base_descriptor)},
        {"46 05 65 6E 67 08 00", typeid(teletext_descriptor), typeid(base_descriptor)},
        {"56 05 65 6E 67 08 00", typeid(teletext_descriptor), typeid(base_descriptor)},
        {"7F 04 04 02 00 03", typeid(T2_delivery_system_descriptor), typeid(base_descriptor)},
        {"7F 04 05 02 00 03", typeid(extension_descriptor), typeid(base_descriptor)},
        {"43 02 00 00", typeid(base_descriptor), typeid(base_descriptor)},  // defined only
        {"50 01 00", typeid(base_descriptor), typeid(base_descriptor)},
        {"8A 01 01", typeid(cue_identifier_descriptor), typeid(base_descriptor)},
        {"FF 01 00", typeid(base_descriptor), typeid(base_descriptor)},
    };
    for (const Pick& p : picks) {
        SCOPED_TRACE(p.bytes);
        const Bytes b = hex(p.bytes);
        for (KVDescriptorType kind : {e_ts_desc_type, e_scte35_desc_type}) {
            KVDescriptorList list(kind);
            ASSERT_TRUE(read_list(list, b));
            ASSERT_EQ(list.descriptor.size(), 1u);
            const auto& d = *list.descriptor.front();
            EXPECT_EQ(std::type_index(typeid(d)), kind == e_ts_desc_type ? p.ts : p.scte);
            EXPECT_EQ(d.descriptor_tag, b[0]);  // 0x46 stays 0x46
            EXPECT_EQ(write_list(list), b);
        }
    }
}

TEST(DescriptorList, LoopBoundariesAndRefusals) {
    // A lone empty descriptor (2 bytes) reads as an empty list; so does one at the end.
    KVDescriptorList empty;
    EXPECT_TRUE(read_list(empty, hex("52 00")));
    EXPECT_TRUE(empty.descriptor.empty());
    EXPECT_EQ(empty.getSize(), 0);
    KVDescriptorList tail;
    EXPECT_TRUE(read_list(tail, hex("52 01 42 52 00")));
    EXPECT_EQ(tail.descriptor.size(), 1u);

    // Reading appends to what the list holds.
    EXPECT_TRUE(read_list(tail, hex("52 01 43")));
    ASSERT_EQ(tail.descriptor.size(), 2u);
    EXPECT_EQ(dynamic_cast<stream_identifier_descriptor&>(*tail.descriptor.back()).component_tag,
              0x43);

    // A length one byte past the loop fails the list; the descriptors before it stay.
    KVDescriptorList past;
    EXPECT_FALSE(read_list(past, hex("52 01 42 09 05 0B 00 E1 23")));
    EXPECT_EQ(past.descriptor.size(), 1u);
    // Lengths inside a body that point past it are refused too.
    for (const char* bad : {"48 05 01 04 41 42 43",              // provider name past body
                            "4D 05 65 6E 67 09 41",              // event name past body
                            "4E 09 12 65 6E 67 02 05 41 00 00",  // item past length_of_items
                            "45 03 01 02 E5",                    // VBI lines past body
                            "09 03 0B 00 E1",                    // CA fields past body
                            "02 02 2A 48",                       // MPEG-2 video fields missing
                            "7F 00 00"}) {                       // extension tag missing
        SCOPED_TRACE(bad);
        KVDescriptorList list;
        EXPECT_FALSE(read_list(list, hex(bad)));
        EXPECT_TRUE(list.descriptor.empty());
    }

    // local_time_offset: 26 bytes give two entries, 12 none (the bytes write back).
    const std::string entry = txt("FIN") + "06 02 00 E3 F2 03 00 00 03 00 ";
    KVDescriptorList two;
    ASSERT_TRUE(read_list(two, hex("58 1A " + entry + entry)));
    EXPECT_EQ(dynamic_cast<local_time_offset_descriptor&>(*two.find(0x58)).m_listEntry.size(), 2u);
    const Bytes short_body = hex("58 0C 46 49 4E 06 02 00 E3 F2 03 00 00 03");
    KVDescriptorList none;
    ASSERT_TRUE(read_list(none, short_body));
    EXPECT_TRUE(dynamic_cast<local_time_offset_descriptor&>(*none.find(0x58)).m_listEntry.empty());
    EXPECT_EQ(write_list(none), short_body);
    EXPECT_FALSE(none.find(0x59));
}

// Lengths are recomputed from the fields when writing, and getSize() agrees with write().
TEST(DescriptorList, WriteRecomputesLengthsFromFields) {
    KVDescriptorList list;
    auto svc = std::make_shared<service_descriptor>();
    svc->service_type = 1;
    svc->service_provider_name = "P";
    svc->service_name = "Name";
    svc->descriptor_length = 99;  // stale on purpose
    list.descriptor.push_back(svc);
    auto dtmf = std::make_shared<scte35_dtmf_descriptor>();
    dtmf->DTMF_chars = "12345678";  // one more than dtmf_count can hold
    EXPECT_EQ(list.getSize(), 2 + 8);
    EXPECT_EQ(write_list(list), hex("48 08 01 01 50 04 " + txt("Name")));
    EXPECT_EQ(svc->descriptor_length, 8);
    EXPECT_EQ(svc->service_name_length, 4);

    Bytes out(32);
    KVSDK::KVBSWriter w(out.data(), out.size());
    EXPECT_FALSE(dtmf->write(w));
    auto big = std::make_shared<network_name_descriptor>();
    big->character.assign(256, 'x');
    EXPECT_FALSE(big->write(w));
    // A writer that runs out of room fails without writing past its buffer.
    Bytes small(5);
    KVSDK::KVBSWriter ws(small.data(), small.size());
    EXPECT_FALSE(list.write(ws));
}

// The descriptor loops of PMT, CAT, NIT, BAT, SDT, EIT and TOT sections.
std::vector<Bytes> loops_of(const Bytes& s) {
    std::vector<Bytes> out;
    const size_t end = s.size() - 4;  // before the CRC
    auto len12 = [&s](size_t i) { return size_t((s[i] & 0x0F) << 8 | s[i + 1]); };
    auto take = [&](size_t i, size_t n) {
        if (i + n <= end) {
            out.emplace_back(s.begin() + i, s.begin() + i + n);
        }
        return i + n;
    };
    const uint8_t t = s[0];
    if (t == 0x02 && end >= 12) {
        for (size_t i = take(12, len12(10)); i + 5 <= end;) {
            i = take(i + 5, len12(i + 3));
        }
    } else if ((t == 0x40 || t == 0x41 || t == 0x4A) && end >= 10) {
        for (size_t i = take(10, len12(8)) + 2; i + 6 <= end;) {
            i = take(i + 6, len12(i + 4));
        }
    } else if (t == 0x42 || t == 0x46) {
        for (size_t i = 11; i + 5 <= end;) {
            i = take(i + 5, len12(i + 3));
        }
    } else if (t >= 0x4E && t <= 0x6F) {
        for (size_t i = 14; i + 12 <= end;) {
            i = take(i + 12, len12(i + 10));
        }
    } else if (t == 0x73 && end >= 10) {
        take(10, len12(8));
    } else if (t == 0x01) {
        take(8, end - 8);
    }
    return out;
}

// Descriptor loops of real broadcast sections read, copy and write back byte for byte.
TEST(DescriptorCorpus, RealLoopsWriteBackIdentically) {
    const std::vector<std::string> names = capture_names();
    if (names.empty()) {
        GTEST_SKIP() << "no captures in " << KV_CORPUS_DIR;
    }
    // Complete sections with a good CRC, on any PID.
    std::set<Bytes> loops;
    for (const std::string& name : names) {
        for (const Bytes& s : gather_sections(load_capture(name), kAnyPid)) {
            if (s.size() > 8 && crc32_mpeg2(s.data(), s.size()) == 0) {
                for (Bytes& l : loops_of(s)) {
                    loops.insert(std::move(l));
                }
            }
        }
    }
    std::set<std::string> classes;
    for (const Bytes& loop : loops) {
        KVDescriptorList list;
        ASSERT_TRUE(read_list(list, loop));
        KVDescriptorList copy;
        list.copyTo(copy);
        const Bytes out = write_list(copy);
        ASSERT_LE(out.size(), loop.size());
        EXPECT_TRUE(std::equal(out.begin(), out.end(), loop.begin()));
        for (const auto& d : list.descriptor) {
            classes.insert(type_of(*d).name());
        }
    }
    // The captures carry these; each must have been read by its own class.
    for (const std::type_info* t :
         {&typeid(CA_descriptor), &typeid(ISO_639_language_descriptor),
          &typeid(network_name_descriptor), &typeid(service_list_descriptor),
          &typeid(teletext_descriptor), &typeid(service_descriptor),
          &typeid(short_event_descriptor), &typeid(extended_event_descriptor),
          &typeid(stream_identifier_descriptor), &typeid(parental_rating_descriptor),
          &typeid(local_time_offset_descriptor), &typeid(private_data_specifier_descriptor),
          &typeid(base_descriptor)}) {
        EXPECT_EQ(classes.count(t->name()), 1u) << t->name();
    }
}

}  // namespace
