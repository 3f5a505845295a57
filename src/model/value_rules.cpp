#include "model/value_rules.h"

#include <cstring>
#include <string_view>

namespace rules {
namespace {

constexpr std::size_t kHostNameChars = 64;  // HOST_NAME_MAX, and the model's field
constexpr std::size_t kLabelChars = 63;
constexpr std::size_t kNtpServerChars = 127;     // the model's field
constexpr std::size_t kInterfaceNameChars = 15;  // IFNAMSIZ - 1
constexpr std::size_t kSsidChars = 32;
constexpr std::size_t kWlanKeyChars = 64;  // a WPA passphrase, or a PSK of 64 hex digits

bool isAlphanumeric(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool isLabel(std::string_view label) {
    if (label.empty() || label.size() > kLabelChars) return false;
    if (label.front() == '-' || label.back() == '-') return false;
    for (char c : label)
        if (!isAlphanumeric(c) && c != '-') return false;
    return true;
}

// Printable ASCII without the characters that end or escape a quoted text; a line break would
// start a directive of its own.
bool isQuotableText(std::string_view text) {
    for (char c : text)
        if (c < 0x20 || c > 0x7E || c == '"' || c == '\\') return false;
    return true;
}

// Dot-separated labels; a dotted IPv4 address is such a name too.
bool isDnsName(std::string_view name, std::size_t maxChars) {
    if (name.empty() || name.size() > maxChars) return false;
    for (std::size_t start = 0;;) {
        const std::size_t dot = name.find('.', start);
        if (!isLabel(name.substr(start, dot - start))) return false;
        if (dot == std::string_view::npos) return true;
        start = dot + 1;
    }
}

}  // namespace

const char* checkHostName(const char* value) {
    return isDnsName(value, kHostNameChars) ? nullptr : kHostNameText;
}

const char* checkNtpServer(const char* value) {
    return isDnsName(value, kNtpServerChars) ? nullptr : kNtpServerText;
}

const char* checkInterfaceName(const char* value) {
    const std::string_view name(value);
    if (name.size() > kInterfaceNameChars || name == "." || name == "..") return kInterfaceNameText;
    for (char c : name)
        if (!isAlphanumeric(c) && c != '-' && c != '_' && c != '.') return kInterfaceNameText;
    return nullptr;
}

const char* checkSsid(const char* value) {
    const std::string_view ssid(value);
    return !ssid.empty() && ssid.size() <= kSsidChars && isQuotableText(ssid) ? nullptr : kSsidText;
}

const char* checkWlanKey(const char* value) {
    const std::string_view key(value);
    return key.size() <= kWlanKeyChars && isQuotableText(key) ? nullptr : kWlanKeyText;
}

const char* checkStoredText(const char* value) {
    for (const char* c = value; *c != '\0'; ++c) {
        const auto byte = static_cast<unsigned char>(*c);
        if (byte < 0x20 || byte == 0x7F || byte == ';' || byte == '#') return kStoredTextText;
    }
    return nullptr;
}

}  // namespace rules
