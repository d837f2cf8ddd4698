// Descriptor lists and the descriptor classes: fields at their bit positions, write-back
// and deep copies, the tag tables of both list kinds and loop bounds.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iterator>
#include <list>
#include <string>
#include <typeindex>
#include <typeinfo>
#include <vector>

#include "mpegcore/descriptors_dvb.h"
#include "mpegcore/descriptors_mpeg.h"
#include "mpegcore/descriptors_scte35.h"
#include "mpegcore/kvdescriptorlist.h"
#include "ts_test_util.h"

namespace {

using namespace mpegcore;
using namespace ts_test;

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

// Fields as one line of text, numbers in hex, so that a case checks all of them at once.
std::string str(uint64_t x) {
    char buf[20];
    std::snprintf(buf, sizeof(buf), "%llX", static_cast<unsigned long long>(x));
    return buf;
}
std::string str(const iso_code& c) {
    return std::string(c.data(), 3);
}
std::string str(const std::string& s) {
    return s;
}
std::string str(const std::vector<uint8_t>& b) {
    std::string s;
    for (uint8_t x : b) {
        s += (x < 0x10 ? "0" : "") + str(x);
    }
    return s;
}
template <class... T>
std::string V(const T&... x) {
    std::string s;
    ((s += str(x) + " "), ...);
    s.pop_back();
    return s;
}

// Element i of a loop, or a default one when the loop is shorter (cases list the size too).
template <class T>
const T& at(const std::vector<T>& v, size_t i) {
    static const T none{};
    return i < v.size() ? v[i] : none;
}
template <class T>
const T& at(const std::list<std::shared_ptr<T>>& l, size_t i) {
    static const T none{};
    return i < l.size() ? **std::next(l.begin(), i) : none;
}

// One descriptor as bytes, the class it must read as and, for the classes whose fields
// are not whole bytes or plain text, its fields.
struct Case {
    Bytes bytes;
    std::type_index type;
    std::function<std::shared_ptr<base_descriptor>()> make;  // none: read through a list
    KVDescriptorType kind;
    std::function<std::string(base_descriptor&)> fields;
    std::string expected;
};

// Classes no list produces are read on their own.
template <class T>
Case alone(const std::string& bytes) {
    return {hex(bytes), typeid(T), [] { return std::make_shared<T>(); }, e_ts_desc_type, {}, ""};
}

template <class T>
Case listed(const std::string& bytes, KVDescriptorType kind = e_ts_desc_type,
            std::string (*fields)(T&) = nullptr, const std::string& expected = "") {
    std::function<std::string(base_descriptor&)> f;
    if (fields) {
        f = [fields](base_descriptor& d) { return fields(dynamic_cast<T&>(d)); };
    }
    return {hex(bytes), typeid(T), {}, kind, f, expected};
}

// FIELDS(class, bytes, expected fields in hex, the fields of `d`...)
#define FIELDS_OF(T, kind, bytes, expected, ...) \
    listed<T>(                                   \
        bytes, kind, [](T& d) { return V(__VA_ARGS__); }, expected)
#define FIELDS(T, bytes, expected, ...) FIELDS_OF(T, e_ts_desc_type, bytes, expected, __VA_ARGS__)

std::vector<Case> cases() {
    const std::string cuei = "43 55 45 49 ";
    return {
        FIELDS(video_stream_descriptor, "02 03 AA 48 7F", "1 5 0 1 0 48 1 1 1F",
               d.multiple_frame_rate_flag, d.frame_rate_code, d.MPEG_1_only_flag,
               d.constrained_parameter_flag, d.still_picture_flag, d.profile_and_level_indication,
               d.chroma_format, d.frame_rate_extension_flag, d.reserved),
        FIELDS(video_stream_descriptor, "02 01 1D", "3 1 1 0", d.frame_rate_code,
               d.MPEG_1_only_flag, d.still_picture_flag, d.profile_and_level_indication),
        listed<audio_stream_descriptor>("03 01 AB"),
        FIELDS(CA_descriptor, "09 06 0B 00 E1 23 AA BB", "B00 7 123 AABB", d.CA_system_ID,
               d.reserved, d.CA_PID, d.private_data_byte),
        listed<ISO_639_language_descriptor>("0A 08 " + txt("eng") + "01 " + txt("deu") + "03"),
        listed<service_list_descriptor>("41 06 00 01 01 12 34 19"),
        FIELDS(VBI_data_descriptor, "45 07 01 02 E5 D7 03 01 FF", "2 2 3 1 5 0 17 0 FF",
               d.service_list.size(), at(d.service_list, 0).lines.size(),
               at(at(d.service_list, 0).lines, 0).reserved_future_use,
               at(at(d.service_list, 0).lines, 0).field_parity,
               at(at(d.service_list, 0).lines, 0).line_offset,
               at(at(d.service_list, 0).lines, 1).field_parity,
               at(at(d.service_list, 0).lines, 1).line_offset, at(d.service_list, 1).lines.size(),
               at(d.service_list, 1).reserved_future_use),
        FIELDS(teletext_descriptor, "56 0A " + txt("eng") + "08 00 " + txt("fin") + "17 88",
               "2 fin 2 7 88", d.teletext_list.size(), at(d.teletext_list, 1).ISO_639_language_code,
               at(d.teletext_list, 1).teletext_type,
               at(d.teletext_list, 1).teletext_magazine_number,
               at(d.teletext_list, 1).teletext_page_number),
        listed<service_descriptor>("48 0E 01 04 " + txt("Prov") + "07 " + txt("Channel")),
        listed<short_event_descriptor>("4D 0E " + txt("fin") + "04 " + txt("News") + "05 " +
                                       txt("Today")),
        FIELDS(extended_event_descriptor,
               "4E 14 12 " + txt("eng") + "0B 03 " + txt("Dir") + "03 " + txt("Ann") + "00 01 " +
                   txt("x") + "03 " + txt("Txt"),
               "1 2 B 2 Dir Ann  x Txt", d.descriptor_number, d.last_descriptor_number,
               d.length_of_items, d.items.size(), at(d.items, 0).item_description_char,
               at(d.items, 0).item_char, at(d.items, 1).item_description_char,
               at(d.items, 1).item_char, d.text_char),
        listed<parental_rating_descriptor>("55 08 " + txt("FIN") + "0C " + txt("SWE") + "0F"),
        FIELDS(local_time_offset_descriptor,
               "58 0D " + txt("FIN") + "06 02 00 E3 F2 03 00 00 03 00",
               "1 FIN 1 1 0 200 E3F2030000 300", d.m_listEntry.size(),
               at(d.m_listEntry, 0).country_code, at(d.m_listEntry, 0).country_region_id,
               at(d.m_listEntry, 0).reserved, at(d.m_listEntry, 0).local_time_offset_polarity,
               at(d.m_listEntry, 0).local_time_offset, at(d.m_listEntry, 0).time_of_change,
               at(d.m_listEntry, 0).next_time_offset),
        listed<subtitling_descriptor>("59 08 " + txt("eng") + "10 00 01 00 02"),
        listed<ac3_descriptor>("6A 04 AF 42 05 99"),
        // The cell loop is kept raw.
        FIELDS(T2_delivery_system_descriptor, "7F 0D 04 01 80 01 4B AA 00 01 04 C4 B4 00 00",
               "4 1 8001 1 1 2 3 5 2 1 0 7", d.descriptor_tag_extension, d.plp_id, d.T2_system_id,
               d.has_transmission_parameters, d.SISO_MISO, d.bandwidth, d.reserved_future_use,
               d.guard_interval, d.transmission_mode, d.other_frequency_flag, d.tfs_flag,
               d.descriptor_data.size()),
        FIELDS(T2_delivery_system_descriptor, "7F 04 04 02 00 03", "0",
               d.has_transmission_parameters),
        listed<logical_channel_descriptor>("83 08 00 01 FC 01 00 02 7F FF"),
        FIELDS_OF(
            scte35_segmentation_descriptor, e_scte35_desc_type,
            "02 1E " + cuei +
                "48 00 00 8F 7F DF 00 52 65 C0 00 08 08 00 00 00 00 2C A5 6C 8E 34 01 01 01 02",
            "4800008F 7F 1 1 0 1 1 1 3 5265C000 8 8 34 1 1 1 1 2", d.segmentation_event_id,
            d.reserved1, d.program_segmentation_flag, d.segmentation_duration_flag,
            d.delivery_not_restricted_flag, d.web_delivery_allowed_flag,
            d.no_regional_blackout_flag, d.archive_allowed_flag, d.device_restrictions,
            d.segmentation_duration, d.segmentation_upid_type, d.segmentation_upid_length,
            d.segmentation_type_id, d.segment_num, d.segments_expected, d.has_sub_segments,
            d.sub_segment_num, d.sub_segments_expected),
        listed<scte35_segmentation_descriptor>(
            "02 16 " + cuei + "00 00 00 01 7F 3F 01 01 FF 00 00 00 01 00 00 30 00 00",
            e_scte35_desc_type),
        listed<scte35_segmentation_descriptor>("02 09 " + cuei + "00 00 00 02 FF",
                                               e_scte35_desc_type),
        listed<registration_descriptor>("05 06 48 44 4D 56 FF 01"),
        listed<multiplex_buffer_utilization_descriptor>("0C 04 92 34 D6 78"),
        listed<smoothing_buffer_descriptor>("10 06 C1 23 45 83 AB CD"),
        listed<STD_descriptor>("11 01 FD"),
        listed<network_name_descriptor>("40 05 " + txt("Net 1")),
        listed<bouquet_name_descriptor>("47 02 " + txt("Bq")),
        listed<stream_identifier_descriptor>("52 01 42"),
        listed<private_data_specifier_descriptor>("5F 04 00 00 00 28"),
        listed<extension_descriptor>("7F 03 05 AA BB"),
        listed<cue_identifier_descriptor>("8A 01 01"),
        listed<avail_descriptor>("00 08 " + cuei + "00 00 01 35"),
        listed<scte35_dtmf_descriptor>("01 09 " + cuei + "32 7F " + txt("121"), e_scte35_desc_type),
        listed<base_descriptor>("13 03 01 02 03"),
        alone<hierarchy_descriptor>("04 04 F3 C5 C2 C7"),
        alone<data_stream_alignment_descriptor>("06 01 02"),
        alone<target_background_grid_descriptor>("07 04 0B 40 24 03"),
        alone<video_window_descriptor>("08 04 01 90 0C 89"),
        alone<system_clock_descriptor>("0B 02 AA BF"),
        alone<copyright_descriptor>("0D 05 01 02 03 04 05"),
        alone<maximum_bitrate_descriptor>("0E 03 C1 23 45"),
        alone<private_data_indicator_descriptor>("0F 04 01 02 03 04"),
        alone<ibp_descriptor>("12 02 9A BC"),
        alone<satellite_delivery_system_descriptor>("43 0B 01 17 50 00 01 92 CE 02 75 00 03"),
        alone<cable_delivery_system_descriptor>("44 0B 03 46 00 00 FF F2 03 00 68 75 05"),
        alone<component_descriptor>("50 08 F1 03 01 " + txt("engHD")),
        alone<terrestrial_delivery_system_descriptor>("5A 0B 02 FA F0 80 1B 8A 6D FF FF FF FF"),
        alone<scte35_time_descriptor>("03 10 " + cuei + "00 00 5F 5E 10 00 1D CD 65 00 00 25"),
    };
}
#undef FIELDS
#undef FIELDS_OF

std::shared_ptr<base_descriptor> read_case(const Case& c) {
    if (c.make) {
        std::shared_ptr<base_descriptor> d = c.make();
        KVSDK::KVBSReader r(c.bytes.data(), c.bytes.size());
        return d->read(r) && r.getLength() == 0 ? d : nullptr;
    }
    KVDescriptorList list(c.kind);
    if (!read_list(list, c.bytes) || list.descriptor.size() != 1) {
        return nullptr;
    }
    return list.descriptor.front();
}

}  // namespace

