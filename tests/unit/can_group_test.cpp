#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "can/can_group.h"
#include "fake_system.h"

namespace {

class CanGroupTest : public SeamTest {
  protected:
    CanGroupTest() {
        for (CanInterface& c : m().can)
            std::strcpy(c.BaseName, "can");
        m().stamps.can = m().session.counter;  // live state already fetched in this session
    }
    int call(bool write, uint8_t f2, uint8_t f3, const char* value = "") {
        RequestMessage request{0, write ? SET_PARAM : READ_PARAM, 4, f2, f3, {}};
        std::snprintf(request.da, sizeof request.da, "%s", value);
        answer = AnswerMessage{};
        return write ? setCan(request, answer, m()) : readCan(request, answer, m());
    }
    AnswerMessage answer{};
};

TEST_F(CanGroupTest, RequestsThatChangeNothingAndTheirTexts) {
    // write?, f2, f3, value, result, answer text
    const std::tuple<bool, uint8_t, uint8_t, const char*, int, const char*> cases[] = {
        // The minimum text names the maximum: clients have always been shown it so.
        {true, 1, 2, "4999", -1, "baud rate not changed! min. baud rate is 1000000!"},
        {true, 1, 2, "fast", -1, "baud rate not changed! min. baud rate is 1000000!"},
        {true, 1, 2, "1000001", -1, "baud rate not changed! max. baud rate is 1000000!"},
        {true, 1, 9, "900", -1, "Unknown subidx I in f2 (f1:4, f2:1, f3:9)"},
        {true, 1, 15, "1", -1, "Unknown subidx I in f2 (f1:4, f2:1, f3:15)"},
        {true, 2, 11, "1", -1, "read only value!"},
        {true, 0, 1, "1", -1, "read only value!"},
        {true, 0, 2, "1", -1, "unknown parameter 4 0"},
        {true, 1, 14, "", 0, ""},  // only marks, so that the apply runs
        {true, 3, 1, "1", 0, ""},  // beyond the interfaces: nothing at all, not even a mark
        {false, 0, 0, "", 0, "2"},
        {false, 0, 1, "", 0, "can"},
        {false, 0, 2, "", -1, "Unknown subidx II in f3"},
        {false, 1, 14, "", -1, "write only value!"},
        {false, 1, 15, "", -1, "Unknown subidx II in f3"},
        {false, 3, 0, "", -1, "Unknown subidx I in f2 (f1:4, f2:3, f3:0)"},
    };
    m().can[0].Baudrate = 250000;
    m().can[0].ManBr = 1;
    const auto before = m().can;
    for (const auto& [write, f2, f3, value, result, text] : cases) {
        SCOPED_TRACE(testing::Message() << write << " " << +f2 << "/" << +f3 << " " << value);
        m().changed.clearAll();
        EXPECT_EQ(call(write, f2, f3, value), result);
        EXPECT_STREQ(answer.da, text);
        EXPECT_EQ(m().changed.isSet(flag::Can, f2), write && f2 <= 2);  // even if refused
        EXPECT_EQ(std::memcmp(&before, &m().can, sizeof before), 0);
    }
}

TEST_F(CanGroupTest, WritesStoreTheirValues) {
    CanInterface& c = m().can[1];
    for (uint32_t rate : {5000u, 1000000u}) {
        c.ManBr = 1;
        EXPECT_EQ(call(true, 2, 2, std::to_string(rate).c_str()), 0);
        EXPECT_EQ(std::pair(c.Baudrate, +c.ManBr), std::pair(rate, 0));
    }
    for (auto [f3, field] : {std::pair{1, &CanInterface::Active},
                             {3, &CanInterface::Listenonly},
                             {4, &CanInterface::Autoresume},
                             {6, &CanInterface::Loopback}}) {
        EXPECT_EQ(call(true, 2, f3, "yes"), 0);  // only the first character counts
        EXPECT_EQ(c.*field, 1) << f3;
        EXPECT_EQ(call(true, 2, f3, "07"), 0);
        EXPECT_EQ(c.*field, 0) << f3;
    }
    EXPECT_EQ(call(true, 2, 0, std::string(200, 'n').c_str()), 0);
    EXPECT_EQ(std::string(c.IfName), std::string(127, 'n'));

    c.RealBaudrate = 125000;  // with register timing the bit rate read answers the real rate
    EXPECT_EQ(call(true, 2, 5, "no keywords at all"), 0);  // accepted though it does not parse
    ASSERT_EQ(call(false, 2, 2), 0);
    EXPECT_STREQ(answer.da, "125000");
}

TEST_F(CanGroupTest, ReadsFetchTheLiveStateOncePerSession) {
    // Up, state 3 (only the low byte counts), listen-only with triple sampling, 125000 bit/s.
    const uint32_t listenTriple = gw::kCtrlListenOnly | gw::kCtrlTripleSampling;
    gw::CanLinkInfo info{
        "can0", 0, gw::kCanLinkUp, 0x103, listenTriple, 0, 0, 125000, 875, 125, 1, 12, 2, 1, 3, 0};
    fake.driver.setLinkInfo(info);
    std::strcpy(info.name, "can1");
    info.bitrate = 20000;
    fake.driver.setLinkInfo(info);
    CanInterface& c = m().can[0];
    std::strcpy(c.IfName, "motor bus");
    c.Baudrate = 250000;
    c.Samplepoint = 750;
    c.Loopback = c.Oneshot = 1;  // the driver does not report one-shot
    m().session.counter = 7;
    const std::string registers = "BRP 3; RJW 1; TQ 125; PSEG1 12; PSEG2 2 ; PROPSEG 1; SP 87.5%";
    const std::string expected[] = {"motor bus", "1", "250000", "1", "0",      registers, "0",
                                    "1",         "1", "750",    "0", "125000", "875",     "3"};
    for (uint8_t f3 = 0; f3 < std::size(expected); ++f3) {
        EXPECT_EQ(call(false, 1, f3), 0);
        EXPECT_EQ(answer.da, expected[f3]) << +f3;
    }
    EXPECT_EQ(m().can[1].RealBaudrate, 20000u);
    EXPECT_EQ(fake.driver.requests.size(), 2u);  // one query per interface
    BitTiming parsed{};                          // the register text parses back
    EXPECT_EQ(parseBrRegs(registers.c_str(), parsed), 0);
    EXPECT_EQ(std::memcmp(&parsed, &c.timing, sizeof parsed), 0);

    // The next session queries again; a refused query leaves the record and is reported.
    m().session.counter = 8;
    fake.driver.failRequest(gw::kGetCanLinkInfo, EIO);
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(false, 2, 11), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "refreshCanInformation: unable to get can0 link info (errno=5)\n"
              "refreshCanInformation: unable to get can1 link info (errno=5)\n");
    EXPECT_STREQ(answer.da, "20000");
    EXPECT_EQ(fake.driver.requests.size(), 4u);
    EXPECT_EQ(fake.driver.openDescriptors(), 0);  // closed after every query

