// Built once per WLAN interface count: the device's build (0) answers the group's general part
// only; the build with one interface runs the interface part.

#include <arpa/inet.h>

#include <cstring>
#include <sstream>
#include <tuple>

#include "core/session.h"
#include "fake_system.h"
#include "network/platform_config.h"
#include "network/wlan_count.h"
#include "network/wlan_group.h"

namespace {

using Lines = std::vector<std::string>;

class WlanTest : public SeamTest {
  protected:
    WlanTest() {
        m().platform.regcode = 0x10;
        startWlanInterfaces(m());  // a station, as the empty platform record says
        std::strcpy(wlan().SSID, "Lab");
        std::strcpy(wlan().Key, "secret-pass");
        std::tie(wlan().EncryptionType, wlan().KeyType, wlan().IPv4.s_addr,
                 wlan().Subnetmask.s_addr) =
            std::tuple(6, 1, inet_addr("10.1.2.3"), inet_addr("255.255.255.0"));
        m().previousWlanMode = wlan().Mode;
        std::strcpy(m().general.hostName, "VORL-Gateway");
        m().stamps.wlan = m().session.counter;  // live state already fetched in this session
    }
    WlanInterface& wlan() { return m().wlan; }
    Reply call(bool write, uint8_t f2, uint8_t f3, const char* value = "") {
        return handle(write ? storeWlanInformation : readWlan, 3, f2, f3, value);
    }
    Reply apply(unsigned index) { return applied(setWlanConfig, index); }
    // A temporary session (nothing is stored) with the given writes; its answer to FINISH_SESSION.
    AnswerMessage session(const std::vector<std::pair<uint8_t, const char*>>& writes, uint8_t f2) {
        send(START_SESSION, 40, 0, static_cast<uint8_t>(writes.size()));
        for (const auto& [f3, value] : writes)
            send(SET_TEMP_PARAM, 3, f2, f3, value);
        return send(FINISH_SESSION);
    }
};

#if CFGD_WLAN_IF_COUNT == 0

TEST_F(WlanTest, WithoutInterfacesOnlyTheGeneralPartAnswers) {
    // write?, f2, f3, value, reply; writes to the general part are marked although refused
    const std::tuple<bool, uint8_t, uint8_t, const char*, Reply> cases[] = {
        {false, 0, 0, "", {0, "0"}},
        {false, 0, 1, "", {0, "eth"}},
        {false, 0, 2, "", {-1, "Unknown subidx II in f3 (f1:3, f2:0, f3:2)"}},
        {false, 1, 0, "", {-1, ""}},
        {true, 0, 1, "uap", {-1, "read only value!"}},
        {true, 0, 2, "2", {-1, "unknown parameter 3 0"}},
        {true, 1, 9, "10.0.0.1", {0, ""}}};
    const WlanInterface before = wlan();
    for (const auto& [write, f2, f3, value, reply] : cases) {
        m().changed.clearAll();
        EXPECT_EQ(call(write, f2, f3, value), reply) << write << " " << +f2 << "/" << +f3;
        EXPECT_EQ(m().changed.isSet(flag::Wlan), write && f2 == 0);
        EXPECT_FALSE(m().changed.isSet(flag::Wlan, 1));
    }
    EXPECT_EQ(std::memcmp(&before, &wlan(), sizeof before), 0);
    m().platform.wlan_mode = WLAN_MODE_UAP;
    EXPECT_EQ(call(false, 0, 1), Reply(0, "uap"));
    EXPECT_EQ(apply(1), Reply(-1, "false interface index 1"));

    // A refused write to the group still makes the session apply it, which only logs.
    testing::internal::CaptureStdout();
    EXPECT_EQ(session({{0, "x"}}, 0).mt, POS_ANSW);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "storeWlanInformation()\nsetWlanConfig()\n"
              "setWlanConfig: general wlan if info changed\n");
    EXPECT_EQ(fake.commands, Lines{});
    EXPECT_FALSE(m().rebootRequested);
}

#elif CFGD_WLAN_IF_COUNT == 1