// Every class: bytes -> read -> fields -> write gives the same bytes, and every body byte
// went into a field; a deep copy made with create() + copyTo() has the same fields, writes
// the same bytes and does not change when the original's raw bytes do.
TEST(DescriptorRoundTrip, EveryClassReadsItsFieldsAndWritesBackIdentically) {
    for (const Case& c : cases()) {
        SCOPED_TRACE(testing::PrintToString(c.bytes));
        std::shared_ptr<base_descriptor> d = read_case(c);
        ASSERT_TRUE(d) << "refused";
        ASSERT_EQ(type_of(*d), c.type);
        if (c.fields) {
            EXPECT_EQ(c.fields(*d), c.expected);
        }
        if (c.type != typeid(base_descriptor) && c.type != typeid(T2_delivery_system_descriptor)) {
            EXPECT_FALSE(d->descriptor_data.isValid());
        }
        EXPECT_EQ(write_one(*d), c.bytes);

        std::shared_ptr<base_descriptor> copy = d->create();
        ASSERT_EQ(type_of(*copy), c.type);
        d->copyTo(*copy);
        if (c.fields) {
            EXPECT_EQ(c.fields(*copy), c.expected);
        }
        if (d->descriptor_data.isValid()) {
            std::fill(d->descriptor_data.data(),
                      d->descriptor_data.data() + d->descriptor_data.size(), 0xEE);
        }
        EXPECT_EQ(write_one(*copy), c.bytes);
    }
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
