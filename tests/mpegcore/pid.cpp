#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "mpegcore/BasePID.h"
#include "mpegcore/kv_mpeg_alarm_event.h"

using namespace mpegcore;

namespace {

// A packet whose 184 bytes after the header all equal `fill`. With `af` >= 0 an
// adaptation field of that length comes first and, with `payload`, the cursor is moved
// behind it as the parser does (control 3); without payload the control is 2.
struct Packet {
    uint8_t bytes[188];
    transport_packet p;
    Packet(uint16_t pid, uint8_t cc, bool pusi, uint8_t fill, int af = -1, bool payload = true) {
        std::memset(bytes, fill, sizeof bytes);
        bytes[0] = 0x47;
        bytes[1] = static_cast<uint8_t>((pusi ? 0x40 : 0) | pid >> 8);
        bytes[2] = static_cast<uint8_t>(pid);
        bytes[3] = static_cast<uint8_t>((af < 0 ? 1 : payload ? 3 : 2) << 4 | cc);
        p.decode_header(bytes);
        if (af >= 0 && payload) {
            p.pCurrDataPkt += af + 1;
            p.lCurrSizePkt -= af + 1;
        }
    }
};

}  // namespace

TEST(BasePID, ContinuityRules) {
    struct : kv_mpeg_alarm_event {
        std::vector<uint16_t> pids;
        void on_cc_error(uint16_t pid) override { pids.push_back(pid); }
    } sink;
    CBasePID pid;
    pid.set_alarm_event(&sink);

    // The first packet is never an error; 14, 15, 0 wrap continuously.
    for (uint8_t cc : {14, 15, 0, 1}) {
        pid.putPacket(Packet(0x100, cc, false, 0).p);
    }
    EXPECT_EQ(pid.continuity_counter_error, 0);
    // A repeated packet with payload is an error; a packet without payload keeps the count.
    pid.putPacket(Packet(0x100, 1, false, 0).p);
    EXPECT_EQ(pid.continuity_counter_error, 1);
    pid.putPacket(Packet(0x100, 1, false, 0, 10, false).p);
    pid.putPacket(Packet(0x100, 2, false, 0, 10).p);
    // The reserved control 0 advances the counter like a payload.
    Packet reserved(0x100, 3, false, 0);
    reserved.p.adaptation_field_control = 0;
    pid.putPacket(reserved.p);
    EXPECT_EQ(pid.continuity_counter_error, 1);
    // A jump is one error even when flagged as a discontinuity; counting goes on from it.
    Packet jump(0x100, 9, false, 0, 1);
    jump.p.af.discontinuity_indicator = 1;
    pid.putPacket(jump.p);
    pid.putPacket(Packet(0x100, 10, false, 0).p);
    EXPECT_EQ(pid.continuity_counter_error, 2);
    EXPECT_EQ(sink.pids, (std::vector<uint16_t>{0x100, 0x100}));

    // clear() forgets the counter, not the errors.
    pid.clear();
    pid.putPacket(Packet(0x100, 4, false, 0).p);
    EXPECT_EQ(pid.continuity_counter_error, 2);

    // The null PID is only counted.
    CBasePID null_pid;
    null_pid.putPacket(Packet(0x1FFF, 3, false, 0).p);
    null_pid.putPacket(Packet(0x1FFF, 3, false, 0).p);
    EXPECT_EQ(null_pid.continuity_counter_error, 0);
    EXPECT_EQ(null_pid.data_counter, 368u);
    EXPECT_EQ(null_pid.getCurData(), nullptr);
}

TEST(BasePID, PayloadUnitsSwapOnUnitStart) {
    CBasePID pid;
    // A continuation before any unit start belongs to a unit whose start was missed.
    EXPECT_EQ(pid.putPacket(Packet(0x200, 0, false, 0xEE).p), nullptr);
    EXPECT_EQ(pid.getCurData()->getLength(), 0u);
    const CDataAccumulator* done = pid.putPacket(Packet(0x200, 1, true, 0xA1).p);
    ASSERT_NE(done, nullptr);
    EXPECT_EQ(done->getLength(), 0u);
    EXPECT_EQ(pid.putPacket(Packet(0x200, 2, false, 0xA2, 7).p), nullptr);  // 176 bytes
    EXPECT_EQ(pid.putPacket(Packet(0x200, 2, false, 0xA3, 183, false).p), nullptr);

    done = pid.putPacket(Packet(0x200, 3, true, 0xB1).p);
    ASSERT_NE(done, nullptr);
    ASSERT_EQ(done->getLength(), 184u + 176u);
    EXPECT_EQ(done->get()[183], 0xA1);
    EXPECT_EQ(done->get()[184], 0xA2);
    EXPECT_EQ(done->get()[359], 0xA2);
    ASSERT_EQ(pid.getCurData()->getLength(), 184u);
    EXPECT_EQ(pid.getCurData()->get()[0], 0xB1);
    // Counted: what follows the header or a preceding adaptation field, and all 184 bytes
    // of the adaptation-only packet.
    EXPECT_EQ(pid.data_counter, 184u + 184u + 176u + 184u + 184u);

    pid.clear();
    pid.putPacket(Packet(0x200, 4, false, 0xC1).p);
    EXPECT_EQ(pid.getCurData()->getLength(), 0u);

    // Growth: what is missing plus 4095; the held bytes move over.
    CDataAccumulator acc;
    std::vector<uint8_t> data(5000);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<uint8_t>(i * 7);
    }
    acc.addData(data.data(), 100);
    acc.addData(data.data() + 100, 4900);
    EXPECT_EQ(acc.getSize(), 9095u);
    ASSERT_EQ(acc.getLength(), 5000u);
    EXPECT_EQ(0, std::memcmp(acc.get(), data.data(), 5000));
    acc.addData(data.data(), 4095);  // exactly full: no growth
    EXPECT_EQ(acc.getSize(), 9095u);
}

TEST(BasePID, PcrRateOverCountedBytes) {
    CBasePID pid;
    Packet pcr(0x300, 0, false, 0, 7);
    pcr.p.af.program_clock_reference_base = 90000;  // 1 s
    pid.putPCR(pcr.p);
    EXPECT_EQ(pid.lastPCR, 10000000);
    pid.data_counter = 18800;
    pcr.p.af.program_clock_reference_base = 2 * 90000;
    pid.putPCR(pcr.p);
    EXPECT_EQ(pid.data_rate_pcr, 150400);
    EXPECT_EQ(pid.data_counter, 0u);

    // The extension counts 27 MHz ticks: 270 of them are 10 microseconds.
    pid.data_counter = 10;
    pcr.p.af.program_clock_reference_extension = 270;
    pid.putPCR(pcr.p);
    EXPECT_EQ(pid.lastPCR, 20000100);
    EXPECT_NEAR(pid.data_rate_pcr, 8000000, 1);
    // A PCR that does not advance gives no rate, and no division by zero.
    pid.data_counter = 500;
    pid.putPCR(pcr.p);
    EXPECT_NEAR(pid.data_rate_pcr, 8000000, 1);
    EXPECT_EQ(pid.data_counter, 0u);
}
