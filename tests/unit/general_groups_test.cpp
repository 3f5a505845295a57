#include <cstring>
#include <optional>
#include <tuple>

#include "core/identity.h"
#include "fake_system.h"
#include "model/general.h"
#include "model/gui.h"
#include "model/host.h"

namespace {

using Texts = std::vector<std::string>;
constexpr int kNone = -1;  // no change flag

using SmallGroups = SeamTest;

TEST_F(SmallGroups, AnswersMarksAndGuiFlags) {
    GeneralRecord& g = m().general;
    std::strcpy(g.bspVersion, "9.8.7");
    g.KL15pwdn = 1;
    const uint8_t version[] = {0x02, 0x01, 0x00, 0x03, 0x10, 0x00, 0xFF, 0xFF};  // little-endian
    std::memcpy(&m().forwardDefaults, version, sizeof version);
    // handler, f1, f2, f3, value, reply, change flag; refused writes come before the reads.
    const std::tuple<ReadHandler, uint8_t, uint8_t, uint8_t, const char*, Reply, int> cases[] = {
        {setGeneral, 0, 3, 0, "x", {-1, "read only value!"}, kNone},
        {setGeneral, 0, 6, 3, "x", {-1, "Unknown subidx II in f3 (f1:0, f2:6, f3:3)"}, kNone},
        {readGeneral, 0, 0, 0, "", {0, "9.8.7"}, kNone},
        {readGeneral, 0, 6, 0, "", {0, "258.768.16"}, kNone},
        {readGeneral, 0, 5, 0, "", {0, "1"}, kNone},
        {setGeneral, 0, 5, 0, "1", {-1, "poweroff feature not supported by this hardware"}, kNone},
        {readGeneral, 0, 5, 0, "", {0, "0"}, kNone},
        {setGeneral, 0, 4, 0, "0", {0, ""}, flag::General},
        {setHost, 1, 0, 0, "newname", {0, ""}, flag::Host},
        {readHost, 1, 0, 0, "", {0, "host-under-test"}, kNone},  // the system's, not the stored
        {setHost, 1, 5, 0, "x", {-1, "unknown parameter 1 5"}, flag::Host},  // marked all the same
        {setGui, 8, 1, 9, "1", {-1, "Unknown subidx II in f3 (f1:8, f2:1, f3:9)"}, flag::Gui},
        {setGui, 8, 2, 0, "1", {-1, "Unknown subidx I in f2 (f1:8, f2:2, f3:0)"}, flag::Gui},
    };
    for (const auto& [handler, f1, f2, f3, value, reply, marks] : cases) {
        SCOPED_TRACE(testing::Message() << +f1 << "/" << +f2 << "/" << +f3 << " " << value);
        ChangeFlags expected{};
        if (marks != kNone) expected.mark(static_cast<unsigned>(marks));
        m().changed.clearAll();
        EXPECT_EQ(handle(handler, f1, f2, f3, value), reply);
        EXPECT_EQ(m().changed.place, expected.place);
    }
    EXPECT_EQ(std::string(std::begin(m().gui.show), std::end(m().gui.show)), std::string(9, 0));
    EXPECT_EQ(Texts({g.Description, g.hostName}), Texts({"0", "newname"}));
    // The apply succeeds though the power-down hook fails.
    EXPECT_EQ(applied(applyGeneral, 0), Reply(0, ""));

    // One value per flag: the first three begin with '1' and set theirs, the others clear theirs.
    const char* values[] = {"1", "10", "1abc", "0", " 1", "true", "2", "", "01"};
    for (uint8_t f3 = 0; f3 < std::size(values); ++f3) {
        const uint8_t on = f3 < 3;
        m().gui.show[f3] = !on;
        EXPECT_EQ(handle(setGui, 8, 1, f3, values[f3]), Reply(0, "")) << values[f3];
        EXPECT_EQ(handle(readGui, 8, 1, f3), Reply(0, on ? "1" : "0")) << values[f3];
    }
}

TEST_F(SmallGroups, IdentityFromUbootEnvAndBoardInfo) {
    const std::string board = "Board: gw\nBSP version: 1.2.3\n", v40(40, 'v');
    // uboot_env, boardinfo, result, then order number, serial, hardware and BSP version
    const std::tuple<std::optional<std::string>, std::optional<std::string>, int, Texts> cases[] = {
        // A missing file (nullopt) fails after the defaults are set; the BSP version waits for
        // its file.
        {std::nullopt, std::nullopt, -1, {"GWMD-310275", "0000000", "2.0", ""}},
        {"Serialnr=42\n", std::nullopt, -1, {"GWMD-310275", "42", "2.0", "0.0.0"}},
        // A plain substring search: a key inside another word counts too.
        {"HWVersion=3.1\nSerialnr=123\nOldOrdernr=X\n", board, 0, {"X", "123", "3.1", "1.2.3"}},
        // The text's last character is never copied: each file ends the text when it is read.
        {"Ordernr=ABC-1\nSerialnr=4711", "BSP version: 4.5.6", 0, {"ABC-1", "471", "2.0", "4.5."}},
        {"Ordernr=" + v40 + "\n", "Board: gw\n", 0, {v40.substr(0, 32), "0000000", "2.0", "0.0.0"}},
        {"BSP version: 7.7.7\n", "", 0, {"GWMD-310275", "0000000", "2.0", "7.7.7"}},
    };
    const GeneralRecord& g = m().general;
    for (const auto& [env, boardInfo, result, expected] : cases) {
        if (env) fake.writeFile(kUbootEnvPath, *env);
        if (boardInfo) fake.writeFile(kBoardInfoPath, *boardInfo);
        EXPECT_EQ(readDeviceIdentity(m()), result);
        EXPECT_EQ(Texts({g.orderNumber, g.serialNumber, g.hwVersion, g.bspVersion}), expected);
    }
}

}  // namespace
