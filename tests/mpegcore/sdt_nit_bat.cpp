// SDT, NIT and BAT sections: fields at their bit positions, refusal of broken sections,
// the storage rules of each table and copyTo. The real sections of the captures are checked
// against an independent decoder in oracle/si_sdt_nit_bat.cpp.

#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <vector>

#include "mpegcore/BAT.h"
#include "mpegcore/NIT.h"
#include "mpegcore/SDT.h"

#include "ts_test_util.h"

using namespace mpegcore;
using namespace ts_test;

namespace {

const Bytes kServiceDesc{0x48, 8, 0x01, 2, 'K', 'V', 3, 'O', 'n', 'e'};  // service
const Bytes kNameDesc{0x40, 3, 'N', 'e', 't'};                           // network name
const Bytes kListDesc{0x41, 3, 0x00, 0x05, 0x01};                        // service list
const Bytes kRawDesc{0xF0, 1, 0x99};                                     // private tag

// SDT header: ts id 0x1234, version 21, current, section 1 of 2, network 0xABCD.
const Bytes kSdtHeader{0x12, 0x34, 0xEB, 0x01, 0x02, 0xAB, 0xCD, 0xFF};

}  // namespace

TEST(SdtSection, ReadsFieldsKeysByServiceIdAndWritesBack) {
    // Service 0x0102 (schedule, running 4, free CA, one descriptor), 0x0005, then 0x0102
    // again with other flags: the later one replaces the first and the map sorts by id.
    const Bytes first = cat({{0x01, 0x02, 0xFE, 0x90, 0x0A}, kServiceDesc});
    const Bytes low{0x00, 0x05, 0xFD, 0x20, 0x00};
    const Bytes again{0x01, 0x02, 0xFD, 0x60, 0x00};
    CSDT sdt;
    ASSERT_TRUE(read(sdt, section(0x42, cat({kSdtHeader, first, low, again}))));
    EXPECT_EQ(sdt.table_id, 0x42);
    EXPECT_EQ(sdt.transport_stream_id, 0x1234);
    EXPECT_EQ(sdt.reserved1, 3);
    EXPECT_EQ(sdt.version_number, 21);
    EXPECT_EQ(sdt.current_next_indicator, 1);
    EXPECT_EQ(sdt.section_number, 1);
    EXPECT_EQ(sdt.last_section_number, 2);
    EXPECT_EQ(sdt.original_network_id, 0xABCD);
    ASSERT_EQ(sdt.sds.size(), 2u);
    const CServiceDescriptionSection& s = *sdt.sds.at(0x0102);
    EXPECT_EQ(s.service_id, 0x0102);
    EXPECT_EQ(s.reserved_future_use, 0x3F);
    EXPECT_EQ(s.EIT_schedule_flag, 0);
    EXPECT_EQ(s.EIT_present_following_flag, 1);
    EXPECT_EQ(s.running_status, 3);
    EXPECT_EQ(s.free_CA_mode, 0);
    EXPECT_TRUE(s.descriptors.descriptor.empty());

    // Written back in id order, without the replaced service.
    const Bytes expected = section(0x42, cat({kSdtHeader, low, again}));
    EXPECT_EQ(render(sdt), expected);
    EXPECT_EQ(sdt.CRC, crc32_mpeg2(expected.data(), expected.size() - 4));

    CSDT one;
    const Bytes single = section(0x42, cat({kSdtHeader, first}));
    ASSERT_TRUE(read(one, single));
    const CServiceDescriptionSection& f = *one.sds.at(0x0102);
    EXPECT_EQ(f.EIT_schedule_flag, 1);
    EXPECT_EQ(f.EIT_present_following_flag, 0);
    EXPECT_EQ(f.running_status, 4);
    EXPECT_EQ(f.free_CA_mode, 1);
    EXPECT_EQ(f.descriptors_loop_length, 10);
    ASSERT_TRUE(f.descriptors.find(0x48));
    EXPECT_EQ(render(one), single);
    expect_prefixes_refused<CSDT>(single);
}

