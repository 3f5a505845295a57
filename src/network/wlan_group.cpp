#include "network/wlan_group.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "model/config_model.h"
#include "model/device_numbers.h"
#include "model/value_rules.h"
#include "network/nw.h"
#include "network/platform_config.h"
#include "network/wlan_count.h"
#include "sys/log.h"
#include "sys/shell_command.h"
#include "sys/system.h"

static_assert(WLAN_IF_COUNT <= kWlanRecords, "the model keeps storage for one WLAN interface");

namespace {

constexpr unsigned kGroupInstance = 0;
constexpr uint8_t kIPv4Parameter = 9;
constexpr uint8_t kAllModes = 1u << WLAN_MODE_STATION | 1u << WLAN_MODE_ADHOC | 1u << WLAN_MODE_UAP;
constexpr int32_t kHighestModeNumber = 5;
constexpr uint8_t kHighestEncryptionType = 6;
constexpr uint8_t kFallbackEncryptionType = 5;  // WPA2, CCMP pairwise, TKIP group

constexpr const char* kUnsupportedModeFormat = "unsupported mode %d";
constexpr const char* kFalseWlanInterfaceFormat = "false interface index %d";
constexpr const char* kSupportedModesText = "0,1";

// Diagnostic lines on standard output.
constexpr const char* kLogCall = "%s()\n";
constexpr const char* kLogName = "%s\n";
constexpr const char* kLogGeneral = "%s: general wlan if info changed\n";
constexpr const char* kLogInterfaceChanged = "%s: wlan_if_info_changed[%d]\n";
constexpr const char* kLogChangeIpOnly = "%s: change_ip_only = %u\n";
constexpr const char* kLogPlatformMode = "%s: p_conf->platform_cfg->wlan_mode is %d \n";
constexpr const char* kLogMode = "%s: pCfg->mode is %d \n";
constexpr const char* kLogOldMode = "%s: old_wlan_mode = %u\n";
constexpr const char* kLogApCase = "%s: case wlan_mode_uap\n";
constexpr const char* kLogUnknownMode = "%s: unknown case for wlan_mode\n";
constexpr const char* kLogDhcpClient = "%s: (re)starting DHCP Client for %s\n";
constexpr const char* kLogWlanCfg = "%s: mode = %u, cmd = %d\n";

// Init scripts and the files they are given.
constexpr std::size_t kWlanCommandChars = 126;
constexpr const char* kStationScript = "/etc/init.d/S39wlan";
constexpr const char* kApScript = "/etc/init.d/S39uap";
constexpr const char* kDriverScript = "/etc/init.d/S10wlan";
constexpr const char* kScriptStartFormat = "%s %s %s";
constexpr const char* kScriptStopFormat = "%s %s";
constexpr const char* kStartWord = "start";
constexpr const char* kStopWord = "stop";
constexpr const char* kRestartWord = "restart";
constexpr const char* kServiceFileFormat = "%s%d.conf";
constexpr const char* kSupplicantFileBase = "/tmp/wpa_supplicant";
constexpr const char* kApScriptFileBase = "/tmp/uaputl";

// Generated files.
constexpr std::size_t kPathChars = 127;
constexpr std::size_t kFileLineChars = 126;
constexpr mode_t kGeneratedFileMode = 0774;
constexpr const char* kApFileFormat = "%s.conf";
constexpr const char* kApFileBase = "/mnt/user/uaputl";
constexpr const char* kAddressFileFormat = "%s%s%u.ipcfg";
constexpr const char* kAddressFileDirectory = "/tmp/";
constexpr const char* kSupplicantControlDirectory = "/var/run/wpa_supplicant";
constexpr const char* kNoKeyManagement = "NONE";
constexpr const char* kPskKeyManagement = "WPA-PSK";

// What each encryption type makes of the supplicant and AP files.
struct EncryptionSpec {
    const char* proto;  // nullptr: no WPA (open or WEP)
    const char* pairwise;
    const char* group;
    int apProtocol;
    int apPairwiseCipher;
    int apGroupCipher;
};
constexpr EncryptionSpec kEncryption[] = {
    {nullptr, nullptr, nullptr, 1, 0, 0},  // 0 open
    {nullptr, nullptr, nullptr, 2, 0, 0},  // 1 WEP
    {"WPA", "TKIP", "TKIP", 8, 4, 4},      // 2
    {"WPA", "CCMP", "CCMP", 8, 8, 8},      // 3
    {"WPA2", "TKIP", "TKIP", 32, 4, 4},    // 4
    {"WPA2", "CCMP", "TKIP", 32, 12, 4},   // 5
    {"WPA2", "CCMP", "CCMP", 32, 8, 8},    // 6
};
static_assert(std::size(kEncryption) == kHighestEncryptionType + 1);
constexpr uint8_t kOpen = 0;
constexpr uint8_t kWep = 1;
// The supplicant file treats a type beyond the table (from an edited configuration file) as
// this one.
constexpr uint8_t kSupplicantFallbackType = 4;

// 1 shifted by the mode; empty for shifts of 32 and more. A mode of 255 (a write of "-1") thus
// passes every mode test; kept as the device has always behaved, the apply then fails on it.
uint32_t modeMask(uint8_t mode) {
    return mode < 32 ? 1u << mode : 0u;
}

bool modeSupported(const WlanInterface& wlan, uint8_t mode) {
    return (wlan.SupportedModes & modeMask(mode)) == modeMask(mode);
}

// --- f2 = 0: the group as a whole, indexed by f3 ---

int readCount(AnswerMessage& answer, const ConfigModel&) {
    answerText(answer, "%u", WLAN_IF_COUNT);
    return 0;
}

int readPrefix(AnswerMessage& answer, const ConfigModel& model) {
    const bool ap = model.platform.wlan_mode == WLAN_MODE_UAP;
    answerCopy(answer, ap ? kWlanApBaseName : kWlanStationBaseName);
    return 0;
}

constexpr int (*kGroupReaders[])(AnswerMessage& answer, const ConfigModel& model) = {
    readCount,   // 0 "IF cnt"
    readPrefix,  // 1 "Prefix"
};

// --- f2 = 1 .. WLAN_IF_COUNT: the interface, indexed by f3 ---

using InterfaceReader = int (*)(const WlanInterface& wlan, AnswerMessage& answer);

template <auto Field>
int readText(const WlanInterface& wlan, AnswerMessage& answer) {
    answerCopy(answer, wlan.*Field);
    return 0;
}

template <auto Field>
int readNumber(const WlanInterface& wlan, AnswerMessage& answer) {
    answerText(answer, "%u", wlan.*Field);
    return 0;
}

template <auto Field>
int readAddress(const WlanInterface& wlan, AnswerMessage& answer) {
    constexpr int family = sizeof(wlan.*Field) == sizeof(in_addr) ? AF_INET : AF_INET6;
    return inet_ntop(family, &(wlan.*Field), answer.da, sizeof answer.da) != nullptr ? 0 : -1;
}

int readSupportedModes(const WlanInterface&, AnswerMessage& answer) {
    answerCopy(answer, kSupportedModesText);  // the station modes, whatever the record says
    return 0;
}

constexpr InterfaceReader kInterfaceReaders[] = {
    readText<&WlanInterface::IfName>,            // 0 "IF name"
    readText<&WlanInterface::SSID>,              // 1 "SSID"
    readNumber<&WlanInterface::Encryption>,      // 2 "Encryption usage"
    readNumber<&WlanInterface::EncryptionType>,  // 3 "Encryption type"
    readNumber<&WlanInterface::KeyType>,         // 4 "Key type"
    readText<&WlanInterface::Key>,               // 5 "Key"
    readSupportedModes,                          // 6 "Supported modes"
    readNumber<&WlanInterface::Mode>,            // 7 "mode"
    readNumber<&WlanInterface::UseDHCP>,         // 8 "DHCP usage"
    readAddress<&WlanInterface::IPv4>,           // 9 "IPv4"
    readAddress<&WlanInterface::Subnetmask>,     // 10 "Subnetmask"
    readAddress<&WlanInterface::IPv6>,           // 11 "IPv6"
    readAddress<&WlanInterface::IPv4Gw>,         // 12 "IPv4Gateway"
    readAddress<&WlanInterface::IPv6Gw>,         // 13 "IPv6Gateway"
    readNumber<&WlanInterface::Netbitsv6>,       // 14 "IPv6 net bits"
    readText<&WlanInterface::MAC>,               // 15 "MAC Address"
};

using InterfaceWriter = int (*)(const RequestMessage& request, AnswerMessage& answer,
                                ConfigModel& model);

// At most as many characters as the field holds (127 for the name, 32 for the SSID, 64 for the
// key), always terminated. `Check` is the hardened profile's rule for the text.
template <auto Field, const char* (*Check)(const char*)>
int writeText(const RequestMessage& request, [[maybe_unused]] AnswerMessage& answer,
              ConfigModel& model) {
    if constexpr (kHardened) {
        if (const char* refusal = Check(request.da)) return failText(answer, refusal);
    }
    copyText(model.wlan.*Field, request.da);
    return 0;
}

// Any text but one starting with '0' switches it on, the empty text included.
template <auto Field>
int writeSwitch(const RequestMessage& request, AnswerMessage&, ConfigModel& model) {
    model.wlan.*Field = request.da[0] != '0';
    return 0;
}

int writeEncryptionType(const RequestMessage& request, AnswerMessage&, ConfigModel& model) {
    const int32_t type = deviceStrtol(request.da, 10);
    model.wlan.EncryptionType = type >= 0 && type <= kHighestEncryptionType
                                    ? static_cast<uint8_t>(type)
                                    : kFallbackEncryptionType;
    return 0;
}

int writeKeyType(const RequestMessage& request, AnswerMessage&, ConfigModel& model) {
    model.wlan.KeyType = deviceStrtol(request.da, 10) != 0;
    return 0;
}

// A number above 5 is refused with the mode in force; any other is tested against the
// supported modes by its low byte, and refused with the number asked for.
int writeMode(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    WlanInterface& wlan = model.wlan;
    const int32_t asked = deviceStrtol(request.da, 10);
    if (asked > kHighestModeNumber) {
        answerText(answer, kUnsupportedModeFormat, wlan.Mode);
        return -1;
    }
    const auto mode = static_cast<uint8_t>(asked);
    if (!modeSupported(wlan, mode)) {
        answerText(answer, kUnsupportedModeFormat, asked);
        return -1;
    }
    model.previousWlanMode = wlan.Mode;
    wlan.Mode = mode;
    return 0;
}

// A text that does not convert leaves the field as the conversion left it.
template <auto Field, const char* const* FailFormat>
int writeAddress(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    constexpr int family = sizeof(model.wlan.*Field) == sizeof(in_addr) ? AF_INET : AF_INET6;
    if (inet_pton(family, request.da, &(model.wlan.*Field)) == 1) return 0;
    answerText(answer, *FailFormat, request.f1, request.f2);
    return -1;
}

// The static address is also the AP's address in the platform file.
int writeIPv4(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if (writeAddress<&WlanInterface::IPv4, &kFalseAddressFormat>(request, answer, model) < 0)
        return -1;
    model.platform.ip_address = model.wlan.IPv4;
    return 0;
}

int refuseReadOnly(const RequestMessage&, AnswerMessage& answer, ConfigModel&) {
    return failText(answer, kReadOnlyText);
}

int refuseUnknown(const RequestMessage& request, AnswerMessage& answer, ConfigModel&) {
    answerText(answer, kUnknownParameterFormat, request.f1, request.f2);
    return -1;
}

constexpr InterfaceWriter kInterfaceWriters[] = {
    writeText<&WlanInterface::IfName, rules::checkInterfaceName>,       // 0
    writeText<&WlanInterface::SSID, rules::checkSsid>,                  // 1
    writeSwitch<&WlanInterface::Encryption>,                            // 2
    writeEncryptionType,                                                // 3
    writeKeyType,                                                       // 4
    writeText<&WlanInterface::Key, rules::checkWlanKey>,                // 5
    refuseReadOnly,                                                     // 6 supported modes
    writeMode,                                                          // 7
    writeSwitch<&WlanInterface::UseDHCP>,                               // 8
    writeIPv4,                                                          // 9
    writeAddress<&WlanInterface::Subnetmask, &kFalseSubnetmaskFormat>,  // 10
    writeAddress<&WlanInterface::IPv6, &kFalseAddressFormat>,           // 11
    writeAddress<&WlanInterface::IPv4Gw, &kFalseAddressFormat>,         // 12
    writeAddress<&WlanInterface::IPv6Gw, &kFalseAddressFormat>,         // 13
    refuseUnknown,                                                      // 14 net bits: file only
    refuseUnknown,                                                      // 15 MAC: the kernel's
};
static_assert(std::size(kInterfaceWriters) == std::size(kInterfaceReaders));
static_assert(kInterfaceWriters[kIPv4Parameter] == writeIPv4);

// The interface's live MAC and address, and the platform file as the scripts left it; fetched
// once per session, on the interface's first read.
void refreshWlanInformation(ConfigModel& model) {
    sys::logLine(kLogName, __func__);
    WlanInterface& wlan = model.wlan;
    const InterfaceName name(wlan);
    (void)nw_get_mac(name.text, wlan.MAC);     // a failed query leaves zeros, which are shown
    (void)nw_get_ipv4(name.text, wlan.IPv4);   // likewise 0.0.0.0
    (void)readPlatformConfig(model.platform);  // a missing file keeps what was read at start
}

// --- the generated files ---

// One line of at most 126 characters, written with one write call.
void writeLine(int fd, const char* format, ...) __attribute__((format(printf, 2, 3)));
void writeLine(int fd, const char* format, ...) {
    char line[kFileLineChars + 1];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    (void)write(fd, line, std::strlen(line));  // the service reports a broken file itself
}

// Creates a generated file with the permissions the services expect, whatever the daemon's
// umask. When the open fails the umask is left at 0, as the device has always done; the
// caller's result says so.
int createGeneratedFile(const char* devicePath, mode_t& savedUmask) {
    savedUmask = umask(0);
    return sys::current().openFile(devicePath, O_WRONLY | O_CREAT | O_TRUNC, kGeneratedFileMode);
}

void serviceFilePath(char (&path)[kPathChars + 1], const char* base, const WlanInterface& wlan) {
    std::snprintf(path, sizeof path, kServiceFileFormat, base, static_cast<int>(wlan.Index));
}

// The station's wpa_supplicant file; `mode` 1 makes an ad-hoc network.
int writeSupplicantFile(const WlanInterface& wlan, int mode) {
    char path[kPathChars + 1];
    serviceFilePath(path, kSupplicantFileBase, wlan);
    mode_t savedUmask = 0;
    const int fd = createGeneratedFile(path, savedUmask);
    if (fd < 0) return -1;
    writeLine(fd, "ap_scan=%d\n", mode == WLAN_MODE_ADHOC ? 2 : 1);
    writeLine(fd, "ctrl_interface=%s\n", kSupplicantControlDirectory);
    writeLine(fd, "network={\n");
    writeLine(fd, "\tpriority=%d\n", 0);
    writeLine(fd, "\tssid=\"%s\"\n", wlan.SSID);
    writeLine(fd, "\tscan_ssid=%d\n", 0);
    writeLine(fd, "\tmode=%d\n", mode);
    if (wlan.EncryptionType == kOpen) {
        // No frequency line, for an ad-hoc network either: the device has never written one.
        writeLine(fd, "\tkey_mgmt=%s\n", kNoKeyManagement);
    } else if (wlan.EncryptionType == kWep) {
        writeLine(fd, "\tkey_mgmt=%s\n", kNoKeyManagement);
        writeLine(fd, "\twep_tx_keyidx=0\n");
        writeLine(fd, "\twep_key0=\"%s\"\n", wlan.Key);
    } else {
        const EncryptionSpec& wpa =
            kEncryption[wlan.EncryptionType <= kHighestEncryptionType ? wlan.EncryptionType
                                                                      : kSupplicantFallbackType];
        writeLine(fd, "\tproto=%s\n\tkey_mgmt=%s\n", wpa.proto, kPskKeyManagement);
        writeLine(fd, "\tpsk=\"%s\"\n", wlan.Key);
        writeLine(fd, "\tpairwise=%s\n\tgroup=%s\n", wpa.pairwise, wpa.group);
    }
    writeLine(fd, "}\n");
    (void)close(fd);  // a short file shows in the service, not here
    (void)umask(savedUmask);
    return 0;
}

// The micro AP's uaputl file. Every text is the one the device's uaputl has always been given,
// comments and odd spacing included.
void writeApSettings(std::FILE* out, const WlanInterface& wlan) {
    std::fprintf(out, "    SSID=\"%s\"         # SSID of Micro AP\n", wlan.SSID);
    std::fprintf(out, "    BeaconPeriod=%d                # Beacon period in TU\n", 100);
    std::fprintf(out, "#    Channel=%d                       # Radio Channel X\n", 6);
    std::fprintf(out, "    Channel=0,1                     # auto channel select (MCS mode)\n");
    std::fprintf(out, "    ChanList=%d,%d,%d                 # Scan channel list\n", 1, 6, 11);
    std::fprintf(out, "#   AP_MAC=00:34:22:77:46:41        # MAC address of AP\n");
    std::fprintf(out, "    RxAntenna=0                     # 0 = Antenna A, 1 = Antenna B\n");
    std::fprintf(out, "    TxAntenna=0                     # 0 = Antenna A, 1 = Antenna B\n");
    std::fprintf(out, "    Rate=0x82,0x84,0x8b,0x96,0x0C,0x12,0x18,0x24,0x30,0x48,0x60,0x6c\n");
    std::fprintf(out,
                 "    # Set of data rate that a station in the BSS may use (in n*500 kilobit/s)\n");

    constexpr const char* kAutoRate = "    # 0:auto , >0 fix rate (in 500 kilobit/s)s\n";
    std::fprintf(out, "    TxPowerLevel=%d                 # Transmit power level in dBm\n", 13);
    std::fprintf(out, "    BroadcastSSID=%d                 # Broadcast SSID feature\n", 1);
    std::fprintf(out, "    RTSThreshold=%d               # RTS threshold value\n", 2347);
    std::fprintf(out, "    FragThreshold=%d              # Fragmentation threshold value\n", 2346);
    std::fprintf(out, "    DTIMPeriod=%d                    # DTIM period in beacon periods\n", 1);
    // 1 ("radio off") is what the device's AP has always run with; kept as it stands.
    std::fprintf(out, "    RadioControl=%d                  # 0: radio on  1: radio off\n", 1);
    std::fprintf(out,
                 "    MCBCdataRate=%d                  # MCBC rate to use for packet "
                 "transmission\n",
                 0);
    std::fprintf(out, "%s", kAutoRate);
    std::fprintf(out,
                 "    TxDataRate=%d                    # Data rate to use for packet "
                 "transmission\n",
                 0);
    std::fprintf(out, "%s", kAutoRate);
    std::fprintf(out, "    PktFwdCtl=%d                     # Packet forwarding control\n", 1);
    std::fprintf(out,
                 "    # 0: forward all packets to the host, 1: firmware handles intr-BSS "
                 "packets\n");
    std::fprintf(out,
                 "    StaAgeoutTimer=%d            # Inactive client station age out timer "
                 "value in units of 100ms\n",
                 1800);
    std::fprintf(out,
                 "    MaxStaNum=%d                     # Max number of stations allowed to "
                 "connect\n",
                 8);
    std::fprintf(out,
                 "    Retrylimit=%d                    # Retry limit to use for packet "
                 "transmissions\n",
                 7);
}

void writeApSecurity(std::FILE* out, const WlanInterface& wlan) {
    const uint8_t type = wlan.EncryptionType;
    if (type <= kHighestEncryptionType) {
        if (type == kOpen) {
            std::fprintf(out, "    AuthMode=0                      \n");
            std::fprintf(out,
                         "    # 0:Open authentication, 1:shared key authentication, 2: Static "
                         "WEP\n");
        } else {
            std::fprintf(out, type == kWep ? "    AuthMode=1                      \n"
                                           : "    #AuthMode=1                      \n");
            std::fprintf(out,
                         "    # 0:Open authentication, 1:shared key authentication, 2: Static "
                         "WEP !!! No not use in case of WPA(2)\n");
        }
        std::fprintf(out, "    Protocol=%d                     # protocol to use\n",
                     kEncryption[type].apProtocol);
    }
    std::fprintf(out,
                 "    # 1: No security, 2: Static WEP, 8: WPA, 32: WPA2, 40:WPA2 Mixed Mode\n");
    std::fprintf(out,
                 "     RSNReplayProtection=%d           # RSN replay protection 0: disabled, "
                 "1: enabled\n",
                 0);

    if (type == kWep) {
        std::fprintf(out, "\n\n# **** WEP security setting******\n\n");
        std::fprintf(out,
                     "   KeyIndex=%d                      # Index of WEP key to use (0 to 3)\n", 0);
        // A hexadecimal key (key type 0) was never written out; its line holds a fixed 0, so
        // that the file at least stays well-formed for uaputl.
        if (wlan.KeyType == 1)
            std::fprintf(out, "   Key_0=\"%s\"\n", wlan.Key);
        else
            std::fprintf(out, "   Key_0=%d\n", 0);
    } else if (type > kWep && type <= kHighestEncryptionType) {
        const EncryptionSpec& wpa = kEncryption[type];
        std::fprintf(out, "\n\n# **** WPA/WPA2 PSK setting******\n\n");
        std::fprintf(out, "   PairwiseCipher=%d               # Pairwise cipher type\n",
                     wpa.apPairwiseCipher);
        std::fprintf(out, "   # 0: None, 4: TKIP, 8: AES CCMP, 12: AES CCMP + TKIP\n");
        std::fprintf(out, "   GroupCipher=%d                  # group cipher type\n",
                     wpa.apGroupCipher);
        std::fprintf(out, "   # 0: None, 4: TKIP, 8: AES CCMP\n");
        std::fprintf(out, "   PSK=\"%s\"               # WPA/WPA2 passphrase\n", wlan.Key);
        std::fprintf(
            out, "   GroupRekeyTime= %d          # Group key re-key interval, in second.\n", 86400);
        std::fprintf(out, "   # 0 mean never re-key\n");
        std::fprintf(out, "   #802.11D specific configuration\n");
        std::fprintf(out, "   11d_enable=%d                    # 0-disable 1-enable\n", 0);
    }
}

// The MAC filter block has always been one long line (its fragments carry no line ends);
// uaputl reads it so, and the device's tools compare the file as it is.
constexpr const char* kApMacFilterFragments[] = {
    "ap_mac_filter={",
    "   FilterMode=0                    # Mode of filter table",
    "                                   # 0: filter table is disabled",
    "                                   # 1: allow MAC address in the filter table to associate",
    "                                   # 2: block MAC address in the filter table",
    "   Count=0                         # Number of entries in filter table,up to 16",
    "#   mac_1=00:50:23:45:76:22         # mac address",
    "}\n\n",
};

int writeApFile(const WlanInterface& wlan) {
    char path[kPathChars + 1];
    std::snprintf(path, sizeof path, kApFileFormat, kApFileBase);
    mode_t savedUmask = 0;
    const int fd = createGeneratedFile(path, savedUmask);
    if (fd < 0) return -1;
    std::FILE* out = fdopen(fd, "w");
    if (out == nullptr) {
        (void)close(fd);  // nothing written yet
        return -1;
    }
    std::fprintf(out, "#   File : %s\n", path);
    std::fprintf(out, "\n\nap_config={\n");
    writeApSettings(out, wlan);
    writeApSecurity(out, wlan);
    std::fprintf(out, "\n\n#   country=US                      # country information\n");
    std::fprintf(out, "}\n\n\n");
    for (const char* fragment : kApMacFilterFragments)
        std::fprintf(out, "%s", fragment);
    (void)std::fclose(out);  // closes the descriptor too; a short file shows in the service
    (void)umask(savedUmask);
    return 0;
}

// The address the interface scripts give the interface; none when DHCP provides it.
int writeAddressFile(const WlanInterface& wlan) {
    char path[kPathChars + 1];
    std::snprintf(path, sizeof path, kAddressFileFormat, kAddressFileDirectory, wlan.BaseName,
                  wlan.Index);
    if (wlan.UseDHCP) {
        (void)sys::current().unlinkFile(path);  // there may be none
        return 0;
    }
    mode_t savedUmask = 0;
    const int fd = createGeneratedFile(path, savedUmask);
    if (fd < 0) return -1;
    char address[INET_ADDRSTRLEN] = {};
    char netmask[INET_ADDRSTRLEN] = {};
    (void)inet_ntop(AF_INET, &wlan.IPv4, address, sizeof address);  // 4 bytes always print
    (void)inet_ntop(AF_INET, &wlan.Subnetmask, netmask, sizeof netmask);
    writeLine(fd, "IP_ADDRESS=%s\n", address);
    writeLine(fd, "IP_NETMASK=%s\n", netmask);
    (void)close(fd);
    (void)umask(savedUmask);
    return 0;
}

// Starts, restarts or stops the interface's service: wpa_supplicant for the station modes,
// uaputl for the AP. The AP script is handed "/tmp/uaputl<Index>.conf" although the AP file is
// written to "/mnt/user/uaputl.conf"; kept, as the device's scripts have always been called so.
int wlanCfg(int command, const WlanInterface& wlan) {
    sys::logLine(kLogWlanCfg, __func__, wlan.Mode, command);
    const bool ap = wlan.Mode == WLAN_MODE_UAP;
    const char* script = ap ? kApScript : kStationScript;
    char file[kPathChars + 1];
    serviceFilePath(file, ap ? kApScriptFileBase : kSupplicantFileBase, wlan);
    ShellCommand<kWlanCommandChars> line;
    if (command == NW_START)
        line.append(kScriptStartFormat, script, kStartWord, file);
    else if (command == NW_RESTART)
        line.append(kScriptStartFormat, script, kRestartWord, file);
    else if (command == NW_STOP)
        line.append(kScriptStopFormat, script, kStopWord);
    else
        return -1;
    line.run();
    return 0;
}

// A change between the station modes and the AP needs the driver reloaded, which only a
// restart of the device does: the apply writes everything for the new mode and asks for it.
void switchToStation(ConfigModel& model) {
    WlanInterface& wlan = model.wlan;
    if (model.platform.wlan_mode == WLAN_MODE_UAP || model.previousWlanMode == WLAN_MODE_UAP)
        model.rebootRequested = 1;
    copyText(wlan.BaseName, kWlanStationBaseName);
    (void)writeSupplicantFile(wlan, wlan.Mode);  // the service reports a file it cannot read
}

// The AP's base name and file.
void switchToAp(ConfigModel& model) {
    WlanInterface& wlan = model.wlan;
    if (model.platform.wlan_mode == WLAN_MODE_STATION || model.previousWlanMode != WLAN_MODE_UAP)
        model.rebootRequested = 1;
    copyText(wlan.BaseName, kWlanApBaseName);
    (void)writeApFile(wlan);  // likewise
}

// Only the static address changed: the interface is taken down and up with it, the service
// restarted around that only for a station.
void changeAddressOnly(ConfigModel& model, int kernelIndex) {
    WlanInterface& wlan = model.wlan;
    if (wlan.Mode == WLAN_MODE_STATION) (void)wlanCfg(NW_STOP, wlan);
    (void)nw_ifconfig_down(wlan.BaseName, kernelIndex);
    (void)writeAddressFile(wlan);
    (void)nw_ifconfig_up(wlan.BaseName, kernelIndex, wlan.IPv4);
    if (wlan.Mode == WLAN_MODE_STATION) (void)wlanCfg(NW_START, wlan);
}

}  // namespace

