#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
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
    CanInterface& can0() { return m().can[0]; }
    AnswerMessage answer{};
};

constexpr const char* kTooLow = "baud rate not changed! min. baud rate is 1000000!";
constexpr const char* kTooHigh = "baud rate not changed! max. baud rate is 1000000!";

TEST_F(CanGroupTest, RequestsThatChangeNothingAndTheirTexts) {
    const struct {
        bool write;
        uint8_t f2, f3;
        const char* value;
        int result;
        const char* text;
    } cases[] = {
        {true, 1, 2, "4999", -1, kTooLow},
        {true, 1, 2, "fast", -1, kTooLow},
        {true, 1, 2, "-500000", -1, kTooLow},
        {true, 1, 2, "1000001", -1, kTooHigh},
        {true, 1, 2, "99999999999", -1, kTooHigh},
        {true, 1, 9, "900", -1, "Unknown subidx I in f2 (f1:4, f2:1, f3:9)"},
        {true, 2, 7, "1", -1, "Unknown subidx I in f2 (f1:4, f2:2, f3:7)"},
        {true, 1, 10, "1", -1, "Unknown subidx I in f2 (f1:4, f2:1, f3:10)"},
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
    can0().Baudrate = 250000;
    can0().ManBr = 1;
    const auto before = m().can;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.write << " " << +c.f2 << "/" << +c.f3 << " " << c.value);
        m().changed.clearAll();
        EXPECT_EQ(call(c.write, c.f2, c.f3, c.value), c.result);
        EXPECT_STREQ(answer.da, c.text);
        EXPECT_EQ(m().changed.isSet(flag::Can, c.f2), c.write && c.f2 <= 2);  // even if refused
        EXPECT_EQ(std::memcmp(&before, &m().can, sizeof before), 0);
    }
}

TEST_F(CanGroupTest, WritesStoreTheirValues) {
    can0().ManBr = 1;
    for (uint32_t rate : {5000u, 1000000u}) {
        EXPECT_EQ(call(true, 1, 2, std::to_string(rate).c_str()), 0);
        EXPECT_EQ(can0().Baudrate, rate);
        EXPECT_EQ(can0().ManBr, 0);
    }
    for (auto [f3, field] : {std::pair{1, &CanInterface::Active},
                             {3, &CanInterface::Listenonly},
                             {4, &CanInterface::Autoresume},
                             {6, &CanInterface::Loopback}}) {
        for (auto [value, expected] : {std::pair{"0", 0}, {"1", 1}, {"07", 0}, {"yes", 1}}) {
            SCOPED_TRACE(testing::Message() << f3 << " " << value);
            EXPECT_EQ(call(true, 2, f3, value), 0);
            EXPECT_EQ(m().can[1].*field, expected);
        }
    }
    EXPECT_EQ(call(true, 1, 0, std::string(200, 'n').c_str()), 0);
    EXPECT_EQ(std::string(can0().IfName), std::string(127, 'n'));
}

TEST_F(CanGroupTest, ReadsAnswerTheRecordAndTheRegisterTextParsesBack) {
    CanInterface& c = m().can[1];
    std::strcpy(c.IfName, "motor bus");
    c.Active = c.Listenonly = c.Oneshot = 1;
    c.Baudrate = 250000;
    c.RealBaudrate = 125000;
    c.Samplepoint = 750;
    c.RealSamplepoint = 875;
    c.CanState = 4;
    c.timing = {125, 0, 13, 2, 1, 3};
    const std::string registers = "BRP 3; RJW 1; TQ 125; PSEG1 13; PSEG2 2 ; PROPSEG 0; SP 87.5%";
    const std::string expected[] = {"motor bus", "1", "250000", "1", "0",      registers, "0",
                                    "1",         "0", "750",    "0", "125000", "875",     "4"};
    for (uint8_t f3 = 0; f3 < std::size(expected); ++f3) {
        EXPECT_EQ(call(false, 2, f3), 0);
        EXPECT_EQ(answer.da, expected[f3]) << +f3;
    }
    BitTiming parsed{};
    EXPECT_EQ(parseBrRegs(registers.c_str(), parsed), 0);
    EXPECT_EQ(std::memcmp(&parsed, &c.timing, sizeof parsed), 0);
}

TEST_F(CanGroupTest, RegisterWriteSwitchesTheBitrateReadToTheRealRate) {
    can0().Baudrate = 500000;
    can0().RealBaudrate = 1000000;
    EXPECT_EQ(call(true, 1, 5, "no keywords at all"), 0);  // accepted though it does not parse
    EXPECT_EQ(can0().ManBr, 1);
    ASSERT_EQ(call(false, 1, 2), 0);
    EXPECT_STREQ(answer.da, "1000000");
}

