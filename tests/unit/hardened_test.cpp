// Built once per program: the legacy builds show the hazards the hardened profile refuses (a
// host name that reaches root's shell lines as it is, stored texts that the next load cuts),
// the hardened build (`hardened.` tests) refuses them with the rule's text. The legacy builds
// state what an aborted session leaves behind, the hardened build that an abort leaves the
// model and the driver as a fresh start on the same file does, and runs no command where
// nothing differs.

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <tuple>

#include "config/config_path.h"
#include "config/loader.h"
#include "config/store.h"
#include "core/daemon.h"
#include "core/session.h"
#include "fake_system.h"
#include "filters/route_filters.h"
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

// Keys of the file with shell syntax (or a text the file cannot keep) in them, as a legacy
// build, a backup or a hand may have left them. The legacy build passes them on; the hardened
// one loads each key's default, names key and rule in one line, and passes nothing on.
struct FileCase {
    const char* key;
    const char* value;  // quoted in the file when it holds ';' or '#'
    const char* rule;
    const char* fallback;
    // 's': a store writes it; 'w': read by a build with a WLAN interface only; 'x': reaches
    // nothing in this set-up (only the log shows the rule)
    char reaches;
};

constexpr FileCase kFileCases[] = {
    {"General:Description", "a;b", rules::kStoredTextText, "Module description", 's'},
    {"General:NTPServer", "x$(reboot)", rules::kNtpServerText, "pool.ntp.org", '-'},
    {"HOST:Devicename", "gw`reboot`", rules::kHostNameText, "VORL-Gateway", 's'},
    {"LAN_0:IfName", "eth0$(reboot)", rules::kInterfaceNameText, "eth0", 's'},
    {"WLAN_0:IfName", "w$(reboot)", rules::kInterfaceNameText, "wlan0", 'x'},
    {"WLAN_0:SSID", "lab\"x", rules::kSsidText, "MyWLAN", 'w'},
    {"WLAN_0:Key", "pa\\ss", rules::kWlanKeyText, "", 'w'},
    {"CAN_1:IfName", "can1|reboot", rules::kInterfaceNameText, "can1", 's'},
    {"FILTER_0:Comment", "in#2", rules::kStoredTextText, "", 's'},
    {"FILTER_0:Name", "f;x", rules::kStoredTextText, "", 's'},
    {"RT_0:RtInfo", "rt;x", rules::kStoredTextText, "Route n", 's'},
    {"RT_0:Interface1", "c$(reboot)", rules::kInterfaceNameText, "can0", 's'},
};

// Links a local user planted at the paths root writes in /tmp (a route's filter file, the
// store's temporary file, the lock file): the legacy daemon writes through them, the hardened
// one makes its own files instead.
TEST_F(Hardened, PlantedLinksInSharedPlacesAreNotWrittenThrough) {
    constexpr const char* kLock = "/tmp/kiv_lock";
    fake.writeFile("/etc/target", "secret\n");
    for (const char* planted : {"/tmp/canoip3_filter.cfg", kTemporaryConfigPath, kLock}) {
        fake.removeFile(planted);
        ASSERT_EQ(symlink(fake.pathOf("/etc/target").c_str(), fake.placeFile(planted).c_str()), 0);
    }
    storeFilterInformation(m().routes[3], 3, FilterList{});
    m().changed.place[flag::General] = 1;
    AnswerMessage answer{};
    EXPECT_EQ(storeConfiguration(m(), answer), 0) << answer.da;
    EXPECT_EQ(writeLockFile(kLock, 5, 6, 7), 0);
    EXPECT_EQ(fake.readFile("/etc/target") == "secret\n", kHardened);
    EXPECT_NE(fake.readFile("/tmp/canoip3_filter.cfg"), "");
}

TEST_F(Hardened, FileTextsAreCheckedAtLoadAsAClientsWrites) {
    std::string file = configHeader("1.3.1") +
                       "[General]\nUseNTP = 1\n[LAN_0]\nUseDHCP = 1\n[FWD_GEN]\nCount = 1\n[RT_0]\n"
                       "Active = TRUE\n[FILTER_0]\nfilter_type = 1\nTerm = 0x1-0x2\n[WLAN_0]\n"
                       "Encryption = 1\nEncryptionType = 6\n";
    std::string expectedLog;
    for (const FileCase& c : kFileCases) {
        const std::string key = c.key, value = c.value;
        const bool quoted = value.find_first_of(";#") != std::string::npos;
        file += "[" + key.substr(0, key.find(':')) + "]\n" + key.substr(key.find(':') + 1) +
                (quoted ? " = \"" + value + "\"\n" : " = " + value + "\n");
        expectedLog += "cfgd: " + key + " in the configuration file refused, its default \"" +
                       c.fallback + "\" loaded: " + c.rule + "\n";
    }
    fake.writeFile(kDefaultConfigPath, file);
    ::testing::internal::CaptureStderr();
    ASSERT_EQ(loadConfiguration(m()), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), kHardened ? expectedLog : "");
    m().changed.setAll();  // the start-up's apply, the WLAN group's too, and a store of all
    AnswerMessage answer{};
    (void)applyChangedGroups(m(), answer);  // what ran is what counts
    ASSERT_EQ(storeConfiguration(m(), answer), 0) << answer.da;
    // Commands, the host name and the supplicant's file; the store keeps keys it never writes.
    const std::string ran = ::testing::PrintToString(fake.commands) +
                            ::testing::PrintToString(fake.hostNamesSet) +
                            fake.readFile("/tmp/wpa_supplicant0.conf");
    const std::string stored = fake.readFile(kDefaultConfigPath);
    for (const FileCase& c : kFileCases) {
        const bool passedOn = ran.find(c.value) != std::string::npos ||
                              (c.reaches == 's' && stored.find(c.value) != std::string::npos);
        const bool read = c.reaches != 'x' && (c.reaches != 'w' || WLAN_IF_COUNT > 0);
        EXPECT_EQ(passedOn, !kHardened && read) << c.value;
    }
}

