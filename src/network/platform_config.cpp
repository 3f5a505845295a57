#include "network/platform_config.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "model/config_model.h"
#include "model/device_numbers.h"
#include "network/dhcp_server.h"
#include "sys/system.h"

namespace {

constexpr const char* kRegcodeKey = "WLAN_DRIVER_REGCODE";
constexpr const char* kModeKey = "WLAN_MODE";
constexpr const char* kAddressKey = "IP_ADDRESS";
constexpr const char* kDhcpServerFileKey = "UDHCPDCNF";

constexpr const char* kRegcodeFormat = "%s=0x%02X\n";
constexpr const char* kModeFormat = "%s=%s\n";
constexpr const char* kAddressFormat = "%s=%s\n";
constexpr const char* kDhcpServerFileFormat = "%s=\"%s\"\n";
constexpr const char* kApModeText = "UAP";
constexpr const char* kStationModeText = "WLAN";
constexpr char kCommentMark = '#';
constexpr char kQuote = '"';

// The DHCP server's configuration file, named here when the server is active.

// A UDHCPDCNF line shorter than this cannot hold the key, '=' and two quotes.
constexpr std::size_t kShortestServerFileLine = 12;
constexpr std::size_t kFileTextSize = 4096;
constexpr std::size_t kDottedChars = INET_ADDRSTRLEN - 1;

using Line = std::string_view;
constexpr std::size_t npos = Line::npos;

// The place of `key` in `line` and of the first '=' behind it; false when either is missing.
bool findValue(Line line, const char* key, std::size_t& equals) {
    const std::size_t at = line.find(key);
    if (at == npos) return false;
    equals = line.find('=', at);
    return equals != npos;
}

int parse_wlan_region(const char* text, std::size_t length, PlatformConfig& config) {
    std::size_t equals = 0;
    if (!findValue(Line(text, length), kRegcodeKey, equals)) return -1;
    // Base 0: "0x10", "16" and "020" all name region 16; only the low byte is kept.
    config.regcode = static_cast<uint8_t>(deviceStrtoul(text + equals + 1, 0) & 0xFF);
    return 0;
}

int parse_wlan_mode(const char* text, std::size_t length, PlatformConfig& config) {
    const Line line(text, length);
    std::size_t equals = 0;
    if (!findValue(line, kModeKey, equals)) return -1;
    const char* value = text + equals + 1;
    const char* ap = strcasestr(value, kApModeText);
    const char* station = strcasestr(value, kStationModeText);
    // Whichever name comes first decides, so a trailing comment cannot change the mode;
    // anything unrecognised is a station.
    const bool apMode = ap != nullptr && (station == nullptr || ap < station);
    config.wlan_mode = apMode ? WLAN_MODE_UAP : WLAN_MODE_STATION;
    return 0;
}

// The value runs to the end of the line with its line end, so an address is taken only from a
// last line without one; otherwise the address stays as it was. Kept so: the start-up scripts
// read the same file, and the address the daemon keeps is rewritten from the WLAN record
// before every write.
int parse_ip_add_v4(const char* text, std::size_t length, PlatformConfig& config) {
    std::size_t equals = 0;
    if (!findValue(Line(text, length), kAddressKey, equals)) return -1;
    const Line value = Line(text, length).substr(equals + 1);
    if (value.size() > kDottedChars) return 0;  // no dotted quad is that long
    char dotted[kDottedChars + 1] = {};
    value.copy(dotted, value.size());
    in_addr address;
    if (inet_pton(AF_INET, dotted, &address) == 1) config.ip_address = address;
    return 0;
}

// The quoted value loses its last two characters ("/mnt/user/udhcpd.conf" reads back as
// "/mnt/user/udhcpd.co"). Kept so: the start-up scripts only test whether a file is named, and
// the daemon never uses the path it reads; the price is that a file naming a server file never
// compares equal and is rewritten at every WLAN apply.
int parse_udhcpd_conf(const char* text, std::size_t length, PlatformConfig& config) {
    const Line line(text, length);
    std::size_t equals = 0;
    if (length < kShortestServerFileLine || !findValue(line, kDhcpServerFileKey, equals)) return -1;
    const std::size_t open = line.find(kQuote, equals);
    if (open == npos) return -1;
    const std::size_t close = line.find(kQuote, open + 1);
    if (close == npos) return -1;
    // An empty quoted value wraps round to a huge size and is refused with the long ones.
    const std::size_t bound = close - open - 1 - 1;
    if (bound > sizeof config.udhcpd_conf) return -1;
    std::memset(config.udhcpd_conf, 0, sizeof config.udhcpd_conf);
    if (bound > 0) std::memcpy(config.udhcpd_conf, text + open + 1, bound - 1);
    return 0;
}

// snprintf's count, or -1 when the text did not fit into `space`.
int fitted(int produced, std::size_t space) {
    return produced >= 0 && static_cast<std::size_t>(produced) < space ? produced : -1;
}

int trl_wlan_region(char* buffer, std::size_t space, const PlatformConfig& config) {
    return fitted(std::snprintf(buffer, space, kRegcodeFormat, kRegcodeKey, config.regcode), space);
}

int trl_wlan_mode(char* buffer, std::size_t space, const PlatformConfig& config) {
    const char* mode = config.wlan_mode == WLAN_MODE_UAP ? kApModeText : kStationModeText;
    return fitted(std::snprintf(buffer, space, kModeFormat, kModeKey, mode), space);
}

// No line when the first byte is 0: the scripts then configure the AP without an address.
int trl_ip_add_v4(char* buffer, std::size_t space, const PlatformConfig& config) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&config.ip_address);
    if (bytes[0] == 0) return 0;
    char dotted[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, &config.ip_address, dotted, sizeof dotted) == nullptr) return -1;
    return fitted(std::snprintf(buffer, space, kAddressFormat, kAddressKey, dotted), space);
}

