// Built once per program: the legacy builds show the hazards the hardened profile refuses (a
// host name that reaches root's shell lines as it is, stored texts that the next load cuts),
// the hardened build (`hardened.` tests) refuses them with the rule's text.

#include <string_view>

#include "config/config_path.h"
#include "config/loader.h"
#include "core/session.h"
#include "fake_system.h"
#include "model/value_rules.h"
#include "network/wlan_count.h"
#include "network/wlan_group.h"

namespace {

struct Case {
    uint8_t f1, f2, f3;
    const char* value;
    const char* refusal;         // the hardened answer; nullptr: both profiles accept the value
    const char* legacyText;      // otherwise a text of a command line (or of `legacyFile`) ...
    const char* legacyReadBack;  // ... or what a read gives after a store and a reload
    const char* legacyFile = nullptr;
};

constexpr Case kCases[] = {
    // Unquoted into canoipd's line at the reload, quoted (not against "$(") into the DHCP one.
    {1, 0, 0, "gw$(touch /tmp/x)", rules::kHostNameText, "-N gw$(touch /tmp/x) -I eth0", nullptr},
    {1, 0, 0, "gw|touch /tmp/x", rules::kHostNameText, "-N gw|touch /tmp/x -I eth0", nullptr},
    {1, 0, 0, "gw;touch /tmp/x", rules::kHostNameText, "restart 0 \"gw;touch /tmp/x\"", nullptr},
    {1, 0, 0, "lab-7.gw", nullptr, "-N lab-7.gw -I eth0", nullptr},
    {0, 4, 0, "bench\n[Host]\nDevicename = x", rules::kStoredTextText, nullptr, "bench"},
    {0, 4, 0, "bench 7 (hall B)", nullptr, nullptr, "bench 7 (hall B)"},
    {9, 1, 3, "left;right", rules::kStoredTextText, nullptr, "left"},
    {9, 1, 4, "in#2", rules::kStoredTextText, nullptr, "in"},
    {5, 1, 0, "rt;x", rules::kStoredTextText, nullptr, "rt"},
    {5, 1, 3, "can1#x", rules::kInterfaceNameText, "= can1#x\n", nullptr, kDefaultConfigPath},
    {4, 1, 0, "can0;reboot", rules::kInterfaceNameText, nullptr, "can0"},
    {2, 1, 0, "eth0 #x", rules::kInterfaceNameText, nullptr, "eth0"},
    // Not stored in the configuration file, but between quotes in the supplicant's file.
    {3, 1, 1, "lab\"\nscan_ssid=1", rules::kSsidText, "ssid=\"lab\"\nscan_ssid=1\"", nullptr,
     "/tmp/wpa_supplicant0.conf"},
    {3, 1, 5, "pa\\ss\"", rules::kWlanKeyText, "psk=\"pa\\ss\"\"", nullptr,
     "/tmp/wpa_supplicant0.conf"},
};

class Hardened : public SeamTest {
  protected:
    Hardened() {
        fake.writeFile("/proc/devices", "250 tarn-gw\n");  // the driver, so a load runs canoipd
        fake.writeFile("/proc/modules", "tarn_gw 98304 8 - Live 0x0\n");
        fake.writeFile(kDefaultConfigPath, "");
        startWlanInterfaces(m());
        m().wlan.EncryptionType = 6;  // WPA2: the key goes into the supplicant's file
    }
    bool anyCommandHas(std::string_view text) const {
        for (const std::string& command : fake.commands)
            if (command.find(text) != std::string::npos) return true;
        return false;
    }
};

TEST_F(Hardened, ValuesThatReachShellLinesAndFiles) {
    for (const Case& c : kCases) {
        if (c.f1 == 3 && WLAN_IF_COUNT == 0) continue;  // no WLAN interface to write
        SCOPED_TRACE(c.value);
        fake.commands.clear();
        // A filter with a term that loads, DHCP on (its client line has the host name), the value.
        send(START_SESSION, 40, 0, 4);
        send(SET_PARAM, 9, 1, 0, "1");
        send(SET_PARAM, 9, 1, 2, "0x100-0x1FF");
        send(SET_PARAM, 2, 1, 1, "1");
        const AnswerMessage answer = send(SET_PARAM, c.f1, c.f2, c.f3, c.value);
        send(FINISH_SESSION);
        send(ABORT_SESSION);  // reloads the stored file, restarting canoipd
        send(START_SESSION, 40, 0, 0);
        const std::string readBack = send(READ_PARAM, c.f1, c.f2, c.f3).da;
        if (kHardened && c.refusal != nullptr) {
            EXPECT_EQ(shown(answer), "NEG to 40 " + std::to_string(c.f1) + "/" +
                                         std::to_string(c.f2) + "/" + std::to_string(c.f3) + ": " +
                                         c.refusal);
            EXPECT_FALSE(anyCommandHas(c.value)) << ::testing::PrintToString(fake.commands);
            EXPECT_NE(readBack, c.value);
        } else {
            EXPECT_EQ(answer.mt, POS_ANSW) << answer.da;
            if (c.legacyFile != nullptr) {
                EXPECT_NE(fake.readFile(c.legacyFile).find(c.legacyText), std::string::npos);
            } else if (c.legacyText != nullptr) {
                EXPECT_TRUE(anyCommandHas(c.legacyText)) << ::testing::PrintToString(fake.commands);
            }
            if (c.legacyReadBack != nullptr) {
                EXPECT_EQ(readBack, c.legacyReadBack);
            }
        }
        send(FINISH_SESSION);
    }
}

// A key of the file with shell syntax (or a text the file cannot keep) in it, as a legacy build,
// a backup or a hand may have left it. The legacy build loads it as it stands; the hardened one
// loads the default instead, names the key and the rule in one line, and passes nothing on.
struct FileCase {
    const char* lines;  // appended to a file that has NTP, DHCP, route 0, filter 0 and WLAN on
    const char* value;  // what the legacy build loads
    const char* key;
    const char* rule;
    const char* fallback;
    const char* (*field)(const ConfigModel&);
    bool wlan = false;
};

const FileCase kFileCases[] = {
    {"[General]\nNTPServer = x$(reboot)", "x$(reboot)", "General:NTPServer", rules::kNtpServerText,
     "pool.ntp.org", [](const ConfigModel& m) { return m.general.NTPServer; }},
    {"[HOST]\nDevicename = gw`reboot`", "gw`reboot`", "HOST:Devicename", rules::kHostNameText,
     "VORL-Gateway", [](const ConfigModel& m) { return m.general.hostName; }},
    {"[LAN_0]\nIfName = eth0$(reboot)", "eth0$(reboot)", "LAN_0:IfName", rules::kInterfaceNameText,
     "eth0", [](const ConfigModel& m) { return m.lan[0].IfName; }},
    {"[CAN_1]\nIfName = can1|reboot", "can1|reboot", "CAN_1:IfName", rules::kInterfaceNameText,
     "can1", [](const ConfigModel& m) { return m.can[1].IfName; }},
    {"[RT_0]\nInterface1 = c$(reboot)", "c$(reboot)", "RT_0:Interface1", rules::kInterfaceNameText,
     "can0", [](const ConfigModel& m) { return m.routes[0].image.info.interface1; }},
    {"[RT_0]\nRtInfo = \"rt;x\"", "rt;x", "RT_0:RtInfo", rules::kStoredTextText, "Route n",
     [](const ConfigModel& m) { return m.routes[0].RtInfo; }},
    {"[General]\nDescription = \"a;b\"", "a;b", "General:Description", rules::kStoredTextText,
     "Module description", [](const ConfigModel& m) { return m.general.Description; }},
    {"[FILTER_0]\nComment = \"in#2\"", "in#2", "FILTER_0:Comment", rules::kStoredTextText, "",
     [](const ConfigModel& m) { return m.filters.slots[0].Comment; }},
    {"[FILTER_0]\nName = \"f;x\"", "f;x", "FILTER_0:Name", rules::kStoredTextText, "",
     [](const ConfigModel& m) { return m.filters.slots[0].Name; }},
    {"[WLAN_0]\nIfName = w$(reboot)", "w$(reboot)", "WLAN_0:IfName", rules::kInterfaceNameText,
     "wlan0", [](const ConfigModel& m) { return m.wlan.IfName; }, true},
    {"[WLAN_0]\nSSID = lab\"x", "lab\"x", "WLAN_0:SSID", rules::kSsidText, "MyWLAN",
     [](const ConfigModel& m) { return m.wlan.SSID; }, true},
    {"[WLAN_0]\nKey = pa\\ss", "pa\\ss", "WLAN_0:Key", rules::kWlanKeyText, "",
     [](const ConfigModel& m) { return m.wlan.Key; }, true},
};

TEST_F(Hardened, FileValuesAreCheckedAtLoadAsAClientsWrites) {
    for (const FileCase& c : kFileCases) {
        if (c.wlan && WLAN_IF_COUNT == 0) continue;  // no WLAN section is read
        SCOPED_TRACE(c.lines);
        fake.commands.clear();
        fake.hostNamesSet.clear();
        fake.writeFile(kDefaultConfigPath,
                       configHeader("1.3.1") +
                           "[General]\nUseNTP = 1\n[LAN_0]\nUseDHCP = 1\n[FWD_GEN]\nCount = 1\n"
                           "[RT_0]\nActive = TRUE\n[FILTER_0]\nfilter_type = 1\nTerm = 0x1-0x2\n"
                           "[WLAN_0]\nEncryption = 1\nEncryptionType = 6\n" +
                           c.lines + "\n");
        ::testing::internal::CaptureStderr();
        ASSERT_EQ(loadConfiguration(m()), 0);
        const std::string logged = ::testing::internal::GetCapturedStderr();
        m().changed.setAll();  // as the start-up's apply, and the WLAN group too
        AnswerMessage answer{};
        (void)applyChangedGroups(m(), answer);  // what ran is what counts
        const bool passedOn =
            anyCommandHas(c.value) ||
            fake.readFile("/tmp/wpa_supplicant0.conf").find(c.value) != std::string::npos ||
            (!fake.hostNamesSet.empty() && fake.hostNamesSet[0] == c.value);
        if (kHardened) {
            EXPECT_STREQ(c.field(m()), c.fallback);
            EXPECT_EQ(logged, std::string("cfgd: ") + c.key +
                                  " in the configuration file refused, its default \"" +
                                  c.fallback + "\" loaded: " + c.rule + "\n");
            EXPECT_FALSE(passedOn) << ::testing::PrintToString(fake.commands);
        } else {
            EXPECT_STREQ(c.field(m()), c.value);
            EXPECT_EQ(logged, "");
        }
    }
}

}  // namespace