const std::string kStationStart = "/etc/init.d/S39wlan start /tmp/wpa_supplicant0.conf";
TEST_F(WlanTest, InterfaceWritesReadBackUntilTheNextSession) {
    const std::string longText(200, 'w');
    // f3, value written, the refusal (none: accepted), value read back; a mode above 5 is
    // refused as the mode in force
    const std::tuple<uint8_t, std::string, std::string, std::string> cases[] = {
        {0, longText, "", longText.substr(0, 127)},
        {1, longText, "", longText.substr(0, 32)},
        {2, "", "", "1"},
        {3, "7", "", "5"},
        {3, "-1", "", "5"},
        {4, "4", "", "1"},
        {5, longText, "", longText.substr(0, 64)},
        {6, "0,1,2", "read only value!", "0,1"},
        {7, "9", "unsupported mode 0", "0"},
        {7, "4", "unsupported mode 4", "0"},
        {7, "1", "", "1"},
        {8, "00", "", "0"},
        {9, "10.1.2.300", "false address 3 1", "10.1.2.3"},
        {10, "255.255", "false subnetmask 3 1", "255.255.255.0"},
        {11, "fe80::7", "", "fe80::7"},
        {13, "10.1.2.254", "false address 3 1", "::"},
        {14, "64", "unknown parameter 3 1", "0"},
        {15, "00:11:22:33:44:55", "unknown parameter 3 1", ""}};
    for (const auto& [f3, value, refusal, read] : cases) {
        m().changed.clearAll();
        EXPECT_EQ(call(true, 1, f3, value.c_str()), Reply(refusal.empty() ? 0 : -1, refusal))
            << +f3 << " " << value;
        EXPECT_TRUE(m().changed.isSet(flag::Wlan, 1));  // marked before validating
        EXPECT_EQ(call(false, 1, f3), Reply(0, read)) << +f3 << " " << value;
    }
    EXPECT_EQ(call(false, 1, 16), Reply(-1, "Unknown subidx II in f3"));
    EXPECT_EQ(call(false, 2, 0), Reply(-1, ""));
    EXPECT_EQ(call(true, 2, 7, "2"), Reply(0, ""));  // beyond the interface: no change
    EXPECT_EQ(wlan().Mode, 1);
    EXPECT_EQ(m().previousWlanMode, 0);  // the mode before the accepted write
    // The static address is also the AP's address in the platform record.
    EXPECT_EQ(call(true, 1, 9, "192.168.9.1"), Reply(0, ""));
    EXPECT_EQ(m().platform.ip_address.s_addr, inet_addr("192.168.9.1"));

    // The first read of a session fetches the live state and the platform file.
    fake.interfaces["eth0"] = {{0x00, 0x1a, 0x2b, 0xc3, 0xd4, 0xef}, "192.168.7.20"};
    fake.writeFile(kPlatformConfigPath, "WLAN_MODE=UAP\n");
    m().session.counter = 3;
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(false, 1, 15), Reply(0, "00:1A:2B:C3:D4:EF"));
    EXPECT_EQ(call(false, 1, 9), Reply(0, "192.168.7.20"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "refreshWlanInformation\n");
    EXPECT_EQ(call(false, 0, 1), Reply(0, "uap"));
}

TEST_F(WlanTest, StationToApWritesTheApFilesAndAsksForAReboot) {
    EXPECT_EQ(session({{7, "2"}}, 1).mt, POS_ANSW);
    EXPECT_TRUE(m().rebootRequested);
    EXPECT_EQ(fake.commands,
              (Lines{"/etc/init.d/S39uap stop", "ifconfig eth0 down",
                     "/etc/init.d/S39uap start /tmp/uaputl0.conf", "ifconfig uap0 10.1.2.3 up"}));
    EXPECT_EQ(fake.readFile("/tmp/uap0.ipcfg"), "IP_ADDRESS=10.1.2.3\nIP_NETMASK=255.255.255.0\n");
    EXPECT_EQ(fake.readFile(kPlatformConfigPath),
              "WLAN_DRIVER_REGCODE=0x10\nWLAN_MODE=UAP\nIP_ADDRESS=10.1.2.3\nUDHCPDCNF=\"\"\n");
    // uaputl and the device's tools read the MAC filter block, which ends the file, as one line.
    const std::string ap = fake.readFile("/mnt/user/uaputl.conf");
    EXPECT_EQ(ap.find('\n', ap.find("ap_mac_filter={")), ap.size() - 2);
}