int readWlan(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if (request.f2 == kGroupInstance) {
        if (request.f3 >= std::size(kGroupReaders)) return failUnknownSubidxII(request, answer);
        return kGroupReaders[request.f3](answer, model);
    }
    if (request.f2 > WLAN_IF_COUNT) return -1;  // fails with an empty answer text
    if (model.stamps.wlan != model.session.counter) {
        refreshWlanInformation(model);
        model.stamps.wlan = model.session.counter;
    }
    if (request.f3 >= std::size(kInterfaceReaders)) return failText(answer, kUnknownSubidxIIShort);
    return kInterfaceReaders[request.f3](model.wlan, answer);
}

int storeWlanInformation(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    sys::logLine(kLogCall, __func__);
    if (request.f2 == kGroupInstance) {
        // Marked although refused: the session's apply then logs the general change.
        model.changed.mark(flag::Wlan);
        if (request.f3 < std::size(kGroupReaders)) return failText(answer, kReadOnlyText);
        answerText(answer, kUnknownParameterFormat, request.f1, request.f2);
        return -1;
    }
    if (request.f2 > WLAN_IF_COUNT) return 0;  // beyond the interfaces: accepted, nothing changes
    // A session whose first interface write is the static address only re-addresses the
    // interface; any further write needs the whole apply.
    const bool firstWrite = !model.changed.isSet(flag::Wlan, request.f2);
    model.wlanChangeIpOnly = firstWrite && request.f3 == kIPv4Parameter ? 1 : 0;
    // The interface's flag lies at WLAN place f2, although the flag table has one WLAN place:
    // place 5 is also the CAN group's own, whose apply does nothing.
    model.changed.mark(flag::Wlan, request.f2);
    if (request.f3 >= std::size(kInterfaceWriters)) return refuseUnknown(request, answer, model);
    return kInterfaceWriters[request.f3](request, answer, model);
}

