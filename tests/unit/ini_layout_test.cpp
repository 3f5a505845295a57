#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config/conversions.h"
#include "config/ini_layout.h"
#include "fake_system.h"

using namespace ini;

namespace {

class FormatStateTest : public ::testing::Test {
  protected:
    FormatStateTest() { resetFormatState(); }
    ~FormatStateTest() override { resetFormatState(); }
};

// A dictionary built in memory, as the library holds a parsed file.
struct Dictionary {
    dictionary* d = dictionary_new(0);
    Dictionary() = default;
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;
    ~Dictionary() { iniparser_freedict(d); }
    void set(const char* section, const char* key, const char* value) {
        ASSERT_EQ(iniparser_set(d, section, nullptr), 0);
        ASSERT_EQ(iniparser_set(d, (std::string(section) + ":" + key).c_str(), value), 0);
    }
};

TEST(WriteHeader, WritesFiveLinesWhoseLastIsEndedByTheFirstSection) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&text, &size);
    ASSERT_NE(stream, nullptr);
    writeHeader(stream);
    std::fclose(stream);
    const std::string rule(40, '#');
    EXPECT_EQ(std::string(text, size), "#" + rule + "\n# KIV configuration file\n" +
                                           "# Format version 1.3.1\n#" + rule + " ");
    std::free(text);
}

TEST_F(FormatStateTest, KeyAddressesFollowTheSectionsNumbering) {
    struct Case {
        Section section;
        int number;
        unsigned place;
        const char* address;  // nullptr: no key at that place
    } cases[] = {
        {Section::General, 0, general_key::Description, "General:Description"},
        {Section::Host, 5, host_key::Devicename, "HOST:Devicename"},
        {Section::Lan, 0, lan_key::IPv4Gw, "LAN_0:IPv4Gw"},
        {Section::Can, 1, can_key::BR_Register, "CAN_1:BR_Register"},
        {Section::Route, 7, route_key::Cdm, "RT_7:Cdm"},
        {Section::Filter, 31, filter_key::Name, "FILTER_31:Name"},
        {Section::FwdGen, 0, fwd_key::Reserved, "FWD_GEN:----"},
        {Section::DhcpServer, 0, dhcp_key::MaxLeases, "DHCP_SERVER:max_leases"},
        {Section::Route, 0, 14, nullptr},
        {Section::Route, 0, 31, nullptr},
        {Section::Can, 0, 11, nullptr},
        {Section::Route, 0, 40, nullptr},
    };
    for (const Case& c : cases) {
        KeyAddress out;
        const int length = keyAddress(out, c.section, c.number, c.place);
        EXPECT_STREQ(out, c.address != nullptr ? c.address : "") << c.place;
        EXPECT_EQ(length, c.address != nullptr ? static_cast<int>(std::strlen(c.address)) : -1);
    }
    KeyAddress out;
    EXPECT_EQ(sectionAddress(out, Section::Filter, 12), 9);
    EXPECT_STREQ(out, "FILTER_12");
    EXPECT_EQ(sectionAddress(out, Section::Gui, 3), 3);
    EXPECT_STREQ(out, "GUI");
}

TEST(FormatKey, StaysWithinTheBufferOf200) {
    KeyAddress out;
    const std::string section(197, 's');
    EXPECT_EQ(formatKey(out, section.c_str(), "k"), 199);
    EXPECT_EQ(formatKey(out, section.c_str(), "kk"), -1);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(formatKey(out, section.c_str(), 1, "k"), -1);
    EXPECT_EQ(formatSectionName(out, section.c_str(), 1), 199);
}