// The values of a file's settings, "key=value" each, without comments and blanks.
std::string settingsOf(const std::string& text) {
    std::string values, line;
    for (std::istringstream in(text); std::getline(in, line);) {
        line = line.substr(0, line.find('#'));
        std::erase_if(line, [](char c) { return c == ' ' || c == '\t'; });
        if (!line.empty()) values += (values.empty() ? "" : " ") + line;
    }
    return values;
}

// The reboot between station and AP, and the file each mode writes, by its security settings.
TEST_F(WlanTest, ApplyByModeAndSecurity) {
    const std::string wpa2 = "\tproto=WPA2\n\tkey_mgmt=WPA-PSK\n\tpsk=\"secret-pass\"\n";
    const std::string station =
        "ctrl_interface=/var/run/wpa_supplicant\nnetwork={\n\tpriority=0\n\tssid=\"Lab\"\n"
        "\tscan_ssid=0\n";
    // platform file's mode, previous mode, mode applied, reboot?, encryption type, key type, the
    // file's settings (the AP file's values between its fixed head and tail)
    const std::tuple<uint8_t, uint8_t, uint8_t, bool, uint8_t, uint8_t, std::string> cases[] = {
        {0, 0, 2, true, 0, 1, "AuthMode=0 Protocol=1 RSNReplayProtection=0"},
        {2, 2, 2, false, 1, 1,
         "AuthMode=1 Protocol=2 RSNReplayProtection=0 KeyIndex=0 Key_0=\"secret-pass\""},
        {2, 0, 2, true, 1, 0, "AuthMode=1 Protocol=2 RSNReplayProtection=0 KeyIndex=0 Key_0=0"},
        {1, 2, 2, false, 6, 1,
         "Protocol=32 RSNReplayProtection=0 PairwiseCipher=8 GroupCipher=8 PSK=\"secret-pass\" "
         "GroupRekeyTime=86400 11d_enable=0"},
        {0, 2, 2, true, 9, 1, "RSNReplayProtection=0"},  // beyond the table: no security lines
        {0, 0, 1, false, 0, 1, "\tmode=1\n\tkey_mgmt=NONE\n}\n"},
        {0, 1, 0, false, 1, 1,
         "\tmode=0\n\tkey_mgmt=NONE\n\twep_tx_keyidx=0\n\twep_key0=\"secret-pass\"\n}\n"},
        {2, 0, 0, true, 5, 1, "\tmode=0\n" + wpa2 + "\tpairwise=CCMP\n\tgroup=TKIP\n}\n"},
        {0, 2, 1, true, 9, 1, "\tmode=1\n" + wpa2 + "\tpairwise=TKIP\n\tgroup=TKIP\n}\n"}};
    for (const auto& [platformMode, previous, mode, reboot, type, keyType, settings] : cases) {
        SCOPED_TRACE(testing::Message() << +platformMode << " " << +previous << " " << +mode);
        std::tie(m().rebootRequested, m().platform.wlan_mode, m().previousWlanMode, wlan().Mode,
                 wlan().EncryptionType, wlan().KeyType) =
            std::tuple(0, platformMode, previous, mode, type, keyType);
        EXPECT_EQ(apply(1), Reply(0, ""));
        EXPECT_EQ(m().rebootRequested, reboot);
        EXPECT_STREQ(wlan().BaseName, mode == 2 ? "uap" : "eth");
        EXPECT_EQ(m().platform.wlan_mode, mode);  // and written to the platform file
        if (mode == WLAN_MODE_UAP) {
            const std::string ap = fake.readFile("/mnt/user/uaputl.conf");
            const auto from = ap.find("transmissions\n") + 14, to = ap.find("\n\n#   country=US");
            ASSERT_NE(to, std::string::npos) << ap;
            EXPECT_EQ(settingsOf(ap.substr(from, to - from)), settings);
            EXPECT_LT(ap.find("    SSID=\"Lab\""), from);
        } else
            EXPECT_EQ(fake.readFile("/tmp/wpa_supplicant0.conf"),
                      (mode == 1 ? "ap_scan=2\n" : "ap_scan=1\n") + station + settings);
    }
}