// Written also when empty: "" tells the scripts that no DHCP server runs.
int trl_udhcpd_conf(char* buffer, std::size_t space, const PlatformConfig& config) {
    char path[sizeof config.udhcpd_conf + 1] = {};
    std::memcpy(path, config.udhcpd_conf, sizeof config.udhcpd_conf);
    return fitted(std::snprintf(buffer, space, kDhcpServerFileFormat, kDhcpServerFileKey, path),
                  space);
}

struct PlatformKey {
    const char* key;  // nullptr: an empty slot
    int (*parse)(const char* line, std::size_t length, PlatformConfig& config);
    int (*print)(char* buffer, std::size_t space, const PlatformConfig& config);
};

// The file's keys in the order they are written; the fifth slot is free.
constexpr PlatformKey kPlatformKeys[] = {
    {kRegcodeKey, parse_wlan_region, trl_wlan_region},
    {kModeKey, parse_wlan_mode, trl_wlan_mode},
    {kAddressKey, parse_ip_add_v4, trl_ip_add_v4},
    {kDhcpServerFileKey, parse_udhcpd_conf, trl_udhcpd_conf},
    {nullptr, nullptr, nullptr},
};

// A key behind a '#' is commented out; a key at the line's start is read even when a '#'
// follows it.
bool commentedOut(Line line, std::size_t keyAt) {
    return keyAt > 0 && line.substr(0, keyAt).find(kCommentMark) != npos;
}

void parseLine(const char* text, std::size_t length, PlatformConfig& config) {
    const Line line(text, length);
    for (const PlatformKey& slot : kPlatformKeys) {
        if (slot.key == nullptr || slot.parse == nullptr) continue;
        const std::size_t at = line.find(slot.key);
        if (at == npos || commentedOut(line, at)) continue;
        (void)slot.parse(text, length, config);  // a malformed line is skipped silently
    }
}

}  // namespace

int readPlatformConfig(PlatformConfig& config) {
    std::FILE* file = sys::openFileStream(kPlatformConfigPath, "r");
    if (file == nullptr) return -1;
    char* line = nullptr;
    std::size_t capacity = 0;
    ssize_t length = 0;
    // Several keys on one line are each taken; a later line with the same key wins.
    while ((length = getline(&line, &capacity, file)) > 0)
        parseLine(line, static_cast<std::size_t>(length), config);
    std::free(line);
    (void)std::fclose(file);  // read only: nothing to lose
    return 0;
}

bool platform_cfg_equivalent(const PlatformConfig* a, const PlatformConfig* b) {
    if (a == nullptr || b == nullptr) return false;
    return a->wlan_mode == b->wlan_mode &&
           std::memcmp(&a->ip_address, &b->ip_address, sizeof a->ip_address) == 0 &&
           std::memcmp(a->udhcpd_conf, b->udhcpd_conf, sizeof a->udhcpd_conf) == 0;
}

int writePlatformConfig(const PlatformConfig& config) {
    // Rewritten only when its content would change: the file is kept in the device's persistent
    // storage, which the start-up scripts read at every boot.
    PlatformConfig current{};
    if (readPlatformConfig(current) == 0 && platform_cfg_equivalent(&current, &config)) return 0;

    std::FILE* file = sys::openFileStream(kPlatformConfigPath, "w+");
    if (file == nullptr) return -1;
    char text[kFileTextSize] = {};
    std::size_t used = 0;
    for (const PlatformKey& slot : kPlatformKeys) {
        if (slot.key == nullptr || slot.print == nullptr) continue;
        if (used >= sizeof text) break;
        const int produced = slot.print(text + used, sizeof text - used, config);
        if (produced > 0) used += static_cast<std::size_t>(produced);  // a key that did not fit
    }
    if (used < sizeof text) text[used] = '\0';  // drops what a key that did not fit left behind
    (void)std::fwrite(text, 1, std::strlen(text), file);  // write errors are not reported
    (void)std::fclose(file);
    return 0;
}

int updatePlatformConfig(ConfigModel& model) {
    PlatformConfig& platform = model.platform;
    const WlanInterface& wlan = model.wlan;
    std::memset(platform.udhcpd_conf, 0, sizeof platform.udhcpd_conf);
    if (model.dhcp.active == 1)
        std::memcpy(platform.udhcpd_conf, kDhcpdConfigPath, std::strlen(kDhcpdConfigPath));
    platform.ip_address = wlan.UseDHCP ? in_addr{} : wlan.IPv4;
    platform.wlan_mode = wlan.Mode;
    return 0;
}