int setWlanConfig(unsigned index, ConfigModel& model, AnswerMessage& answer) {
    sys::logLine(kLogCall, __func__);
    if (index == kGroupInstance) {
        sys::logLine(kLogGeneral, __func__);
        return 0;
    }
    if (index > WLAN_IF_COUNT) {
        answerText(answer, kFalseWlanInterfaceFormat, static_cast<int>(index));
        return -1;
    }
    sys::logLine(kLogInterfaceChanged, __func__, static_cast<int>(index));
    WlanInterface& wlan = model.wlan;
    if (!modeSupported(wlan, wlan.Mode)) {
        answerText(answer, kUnsupportedModeFormat, wlan.Mode);
        return -1;
    }
    const int kernelIndex = static_cast<int>(index) - 1;
    if (model.wlanChangeIpOnly == 1) {
        sys::logLine(kLogChangeIpOnly, __func__, model.wlanChangeIpOnly);
        changeAddressOnly(model, kernelIndex);
        return 0;
    }

    (void)wlanCfg(NW_STOP, wlan);
    (void)nw_ifconfig_down(wlan.BaseName, kernelIndex);
    sys::logLine(kLogPlatformMode, __func__, model.platform.wlan_mode);
    sys::logLine(kLogMode, __func__, wlan.Mode);
    sys::logLine(kLogOldMode, __func__, model.previousWlanMode);
    switch (wlan.Mode) {
        case WLAN_MODE_STATION:
        case WLAN_MODE_ADHOC:
            switchToStation(model);
            break;
        case WLAN_MODE_UAP:
            sys::logLine(kLogApCase, __func__);
            switchToAp(model);
            break;
        default:
            // Only a mode of 255 gets here (see modeMask): the station script is started
            // again and the apply fails.
            sys::logLine(kLogUnknownMode, __func__);
            (void)wlanCfg(NW_START, wlan);
            return -1;
    }
    // File writers and scripts report their failures in the services, not to the client.
    (void)writeAddressFile(wlan);
    (void)updatePlatformConfig(model);
    (void)writePlatformConfig(model.platform);
    if (wlan.UseDHCP) {
        const InterfaceName name(wlan);
        sys::logLine(kLogDhcpClient, __func__, name.text);
        (void)nw_dhcp_client(NW_RESTART, name.text, model.general.hostName);
    }
    (void)wlanCfg(NW_START, wlan);
    (void)nw_ifconfig_up(wlan.BaseName, kernelIndex, wlan.IPv4);
    return 0;
}

void startWlanInterfaces(ConfigModel& model) {
    const uint8_t platformMode = model.platform.wlan_mode;
    model.wlan.Mode = platformMode;
    if constexpr (WLAN_IF_COUNT > 0) {
        WlanInterface& wlan = model.wlan;
        copyText(wlan.BaseName,
                 platformMode == WLAN_MODE_UAP ? kWlanApBaseName : kWlanStationBaseName);
        wlan.SupportedModes = kAllModes;
    }
}

int wlanDriverControl(int command) {
    const char* word = command == NW_START     ? kStartWord
                       : command == NW_STOP    ? kStopWord
                       : command == NW_RESTART ? kRestartWord
                                               : nullptr;
    if (word == nullptr) return -1;
    ShellCommand<kWlanCommandChars> line;
    line.append(kScriptStopFormat, kDriverScript, word);
    line.run();
    return 0;
}
