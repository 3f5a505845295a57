// The clients' parameter names against the groups' handlers: every name reaches a parameter
// that answers as its access says, and every address that answers a value has a name.

#include <cstring>
#include <set>

#include "config/loader.h"
#include "core/session.h"
#include "fake_system.h"
#include "filters/filter_store.h"
#include "model/param_names.h"

namespace {

constexpr uint8_t kAddress = 42;
constexpr unsigned kLastSubIndex = 40;

class ParamNames : public SeamTest {
  protected:
    ParamNames() {
        // The defaults (no file), the interfaces' base names and links, as after start-up.
        (void)loadConfiguration(m());  // a missing file gives the defaults, and 0
        m().wlan.SupportedModes = 7;   // station, ad-hoc and AP, as the start-up gives it
        for (unsigned i = 0; i < kCanServed; ++i) {
            CanInterface& can = m().can[i];
            std::strcpy(can.BaseName, "can");
            gw::CanLinkInfo info{};
            std::snprintf(info.name, sizeof info.name, "can%u", i);
            info.bitrate = can.Baudrate;
            fake.driver.setLinkInfo(info);
        }
        // Each route on its node, as the driver start hands them out.
        for (unsigned i = 0; i < kRoutesServed; ++i)
            m().routes[i].DrvIndex = static_cast<uint8_t>(i);
        // Every filter exists, as a write of its kind makes it, so that its parameters answer.
        for (uint32_t index = 0; index < kMaxFilters; ++index)
            (void)insertFilter(m().filters, {index, kRange11, 1, {}, {}, 0, 0});
    }
    void start(uint8_t writes) { ASSERT_EQ(send(START_SESSION, kAddress, 0, writes).mt, POS_ANSW); }
    AnswerMessage read(const Param& p) { return send(READ_PARAM, p.f1, p.f2, p.f3); }
    // A temporary write in a session of its own, so that nothing is stored.
    AnswerMessage write(const Param& p, const char* value) {
        start(1);
        const AnswerMessage answer = send(SET_TEMP_PARAM, p.f1, p.f2, p.f3, value);
        send(FINISH_SESSION);
        return answer;
    }
};

TEST_F(ParamNames, AreUniqueFitAndAnswerAsTheirAccessSays) {
    std::set<std::string> names;
    for (std::size_t i = 0; i < paramCount(); ++i) {
        const Param p = paramAt(i);
        EXPECT_TRUE(names.insert(p.name).second) << p.name << " twice";
        Param found{};
        ASSERT_TRUE(findParam(p.name, found)) << p.name;
        EXPECT_EQ(std::tie(found.f1, found.f2, found.f3), std::tie(p.f1, p.f2, p.f3)) << p.name;

        start(0);
        const AnswerMessage before = read(p);
        send(FINISH_SESSION);
        if (p.access == ParamAccess::WriteOnly) {
            EXPECT_TRUE(before.mt == NEG_ANSW || before.da[0] == '\0') << p.name;
            continue;
        }
        ASSERT_EQ(before.mt, POS_ANSW) << p.name << ": " << before.da;
        if (p.access == ParamAccess::ReadWrite) {
            const bool none = p.noneText != nullptr && std::strcmp(before.da, p.noneText) == 0;
            const AnswerMessage written = write(p, none ? "" : before.da);
            EXPECT_EQ(written.mt, POS_ANSW) << p.name << ": " << written.da;
            // The size the clients are given is what the handler keeps: one character more is
            // cut (legacy) or refused (hardened), never kept.
            if (p.chars != 0 && p.chars + 1u < kDataSize) {
                const bool taken = write(p, std::string(p.chars + 1u, 'a').c_str()).mt == POS_ANSW;
                start(0);
                EXPECT_EQ(std::strlen(read(p).da), taken ? p.chars : std::strlen(before.da))
                    << p.name;
                send(FINISH_SESSION);
                (void)write(p, before.da);
            }
            continue;
        }
        // Some groups take any write and change nothing; either way the value stays.
        (void)write(p, (std::string(before.da) + "7").c_str());
        start(0);
        EXPECT_STREQ(read(p).da, before.da) << p.name;
        send(FINISH_SESSION);
    }
}

TEST_F(ParamNames, NameEveryAddressThatAnswersAValue) {
    start(0);
    for (uint8_t f1 = 0; f1 < 10; ++f1) {
        if (f1 == 6) continue;  // Status answers every address with nothing
        // General and Host choose the parameter by f2 and do not look at f3.
        const unsigned lastF3 = f1 <= 1 ? 0 : kLastSubIndex;
        for (uint8_t f2 = 0; f2 <= kLastSubIndex; ++f2) {
            for (uint8_t f3 = 0; f3 <= lastF3; ++f3) {
                const AnswerMessage a = send(READ_PARAM, f1, f2, f3);
                if (a.mt != POS_ANSW || a.da[0] == '\0' || std::strcmp(a.da, "- none -") == 0)
                    continue;
                Param p{};
                EXPECT_TRUE(findParamAt(f1, f2, f3, p))
                    << +f1 << " " << +f2 << " " << +f3 << " answers \"" << a.da << "\"";
            }
        }
    }
}

}  // namespace
