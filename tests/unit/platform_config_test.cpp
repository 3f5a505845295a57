#include <arpa/inet.h>

#include <cstring>

#include "fake_system.h"
#include "network/platform_config.h"

namespace {

PlatformConfig record(uint8_t mode, uint8_t regcode, const char* address, const char* file) {
    PlatformConfig config{mode, regcode, {}, {}};
    EXPECT_EQ(inet_pton(AF_INET, address, &config.ip_address), 1) << address;
    std::memcpy(config.udhcpd_conf, file, std::strlen(file));  // short texts only
    return config;
}

// "mode region-code address server-file"
std::string fields(const PlatformConfig& c) {
    return std::to_string(c.wlan_mode) + " " + std::to_string(c.regcode) + " " +
           inet_ntoa(c.ip_address) + " " +
           std::string(c.udhcpd_conf, strnlen(c.udhcpd_conf, sizeof c.udhcpd_conf));
}

using PlatformConfigTest = SeamTest;

TEST_F(PlatformConfigTest, ReadTakesEachKeyWhereItIsNotCommentedOut) {
    const std::string q126(126, 'q');
    // file content; the record read over {0, 0x55, 10.9.9.9, "keep"}
    const std::pair<std::string, std::string> cases[] = {
        // A written file: the address line ends in a line end and is not taken; the server file
        // loses its last two characters.
        {"WLAN_DRIVER_REGCODE=0x10\nWLAN_MODE=UAP\nIP_ADDRESS=192.168.1.17\n"
         "UDHCPDCNF=\"/mnt/user/udhcpd.conf\"\n",
         "2 16 10.9.9.9 /mnt/user/udhcpd.co"},
        {"IP_ADDRESS=192.168.1.17", "0 85 192.168.1.17 keep"},  // no final line end
        {"WLAN_MODE=UAP # was WLAN\n", "2 85 10.9.9.9 keep"},
        {"# WLAN_MODE=UAP\n  #WLAN_DRIVER_REGCODE=1\n", "0 85 10.9.9.9 keep"},
        // Several keys on one line; a later line wins; an unknown value is a station.
        {"WLAN_DRIVER_REGCODE=020 WLAN_MODE=uap\nWLAN_MODE=wlan-uap\n", "0 16 10.9.9.9 keep"},
        {"WLAN_DRIVER_REGCODE=0x1FF\r\n", "0 255 10.9.9.9 keep"},
        {"junk\n\x01\x02=\nWLAN_MODE\nIP_ADDRESS=300.1.1.1\n=\n", "0 85 10.9.9.9 keep"},
        {"UDHCPDCNF=\"\"\n", "0 85 10.9.9.9 keep"},
        {"UDHCPDCNF=\"" + q126 + "qq\"\n", "0 85 10.9.9.9 " + q126},
        {"UDHCPDCNF=\"" + q126 + "qqq\"\n", "0 85 10.9.9.9 keep"},
    };
    for (const auto& [content, expected] : cases) {
        fake.writeFile(kPlatformConfigPath, content);
        PlatformConfig config = record(0, 0x55, "10.9.9.9", "keep");
        EXPECT_EQ(readPlatformConfig(config), 0) << content;
        EXPECT_EQ(fields(config), expected) << content;
    }
    fake.removeFile(kPlatformConfigPath);
    PlatformConfig untouched = record(2, 1, "1.1.1.1", "x");
    EXPECT_EQ(readPlatformConfig(untouched), -1);
    EXPECT_EQ(fields(untouched), "2 1 1.1.1.1 x");
}

TEST_F(PlatformConfigTest, WriteOnlyWhenTheContentWouldChangeUpdateTakesWlanAndDhcpServer) {
    // Each record is written over the file the previous row left; the file's region code is
    // then changed behind the writer's back, so a row that writes shows by its region code.
    const std::string head = "WLAN_DRIVER_REGCODE=0x10\nWLAN_MODE=";
    const std::string ap = head + "UAP\nIP_ADDRESS=10.0.0.1\nUDHCPDCNF=\"/mnt/user/udhcpd.conf\"\n";
    const std::pair<PlatformConfig, std::string> cases[] = {
        {record(0, 0x10, "0.0.0.0", ""), head + "WLAN\nUDHCPDCNF=\"\"\n"},
        {record(0, 0x22, "0.0.0.0", ""), ""},  // differs in the region code only: not written
        {record(2, 0x10, "0.10.0.1", ""), head + "UAP\nUDHCPDCNF=\"\"\n"},  // first byte 0
        {record(2, 0x10, "10.0.0.1", "/mnt/user/udhcpd.conf"), ap},
        // Read back without its address and with a shortened server file: written again.
        {record(2, 0x10, "10.0.0.1", "/mnt/user/udhcpd.conf"), ap},
    };
    fake.removeFile(kPlatformConfigPath);
    for (const auto& [config, written] : cases) {
        const std::string before = fake.readFile(kPlatformConfigPath);
        EXPECT_EQ(writePlatformConfig(config), 0);
        std::string file = fake.readFile(kPlatformConfigPath);
        EXPECT_EQ(file, written.empty() ? before : written);
        fake.writeFile(kPlatformConfigPath, file.replace(file.find("=0x") + 1, 4, "0x33"));
    }
    fake.removeFile(kPlatformConfigPath);
    std::filesystem::create_directories(fake.pathOf(kPlatformConfigPath));  // cannot be opened
    EXPECT_EQ(writePlatformConfig(record(2, 0, "0.0.0.0", "")), -1);

    m().platform = record(0, 0x10, "1.2.3.4", "/old/path");
    m().wlan.Mode = 2;
    inet_pton(AF_INET, "192.168.5.1", &m().wlan.IPv4);
    m().dhcp.active = 1;
    EXPECT_EQ(updatePlatformConfig(m()), 0);
    EXPECT_EQ(fields(m().platform), "2 16 192.168.5.1 /mnt/user/udhcpd.conf");
    m().wlan.Mode = m().wlan.UseDHCP = 1;
    m().dhcp.active = 0;
    EXPECT_EQ(updatePlatformConfig(m()), 0);
    EXPECT_EQ(fields(m().platform), "1 16 0.0.0.0 ");
    // Every byte is cleared: the file is compared with the whole field.
    EXPECT_EQ(std::string(m().platform.udhcpd_conf, 127), std::string(127, '\0'));
}

}  // namespace
