#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "core/identity.h"
#include "fake_system.h"

namespace {

using Identity = SeamTest;

std::vector<std::string> texts(const GeneralRecord& g) {
    return {g.orderNumber, g.serialNumber, g.hwVersion, g.bspVersion};
}

TEST_F(Identity, UbootEnvAndBoardInfo) {
    const std::string board = "Board: gw\nBSP version: 1.2.3\n", v40(40, 'v');
    const std::vector<std::string> defaults = {"GWMD-310275", "0000000", "2.0", "0.0.0"};
    // uboot_env, boardinfo, then order number, serial, hardware and BSP version
    const std::tuple<std::string, std::string, std::vector<std::string>> cases[] = {
        {"Ordernr=ABC-1\n", board, {"ABC-1", "0000000", "2.0", "1.2.3"}},
        {"HWVersion=3.1\nSerialnr=123\nOrdernr=X\n", board, {"X", "123", "3.1", "1.2.3"}},
        // The text's last character is never copied: each file ends the text when it is read.
        {"Ordernr=ABC-1\nSerialnr=4711", "BSP version: 4.5.6", {"ABC-1", "471", "2.0", "4.5."}},
        {"Ordernr=" + v40 + "\n", board, {v40.substr(0, 32), "0000000", "2.0", "1.2.3"}},
        // A plain substring search: the first occurrence counts, inside another word too, and
        // the value starts behind the next separator, wherever it is.
        {"OldOrdernr=7\nSerialnr\nHWVersion=8\n", board, {"7", "8", "8", "1.2.3"}},
        {"BSP version: 7.7.7\n", "Board: gw\n", {"GWMD-310275", "0000000", "2.0", "7.7.7"}},
        {"", "Board: gw\n", defaults},
        // Both files share 2047 bytes: a key behind the limit and the board file go unread.
        {std::string(2040, 'x') + "\nSerialnr=9\n", board, defaults},
    };
    for (const auto& [env, boardInfo, expected] : cases) {
        m().general = {};
        fake.writeFile(kUbootEnvPath, env);
        fake.writeFile(kBoardInfoPath, boardInfo);
        EXPECT_EQ(readDeviceIdentity(m()), 0);
        EXPECT_EQ(texts(m().general), expected) << env.substr(0, 40);
    }
}

TEST_F(Identity, MissingFilesFailWithDefaults) {
    EXPECT_EQ(readDeviceIdentity(m()), -1);
    const GeneralRecord& g = m().general;
    EXPECT_EQ(std::vector<std::string>({g.swVersion, g.buildDate, g.buildTime}),
              std::vector<std::string>({"1.5.5", "Jan 25 2017", "13:37:14"}));
    EXPECT_EQ(texts(g), std::vector<std::string>({"GWMD-310275", "0000000", "2.0", ""}));
    fake.writeFile(kUbootEnvPath, "Serialnr=42\n");
    EXPECT_EQ(readDeviceIdentity(m()), -1);
    EXPECT_EQ(texts(g), std::vector<std::string>({"GWMD-310275", "42", "2.0", "0.0.0"}));
}

}  // namespace