TEST_F(FormatStateTest, ReadersApplyDefaultsClampsAndTheBooleanRule) {
    Dictionary file;
    file.set("can_0", "baudrate", "1");
    file.set("can_1", "baudrate", "0x7A120");
    file.set("can_1", "samplepoint", "4294967296");  // the library's getint wraps this to 0
    file.set("Lan_0", "IPV4", "10.1.2.3");           // names in any case
    file.set("rt_0", "cdm", "5");
    file.set("rt_0", "active", "maybe");
    file.set("rt_1", "cdm", "-3");
    file.set("rt_1", "active", "Yes");
    file.set("fwd_gen", "count", "12");
    file.set("filter_0", "filter_type", "-5");
    file.set("filter_0", "filter_mode", "");

    EXPECT_EQ(readInteger(file.d, Section::Can, 0, can_key::Baudrate), 5000);
    EXPECT_EQ(readInteger(file.d, Section::Can, 1, can_key::Baudrate), 500000);
    EXPECT_EQ(readInteger(file.d, Section::Can, 1, can_key::Samplepoint), 1000);
    EXPECT_EQ(readInteger(file.d, Section::Route, 0, route_key::Cdm), 10);
    EXPECT_EQ(readInteger(file.d, Section::Route, 1, route_key::Cdm), 10);
    EXPECT_EQ(readInteger(file.d, Section::Route, 2, route_key::Cdm), 500);
    EXPECT_EQ(readInteger(file.d, Section::FwdGen, 0, fwd_key::Count), 8);
    EXPECT_EQ(readInteger(file.d, Section::Filter, 0, filter_key::FilterType), -5);
    EXPECT_EQ(readInteger(file.d, Section::Filter, 1, filter_key::FilterType), INT32_MAX);
    EXPECT_EQ(readBoolean(file.d, Section::Route, 0, route_key::Active), 0);
    EXPECT_EQ(readBoolean(file.d, Section::Route, 1, route_key::Active), 1);
    EXPECT_EQ(readBoolean(file.d, Section::Route, 0, route_key::TCPDelay), 1);
    EXPECT_EQ(readBoolean(file.d, Section::Filter, 0, filter_key::FilterMode), 1);

    KeyAddress fallback;
    EXPECT_STREQ(readText(file.d, Section::Lan, 0, lan_key::IPv4, fallback), "10.1.2.3");
    EXPECT_STREQ(readText(file.d, Section::Lan, 0, lan_key::Subnetmask, fallback), "255.255.255.0");
}

TEST_F(FormatStateTest, WithoutAFileNumberedDefaultsTakeTheSectionNumber) {
    KeyAddress fallback;
    EXPECT_STREQ(readText(nullptr, Section::Can, 1, can_key::IfName, fallback), "can1");
    EXPECT_STREQ(readText(nullptr, Section::Wlan, 0, wlan_key::IfName, fallback), "wlan0");
    EXPECT_STREQ(readText(nullptr, Section::Lan, 3, lan_key::IfName, fallback), "eth0");
    EXPECT_STREQ(readText(nullptr, Section::Route, 4, route_key::RtInfo, fallback), "Route n");
    EXPECT_EQ(readInteger(nullptr, Section::FwdGen, 0, fwd_key::CANoIPdPort), 45321);
    EXPECT_EQ(readBoolean(nullptr, Section::Wlan, 0, wlan_key::UseDHCP), 1);
}