TEST(SdtSection, RefusesBrokenSectionsAndStopsShortLoops) {
    Bytes bad = section(0x42, cat({kSdtHeader, {0x00, 0x05, 0xFD, 0x20, 0x00}}));
    bad[11] ^= 0x04;  // one bit of the service id
    CSDT sdt;
    EXPECT_FALSE(read(sdt, bad));
    EXPECT_EQ(sdt.transport_stream_id, 0) << "nothing after the header is read on a bad CRC";

    // A descriptor loop longer than the data, with a good CRC.
    EXPECT_FALSE(read(sdt, section(0x42, cat({kSdtHeader, {0x00, 0x05, 0xFD, 0x2F, 0xFF}}))));
    // A descriptor running past its loop.
    EXPECT_FALSE(read(
        sdt,
        section(0x42, cat({kSdtHeader, {0x00, 0x05, 0xFD, 0x20, 0x03}, {0x48, 8, 0x01, 0, 0}}))));

    // No loop at all: the CRC is the section's own; four spare bytes are no service.
    const Bytes empty = section(0x42, kSdtHeader);
    ASSERT_TRUE(read(sdt, empty));
    EXPECT_TRUE(sdt.sds.empty());
    EXPECT_EQ(sdt.CRC, uint32_t(empty[11] << 24 | empty[12] << 16 | empty[13] << 8 | empty[14]));
    ASSERT_TRUE(read(sdt, section(0x42, cat({kSdtHeader, {0x00, 0x05, 0xFD, 0x20}}))));
    EXPECT_TRUE(sdt.sds.empty());
}

TEST(SdtSection, CopyToMergesIntoTargetAndCountsSourceOnly) {
    CSDT source, target;
    ASSERT_TRUE(read(source, section(0x42, cat({kSdtHeader,
                                                {0x00, 0x01, 0xFD, 0x80, 0x0A},
                                                kServiceDesc,
                                                {0x00, 0x02, 0xFC, 0x00, 0x00}}))));
    ASSERT_TRUE(read(target, section(0x46, cat({{0x99, 0x99, 0xC1, 0, 0, 0, 1, 0xFF},
                                                {0x00, 0x01, 0xFC, 0x00, 0x00},
                                                {0x00, 0x09, 0xFC, 0x00, 0x00}}))));
    source.sds.at(1)->descriptors_loop_length = 999;  // recomputed by the copy
    source.copyTo(&target);
    source.copyTo(nullptr);

    EXPECT_EQ(target.table_id, 0x42);
    EXPECT_EQ(target.transport_stream_id, 0x1234);
    EXPECT_EQ(target.CRC, source.CRC);
    ASSERT_EQ(target.sds.size(), 3u);  // 1 replaced, 2 added, 9 kept
    EXPECT_EQ(target.sds.at(1)->running_status, 4);
    EXPECT_EQ(target.sds.at(1)->descriptors_loop_length, 10);
    EXPECT_NE(target.sds.at(1), source.sds.at(1));
    EXPECT_NE(target.sds.at(1)->descriptors.find(0x48), source.sds.at(1)->descriptors.find(0x48));
    EXPECT_EQ(target.section_length, 12 + 15 + 5);
    source.Clear();
    EXPECT_TRUE(source.sds.empty());
    EXPECT_TRUE(target.sds.at(1)->descriptors.find(0x48));
}

TEST(SdtSection, RenderIntoTooSmallBufferLeavesCrcOut) {
    // 11 header bytes and one 5-byte service fill 16 of 17 bytes: no room for the CRC.
    Bytes buffer(17, 0xEE);
    CSDT sdt(buffer.data(), buffer.size());
    sdt.sds[5] = std::make_shared<CServiceDescriptionSection>();
    sdt.sds[5]->service_id = 5;
    EXPECT_FALSE(sdt.RenderTable());
    EXPECT_EQ(sdt.section_length, 17);
    EXPECT_EQ(sdt.GetSizeBuffer(), buffer.size());
    EXPECT_EQ(sdt.CRC, crc32_mpeg2(buffer.data(), 16));
    EXPECT_EQ(buffer[16], 0xEE);
}

