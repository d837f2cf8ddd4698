// SDT, NIT and BAT sections: refusal of broken sections, loop bounds and the storage rules
// of each table.

#include <gtest/gtest.h>

#include <cstdint>
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

TEST(SdtSection, KeysByServiceIdAndRefusesBrokenSections) {
    // Service 0x0102 (schedule, running 4, free CA, one descriptor), 0x0005, then 0x0102
    // again with other flags: the later one replaces the first and the map sorts by id.
    const Bytes first = cat({{0x01, 0x02, 0xFE, 0x90, 0x0A}, kServiceDesc});
    const Bytes low{0x00, 0x05, 0xFD, 0x20, 0x00};
    const Bytes again{0x01, 0x02, 0xFD, 0x60, 0x00};
    CSDT sdt;
    ASSERT_TRUE(read(sdt, section(0x42, cat({kSdtHeader, first, low, again}))));
    ASSERT_EQ(sdt.sds.size(), 2u);
    const CServiceDescriptionSection& s = *sdt.sds.at(0x0102);
    EXPECT_EQ((std::vector<uint64_t>{s.reserved_future_use, s.EIT_schedule_flag,
                                     s.EIT_present_following_flag, s.running_status, s.free_CA_mode,
                                     s.descriptors.descriptor.size()}),
              (std::vector<uint64_t>{0x3F, 0, 1, 3, 0, 0}));
    EXPECT_EQ(render(sdt), section(0x42, cat({kSdtHeader, low, again})));
    expect_prefixes_refused<CSDT>(section(0x42, cat({kSdtHeader, first})));

    Bytes bad = section(0x42, cat({kSdtHeader, low}));
    bad[11] ^= 0x04;  // one bit of the service id
    CSDT fresh;
    EXPECT_FALSE(read(fresh, bad));
    EXPECT_EQ(fresh.transport_stream_id, 0) << "nothing after the header is read on a bad CRC";
    // A descriptor loop longer than the data, or a descriptor running past its loop, with
    // a good CRC.
    EXPECT_FALSE(read(sdt, section(0x42, cat({kSdtHeader, {0x00, 0x05, 0xFD, 0x2F, 0xFF}}))));
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

TEST(NitSection, KeepsStreamOrderAndDuplicatesAndLoopBounds) {
    CNIT nit;
    ASSERT_TRUE(read(nit, kNit));
    std::vector<unsigned> ids, lengths;
    for (const auto& ts : nit.transport_stream) {
        ids.push_back(ts->transport_stream_id);
        lengths.push_back(ts->network_descriptors_length);
    }
    EXPECT_EQ(ids, (std::vector<unsigned>{1, 1, 7}));
    EXPECT_EQ(lengths, (std::vector<unsigned>{5, 0, 3}));
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
    ASSERT_EQ(bat.BouquetAssociationStreamList.size(), 2u);
    const CBouquetAssociationStream& first = *bat.BouquetAssociationStreamList.front();
    EXPECT_EQ(first.transport_descriptors_length, 5);
    EXPECT_TRUE(first.descriptors.descriptor.empty());
    ASSERT_EQ(bat.descriptors.descriptor.size(), 2u);
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

    // A loop of 5 bytes holds no stream; a stream descriptor running past the data fails.
    ASSERT_TRUE(
        read(bat, section(0x4A, cat({kBatHeader, kRawDesc, {0xF0, 5, 0, 0x10, 0, 0x20, 0xF0}}))));
    EXPECT_TRUE(bat.BouquetAssociationStreamList.empty());
    EXPECT_FALSE(read(
        bat, section(0x4A, cat({kBatHeader, kRawDesc, {0xF0, 6, 0, 0x10, 0, 0x20, 0xF0, 0x09}}))));
}
