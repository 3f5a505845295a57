#include <arpa/inet.h>
#include <sys/ioctl.h>

#include <cstring>
#include <tuple>

#include "fake_system.h"
#include "network/lan_group.h"
#include "network/nw.h"

namespace {

using Lines = std::vector<std::string>;

class LanTest : public SeamTest {
  protected:
    LanTest() {
        std::strcpy(lan().BaseName, kLanBaseName);
        std::tie(lan().IPv4.s_addr, lan().Subnetmask.s_addr) =
            std::tuple(inet_addr("192.168.1.10"), inet_addr("255.255.255.0"));
        std::strcpy(m().general.hostName, "VORL-Gateway");
        std::strcpy(m().general.NTPServer, "pool.ntp.org");
    }
    LanInterface& lan() { return m().lan[0]; }
    Reply call(bool write, uint8_t f2, uint8_t f3, const char* value = "") {
        return handle(write ? setLan : readLan, 2, f2, f3, value);
    }
};

TEST_F(LanTest, ApplyCommandLinesInOrder) {
    const std::string ifconfig = "ifconfig eth0 192.168.1.10 netmask 255.255.255.0 up";
    const std::string del = "route del default gw 0.0.0.0 dev eth0";
    const std::string dhcp = "/etc/init.d/udhcpc.sh restart eth0 \"VORL-Gateway\"";
    const std::string add = "route add default gw ", dev = " dev eth0";
    const std::string ntpd = "ntpd -p pool.ntp.org", stop = "killall ntpd";
    // instance, UseDHCP, UseNTP, gateway, result, command lines; static applies write resolv.conf
    const std::tuple<unsigned, uint8_t, uint8_t, std::string, Reply, Lines> cases[] = {
        {1, 0, 1, "192.168.1.1", {0, ""}, {ifconfig, del, add + "192.168.1.1" + dev, ntpd}},
        // Only "0.0." is compared: no route, yet the name server is written.
        {1, 0, 0, "0.0.5.1", {0, ""}, {ifconfig, stop}},
        {1, 0, 0, "0.1.0.0", {0, ""}, {ifconfig, del, add + "0.1.0.0" + dev, stop}},
        {1, 1, 0, "192.168.1.1", {0, ""}, {dhcp, stop}},
        {0, 0, 1, "192.168.1.1", {0, ""}, {ntpd}},
        {2, 0, 1, "192.168.1.1", {-1, "false interface intdex 2"}, {ntpd}},
    };
    for (const auto& [instance, dhcpOn, ntpOn, gateway, reply, lines] : cases) {
        SCOPED_TRACE(testing::Message() << instance << " " << +dhcpOn << " " << gateway);
        fake.commands.clear();
        fake.removeFile(kResolvConfPath);
        std::tie(lan().UseDHCP, lan().IPv4Gw.s_addr, m().general.UseNTP) =
            std::tuple(dhcpOn, inet_addr(gateway.c_str()), ntpOn);
        EXPECT_EQ(applied(applyLan, instance), reply);
        EXPECT_EQ(fake.commands, lines);
        const bool staticApply = instance == 1 && !dhcpOn;
        EXPECT_EQ(fake.readFile(kResolvConfPath),
                  staticApply ? "nameserver " + gateway + "\n" : "");
    }
}

TEST_F(LanTest, CommandLinesOfTheNetworkLayer) {
    const std::string longName(300, 'h');
    (void)nw_dhcp_client(NW_START, "eth0", longName.c_str());
    (void)nw_dhcp_client(7, "eth0", "gw");
    for (int command : {0, 2, -1})
        (void)nw_dhcp_server(command);
    const std::string server = "/etc/init.d/S41udhcpd.sh ";
    const Lines expected = {("/etc/init.d/udhcpc.sh start eth0 \"" + longName).substr(0, 249),
                            "/etc/init.d/udhcpc.sh stop eth0 \"gw\"", server + "start",
                            server + "restart", server + "stop"};
    EXPECT_EQ(fake.commands, expected);
    EXPECT_EQ(nw_update_resolv_conf(nullptr), -1);
}

TEST_F(LanTest, RefusalsChangeNothingWritesReadBack) {
    // write?, f2, f3, value, result, answer text
    const std::tuple<bool, uint8_t, uint8_t, const char*, int, const char*> cases[] = {
        // Writes mark their instance before validating; a refused one stays marked.
        {true, 0, 0, "2", -1, "read only value!"},
        {true, 0, 2, "1", -1, "unknown parameter 2 0"},
        {true, 1, 2, "192.168.1.300", -1, "false address 2 1"},
        {true, 1, 3, "255.255.0", -1, "false subnetmask 2 1"},
        {true, 1, 6, "1.2.3.4", -1, "false address 2 1"},
        {true, 1, 7, "64", -1, "unknown parameter 2 1"},
        {true, 1, 8, "00:11:22:33:44:55", -1, "unknown parameter 2 1"},
        {true, 2, 0, "eth1", 0, ""},  // beyond the interface: no change, no mark
        {false, 0, 1, "", 0, "eth"},
        {false, 0, 2, "", -1, "Unknown subidx II in f3 (f1:2, f2:0, f3:2)"},
        {false, 1, 7, "", -1, "Unknown subidx II in f3"},
        {false, 2, 0, "", -1, ""},
    };
    m().stamps.lan = m().session.counter;  // live state already fetched in this session
    const LanInterface before = lan();
    for (const auto& [write, f2, f3, value, result, text] : cases) {
        SCOPED_TRACE(testing::Message() << write << " " << +f2 << "/" << +f3 << " " << value);
        m().changed.clearAll();
        EXPECT_EQ(call(write, f2, f3, value), Reply(result, text));
        EXPECT_EQ(m().changed.isSet(flag::Lan, f2), write && f2 <= 1);
        EXPECT_EQ(std::memcmp(&before, &lan(), sizeof before), 0);
    }

    const std::string longName(200, 'n');
    // f3, value written, value read back; DHCP usage is off only for a leading '0'
    const std::tuple<uint8_t, std::string, std::string> writes[] = {
        {0, longName, longName.substr(0, 127)},
        {1, "0", "0"},
        {1, "", "1"},
        {3, "255.0.0.0", "255.0.0.0"},
        {4, "fe80::1", "fe80::1"}};
    for (const auto& [f3, value, read] : writes) {
        EXPECT_EQ(call(true, 1, f3, value.c_str()), Reply(0, "")) << +f3 << " " << value;
        EXPECT_EQ(call(false, 1, f3), Reply(0, read)) << +f3 << " " << value;
    }
}

TEST_F(LanTest, FirstReadOfASessionTakesTheKernelsAddress) {
    fake.interfaces["eth0"] = {{0x00, 0x1a, 0x2b, 0xc3, 0xd4, 0xef}, "192.168.7.20"};
    m().session.counter = 4;
    EXPECT_EQ(call(false, 1, 2), Reply(0, "192.168.7.20"));
    EXPECT_EQ(call(false, 1, 8), Reply(0, "00:1A:2B:C3:D4:EF"));
    // Within the session the record answers as it stands, a new write included.
    EXPECT_EQ(call(true, 1, 2, "10.0.0.7"), Reply(0, ""));
    EXPECT_EQ(call(false, 1, 2), Reply(0, "10.0.0.7"));
    EXPECT_EQ(fake.interfaceQueries, (std::vector<unsigned long>{SIOCGIFHWADDR, SIOCGIFADDR}));

    fake.interfaces.clear();  // next session the interface is gone: zeros
    m().session.counter = 5;
    EXPECT_EQ(call(false, 1, 2), Reply(0, "0.0.0.0"));
    EXPECT_EQ(call(false, 1, 8), Reply(0, "00:00:00:00:00:00"));
}

}  // namespace
