#include <gtest/gtest.h>

#include <string>

#include "core/identity.h"
#include "fake_system.h"

namespace {

using Identity = SeamTest;

constexpr const char* kBoardInfo = "Board: gw\nBSP version: 1.2.3\n";

TEST_F(Identity, UbootEnvValues) {
    const std::string forty(40, 'v');
    struct Case {
        std::string env;
        const char *order, *serial, *hw;
    } cases[] = {
        {"Ordernr=ABC-1\n", "ABC-1", "0000000", "2.0"},
        {"HWVersion=3.1\nSerialnr=123\nOrdernr=X\n", "X", "123", "3.1"},
        // The text's last character is never copied.
        {"Ordernr=ABC-1\nSerialnr=4711", "ABC-1", "471", "2.0"},
        {"Ordernr=" + forty + "\n", "vvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvv", "0000000", "2.0"},
        // A plain substring search: the first occurrence counts, inside another word too.
        {"OldOrdernr=7\nOrdernr=8\n", "7", "0000000", "2.0"},
        // The value starts behind the next '=', wherever it is.
        {"Ordernr\nSerialnr=55\n", "55", "55", "2.0"},
        {"", "GWMD-310275", "0000000", "2.0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.env);
        m().general = {};
        fake.writeFile(kUbootEnvPath, c.env);
        fake.writeFile(kBoardInfoPath, kBoardInfo);
        EXPECT_EQ(readDeviceIdentity(m()), 0);
        EXPECT_STREQ(m().general.orderNumber, c.order);
        EXPECT_STREQ(m().general.serialNumber, c.serial);
        EXPECT_STREQ(m().general.hwVersion, c.hw);
        EXPECT_STREQ(m().general.bspVersion, "1.2.3");
    }
}

TEST_F(Identity, BspVersionSearchesBothTexts) {
    struct Case {
        const char *env, *board, *bsp;
    } cases[] = {
        {"Ordernr=A\n", "BSP version: 4.5\n", "4.5"},
        {"Ordernr=A\n", "BSP version: 4.5.6", "4.5."},
        {"BSP version: 7.7.7\n", "Board: gw\n", "7.7.7"},
        {"Ordernr=A\n", "Board: gw\n", "0.0.0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.board);
        m().general = {};
        fake.writeFile(kUbootEnvPath, c.env);
        fake.writeFile(kBoardInfoPath, c.board);
        EXPECT_EQ(readDeviceIdentity(m()), 0);
        EXPECT_STREQ(m().general.bspVersion, c.bsp);
    }
}

TEST_F(Identity, ReadingStopsAt2047Bytes) {
    // The boot loader's text fills the buffer: a key behind the limit and the board file go
    // unread.
    fake.writeFile(kUbootEnvPath, std::string(2040, 'x') + "\nSerialnr=9\n");
    fake.writeFile(kBoardInfoPath, kBoardInfo);
    EXPECT_EQ(readDeviceIdentity(m()), 0);
    EXPECT_STREQ(m().general.serialNumber, "0000000");
    EXPECT_STREQ(m().general.bspVersion, "0.0.0");
}

TEST_F(Identity, MissingFilesFailWithDefaults) {
    EXPECT_EQ(readDeviceIdentity(m()), -1);
    EXPECT_STREQ(m().general.swVersion, "1.5.5");
    EXPECT_STREQ(m().general.buildDate, "Jan 25 2017");
    EXPECT_STREQ(m().general.buildTime, "13:37:14");
    EXPECT_STREQ(m().general.orderNumber, "GWMD-310275");
    EXPECT_STREQ(m().general.serialNumber, "0000000");
    EXPECT_STREQ(m().general.hwVersion, "2.0");
    EXPECT_STREQ(m().general.bspVersion, "");

    fake.writeFile(kUbootEnvPath, "Serialnr=42\n");
    EXPECT_EQ(readDeviceIdentity(m()), -1);
    EXPECT_STREQ(m().general.serialNumber, "42");
    EXPECT_STREQ(m().general.bspVersion, "0.0.0");
}

}  // namespace
