#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "config/conversions.h"
#include "config/ini_layout.h"
#include "fake_system.h"

using namespace ini;

namespace {

// SeamTest starts every test with fresh key names and format flags.
class IniLayout : public SeamTest {
  protected:
    static constexpr const char* kPath = "/kiv_config.ini";
    // The file at kPath as the library reads it; freed with the test.
    dictionary* loadFile() {
        loaded_.reset(iniparser_load(fake.pathOf(kPath).c_str()));
        return loaded_.get();
    }
    std::unique_ptr<dictionary, void (*)(dictionary*)> loaded_{nullptr, iniparser_freedict};
};

// A key's address, checked against the length reported (-1 for none).
std::string address(Section section, int number, unsigned place) {
    KeyAddress out;
    const int length = keyAddress(out, section, number, place);
    EXPECT_EQ(length, out[0] != '\0' ? static_cast<int>(std::strlen(out)) : -1) << out;
    return out;
}

TEST_F(IniLayout, AddressesFollowTheNumberingAndFitIn200Bytes) {
    EXPECT_EQ(address(Section::Host, 5, host_key::Devicename), "HOST:Devicename");
    EXPECT_EQ(address(Section::Can, 1, can_key::BR_Register), "CAN_1:BR_Register");
    EXPECT_EQ(address(Section::Route, 0, 40), "");  // beyond the list
    KeyAddress out;
    EXPECT_EQ(sectionAddress(out, Section::Gui, 3), 3);
    EXPECT_STREQ(out, "GUI");

    const std::string section(197, 's');
    EXPECT_EQ(formatKey(out, section.c_str(), "k"), 199);
    EXPECT_EQ(formatKey(out, section.c_str(), "kk"), -1);
    EXPECT_STREQ(out, "");
}

TEST_F(IniLayout, ReadersClampAfterA32BitReadAndKeepLiteralDefaults) {
    fake.writeFile(kPath,
                   "[CAN_1]\nSamplepoint = 4294967296\n"  // the library's getint wraps it to 0
                   "[RT_0]\nCdm = 5\nActive = maybe\n[RT_1]\nCdm = -3\n");
    const dictionary* file = loadFile();
    EXPECT_EQ(readInteger(file, Section::Can, 1, can_key::Samplepoint), 1000);
    EXPECT_EQ(readInteger(file, Section::Route, 0, route_key::Cdm), 10);
    EXPECT_EQ(readInteger(file, Section::Route, 1, route_key::Cdm), 10);
    EXPECT_EQ(readBoolean(file, Section::Route, 0, route_key::Active), 0);  // the default
    KeyAddress fallback;
    EXPECT_STREQ(readText(file, Section::Lan, 3, lan_key::IfName, fallback), "eth0");
    EXPECT_STREQ(readText(file, Section::Route, 4, route_key::RtInfo, fallback), "Route n");
}

// The keys an older format renames, as the loader addresses them.
std::string renamedKeys() {
    return address(Section::Can, 0, can_key::BR_Register) + " " +
           address(Section::Filter, 0, filter_key::FilterType) + " " +
           address(Section::Filter, 0, filter_key::FilterMode);
}
const std::string kCurrentKeys = "CAN_0:BR_Register FILTER_0:filter_type FILTER_0:filter_mode";

// applyLegacyKeyNames's result, the keys it renamed and the invert-mask flag; the saved names
// must bring back the current ones.
std::string switchedTo(int major, int minor, int patch) {
    resetFormatState();
    const SavedKeyNames saved = saveKeyNames();
    const int result = applyLegacyKeyNames(major, minor, patch);
    const std::string state =
        std::to_string(result) + " " + renamedKeys() + (invertMask() ? " inverted" : "");
    restoreKeyNames(saved);
    EXPECT_EQ(renamedKeys(), kCurrentKeys);
    return state;
}

TEST_F(IniLayout, LegacyKeyNamesSwitchOnlyFor100And120UntilRestored) {
    EXPECT_EQ(switchedTo(1, 0, 0), "0 CAN_0:BR_reigster FILTER_0:filter_type FILTER_0:filter_mode");
    EXPECT_EQ(switchedTo(1, 2, 0), "0 CAN_0:BR_Register FILTER_0:Kind FILTER_0:Type inverted");
    EXPECT_EQ(switchedTo(1, 1, 7), "0 " + kCurrentKeys);  // 1.1.x has today's names
    const int unknown[][3] = {{1, 0, 1}, {1, 2, 1}, {1, 3, 0}, {2, 0, 0}, {0, 0, 0}};
    for (const auto& v : unknown)
        EXPECT_EQ(switchedTo(v[0], v[1], v[2]), "-1 " + kCurrentKeys) << v[0] << v[1] << v[2];
}

TEST_F(IniLayout, WrittenFileStartsWithTheHeaderAndReadsBack) {
    fake.writeFile(kPath, "[RT_0]\n");
    dictionary* file = loadFile();
    ASSERT_EQ(iniparser_set(file, "rt_0:protocol2", formatProtocol(99)), 0);
    std::FILE* stream = std::fopen(fake.pathOf(kPath).c_str(), "w");
    ASSERT_NE(stream, nullptr);
    writeHeader(stream);
    iniparser_dump_ini(file, stream);
    std::fclose(stream);
    // The header's last line is ended by the newline that opens the first section.
    const std::string rule(40, '#');
    const std::string header =
        "#" + rule + "\n# KIV configuration file\n# Format version 1.3.1\n#" + rule + " \n[rt_0]\n";
    EXPECT_EQ(fake.readFile(kPath).substr(0, header.size()), header);
    // "UDP ; UNDEF!" is written for an unknown protocol: the ';' starts a comment.
    EXPECT_STREQ(iniparser_getstring(loadFile(), "rt_0:protocol2", nullptr), "UDP");
    EXPECT_STREQ(booleanText(Written::TrueFalse, false), "FALSE");
    EXPECT_STREQ(booleanText(Written::OneZero, true), "1");
}

}  // namespace