namespace {

// NIT: network 0x3001, version 0, current; then the transport streams 1 (service list),
// 1 again (no descriptors) and 7 (a private descriptor).
const Bytes kNitStreams = cat({{0x00, 0x01, 0x00, 0x22, 0xF0, 0x05},
                               kListDesc,
                               {0x00, 0x01, 0x00, 0x22, 0xF0, 0x00},
                               {0x00, 0x07, 0x00, 0x33, 0xF0, 0x03},
                               kRawDesc});
const Bytes kNit = section(0x40, cat({{0x30, 0x01, 0xC1, 0x00, 0x00, 0xF0, 0x05},
                                      kNameDesc,
                                      {0xF0, uint8_t(kNitStreams.size())},
                                      kNitStreams}));

}  // namespace

TEST(NitSection, KeepsStreamOrderAndDuplicatesAndWritesBack) {
    CNIT nit;
    ASSERT_TRUE(read(nit, kNit));
    EXPECT_EQ(nit.network_id, 0x3001);
    EXPECT_EQ(nit.current_next_indicator, 1);
    EXPECT_EQ(nit.reserved_future_use, 0xF);
    EXPECT_EQ(nit.network_descriptors_length, 5);
    ASSERT_TRUE(nit.descriptors.find(0x40));
    EXPECT_EQ(nit.transport_stream_loop_length, kNitStreams.size());
    std::vector<unsigned> ids, lengths;
    for (const auto& ts : nit.transport_stream) {
        ids.push_back(ts->transport_stream_id);
        lengths.push_back(ts->network_descriptors_length);
    }
    EXPECT_EQ(ids, (std::vector<unsigned>{1, 1, 7}));
    EXPECT_EQ(lengths, (std::vector<unsigned>{5, 0, 3}));
    EXPECT_EQ(nit.transport_stream.back()->original_network_id, 0x33);
    EXPECT_EQ(nit.calc_section_length(), nit.section_length);
    EXPECT_EQ(render(nit), kNit);
    expect_prefixes_refused<CNIT>(kNit);

    // No network descriptors; a loop of 5 bytes holds no stream.
    ASSERT_TRUE(read(nit, section(0x41, {0x30, 0x01, 0xC1, 0, 0, 0xF0, 0x00, 0xF0, 0x05, 0x00, 0x01,
                                         0x00, 0x22, 0xF0})));
    EXPECT_TRUE(nit.descriptors.descriptor.empty());
    EXPECT_TRUE(nit.transport_stream.empty());
    // A stream whose descriptors run past the data.
    EXPECT_FALSE(read(nit, section(0x40, {0x30, 0x01, 0xC1, 0, 0, 0xF0, 0x00, 0xF0, 0x06, 0x00,
                                          0x01, 0x00, 0x22, 0xF0, 0x40})));
    // The stream loop trusts its own length over the section's: past the data the reader
    // yields zeros, and nothing outside the buffer is touched.
    EXPECT_TRUE(read(nit, section(0x40, {0x30, 0x01, 0xC1, 0, 0, 0xF0, 0x00, 0xFF, 0xFF})));
    EXPECT_EQ(nit.transport_stream.size(), 4095u / 6);
}

TEST(NitSection, CopyToAppendsStreams) {
    CNIT source, target;
    ASSERT_TRUE(read(source, kNit));
    ASSERT_TRUE(read(target, kNit));
    source.transport_stream.front()->network_descriptors_length = 0;  // recomputed by the copy
    source.copyTo(&target);
    ASSERT_EQ(target.transport_stream.size(), 6u);
    EXPECT_EQ(target.transport_stream.back()->transport_stream_id, 7);
    EXPECT_EQ(target.transport_stream_loop_length, kNitStreams.size());
    EXPECT_EQ(target.section_length, source.section_length);
    EXPECT_EQ((*std::next(target.transport_stream.begin(), 3))->network_descriptors_length, 5);
    EXPECT_EQ(target.descriptors.descriptor.size(), 1u);
    EXPECT_EQ(target.network_descriptors_length, 5);
    target.Clear();
    EXPECT_TRUE(target.transport_stream.empty());
    EXPECT_TRUE(target.descriptors.descriptor.empty());
}

