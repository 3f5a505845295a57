#pragma once
// The value rules of the hardened profile (CMake option CFGD_HARDENED): values that reach a
// shell command line, a generated file or the configuration file are checked where they are
// set, and refused with a text that names the rule. The legacy build never calls them.

#include "sys/profile.h"

namespace rules {

inline constexpr const char* kHostNameText =
    "host name refused: only letters, digits and '-' in dot-separated labels of 1 to 63 "
    "characters, none starting or ending with '-', at most 64 in all (RFC 1123)";
inline constexpr const char* kNtpServerText =
    "NTP server refused: a host name (letters, digits and '-' in dot-separated labels of 1 to "
    "63 characters, none starting or ending with '-', at most 127 in all) or a dotted IPv4 "
    "address";
inline constexpr const char* kInterfaceNameText =
    "interface name refused: at most 15 letters, digits, '-', '_' or '.' (a Linux interface "
    "name)";
inline constexpr const char* kSsidText =
    "SSID refused: 1 to 32 printable ASCII characters, without '\"' and '\\'";
inline constexpr const char* kWlanKeyText =
    "key refused: at most 64 printable ASCII characters, without '\"' and '\\'";
inline constexpr const char* kStoredTextText =
    "value refused: the configuration file cannot keep a line break or other control "
    "character, ';' or '#'";

// Each returns nullptr when the value passes, else the refusal's text.
// The host name goes into the DHCP client's and the CAN-over-IP helper's command lines.
[[nodiscard]] const char* checkHostName(const char* value);
// The NTP server goes into ntpd's command line. No client writes it; it comes from the file.
[[nodiscard]] const char* checkNtpServer(const char* value);
// Interface names reach the configuration file and the gateway driver's route records; empty
// is no interface.
[[nodiscard]] const char* checkInterfaceName(const char* value);
// SSID and key go between double quotes into the supplicant's and the AP's files.
[[nodiscard]] const char* checkSsid(const char* value);
[[nodiscard]] const char* checkWlanKey(const char* value);
// Any text that the configuration file stores as it is: iniparser ends a value at a line break
// and takes ';' and '#' for the start of a comment.
[[nodiscard]] const char* checkStoredText(const char* value);

}  // namespace rules
