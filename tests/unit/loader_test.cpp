#include <arpa/inet.h>

#include <tuple>

#include "config/config_path.h"
#include "config/ini_layout.h"
#include "config/loader.h"
#include "fake_system.h"
#include "filters/filter_store.h"

namespace {

class Loader : public SeamTest {
  protected:
    void load(const std::string& content) {
        fake.writeFile(kDefaultConfigPath, content);
        ASSERT_EQ(loadConfiguration(m()), 0);
    }
};

TEST_F(Loader, ValuesAreClampedConvertedAndNamesFolded) {
    load(configHeader("1.3.1") +
         "[General]\nKL15pwdn = yes\n"
         "[Host]\nDEVICENAME = gw-7\n"
         "[Can_0]\nBaudrate = 1\nSamplepoint = 2000\nActive = maybe\nListenonly = No\n"
         "[CAN_1]\nbaudrate = 0x7A120\nIfName = " +
         std::string(200, 'n') + "\n[FWD_GEN]\nCount = 12\nCANoIPdPort = 70000\n");
    EXPECT_FALSE(ini::legacyFormat());
    EXPECT_EQ(m().general.KL15pwdn, 1);
    EXPECT_TRUE(m().changed.isSet(flag::General));
    EXPECT_STREQ(m().general.hostName, "gw-7");
    const CanInterface& can0 = m().can[0];  // "maybe" is no boolean: the default holds
    EXPECT_EQ(std::tuple(can0.Baudrate, can0.Samplepoint, can0.Active, can0.Listenonly),
              std::tuple(5000u, 1000u, 1, 0));
    const CanInterface& can1 = m().can[1];
    EXPECT_EQ(can1.Baudrate, 500000u);
    EXPECT_EQ(std::string(can1.IfName), std::string(126, 'n'));
    EXPECT_EQ(std::tuple(m().general.Count, m().general.CANoIPdPort), std::tuple(8u, 65535u));
    // Routes without a section of their own take the defaults.
    const RouteInfo& route = m().routes[7].image.info;
    EXPECT_EQ(std::tuple(route.protocol2, route.fpp, route.cdm, route.flags & kDrvTcpDelay),
              std::tuple(17u, 15u, 500u, kDrvTcpDelay));
}

// (A 1.0.0 file's old CAN key and a 1.2.0 file's filter keys and inverted masks show in the
// store's rewrite of such files; which names a version switches to, in the layout's tests.)
TEST_F(Loader, OlderFormatsUseTheirKeyNames) {
    load(configHeader("1.0.0") +
         "[CAN_1]\nBR_Register = BRP 5, RJW 1, TQ 1, PSEG1 1, PSEG2 1, PROPSEG 1\n");
    EXPECT_EQ(m().can[1].timing.brp, 0u);  // the current name means nothing in a 1.0.0 file

    // Any other version is read as older too.
    resetModel(m());
    ini::resetFormatState();
    load(configHeader("1.3.0"));
    EXPECT_TRUE(ini::legacyFormat());
}

// A missing file loads the defaults the device ships with.
TEST_F(Loader, MissingFileGivesTheDefaultsAndHeaderVersions) {
    ASSERT_EQ(loadConfiguration(m()), 0);
    EXPECT_EQ(fake.hostNamesSet, std::vector<std::string>{"VORL-Gateway"});
    for (int n = 0; n < 2; ++n) {
        const CanInterface& can = m().can[n];
        EXPECT_EQ(std::string(can.IfName), "can" + std::to_string(n));
        EXPECT_EQ(std::tuple(can.Active, can.Baudrate, can.Listenonly, can.Samplepoint),
                  std::tuple(1, 500000u, 1, 800u));
    }
    EXPECT_STREQ(m().can[2].IfName, "");  // the third record is never loaded
    EXPECT_EQ(std::tuple(m().general.LighttpdPort, m().dhcp.max_leases,
                         std::string(inet_ntoa(m().dhcp.end_addr))),
              std::tuple(80u, 7u, std::string("192.168.1.17")));
    EXPECT_EQ(std::vector(std::begin(m().gui.show), std::end(m().gui.show)),
              (std::vector<uint8_t>{1, 0, 0, 0, 0, 0, 1, 1, 1}));
    EXPECT_TRUE(ini::legacyFormat());  // a file without header is rewritten whole

    // The header's version, from the file's head only.
    const std::string kTitle = "# KIV configuration file\n";
    struct Case {
        std::string text;
        int result, major, minor, patch;
    } cases[] = {
        {configHeader("1.3.1"), 0, 1, 3, 1},
        {configHeader("1.3.2"), -1, 1, 3, 2},
        {configHeader("2.0.0"), -1, 2, 0, 0},
        {"# kiv CONFIGURATION file\n# format VERSION   0.9.4\n", 0, 0, 9, 4},
        {"# Format version 1.3.1\n", -1, 0, 0, 0},                      // no title
        {configHeader("1.x.1"), -1, 1, 0, 0},                           // stops at the bad number
        {std::string(2100, '#') + configHeader("1.3.1"), -1, 0, 0, 0},  // beyond the scanned part
        // The scanned part ends right behind a number: nothing is read beyond it.
        {kTitle + std::string(2047 - kTitle.size() - 16, '#') + "Format version 1.3.1", -1, 1, 0,
         0},
        {kTitle + std::string(2047 - kTitle.size() - 18, '#') + "Format version 1.3.1", -1, 1, 3,
         0},
    };
    for (const Case& c : cases) {
        fake.writeFile(kDefaultConfigPath, c.text);
        int major = 0, minor = 0, patch = 0;
        const int result = checkHeader(kDefaultConfigPath, major, minor, patch);
        EXPECT_EQ(std::tuple(result, major, minor, patch),
                  std::tuple(c.result, c.major, c.minor, c.patch))
            << c.text;
    }
    fake.removeFile(kDefaultConfigPath);
    int major = 0, minor = 0, patch = 0;
    EXPECT_EQ(checkHeader(kDefaultConfigPath, major, minor, patch), -1);
}

// (What every section's keys load as shows in the store's round trip, spellings and clamps in
// the conversions' tests and above.)
TEST_F(Loader, FiltersLanRoutesAndSectionsNamedLikeKeys) {
    load(configHeader("1.3.1") +
         "[LAN_0]\nSubnetmask = bad\n[FWD_GEN]\nCount = 1\n"
         "[RT_0]\nDest2Type = none\nDestination2 = 198.51.100.9:7000\n"
         "[RT_1]\nRtInfo = beyond the count\n"
         // A filter needs a kind and a term that parses.
         "[FILTER_0]\nfilter_type = 1\nTerm = 0x100-0x1FF\n[FILTER_5]\nfilter_type = 1\nTerm = \n"
         "[FILTER_6]\nfilter_type = 9\nTerm = 1-2\n[FILTER_7]\nTerm = 1-2\n"
         // The library keeps a section as an entry without a value, found by the key's address.
         "[General:KL15pwdn]\n[Host:Devicename]\n");
    EXPECT_EQ(m().lan[0].Subnetmask.s_addr, 0u);  // a bad mask leaves the field as it was
    // The default name is not numbered; a destination that is not IPv4 is left untouched.
    const RouteRecord& r0 = m().routes[0];
    EXPECT_STREQ(r0.RtInfo, "Route n");
    EXPECT_EQ(r0.image.info.destination.sin_port, 0);
    EXPECT_EQ(r0.DrvIndex, 255);             // the driver is missing: no node, the rest loads
    EXPECT_STREQ(m().routes[1].RtInfo, "");  // beyond FWD_GEN's count
    EXPECT_EQ(definedFilterCount(m().filters), 1u);
    EXPECT_NE(findFilter(m().filters, 0), nullptr);
    EXPECT_EQ(m().general.KL15pwdn, 0);
    EXPECT_STREQ(m().general.hostName, "VORL-Gateway");
}

}  // namespace
