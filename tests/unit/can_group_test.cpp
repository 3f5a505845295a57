#include <cstring>
#include <tuple>

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
    Reply call(bool write, uint8_t f2, uint8_t f3, const char* value = "") {
        return handle(write ? setCan : readCan, 4, f2, f3, value);
    }
};

TEST_F(CanGroupTest, RefusalsChangeNothingWritesStoreTheirValues) {
    // write?, f2, f3, value, result, answer text
    const std::tuple<bool, uint8_t, uint8_t, const char*, int, const char*> cases[] = {
        // The minimum text names the maximum: clients have always been shown it so.
        {true, 1, 2, "4999", -1, "baud rate not changed! min. baud rate is 1000000!"},
        {true, 1, 2, "1000001", -1, "baud rate not changed! max. baud rate is 1000000!"},
        {true, 1, 9, "900", -1, "Unknown subidx I in f2 (f1:4, f2:1, f3:9)"},
        {true, 2, 11, "1", -1, "read only value!"},
        {true, 0, 2, "1", -1, "unknown parameter 4 0"},
        {true, 1, 14, "", 0, ""},  // only marks, so that the apply runs
        {true, 3, 1, "1", 0, ""},  // beyond the interfaces: nothing at all, not even a mark
        {false, 3, 0, "", -1, "Unknown subidx I in f2 (f1:4, f2:3, f3:0)"},
    };
    m().can[0].ManBr = 1;
    const auto before = m().can;
    for (const auto& [write, f2, f3, value, result, text] : cases) {
        SCOPED_TRACE(testing::Message() << write << " " << +f2 << "/" << +f3 << " " << value);
        m().changed.clearAll();
        EXPECT_EQ(call(write, f2, f3, value), Reply(result, text));
        EXPECT_EQ(m().changed.isSet(flag::Can, f2), write && f2 <= 2);  // even if refused
        EXPECT_EQ(std::memcmp(&before, &m().can, sizeof before), 0);
    }

    CanInterface& c = m().can[1];
    c.ManBr = c.Listenonly = c.Loopback = 1;
    // The lowest bit rate is accepted; a switch is on unless the first character is '0'.
    const std::pair<uint8_t, const char*> writes[] = {{0, "motor bus"}, {1, "yes"}, {2, "5000"},
                                                      {3, "07"},        {4, "x"},   {6, "0"}};
    for (const auto& [f3, value] : writes)
        EXPECT_EQ(call(true, 2, f3, value), Reply(0, "")) << +f3;
    EXPECT_STREQ(c.IfName, "motor bus");
    EXPECT_EQ(std::vector<uint32_t>(
                  {c.Active, c.Baudrate, c.ManBr, c.Listenonly, c.Autoresume, c.Loopback}),
              std::vector<uint32_t>({1, 5000, 0, 0, 1, 0}));

    c.RealBaudrate = 125000;  // with register timing the bit rate read answers the real rate
    EXPECT_EQ(call(true, 2, 5, "no keywords at all"), Reply(0, ""));  // though it does not parse
    EXPECT_EQ(call(false, 2, 2), Reply(0, "125000"));
}

