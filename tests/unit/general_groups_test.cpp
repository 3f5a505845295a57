#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "core/session.h"
#include "fake_system.h"
#include "model/bt.h"
#include "model/general.h"
#include "model/gui.h"
#include "model/host.h"

namespace {

struct Reply {
    int result;
    std::string da;
};

RequestMessage request(uint8_t mt, unsigned f1, unsigned f2, unsigned f3, const char* da) {
    RequestMessage r{};
    r.mt = mt;
    r.f1 = static_cast<uint8_t>(f1);
    r.f2 = static_cast<uint8_t>(f2);
    r.f3 = static_cast<uint8_t>(f3);
    std::snprintf(r.da, sizeof r.da, "%s", da);
    return r;
}

class SmallGroups : public SeamTest {
  protected:
    template <typename Handler>
    Reply call(Handler handler, unsigned f1, unsigned f2, unsigned f3, const char* da = "") {
        AnswerMessage answer{};
        const int result = handler(request(0, f1, f2, f3, da), answer, m());
        return {result, answer.da};
    }
    AnswerMessage send(uint8_t mt, unsigned f1, unsigned f2, unsigned f3, const char* da = "") {
        AnswerMessage answer{};
        (void)procMsg(request(mt, f1, f2, f3, da), answer, m());  // the answer tells
        return answer;
    }
};

TEST_F(SmallGroups, GeneralTextsAreReadOnly) {
    std::strcpy(m().general.bspVersion, "9.8.7");
    std::strcpy(m().general.hwVersion, "2.1");
    std::strcpy(m().general.orderNumber, "GWMD-1");
    std::strcpy(m().general.serialNumber, "4711");
    const char* expected[] = {"9.8.7", "2.1", "GWMD-1", "4711"};
    for (unsigned f2 = 0; f2 < 4; ++f2) {
        SCOPED_TRACE(f2);
        EXPECT_EQ(call(readGeneral, 0, f2, 0).da, expected[f2]);
        const Reply write = call(setGeneral, 0, f2, 0, "x");
        EXPECT_EQ(write.result, -1);
        EXPECT_EQ(write.da, "read only value!");
        EXPECT_EQ(call(readGeneral, 0, f2, 0).da, expected[f2]);
    }
    EXPECT_FALSE(m().changed.isSet(flag::General));
}

TEST_F(SmallGroups, DescriptionZeroIsStoredAndMarks) {
    EXPECT_EQ(call(setGeneral, 0, 4, 0, "0").result, 0);
    EXPECT_EQ(call(readGeneral, 0, 4, 0).da, "0");
    EXPECT_TRUE(m().changed.isSet(flag::General));
}

TEST_F(SmallGroups, Kl15WriteClearsFailsAndDoesNotMark) {
    struct Case {
        uint8_t byte;
        const char* reads;
    } cases[] = {{1, "1"}, {0, "0"}, {2, "0"}};
    for (const Case& c : cases) {
        m().general.KL15pwdn = c.byte;
        EXPECT_EQ(call(readGeneral, 0, 5, 0).da, c.reads);
    }
    m().general.KL15pwdn = 1;
    const Reply write = call(setGeneral, 0, 5, 0, "1");
    EXPECT_EQ(write.result, -1);
    EXPECT_EQ(write.da, "poweroff feature not supported by this hardware");
    EXPECT_EQ(call(readGeneral, 0, 5, 0).da, "0");
    EXPECT_FALSE(m().changed.isSet(flag::General));
}

TEST_F(SmallGroups, GatewayVersionIsThreeLittleEndianNumbers) {
    EXPECT_EQ(call(readGeneral, 0, 6, 0).da, "0.0.0");
    const uint8_t image[] = {0x02, 0x01, 0x00, 0x03, 0x10, 0x00, 0xFF, 0xFF};
    std::memcpy(m().forwardDefaults, image, sizeof image);
    EXPECT_EQ(call(readGeneral, 0, 6, 0).da, "258.768.16");
}

TEST_F(SmallGroups, GeneralUnknownParameters) {
    for (unsigned f2 : {7u, 8u, 255u}) {
        const Reply read = call(readGeneral, 0, f2, 3);
        EXPECT_EQ(read.result, -1);
        EXPECT_EQ(read.da, "");
    }
    for (unsigned f2 : {6u, 7u, 200u}) {
        const Reply write = call(setGeneral, 0, f2, 3, "1");
        EXPECT_EQ(write.result, -1);
        EXPECT_EQ(write.da, "Unknown subidx II in f3 (f1:0, f2:" + std::to_string(f2) + ", f3:3)");
    }
}

TEST_F(SmallGroups, GeneralApplySucceedsWhateverTheHooksSay) {
    for (uint8_t byte : {0, 1}) {
        m().general.KL15pwdn = byte;
        AnswerMessage answer{};
        EXPECT_EQ(applyGeneral(0, m(), answer), 0);
    }
}

TEST_F(SmallGroups, HostReadsTheSystemNameNotTheWrittenOne) {
    EXPECT_EQ(call(setHost, 1, 0, 0, "written").result, 0);
    EXPECT_STREQ(m().general.hostName, "written");
    EXPECT_EQ(call(readHost, 1, 0, 0).da, "host-under-test");
    EXPECT_EQ(m().stamps.host, m().session.counter);
    std::strcpy(m().general.userName, "user");
    EXPECT_EQ(call(readHost, 1, 1, 0).result, 0);
    EXPECT_EQ(call(readHost, 1, 1, 0).da, "");
    EXPECT_EQ(call(readHost, 1, 2, 0).result, -1);
    EXPECT_EQ(call(readHost, 1, 2, 0).da, "");
}

TEST_F(SmallGroups, HostWritesAreBoundedAndUnknownOnesMark) {
    const std::string longName(70, 'n');
    EXPECT_EQ(call(setHost, 1, 1, 0, longName.c_str()).result, 0);
    EXPECT_EQ(std::string(m().general.userName), longName.substr(0, 64));
    m().changed.clearAll();
    const Reply refused = call(setHost, 1, 5, 0, "x");
    EXPECT_EQ(refused.result, -1);
    EXPECT_EQ(refused.da, "unknown parameter 1 5");
    EXPECT_TRUE(m().changed.isSet(flag::Host));
}

TEST_F(SmallGroups, HostApplySetsTheStoredNameOrReportsTheError) {
    std::strcpy(m().general.hostName, "stored");
    AnswerMessage answer{};
    EXPECT_EQ(applyHost(0, m(), answer), 0);
    EXPECT_EQ(fake.hostNamesSet, std::vector<std::string>{"stored"});
    fake.setHostNameErrno = EPERM;
    EXPECT_EQ(applyHost(0, m(), answer), -1);
    EXPECT_EQ(std::string(answer.da), std::string("sethostname failed (") + strerror(EPERM) + ")");
}

TEST_F(SmallGroups, BtTexts) {
    struct Case {
        unsigned f2, f3;
        int result;
        const char* da;
    } cases[] = {{0, 0, 0, "0"},
                 {0, 1, 0, "hci"},
                 {0, 2, -1, "Unknown subidx II in f3 (f1:7, f2:0, f3:2)"},
                 {1, 0, -1, ""},
                 {1, 1, -1, ""}};
    for (const Case& c : cases) {
        const Reply r = call(readBt, 7, c.f2, c.f3);
        EXPECT_EQ(r.result, c.result) << c.f2 << "/" << c.f3;
        EXPECT_EQ(r.da, c.da) << c.f2 << "/" << c.f3;
    }
}

TEST_F(SmallGroups, GuiFlagsFollowTheFirstCharacter) {
    struct Case {
        const char* value;
        uint8_t before, after;
    } cases[] = {{"1", 0, 1},  {"10", 0, 1},   {"1abc", 0, 1}, {"0", 1, 0}, {"01", 1, 0},
                 {" 1", 1, 0}, {"true", 1, 0}, {"2", 1, 0},    {"", 1, 0}};
    for (const Case& c : cases) {
        m().gui.show[4] = c.before;
        EXPECT_EQ(call(setGui, 8, 1, 4, c.value).result, 0) << c.value;
        EXPECT_EQ(m().gui.show[4], c.after) << c.value;
    }
    // Each f3 reaches its own flag.
    for (unsigned f3 = 0; f3 < 9; ++f3) {
        m().gui = {};
        ASSERT_EQ(call(setGui, 8, 1, f3, "1").result, 0);
        for (unsigned other = 0; other < 9; ++other)
            EXPECT_EQ(call(readGui, 8, 1, other).da, other == f3 ? "1" : "0") << f3;
    }
}

TEST_F(SmallGroups, GuiRefusalsStillMark) {
    struct Case {
        unsigned f2, f3;
        const char* text;
    } cases[] = {{0, 0, "Unknown subidx II in f3 (f1:8, f2:0, f3:0)"},
                 {1, 9, "Unknown subidx II in f3 (f1:8, f2:1, f3:9)"},
                 {2, 0, "Unknown subidx I in f2 (f1:8, f2:2, f3:0)"},
                 {255, 3, "Unknown subidx I in f2 (f1:8, f2:255, f3:3)"}};
    for (const Case& c : cases) {
        m().changed.clearAll();
        const Reply write = call(setGui, 8, c.f2, c.f3, "1");
        EXPECT_EQ(write.result, -1);
        EXPECT_EQ(write.da, c.text);
        EXPECT_TRUE(m().changed.isSet(flag::Gui)) << c.text;
        const Reply read = call(readGui, 8, c.f2, c.f3);
        EXPECT_EQ(read.result, -1);
        EXPECT_EQ(read.da, c.text);
    }
    EXPECT_EQ(m().gui.show[0], 0);
}

TEST_F(SmallGroups, SessionSetsTheHostNameAtFinish) {
    send(START_SESSION, 10, 0, 1);
    EXPECT_EQ(send(SET_PARAM, 1, 0, 0, "newname").mt, POS_ANSW);
    EXPECT_EQ(std::string(send(READ_PARAM, 1, 0, 0).da), "host-under-test");
    EXPECT_TRUE(fake.hostNamesSet.empty());
    send(FINISH_SESSION, 0, 0, 0);
    EXPECT_EQ(fake.hostName, "newname");
}

TEST_F(SmallGroups, RefusedHostWriteStillSetsTheHostName) {
    std::strcpy(m().general.hostName, "kept-name");
    send(START_SESSION, 10, 0, 1);
    EXPECT_EQ(send(SET_PARAM, 1, 5, 0, "x").mt, NEG_ANSW);
    send(FINISH_SESSION, 0, 0, 0);
    EXPECT_EQ(fake.hostNamesSet, std::vector<std::string>{"kept-name"});
}

}  // namespace