TEST_F(WlanTest, AddressOnlyWhenItIsTheSessionsFirstInterfaceWrite) {
    // Any second write, even of the address again, needs the whole apply.
    using Writes = std::vector<std::pair<uint8_t, const char*>>;
    for (const Writes& writes :
         {Writes{{9, "10.1.2.4"}, {9, "10.1.2.5"}}, {{1, "Lab"}, {9, "10.1.2.4"}}}) {
        (void)session(writes, 1);
        EXPECT_EQ(m().wlanChangeIpOnly, 0u) << writes[0].second;
    }
    // Only re-addressed: the station's service around it, no files but the address file.
    fake.removeFile(kPlatformConfigPath);
    fake.commands.clear();
    (void)session({{9, "10.1.2.4"}}, 1);
    EXPECT_EQ(m().wlanChangeIpOnly, 1u);
    EXPECT_EQ(fake.commands, (Lines{"/etc/init.d/S39wlan stop", "ifconfig eth0 down",
                                    "ifconfig eth0 10.1.2.4 up", kStationStart}));
    EXPECT_EQ(fake.readFile("/tmp/eth0.ipcfg"), "IP_ADDRESS=10.1.2.4\nIP_NETMASK=255.255.255.0\n");
    wlan().Mode = WLAN_MODE_UAP;
    fake.commands.clear();
    (void)session({{9, "10.1.2.6"}}, 1);
    EXPECT_EQ(fake.commands, (Lines{"ifconfig eth0 down", "ifconfig eth0 10.1.2.6 up"}));
    EXPECT_FALSE(fake.fileExists(kPlatformConfigPath));
}

TEST_F(WlanTest, ApplyFailuresAndDhcp) {
    fake.writeFile("/tmp/eth0.ipcfg", "IP_ADDRESS=1.1.1.1\n");
    wlan().UseDHCP = 1;
    EXPECT_EQ(apply(1), Reply(0, ""));
    EXPECT_EQ(fake.commands, (Lines{"/etc/init.d/S39wlan stop", "ifconfig eth0 down",
                                    "/etc/init.d/udhcpc.sh restart eth0 \"VORL-Gateway\"",
                                    kStationStart, "ifconfig eth0 10.1.2.3 up"}));
    EXPECT_FALSE(fake.fileExists("/tmp/eth0.ipcfg"));

    // "-1" shifts by 255: the empty mask passes the write's and the apply's test, and the
    // apply then fails on the unknown mode.
    EXPECT_EQ(call(true, 1, 7, "-1"), Reply(0, ""));
    fake.commands.clear();
    EXPECT_EQ(apply(1), Reply(-1, ""));
    EXPECT_EQ(fake.commands,
              (Lines{"/etc/init.d/S39wlan stop", "ifconfig eth0 down", kStationStart}));

    fake.commands.clear();
    wlan().Mode = WLAN_MODE_UAP;
    wlan().SupportedModes = 1u << WLAN_MODE_STATION;
    EXPECT_EQ(apply(1), Reply(-1, "unsupported mode 2"));
    EXPECT_EQ(apply(2), Reply(-1, "false interface index 2"));
    EXPECT_EQ(fake.commands, Lines{});

    for (int command : {0, 1, 2, 5})
        EXPECT_EQ(wlanDriverControl(command), command == 5 ? -1 : 0);
    EXPECT_EQ(fake.commands, (Lines{"/etc/init.d/S10wlan start", "/etc/init.d/S10wlan stop",
                                    "/etc/init.d/S10wlan restart"}));
}

#endif

}  // namespace