TEST_F(CanGroupTest, ReadsFetchTheLiveStateOncePerSessionApplyWritesCommandLines) {
    // Up, state 3 (only the low byte counts), listen-only with triple sampling, 125000 bit/s.
    const uint32_t listenTriple = gw::kCtrlListenOnly | gw::kCtrlTripleSampling;
    gw::CanLinkInfo info{
        "can0", 0, gw::kCanLinkUp, 0x103, listenTriple, 0, 0, 125000, 875, 125, 1, 12, 2, 1, 3, 0};
    fake.driver.setLinkInfo(info);
    std::strcpy(info.name, "can1");
    fake.driver.setLinkInfo(info);
    CanInterface& c = m().can[0];
    std::tie(c.Samplepoint, c.Loopback, c.Oneshot) = std::tuple(750, 1, 1);  // one-shot: unreported
    m().session.counter = 7;
    const std::string registers = "BRP 3; RJW 1; TQ 125; PSEG1 12; PSEG2 2 ; PROPSEG 1; SP 87.5%";
    const std::string expected[] = {"",        "1",      "0",   "1", "0",
                                    registers, "0",      "1",   "1", "750",
                                    "0",       "125000", "875", "3", "write only value!"};
    for (uint8_t f3 = 0; f3 < std::size(expected); ++f3)
        EXPECT_EQ(call(false, 1, f3), Reply(f3 < 14 ? 0 : -1, expected[f3])) << +f3;

    m().session.counter = 8;  // the next session queries again
    EXPECT_EQ(call(false, 2, 11), Reply(0, "125000"));
    EXPECT_EQ(fake.driver.requests.size(), 4u);   // one query per interface and session
    EXPECT_EQ(fake.driver.openDescriptors(), 0);  // closed after every query

    m().can[0] = {"", 1, 500000, 0, 875, 0, 1, 0, {}, 0, 0, 0, 0, 0, 0, "can"};
    // Inactive: left down.
    m().can[1] = {"", 0, 0, 0, 0, 0, 0, 1, {125, 1, 12, 2, 1, 3}, 1, 1, 1, 0, 0, 1, "can"};
    for (unsigned instance : {0u, 1u, 2u})
        EXPECT_EQ(applied(applyCanInterface, instance), Reply(0, ""));
    const std::vector<std::string> lines = {
        "ip link set can0 down",
        "ip link set can0 type can bitrate 500000 sample-point 0.875 listen-only on loopback off "
        "triple-sampling off one-shot off berr-reporting off ",
        "ip link set can0 up", "ip link set can1 down",
        "ip link set can1 type can tq 125 prop-seg 1 phase-seg1 12 phase-seg2 2 sjw 1 listen-only "
        "off loopback on triple-sampling on one-shot on berr-reporting off restart-ms 1"};
    EXPECT_EQ(fake.commands, lines);
    EXPECT_EQ(applied(applyCanInterface, 3), Reply(-1, "false interface intdex 3"));
}

constexpr uint32_t kKept = 77;  // a value the parse did not reach

TEST(ParseBrRegs, KeywordsResultsAndDerivedTq) {
    // text, result, then tq, prop_seg, phase_seg1, phase_seg2, sjw and brp afterwards
    const std::tuple<const char*, int, std::vector<uint32_t>> cases[] = {
        // Without TQ it follows from BRP at 24 MHz, truncated.
        {"BRP 1; RJW 1; PSEG1 1; PSEG2 1; PROPSEG 1", 0, {41, 1, 1, 1, 1, 1}},
        // 200001000 is no float: single precision gives 8333374 where double gives 8333375.
        {"BRP 200001; RJW 1; PSEG1 1; PSEG2 1; PROPSEG 1", 0, {8333374, 1, 1, 1, 1, 200001}},
        // A missing required keyword stops the parse, keeping what was stored before it.
        {"BRP 3; PSEG1 13; PSEG2 2; PROPSEG 0", -1, {kKept, kKept, kKept, kKept, kKept, 3}},
        // Neither BRP nor TQ: everything required is stored, and still a failure.
        {"RJW 1; PSEG1 13; PSEG2 2; PROPSEG 4", -1, {kKept, 4, 13, 2, 1, kKept}},
        {"RJW 1; TQ 50; PSEG1 1; PSEG2 1; PROPSEG 1", 0, {50, 1, 1, 1, 1, kKept}},
        // A given TQ wins over BRP; negative numbers count as 0.
        {"BRP 6; RJW 1; TQ 100; PSEG1 -2; PSEG2 2; PROPSEG 0", 0, {100, 0, 0, 2, 1, 6}},
    };
    for (const auto& [text, result, after] : cases) {
        SCOPED_TRACE(text);
        BitTiming t{kKept, kKept, kKept, kKept, kKept, kKept};
        EXPECT_EQ(parseBrRegs(text, t), result);
        EXPECT_EQ(std::vector({t.tq, t.prop_seg, t.phase_seg1, t.phase_seg2, t.sjw, t.brp}), after);
    }
}

}  // namespace