gw::CanLinkInfo linkInfo(const char* name, uint32_t bitrate) {
    gw::CanLinkInfo info{};
    info.flags = gw::kCanLinkUp;
    info.state = 0x103;  // only the low byte is the state
    info.ctrlMode = gw::kCtrlLoopback | gw::kCtrlTripleSampling;
    info.bitrate = bitrate;
    info.samplePoint = 875;
    info.tq = 125;
    info.propSeg = 1;
    info.phaseSeg1 = 12;
    info.phaseSeg2 = 2;
    info.sjw = 1;
    info.brp = 3;
    std::strcpy(info.name, name);
    return info;
}

long linkInfoRequests(const SimDriver& driver) {
    return std::count_if(driver.requests.begin(), driver.requests.end(),
                         [](const auto& r) { return r.request == gw::kGetCanLinkInfo; });
}

TEST_F(CanGroupTest, LiveStateIsFetchedOncePerSessionAndTheNodeClosed) {
    fake.driver.setLinkInfo(linkInfo("can0", 250000));
    fake.driver.setLinkInfo(linkInfo("can1", 125000));
    can0().Listenonly = can0().Oneshot = can0().Autoresume = 1;
    m().session.counter = 7;
    for (uint8_t f2 : {1, 2, 1})
        EXPECT_EQ(call(false, f2, 11), 0);
    EXPECT_STREQ(answer.da, "250000");
    EXPECT_EQ(m().can[1].RealBaudrate, 125000u);
    EXPECT_EQ(linkInfoRequests(fake.driver), 2);
    EXPECT_EQ(fake.driver.openDescriptors(), 0);
    EXPECT_EQ(fake.driver.badCloses, 0);

    const CanInterface& c = can0();
    EXPECT_EQ(std::vector<int>({c.Active, c.Loopback, c.Listenonly, c.Triplesampling, c.CanState}),
              std::vector<int>({1, 1, 0, 1, 3}));
    EXPECT_EQ(c.RealSamplepoint, 875u);
    const BitTiming live{125, 1, 12, 2, 1, 3};
    EXPECT_EQ(std::memcmp(&c.timing, &live, sizeof live), 0);
    EXPECT_EQ(c.Oneshot + c.Autoresume, 2);  // the driver does not report them

    m().session.counter = 8;
    fake.driver.setLinkInfo(linkInfo("can0", 500000));
    EXPECT_EQ(call(false, 1, 11), 0);
    EXPECT_STREQ(answer.da, "500000");
    EXPECT_EQ(linkInfoRequests(fake.driver), 4);
}

TEST_F(CanGroupTest, FailedQueryLeavesTheRecordAndIsReported) {
    fake.driver.setLinkInfo(linkInfo("can0", 250000));
    fake.driver.failRequest(gw::kGetCanLinkInfo, EIO);
    can0().RealBaudrate = 42;
    const CanInterface before = can0();
    testing::internal::CaptureStderr();
    EXPECT_EQ(refreshCanInformation(0, m()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "refreshCanInformation: unable to get can0 link info (errno=5)\n");
    EXPECT_EQ(std::memcmp(&before, &can0(), sizeof before), 0);
    EXPECT_EQ(fake.driver.openDescriptors(), 0);

    fake.driver.failOpen(gw::kControlNode, ENOENT);
    EXPECT_EQ(refreshCanInformation(0, m()), -1);
    m().session.counter = 1;
    EXPECT_EQ(call(false, 1, 11), 0);  // answered from the record all the same
    EXPECT_STREQ(answer.da, "42");
}

TEST_F(CanGroupTest, ApplyCommandLines) {
    const std::string rateLine =
        "ip link set can0 type can bitrate 500000 sample-point 0.875 listen-only on loopback off "
        "triple-sampling off one-shot off berr-reporting off ";
    const struct {
        unsigned instance;
        void (*setup)(CanInterface&);
        std::vector<std::string> commands;
    } cases[] = {
        {1, [](CanInterface&) {}, {"ip link set can0 down", rateLine, "ip link set can0 up"}},
        {2,
         [](CanInterface& c) {
             c.ManBr = c.Autoresume = c.Loopback = c.Oneshot = c.Triplesampling = 1;
             c.Active = c.Listenonly = 0;
         },
         {"ip link set can1 down",
          "ip link set can1 type can tq 125 prop-seg 1 phase-seg1 12 phase-seg2 2 sjw 1 "
          "listen-only off loopback on triple-sampling on one-shot on berr-reporting off "
          "restart-ms 1"}},
        {0, [](CanInterface&) {}, {}},
    };
    for (const auto& c : cases) {
        for (CanInterface& record : m().can) {
            record = CanInterface{};
            std::strcpy(record.BaseName, "can");
            record.Active = record.Listenonly = 1;
            record.Baudrate = 500000;
            record.Samplepoint = 875;
            record.timing = {125, 1, 12, 2, 1, 3};
            c.setup(record);
        }
        fake.commands.clear();
        EXPECT_EQ(applyCanInterface(c.instance, m(), answer), 0);
        EXPECT_EQ(fake.commands, c.commands) << c.instance;
    }
    EXPECT_EQ(applyCanInterface(3, m(), answer), -1);
    EXPECT_STREQ(answer.da, "false interface intdex 3");
    EXPECT_TRUE(fake.commands.empty());
}

}  // namespace
