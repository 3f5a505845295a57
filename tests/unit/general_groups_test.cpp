#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <tuple>
#include <utility>

#include "core/session.h"
#include "fake_system.h"
#include "model/bt.h"
#include "model/general.h"
#include "model/gui.h"
#include "model/host.h"

namespace {

using Reply = std::pair<int, std::string>;  // a handler's result and answer text
constexpr const char* kReadOnly = "read only value!";
constexpr int kNone = -1;  // no change flag

class SmallGroups : public SeamTest {
  protected:
    // Hands one request to a group handler or to procMsg.
    Reply call(ReadHandler handler, uint8_t f1, uint8_t f2, uint8_t f3, const char* da = "",
               uint8_t mt = READ_PARAM) {
        RequestMessage request{0, mt, f1, f2, f3, {}};
        std::snprintf(request.da, sizeof request.da, "%s", da);
        AnswerMessage answer{};
        const int result = handler(request, answer, m());
        return {result, answer.da};
    }
};

TEST_F(SmallGroups, AnswersAndMarks) {
    GeneralRecord& g = m().general;
    std::strcpy(g.bspVersion, "9.8.7");
    std::strcpy(g.hwVersion, "2.1");
    std::strcpy(g.orderNumber, "GWMD-1");
    std::strcpy(g.serialNumber, "4711");
    g.KL15pwdn = 1;
    const uint8_t version[] = {0x02, 0x01, 0x00, 0x03, 0x10, 0x00, 0xFF, 0xFF};  // little-endian
    std::memcpy(m().forwardDefaults, version, sizeof version);
    const std::string longName(70, 'n');
    // handler, f1, f2, f3, value, reply, change flag; refused writes come before the reads.
    const std::tuple<ReadHandler, uint8_t, uint8_t, uint8_t, const char*, Reply, int> cases[] = {
        {setGeneral, 0, 0, 0, "x", {-1, kReadOnly}, kNone},
        {setGeneral, 0, 1, 0, "x", {-1, kReadOnly}, kNone},
        {setGeneral, 0, 2, 0, "x", {-1, kReadOnly}, kNone},
        {setGeneral, 0, 3, 0, "x", {-1, kReadOnly}, kNone},
        {setGeneral, 0, 6, 3, "x", {-1, "Unknown subidx II in f3 (f1:0, f2:6, f3:3)"}, kNone},
        {setGeneral, 0, 200, 3, "x", {-1, "Unknown subidx II in f3 (f1:0, f2:200, f3:3)"}, kNone},
        {readGeneral, 0, 0, 0, "", {0, "9.8.7"}, kNone},
        {readGeneral, 0, 1, 0, "", {0, "2.1"}, kNone},
        {readGeneral, 0, 2, 0, "", {0, "GWMD-1"}, kNone},
        {readGeneral, 0, 3, 0, "", {0, "4711"}, kNone},
        {readGeneral, 0, 6, 0, "", {0, "258.768.16"}, kNone},
        {readGeneral, 0, 7, 0, "", {-1, ""}, kNone},
        {readGeneral, 0, 5, 0, "", {0, "1"}, kNone},
        {setGeneral, 0, 5, 0, "1", {-1, "poweroff feature not supported by this hardware"}, kNone},
        {readGeneral, 0, 5, 0, "", {0, "0"}, kNone},
        {setGeneral, 0, 4, 0, "0", {0, ""}, flag::General},
        {readGeneral, 0, 4, 0, "", {0, "0"}, kNone},
        {setHost, 1, 1, 0, longName.c_str(), {0, ""}, flag::Host},
        {readHost, 1, 1, 0, "", {0, ""}, kNone},  // the user name is not served
        {readHost, 1, 2, 0, "", {-1, ""}, kNone},
        {readBt, 7, 0, 0, "", {0, "0"}, kNone},
        {readBt, 7, 0, 1, "", {0, "hci"}, kNone},
        {readBt, 7, 0, 2, "", {-1, "Unknown subidx II in f3 (f1:7, f2:0, f3:2)"}, kNone},
        {readBt, 7, 1, 1, "", {-1, ""}, kNone},
        {setGui, 8, 0, 0, "1", {-1, "Unknown subidx II in f3 (f1:8, f2:0, f3:0)"}, flag::Gui},
        {setGui, 8, 1, 9, "1", {-1, "Unknown subidx II in f3 (f1:8, f2:1, f3:9)"}, flag::Gui},
        {setGui, 8, 2, 0, "1", {-1, "Unknown subidx I in f2 (f1:8, f2:2, f3:0)"}, flag::Gui},
        {readGui, 8, 1, 9, "", {-1, "Unknown subidx II in f3 (f1:8, f2:1, f3:9)"}, kNone},
    };
    for (const auto& [handler, f1, f2, f3, value, reply, marks] : cases) {
        SCOPED_TRACE(testing::Message() << +f1 << "/" << +f2 << "/" << +f3 << " " << value);
        ChangeFlags expected{};
        if (marks != kNone) expected.mark(static_cast<unsigned>(marks));
        m().changed.clearAll();
        EXPECT_EQ(call(handler, f1, f2, f3, value), reply);
        EXPECT_EQ(m().changed.place, expected.place);
    }
    EXPECT_EQ(std::count(std::begin(m().gui.show), std::end(m().gui.show), 0), 9);
    EXPECT_EQ(g.userName, std::string(64, 'n'));
    AnswerMessage answer{};  // the apply succeeds whatever the power-down hooks say
    EXPECT_EQ(applyGeneral(0, m(), answer), 0);
    g.KL15pwdn = 2;  // only 1 means enabled
    EXPECT_EQ(call(readGeneral, 0, 5, 0), Reply(0, "0"));
    g.KL15pwdn = 1;
    EXPECT_EQ(applyGeneral(0, m(), answer), 0);
}

TEST_F(SmallGroups, GuiFlagsFollowTheFirstCharacter) {
    // One value per flag: the first three begin with '1' and set theirs, the others clear theirs.
    const char* values[] = {"1", "10", "1abc", "0", " 1", "true", "2", "", "01"};
    for (uint8_t f3 = 0; f3 < std::size(values); ++f3) {
        const uint8_t on = f3 < 3;
        m().gui.show[f3] = !on;
        EXPECT_EQ(call(setGui, 8, 1, f3, values[f3]), Reply(0, ""));
        EXPECT_EQ(m().gui.show[f3], on) << values[f3];
        EXPECT_EQ(call(readGui, 8, 1, f3), Reply(0, on ? "1" : "0")) << values[f3];
    }
}

TEST_F(SmallGroups, HostNameIsSetAtFinishEvenAfterARefusedWrite) {
    (void)call(procMsg, 10, 0, 1, "", START_SESSION);  // answer address 10, one write announced
    EXPECT_EQ(call(procMsg, 1, 0, 0, "newname", SET_PARAM).first, 0);
    EXPECT_EQ(call(procMsg, 1, 0, 0), Reply(0, "host-under-test"));  // not before the finish
    EXPECT_TRUE(fake.hostNamesSet.empty());
    (void)call(procMsg, 0, 0, 0, "", FINISH_SESSION);
    EXPECT_EQ(fake.hostName, "newname");

    std::strcpy(m().general.hostName, "kept-name");
    (void)call(procMsg, 10, 0, 1, "", START_SESSION);
    EXPECT_EQ(call(procMsg, 1, 5, 0, "x", SET_PARAM), Reply(-1, "unknown parameter 1 5"));
    (void)call(procMsg, 0, 0, 0, "", FINISH_SESSION);
    EXPECT_EQ(fake.hostNamesSet, (std::vector<std::string>{"newname", "kept-name"}));
}

}  // namespace