using Write = std::tuple<uint8_t, uint8_t, uint8_t, const char*>;
// One session's writes, then ABORT_SESSION; the probe's read then starts with the legacy text
// in the legacy profile and with the fresh one, as after a fresh start, in the hardened one,
// whose abort runs commands only when a group of the system must be set back.
using AbortCase =
    std::tuple<std::vector<Write>, std::array<uint8_t, 3>, const char*, const char*, bool>;
const AbortCase kAbortCases[] = {
    {{{9, 3, 0, "3"}, {9, 3, 2, "0x10/0x7FF"}}, {9, 3, 0}, "3", "Can't find filter", false},
    {{{5, 1, 33, "2"}}, {5, 1, 33}, "2,1", "1", false},  // link one, unlink the other
    {{{5, 3, 0, "extra"}}, {5, 3, 1}, "1", "0", false},  // switch a route on
    {{{5, 1, 2, "0"}}, {5, 1, 2}, "0", "1", false},      // the route's direction
    {{{5, 1, 32, "1"}}, {5, 1, 32}, "1", "0", false},    // no control
    {{{4, 1, 5, "BRP 4; RJW 1; PSEG1 7; PSEG2 2; PROPSEG 6"}}, {4, 1, 5}, "BRP 4", "BRP 0", true},
    {{{5, 4, 14, "1"}}, {5, 4, 1}, "1", "0", false},  // refused: read only
    {{}, {0, 4, 0}, "Module", "Module", false},
};

using Abort = SeamTest;

TEST_F(Abort, HardenedLeavesAFreshStartLegacyKeepsTheSession) {
    // The start-up's part, on a new model and an empty driver (without the interface base
    // names: the commands do not matter here).
    const auto startUp = [&] {
        resetModel(m());
        fake.driver = SimDriver{};
        startWlanInterfaces(m());
        ASSERT_EQ(loadConfiguration(m()), 0);
        m().previousWlanMode = m().wlan.Mode;
        markForStartApply(m());
        AnswerMessage answer{};
        (void)applyChangedGroups(m(), answer);
    };
    // The model up to the session's bookkeeping (the configuration), then each node's route
    // and filters.
    const auto state = [&] {
        std::string bytes(reinterpret_cast<const char*>(model), offsetof(ConfigModel, changed));
        for (int n = 0; n < SimDriver::kRouteNodes; ++n) {
            const SimDriver::RouteNode& node = fake.driver.routeNode(n);
            if (node.route) bytes.append(reinterpret_cast<const char*>(&node.route->info), 140);
            bytes.append(reinterpret_cast<const char*>(node.filters.data()),
                         node.filters.size() * 8) += std::to_string(node.filterRequest) + ';';
        }
        return bytes;
    };
    fake.writeFile("/proc/devices", "250 tarn-gw\n");
    // Filter 1 is an inverted id/mask filter on route 1, filter 2 a range filter on no route.
    fake.writeFile(kDefaultConfigPath,
                   configHeader("1.3.1") +
                       "[HOST]\nDevicename = lab-gw\n[CAN_0]\nBR_Register = -\n"
                       "[FILTER_0]\nfilter_type = 3\nfilter_mode = 0\nTerm = 0x123/0x7FF\n"
                       "[FILTER_1]\nfilter_type = 1\nTerm = 0x200-0x2FF\n[FWD_GEN]\nCount = 1\n"
                       "[RT_0]\nType = LAN2CAN\nFilters = 0\nDestination2 = 198.51.100.9:7000\n");
    startUp();
    const std::string fresh = state();
    for (const auto& [writes, probe, legacy, freshText, runs] : kAbortCases) {
        SCOPED_TRACE(legacy);
        startUp();
        send(START_SESSION, 40, 0, static_cast<uint8_t>(writes.size()));
        for (const auto& [f1, f2, f3, value] : writes)
            send(SET_PARAM, f1, f2, f3, value);
        fake.commands.clear();
        fake.hostNamesSet.clear();
        EXPECT_EQ(send(ABORT_SESSION).mt, POS_ANSW);
        if (kHardened) {  // the legacy reload sets the host name and restarts canoipd every time
            EXPECT_TRUE(state() == fresh);
            EXPECT_EQ(!fake.commands.empty() || !fake.hostNamesSet.empty(), runs)
                << ::testing::PrintToString(fake.commands);
        }
        send(START_SESSION, 40, 0, 0);
        const std::string read = send(READ_PARAM, probe[0], probe[1], probe[2]).da;
        EXPECT_EQ(read.rfind(kHardened ? freshText : legacy, 0), 0u) << read;
    }
}

}  // namespace