namespace {

// BAT: bouquet 0x5001 with a private descriptor; stream 0x10 with a service list, stream
// 0x11 without descriptors.
const Bytes kBatHeader{0x50, 0x01, 0xC3, 0x00, 0x00, 0xF0, 0x03};
const Bytes kBat = section(0x4A, cat({kBatHeader,
                                      kRawDesc,
                                      {0xF0, 17, 0x00, 0x10, 0x00, 0x20, 0xF0, 0x05},
                                      kListDesc,
                                      {0x00, 0x11, 0x00, 0x20, 0xF0, 0x00}}));

}  // namespace

TEST(BatSection, TransportDescriptorsGoIntoTheTableList) {
    CBAT bat;
    ASSERT_TRUE(read(bat, kBat));
    EXPECT_EQ(bat.bouquet_id, 0x5001);
    EXPECT_EQ(bat.version_number, 1);
    EXPECT_EQ(bat.bouquet_descriptors_length, 3);
    ASSERT_EQ(bat.BouquetAssociationStreamList.size(), 2u);
    const CBouquetAssociationStream& first = *bat.BouquetAssociationStreamList.front();
    EXPECT_EQ(first.transport_stream_id, 0x10);
    EXPECT_EQ(first.original_network_id, 0x20);
    EXPECT_EQ(first.transport_descriptors_length, 5);
    EXPECT_TRUE(first.descriptors.descriptor.empty());
    ASSERT_EQ(bat.descriptors.descriptor.size(), 2u);
    EXPECT_EQ(bat.descriptors.descriptor.front()->descriptor_tag, 0xF0);
    EXPECT_EQ(bat.descriptors.descriptor.back()->descriptor_tag, 0x41);
    expect_prefixes_refused<CBAT>(kBat);

    // Written back: all descriptors as bouquet descriptors, the streams with their stored
    // lengths but without their descriptors. The section length is unchanged.
    const Bytes expected = section(0x4A, cat({{0x50, 0x01, 0xC3, 0x00, 0x00, 0xF0, 0x08},
                                              kRawDesc,
                                              kListDesc,
                                              {0xF0, 12, 0x00, 0x10, 0x00, 0x20, 0xF0, 0x05},
                                              {0x00, 0x11, 0x00, 0x20, 0xF0, 0x00}}));
    EXPECT_EQ(render(bat), expected);
    EXPECT_EQ(bat.bouquet_descriptors_length, 8);
    EXPECT_EQ(bat.transport_stream_loop_length, 12);

    // A loop of 5 bytes holds no stream; a stream descriptor running past the data fails.
    ASSERT_TRUE(
        read(bat, section(0x4A, cat({kBatHeader, kRawDesc, {0xF0, 5, 0, 0x10, 0, 0x20, 0xF0}}))));
    EXPECT_TRUE(bat.BouquetAssociationStreamList.empty());
    EXPECT_FALSE(read(
        bat, section(0x4A, cat({kBatHeader, kRawDesc, {0xF0, 6, 0, 0x10, 0, 0x20, 0xF0, 0x09}}))));
}

TEST(BatSection, CopyToAppendsStreamsWithHeaderBytesInTheirLength) {
    CBAT source, target;
    ASSERT_TRUE(read(source, kBat));
    ASSERT_TRUE(read(target, kBat));
    source.copyTo(&target);
    ASSERT_EQ(target.BouquetAssociationStreamList.size(), 4u);
    EXPECT_EQ(target.BouquetAssociationStreamList.front()->transport_descriptors_length, 5);
    EXPECT_EQ(target.BouquetAssociationStreamList.back()->transport_descriptors_length, 6);
    EXPECT_EQ(target.BouquetAssociationStreamList.back()->transport_stream_id, 0x11);
    EXPECT_EQ(target.transport_stream_loop_length, 12);
    EXPECT_EQ(target.bouquet_descriptors_length, 8);
    EXPECT_EQ(target.section_length, source.section_length);
}