    fake.driver.failOpen(gw::kControlNode, ENOENT);
    m().session.counter = 9;
    EXPECT_EQ(call(false, 1, 11), 0);  // answered from the record all the same
    EXPECT_STREQ(answer.da, "125000");
}

TEST_F(CanGroupTest, ApplyCommandLines) {
    CanInterface& a = m().can[0];
    a.Active = a.Listenonly = 1;
    a.Baudrate = 500000;
    a.Samplepoint = 875;
    CanInterface& b = m().can[1];  // inactive: left down
    b.ManBr = b.Autoresume = b.Loopback = b.Oneshot = b.Triplesampling = 1;
    b.timing = {125, 1, 12, 2, 1, 3};
    for (unsigned instance : {0u, 1u, 2u})
        EXPECT_EQ(applyCanInterface(instance, m(), answer), 0);
    const std::vector<std::string> expected = {
        "ip link set can0 down",
        "ip link set can0 type can bitrate 500000 sample-point 0.875 listen-only on loopback off "
        "triple-sampling off one-shot off berr-reporting off ",
        "ip link set can0 up", "ip link set can1 down",
        "ip link set can1 type can tq 125 prop-seg 1 phase-seg1 12 phase-seg2 2 sjw 1 listen-only "
        "off loopback on triple-sampling on one-shot on berr-reporting off restart-ms 1"};
    EXPECT_EQ(fake.commands, expected);
    EXPECT_EQ(applyCanInterface(3, m(), answer), -1);
    EXPECT_STREQ(answer.da, "false interface intdex 3");
    EXPECT_EQ(fake.commands.size(), expected.size());
}

}  // namespace
