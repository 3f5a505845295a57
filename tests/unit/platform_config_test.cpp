#include <arpa/inet.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>

#include "fake_system.h"
#include "network/platform_config.h"

namespace {

in_addr ipv4(const char* text) {
    in_addr address{};
    EXPECT_EQ(inet_pton(AF_INET, text, &address), 1) << text;
    return address;
}

std::string dotted(in_addr address) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

PlatformConfig record(uint8_t mode, uint8_t regcode, const char* address, const char* file) {
    PlatformConfig config{};
    config.wlan_mode = mode;
    config.regcode = regcode;
    config.ip_address = ipv4(address);
    std::strncpy(config.udhcpd_conf, file, sizeof config.udhcpd_conf);
    return config;
}

// mode, region code, address, DHCP server file
using Fields = std::tuple<int, int, std::string, std::string>;
Fields fields(const PlatformConfig& config) {
    return {config.wlan_mode, config.regcode, dotted(config.ip_address),
            std::string(config.udhcpd_conf, strnlen(config.udhcpd_conf, 127))};
}

using PlatformConfigTest = SeamTest;

TEST_F(PlatformConfigTest, ReadTakesEachKeyWhereItIsNotCommentedOut) {
    const std::string quoted128(128, 'q');
    // file content; the record read over {0, 0x55, 10.9.9.9, "keep"}
    const std::tuple<std::string, Fields> cases[] = {
        // A written file: the address line ends in a line end and is not taken; the server file
        // loses its last two characters.
        {"WLAN_DRIVER_REGCODE=0x10\nWLAN_MODE=UAP\nIP_ADDRESS=192.168.1.17\n"
         "UDHCPDCNF=\"/mnt/user/udhcpd.conf\"\n",
         {2, 0x10, "10.9.9.9", "/mnt/user/udhcpd.co"}},
        {"IP_ADDRESS=192.168.1.17", {0, 0x55, "192.168.1.17", "keep"}},  // no final line end
        {"WLAN_MODE=UAP # was WLAN\n", {2, 0x55, "10.9.9.9", "keep"}},
        {"# WLAN_MODE=UAP\n  #WLAN_DRIVER_REGCODE=1\n", {0, 0x55, "10.9.9.9", "keep"}},
        // Several keys on one line; a later line wins; an unknown value is a station.
        {"WLAN_DRIVER_REGCODE=020 WLAN_MODE=uap\nWLAN_MODE=wlan-uap\n",
         {0, 16, "10.9.9.9", "keep"}},
        {"WLAN_MODE=UAP # IP_ADDRESS=1.2.3.4", {2, 0x55, "10.9.9.9", "keep"}},
        {"WLAN_DRIVER_REGCODE=0x1FF\r\n", {0, 0xFF, "10.9.9.9", "keep"}},
        {"junk\n\x01\x02=\nWLAN_MODE\nIP_ADDRESS=300.1.1.1\n=\n", {0, 0x55, "10.9.9.9", "keep"}},
        {"UDHCPDCNF=\"ab\"\n", {0, 0x55, "10.9.9.9", ""}},
        {"UDHCPDCNF=\"\"\n", {0, 0x55, "10.9.9.9", "keep"}},
        {"UDHCPDCNF=\"x", {0, 0x55, "10.9.9.9", "keep"}},
        {"UDHCPDCNF=\"" + quoted128 + "\"\n", {0, 0x55, "10.9.9.9", quoted128.substr(0, 126)}},
        {"UDHCPDCNF=\"" + quoted128 + "q\"\n", {0, 0x55, "10.9.9.9", "keep"}},
    };
    for (const auto& [content, expected] : cases) {
        SCOPED_TRACE(content);
        fake.writeFile(kPlatformConfigPath, content);
        PlatformConfig config = record(0, 0x55, "10.9.9.9", "keep");
        EXPECT_EQ(readPlatformConfig(config), 0);
        EXPECT_EQ(fields(config), expected);
    }
    fake.removeFile(kPlatformConfigPath);
    PlatformConfig untouched = record(2, 1, "1.1.1.1", "x");
    EXPECT_EQ(readPlatformConfig(untouched), -1);
    EXPECT_EQ(fields(untouched), fields(record(2, 1, "1.1.1.1", "x")));
}

TEST_F(PlatformConfigTest, WriteOnlyWhenTheContentWouldChange) {
    // Each record is written over the file the previous row left; the file's region code is
    // then changed behind the writer's back, so a row that writes shows by its region code.
    const std::string station = "WLAN_DRIVER_REGCODE=0x10\nWLAN_MODE=WLAN\nUDHCPDCNF=\"\"\n";
    const std::tuple<PlatformConfig, std::string> cases[] = {
        {record(0, 0x10, "0.0.0.0", ""), station},
        {record(0, 0x22, "0.0.0.0", ""), ""},  // differs in the region code only
        {record(2, 0x10, "0.10.0.1", ""),      // first byte 0: no address line
         "WLAN_DRIVER_REGCODE=0x10\nWLAN_MODE=UAP\nUDHCPDCNF=\"\"\n"},
        {record(2, 0x10, "10.0.0.1", "/mnt/user/udhcpd.conf"),
         "WLAN_DRIVER_REGCODE=0x10\nWLAN_MODE=UAP\nIP_ADDRESS=10.0.0.1\n"
         "UDHCPDCNF=\"/mnt/user/udhcpd.conf\"\n"},
        // Read back without its address and with a shortened server file: written again.
        {record(2, 0x10, "10.0.0.1", "/mnt/user/udhcpd.conf"),
         "WLAN_DRIVER_REGCODE=0x10\nWLAN_MODE=UAP\nIP_ADDRESS=10.0.0.1\n"
         "UDHCPDCNF=\"/mnt/user/udhcpd.conf\"\n"},
    };
    fake.removeFile(kPlatformConfigPath);
    int row = 0;
    for (const auto& [config, written] : cases) {
        SCOPED_TRACE(row++);
        const std::string before = fake.readFile(kPlatformConfigPath);
        EXPECT_EQ(writePlatformConfig(config), 0);
        EXPECT_EQ(fake.readFile(kPlatformConfigPath), written.empty() ? before : written);
        std::string tampered = fake.readFile(kPlatformConfigPath);
        tampered.replace(tampered.find("=0x") + 1, 4, "0x33");
        fake.writeFile(kPlatformConfigPath, tampered);
    }
    // A file that cannot be opened for writing.
    fake.removeFile(kPlatformConfigPath);
    std::filesystem::create_directories(fake.pathOf(kPlatformConfigPath));
    EXPECT_EQ(writePlatformConfig(record(2, 0, "0.0.0.0", "")), -1);
}

TEST_F(PlatformConfigTest, UpdateTakesTheWlanInterfaceAndTheDhcpServer) {
    m().platform = record(0, 0x10, "1.2.3.4", "/old/path");
    m().wlan.Mode = 2;
    m().wlan.IPv4 = ipv4("192.168.5.1");
    m().dhcp.active = 1;
    EXPECT_EQ(updatePlatformConfig(m()), 0);
    EXPECT_EQ(fields(m().platform), Fields(2, 0x10, "192.168.5.1", "/mnt/user/udhcpd.conf"));

    m().wlan.Mode = 1;
    m().wlan.UseDHCP = 1;
    m().dhcp.active = 0;
    EXPECT_EQ(updatePlatformConfig(m()), 0);
    EXPECT_EQ(fields(m().platform), Fields(1, 0x10, "0.0.0.0", ""));
    const char cleared[sizeof m().platform.udhcpd_conf] = {};
    EXPECT_EQ(std::memcmp(m().platform.udhcpd_conf, cleared, sizeof cleared), 0);
}

}  // namespace
