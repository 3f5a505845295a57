#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "config/config_path.h"
#include "config/ini_layout.h"
#include "config/loader.h"
#include "fake_system.h"
#include "filters/filter_store.h"
#include "filters/route_filters.h"

namespace {

class Loader : public SeamTest {
  protected:
    void load(const std::string& content) {
        fake.writeFile(kDefaultConfigPath, content);
        ASSERT_EQ(loadConfiguration(m()), 0);
    }
};

TEST_F(Loader, MissingFileGivesEveryDefault) {
    ASSERT_EQ(loadConfiguration(m()), 0);
    const GeneralRecord& general = m().general;
    EXPECT_STREQ(general.Description, "Module description");
    EXPECT_STREQ(general.hostName, "VORL-Gateway");
    EXPECT_EQ(fake.hostNamesSet, std::vector<std::string>{"VORL-Gateway"});
    EXPECT_EQ(std::tuple(general.LighttpdPort, general.CANoIPdPort), std::tuple(80u, 45321u));
    for (int n = 0; n < 2; ++n) {
        const CanInterface& can = m().can[n];
        EXPECT_EQ(std::string(can.IfName), "can" + std::to_string(n));
        EXPECT_EQ(std::tuple(can.Active, can.Baudrate, can.Listenonly, can.Samplepoint),
                  std::tuple(1, 500000u, 1, 800u));
    }
    EXPECT_STREQ(m().can[2].IfName, "");  // the third record is never loaded
    EXPECT_EQ(std::string(m().gui.show, m().gui.show + 9), std::string("\1\0\0\0\0\0\1\1\1", 9));
    EXPECT_EQ(definedFilterCount(m().filters), 0u);
    EXPECT_TRUE(ini::legacyFormat());  // a file without header is rewritten whole
}

TEST_F(Loader, ValuesAreClampedConvertedAndNamesFolded) {
    load(configHeader("1.3.1") +
         "[General]\nKL15pwdn = yes\n"
         "[Host]\nDEVICENAME = gw-7\n"
         "[Can_0]\nBaudrate = 1\nSamplepoint = 2000\nActive = maybe\nListenonly = No\n"
         "[CAN_1]\nbaudrate = 0x7A120\nIfName = " +
         std::string(200, 'n') +
         "\nBR_Register = BRP 3, RJW 1, TQ 125, PSEG1 13, PSEG2 2, PROPSEG 0\nManBr = 1\n"
         "[FWD_GEN]\nCount = 12\nCANoIPdPort = 70000\n"
         "[GUI]\nshow_can_info = 1\nshow_device_info = F\n");
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
    EXPECT_EQ(std::tuple(can1.ManBr, can1.timing.brp, can1.timing.tq, can1.timing.phase_seg1),
              std::tuple(1, 3u, 125u, 13u));
    EXPECT_EQ(std::tuple(m().general.Count, m().general.CANoIPdPort), std::tuple(8u, 65535u));
    EXPECT_EQ(std::tuple(m().gui.show[0], m().gui.show[1]), std::tuple(0, 1));
}

TEST_F(Loader, FiltersNeedAKindAndATermThatParses) {
    load(configHeader("1.3.1") +
         "[FILTER_0]\nfilter_type = 1\nTerm = 0x100-0x1FF\nName = low\nComment = c\n"
         "[FILTER_2]\nfilter_type = 4\nfilter_mode = 0\nTerm = 0x123/0x7FF\n"
         "[FILTER_5]\nfilter_type = 1\nTerm = \n"
         "[FILTER_6]\nfilter_type = 9\nTerm = 1-2\n"
         "[FILTER_7]\nTerm = 1-2\n");
    ASSERT_EQ(definedFilterCount(m().filters), 2u);
    const Filter* low = findFilter(m().filters, 0);
    const Filter* masked = findFilter(m().filters, 2);
    ASSERT_TRUE(low != nullptr && masked != nullptr);
    EXPECT_EQ(std::tuple(low->FilterFrom, low->FilterTo, low->filter_mode),
              std::tuple(0x100u, 0x1FFu, 1u));
    EXPECT_EQ(std::string(low->Name) + "/" + low->Comment, "low/c");
    EXPECT_EQ(std::tuple(masked->FilterFrom, masked->FilterTo, masked->filter_mode),
              std::tuple(0x80000123u, 0x800007FFu, 1u | kFilterInverted));
}

TEST_F(Loader, SectionNamedLikeAKeyCountsAsMissing) {
    // The library keeps a section as an entry without a value, found by the key's address.
    load("[General:KL15pwdn]\n[Host:Devicename]\n");
    EXPECT_EQ(m().general.KL15pwdn, 0);
    EXPECT_STREQ(m().general.hostName, "VORL-Gateway");
}

// (A 1.2.0 file's filter keys and inverted masks, and the names put back after the load, show
// in the store's rewrite of such files.)
TEST_F(Loader, OlderFormatsUseTheirKeyNames) {
    load(configHeader("1.0.0") +
         "[CAN_0]\nbr_reigster = BRP 2, RJW 1, TQ 83, PSEG1 9, PSEG2 2, PROPSEG 1\n"
         "[CAN_1]\nBR_Register = BRP 5, RJW 1, TQ 1, PSEG1 1, PSEG2 1, PROPSEG 1\n");
    EXPECT_TRUE(ini::legacyFormat());
    EXPECT_EQ(std::tuple(m().can[0].timing.brp, m().can[0].timing.tq), std::tuple(2u, 83u));
    EXPECT_EQ(m().can[1].timing.brp, 0u);  // the current name means nothing in a 1.0.0 file

    // Any other version is read as older, under today's names and without inverted masks.
    resetModel(m());
    ini::resetFormatState();
    load(configHeader("1.3.0") + "[FILTER_1]\nfilter_type = 3\nTerm = 0x10/0x7F0\n");
    EXPECT_TRUE(ini::legacyFormat());
    const Filter* filter = findFilter(m().filters, 1);
    ASSERT_NE(filter, nullptr);
    EXPECT_EQ(filter->FilterTo, 0x800007F0u);
}

TEST_F(Loader, HeaderVersion) {
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

std::string dotted(in_addr address) {
    return inet_ntoa(address);  // copied before the next call reuses the buffer
}

TEST_F(Loader, LanRoutesAndDhcpServerSections) {
    // The driver is missing: routes keep no node, and the sections still load.
    load(configHeader("1.3.1") +
         "[LAN_0]\nIfName = uplink\nIPv4 = 192.0.2.5\nSubnetmask = bad\n"
         "IPv4Gw = 192.0.2.1\nIPv6 = 2001:db8::5\nNetbitsv6 = 200\n"
         "[FILTER_2]\nfilter_type = 3\nTerm = 0x100/0x700\n"
         "[FWD_GEN]\nCount = 2\n"
         "[RT_0]\nActive = Yes\nType = Lan2Can\nProtocol2 = tcp\nFPP = 70000\nTCPDelay = 0\n"
         "NoCtrl = 1\nFilters = 2\nUnifyFilters = 1\nCdm = -3\n"
         "[RT_1]\nDest2Type = none\nDestination2 = 198.51.100.9:7000\n"
         "[RT_2]\nRtInfo = beyond the count\n"
         "[DHCP_SERVER]\nactive = 1\nmax_leases = 300\nstart_addr = 192.0.2.100\n");
    const LanInterface& lan = m().lan[0];
    EXPECT_EQ(std::string(lan.IfName) + " " + dotted(lan.IPv4) + " " + dotted(lan.Subnetmask) +
                  " " + dotted(lan.IPv4Gw),
              "uplink 192.0.2.5 0.0.0.0 192.0.2.1");  // a bad mask leaves the field as it was
    EXPECT_EQ(lan.Netbitsv6, 128);

    const RouteRecord& r0 = m().routes[0];
    const RouteInfo& info = r0.image.info;
    EXPECT_EQ(r0.RouteFlags, kRouteActive | kRouteRunning | kRouteUnifyFilters);
    EXPECT_EQ(info.flags & (kDrvCan2Lan | kDrvTcpDelay | kDrvNoControl),
              kDrvCan2Lan | kDrvNoControl);  // "Lan2Can" is no known spelling: CAN2LAN
    EXPECT_EQ(std::tuple(info.protocol2, info.fpp, info.cdm), std::tuple(6u, 65535, 10u));
    char filters[16] = "";
    ASSERT_EQ(getRtFilters(m().filters, 0, filters, sizeof filters, false), 0);
    EXPECT_STREQ(filters, "3");  // the file counts filters from 0

    // Defaults; a destination that is not IPv4 is left untouched.
    const RouteRecord& r1 = m().routes[1];
    EXPECT_STREQ(r1.RtInfo, "Route n");
    EXPECT_EQ(r1.RouteFlags, kRouteActive);
    EXPECT_EQ(std::tuple(r1.image.info.protocol2, r1.image.info.fpp, r1.image.info.cdm,
                         r1.image.info.destination.sin_port),
              std::tuple(17u, 15, 500u, 0));
    EXPECT_TRUE(r1.image.info.flags & kDrvTcpDelay);
    EXPECT_STREQ(m().routes[2].RtInfo, "");  // beyond FWD_GEN's count
    for (unsigned i = 0; i < 8; ++i)
        EXPECT_EQ(m().routes[i].DrvIndex, 255) << i;

    EXPECT_EQ(m().dhcp.max_leases, 255);
    EXPECT_EQ(dotted(m().dhcp.start_addr) + " " + dotted(m().dhcp.end_addr),
              "192.0.2.100 192.168.1.17");
}

}  // namespace