TEST_F(FormatStateTest, LegacyKeyNamesSwitchOnlyFor100And120) {
    struct Case {
        int major, minor, patch;
        int result;
        const char* brRegister;
        const char* filterType;
        const char* filterMode;
        bool invert;
    } cases[] = {
        {1, 0, 0, 0, "BR_reigster", "filter_type", "filter_mode", false},
        {1, 0, 1, -1, "BR_Register", "filter_type", "filter_mode", false},
        {1, 1, 0, 0, "BR_Register", "filter_type", "filter_mode", false},
        {1, 1, 7, 0, "BR_Register", "filter_type", "filter_mode", false},
        {1, 2, 0, 0, "BR_Register", "Kind", "Type", true},
        {1, 2, 1, -1, "BR_Register", "filter_type", "filter_mode", false},
        {1, 3, 0, -1, "BR_Register", "filter_type", "filter_mode", false},
        {1, 3, 1, -1, "BR_Register", "filter_type", "filter_mode", false},
        {1, 4, 0, -1, "BR_Register", "filter_type", "filter_mode", false},
        {2, 0, 0, -1, "BR_Register", "filter_type", "filter_mode", false},
        {0, 0, 0, -1, "BR_Register", "filter_type", "filter_mode", false},
    };
    for (const Case& c : cases) {
        resetFormatState();
        const std::string version =
            std::to_string(c.major) + "." + std::to_string(c.minor) + "." + std::to_string(c.patch);
        const SavedKeyNames saved = saveKeyNames();
        EXPECT_EQ(applyLegacyKeyNames(c.major, c.minor, c.patch), c.result) << version;
        EXPECT_STREQ(keyName(Section::Can, can_key::BR_Register), c.brRegister) << version;
        EXPECT_STREQ(keyName(Section::Filter, filter_key::FilterType), c.filterType) << version;
        EXPECT_STREQ(keyName(Section::Filter, filter_key::FilterMode), c.filterMode) << version;
        EXPECT_STREQ(keyName(Section::Filter, filter_key::Term), "Term") << version;
        EXPECT_EQ(invertMask(), c.invert) << version;

        KeyAddress address;
        keyAddress(address, Section::Can, 0, can_key::BR_Register);
        EXPECT_EQ(std::string(address), std::string("CAN_0:") + c.brRegister) << version;

        restoreKeyNames(saved);
        EXPECT_STREQ(keyName(Section::Can, can_key::BR_Register), "BR_Register") << version;
        EXPECT_STREQ(keyName(Section::Filter, filter_key::FilterType), "filter_type") << version;
        EXPECT_STREQ(keyName(Section::Filter, filter_key::FilterMode), "filter_mode") << version;
        EXPECT_EQ(invertMask(), c.invert) << version;  // the flag outlives the names
    }
}

// Written values pass through the library's file and come back as they were meant.
class WrittenFormsTest : public SeamTest {};

TEST_F(WrittenFormsTest, ReadBackThroughTheLibrary) {
    Dictionary file;
    sockaddr_in endpoint{};
    ASSERT_EQ(parseEndpoint("192.168.1.20:5001", kAddrTypeIPv4, endpoint), 0);
    char endpointText[64];
    formatEndpoint(endpointText, sizeof endpointText, endpoint);
    file.set("RT_0", "Protocol2", formatProtocol(99));
    file.set("RT_0", "Type", formatRouteType(0x80000000u));
    file.set("RT_0", "Destination2", endpointText);
    file.set("RT_0", "Active", booleanText(Written::TrueFalse, false));
    file.set("RT_0", "TCPDelay", booleanText(Written::TrueFalse, false));
    file.set("RT_0", "NoCtrl", booleanText(Written::TrueFalse, true));
    file.set("CAN_0", "Listenonly", booleanText(Written::OneZero, false));

    const std::string path = fake.pathOf("/kiv_config.ini");
    std::FILE* stream = std::fopen(path.c_str(), "w");
    ASSERT_NE(stream, nullptr);
    writeHeader(stream);
    iniparser_dump_ini(file.d, stream);
    std::fclose(stream);
    dictionary* back = iniparser_load(path.c_str());
    ASSERT_NE(back, nullptr);

    KeyAddress fallback;
    uint32_t protocol = 0;
    EXPECT_EQ(
        parseProtocol(readText(back, Section::Route, 0, route_key::Protocol2, fallback), protocol),
        0);
    EXPECT_EQ(protocol, kProtocolUdp);
    EXPECT_STREQ(readText(back, Section::Route, 0, route_key::Type, fallback), "CAN2LAN");
    EXPECT_STREQ(readText(back, Section::Route, 0, route_key::Destination2, fallback),
                 "192.168.1.20:5001");
    EXPECT_EQ(readBoolean(back, Section::Route, 0, route_key::Active), 0);
    EXPECT_EQ(readBoolean(back, Section::Route, 0, route_key::TCPDelay), 0);
    EXPECT_EQ(readBoolean(back, Section::Route, 0, route_key::NoCtrl), 1);
    EXPECT_EQ(readBoolean(back, Section::Can, 0, can_key::Listenonly), 0);
    iniparser_freedict(back);
}

}  // namespace
