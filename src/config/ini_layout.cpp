#include "config/ini_layout.h"

#include <algorithm>
#include <limits>

#include "config/conversions.h"
#include "filters/filter.h"
#include "model/config_model.h"
#include "network/wlan_count.h"

namespace ini {

namespace {

// Row builders, so that each row reads like the file's documentation of the key.
constexpr KeySpec empty(unsigned number) {
    return {nullptr, number, Form::Reserved, 0, 0, 0, nullptr, false, Written::No};
}
constexpr KeySpec reserved(unsigned number, const char* name) {
    return {name, number, Form::Reserved, 0, 0, 0, nullptr, false, Written::No};
}
constexpr KeySpec text(unsigned number, const char* name, int32_t limit, const char* fallback,
                       Written written) {
    return {name, number, Form::Text, 0, limit, 0, fallback, false, written};
}
constexpr KeySpec numberedText(unsigned number, const char* name, int32_t limit,
                               const char* fallbackFormat, Written written) {
    return {name, number, Form::Text, 0, limit, 0, fallbackFormat, true, written};
}
constexpr KeySpec discarded(unsigned number, const char* name, const char* fallback) {
    return {name, number, Form::Discarded, 0, 0, 0, fallback, false, Written::No};
}
constexpr KeySpec boolean(unsigned number, const char* name, bool fallback, Written written) {
    return {name, number, Form::Boolean, 0, 1, fallback ? 1 : 0, nullptr, false, written};
}
constexpr KeySpec integer(unsigned number, const char* name, int32_t low, int32_t high,
                          int32_t fallback, Written written) {
    return {name, number, Form::Integer, low, high, fallback, nullptr, false, written};
}
constexpr KeySpec converted(unsigned number, const char* name, Form form, const char* fallback,
                            Written written) {
    return {name, number, form, 0, 0, 0, fallback, false, written};
}
constexpr KeySpec ipv4(unsigned number, const char* name, const char* fallback) {
    return converted(number, name, Form::IPv4, fallback, Written::Address);
}
constexpr KeySpec ipv6(unsigned number, const char* name, const char* fallback) {
    return converted(number, name, Form::IPv6, fallback, Written::Address);
}

constexpr int32_t kIntMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kIntMax = std::numeric_limits<int32_t>::max();
constexpr int32_t kNoFilterKind = 2147483647;  // a missing kind makes no filter

constexpr KeySpec kGeneralKeys[] = {
    text(4, "Description", 511, "Module description", Written::AsStored),
    boolean(5, "KL15pwdn", false, Written::OneZero),
    integer(kNoKeyNumber, "LighttpdPort", 0, 65535, 80, Written::No),
    boolean(kNoKeyNumber, "UseNTP", false, Written::No),
    text(kNoKeyNumber, "NTPServer", 127, "pool.ntp.org", Written::No),
};

constexpr KeySpec kHostKeys[] = {
    text(0, "Devicename", 64, "VORL-Gateway", Written::AsStored),
};

constexpr KeySpec kLanKeys[] = {
    // "eth0" whatever the section number.
    text(0, "IfName", 126, "eth0", Written::AsStored),
    boolean(1, "UseDHCP", false, Written::OneZero),
    ipv4(2, "IPv4", "192.168.1.10"),
    ipv4(3, "Subnetmask", "255.255.255.0"),
    ipv6(4, "IPv6", "::"),
    ipv4(5, "IPv4Gw", "0.0.0.0"),
    ipv6(6, "IPv6Gw", "::"),
    integer(7, "Netbitsv6", 0, 128, 64, Written::No),
};

constexpr KeySpec kWlanKeys[] = {
    numberedText(0, "IfName", 126, "wlan%d", Written::AsStored),
    text(1, "SSID", 31, "MyWLAN", Written::AsStored),
    boolean(2, "Encryption", false, Written::OneZero),
    integer(3, "EncryptionType", 0, 255, 5, Written::Decimal),
    integer(4, "KeyType", 0, 255, 1, Written::Decimal),
    text(5, "Key", 63, "", Written::AsStored),
    reserved(6, "Modes"),
    integer(7, "Mode", 0, 255, 0, Written::Decimal),
    boolean(8, "UseDHCP", true, Written::TrueFalse),
    ipv4(9, "IPv4", "0.0.0.0"),
    ipv4(10, "Subnetmask", "255.255.255.0"),
    ipv6(11, "IPv6", "::"),
    ipv4(12, "IPv4Gw", "0.0.0.0"),
    ipv6(13, "IPv6Gw", "::"),
    integer(14, "Netbitsv6", 0, 128, 64, Written::No),
};

constexpr KeySpec kCanKeys[] = {
    numberedText(0, "IfName", 126, "can%d", Written::AsStored),
    boolean(1, "Active", true, Written::OneZero),
    integer(2, "Baudrate", 5000, 1000000, 500000, Written::Unsigned),
    boolean(3, "Listenonly", true, Written::OneZero),
    boolean(4, "Autoresume", false, Written::OneZero),
    converted(5, "BR_Register", Form::BitTimingText, kNoBrRegsText, Written::BrRegs),
    boolean(6, "Loopback", false, Written::OneZero),
    boolean(7, "Oneshot", false, Written::OneZero),
    boolean(8, "Triplesampling", false, Written::OneZero),
    integer(9, "Samplepoint", 0, 1000, 800, Written::Unsigned),
    boolean(10, "ManBr", false, Written::OneZero),
    empty(11),
    empty(12),
    empty(13),
    empty(14),
    empty(15),
};

constexpr KeySpec kFwdGenKeys[] = {
    // Written as the number of route sections written.
    integer(0, "Count", 0, 8, 0, Written::Decimal),
    reserved(1, "----"),
    integer(2, "CANoIPdPort", 0, 65535, 45321, Written::No),
};

constexpr KeySpec kRouteKeys[] = {
    // "Route n" literally: the default is not numbered.
    text(0, "RtInfo", 126, "Route n", Written::AsStored),
    boolean(1, "Active", false, Written::TrueFalse),
    converted(2, "Type", Form::RouteType, "CAN2LAN", Written::RouteType),
    text(3, "Interface1", 14, "can0", Written::AsStored),
    discarded(4, "Interface2", "eth0"),
    discarded(5, "Protocol1", "UDP"),
    converted(6, "Protocol2", Form::Protocol, "UDP", Written::Protocol),
    discarded(7, "Destination1", "0.0.0.0"),
    converted(8, "Destination2", Form::Endpoint, "0.0.0.0:5000", Written::Endpoint),
    converted(9, "Dest1Type", Form::AddrType, "none", Written::No),
    converted(10, "Dest2Type", Form::AddrType, "IPv4", Written::No),
    integer(11, "FPP", 0, 65535, 15, Written::Decimal),
    boolean(12, "TCPDelay", true, Written::TrueFalse),
    integer(13, "DispIdx", 0, 255, 0, Written::Decimal),
    empty(14),
    empty(15),
    empty(16),
    empty(17),
    empty(18),
    empty(19),
    empty(20),
    empty(21),
    empty(22),
    empty(23),
    empty(24),
    empty(25),
    empty(26),
    empty(27),
    empty(28),
    integer(29, "SndUdelay", 0, 65535, 300, Written::Decimal),
    integer(30, "SndMax", 0, 65535, 30, Written::Decimal),
    empty(31),
    boolean(32, "NoCtrl", false, Written::TrueFalse),
    converted(33, "Filters", Form::FilterList, "", Written::FilterList),
    boolean(34, "UnifyFilters", false, Written::TrueFalse),
    boolean(35, "JoinFilters", false, Written::TrueFalse),
    integer(36, "Cdm", 10, 65535, 500, Written::Decimal),
};

constexpr KeySpec kGuiKeys[] = {
    boolean(0, "show_device_info", true, Written::OneZero),
    boolean(1, "show_can_info", false, Written::OneZero),
    boolean(2, "show_lan_info", false, Written::OneZero),
    boolean(3, "show_wlan_info", false, Written::OneZero),
    boolean(4, "show_bt_info", false, Written::OneZero),
    boolean(5, "show_routing_info", false, Written::OneZero),
    boolean(6, "show_contact_info", true, Written::OneZero),
    boolean(7, "show_support_info", true, Written::OneZero),
    boolean(8, "show_filter_info", true, Written::OneZero),
};

constexpr KeySpec kFilterGenKeys[] = {
    // Read and clamped, then not used: the loader looks for every filter section.
    integer(kNoKeyNumber, "Count", 0, 32, 0, Written::No),
};

constexpr KeySpec kFilterKeys[] = {
    integer(0, "filter_type", kIntMin, kIntMax, kNoFilterKind, Written::Decimal),
    // Written as 0 when the filter's inverted bit is set, else 1.
    boolean(1, "filter_mode", true, Written::Decimal),
    converted(2, "Term", Form::FilterTerm, "", Written::FilterTerm),
    text(3, "Comment", 254, "", Written::AsStored),
    text(4, "Name", 126, "", Written::AsStored),
};

constexpr KeySpec kDhcpServerKeys[] = {
    boolean(0, "active", false, Written::OneZero),
    integer(1, "max_leases", 0, 255, 7, Written::Decimal),
    ipv4(2, "start_addr", "192.168.1.10"),
    ipv4(3, "end_addr", "192.168.1.17"),
};

// The order in which the writer sets a section's keys, which is the order in which a new
// section lists them in the file.
constexpr uint8_t kGeneralOrder[] = {general_key::Description, general_key::KL15pwdn};
constexpr uint8_t kHostOrder[] = {host_key::Devicename};
constexpr uint8_t kLanOrder[] = {0, 1, 2, 3, 4, 5, 6};
constexpr uint8_t kWlanOrder[] = {0, 1, 2, 3, 4, 5, 7, 8, 9, 10, 11, 12, 13};
constexpr uint8_t kCanOrder[] = {can_key::IfName,      can_key::Active,         can_key::Baudrate,
                                 can_key::Listenonly,  can_key::Autoresume,     can_key::Loopback,
                                 can_key::Oneshot,     can_key::Triplesampling, can_key::ManBr,
                                 can_key::BR_Register, can_key::Samplepoint};
constexpr uint8_t kFwdGenOrder[] = {fwd_key::Count};
constexpr uint8_t kRouteOrder[] = {
    route_key::RtInfo,    route_key::Active,       route_key::Type,         route_key::Interface1,
    route_key::Protocol2, route_key::Destination2, route_key::FPP,          route_key::TCPDelay,
    route_key::DispIdx,   route_key::SndUdelay,    route_key::SndMax,       route_key::Cdm,
    route_key::NoCtrl,    route_key::Filters,      route_key::UnifyFilters, route_key::JoinFilters};
constexpr uint8_t kGuiOrder[] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
constexpr std::span<const uint8_t> kNeverWritten{};
constexpr uint8_t kFilterOrder[] = {filter_key::FilterType, filter_key::FilterMode,
                                    filter_key::Comment, filter_key::Name, filter_key::Term};
constexpr uint8_t kDhcpServerOrder[] = {0, 1, 2, 3};

// Group numbers of the writer's error texts; DHCP_SERVER has a number of its own beyond the
// request groups.
constexpr unsigned kDhcpServerErrorGroup = 10;

constexpr SectionSpec kSections[kSectionCount] = {
    {"General", false, 1, 1, 0, kGeneralKeys, kGeneralOrder},
    {"HOST", false, 1, 1, 1, kHostKeys, kHostOrder},
    {"LAN", true, kLanServed, kLanServed, 2, kLanKeys, kLanOrder},
    {"WLAN", true, WLAN_IF_COUNT, WLAN_IF_COUNT, 3, kWlanKeys, kWlanOrder},
    {"CAN", true, kCanServed, kCanServed, 4, kCanKeys, kCanOrder},
    {"FWD_GEN", false, 1, 1, 5, kFwdGenKeys, kFwdGenOrder},
    {"RT", true, kRoutesServed, kRoutesServed, 5, kRouteKeys, kRouteOrder},
    {"GUI", false, 1, 1, 8, kGuiKeys, kGuiOrder},
    {"FILTER_GEN", false, 1, 0, 9, kFilterGenKeys, kNeverWritten},
    {"FILTER", true, kMaxFilters, kMaxFilters, 9, kFilterKeys, kFilterOrder},
    {"DHCP_SERVER", false, 1, 1, kDhcpServerErrorGroup, kDhcpServerKeys, kDhcpServerOrder},
};

// The tables' own consistency, checked where they are written.
constexpr bool placesMatchNumbers(const SectionSpec& section) {
    for (std::size_t place = 0; place < section.keys.size(); ++place) {
        const unsigned number = section.keys[place].number;
        if (number != place && number != kNoKeyNumber) return false;
    }
    return true;
}
constexpr bool writeOrderCoversWrittenKeys(const SectionSpec& section) {
    std::size_t written = 0;
    for (const KeySpec& key : section.keys)
        if (key.written != Written::No) ++written;
    if (written != section.writeOrder.size()) return false;
    for (std::size_t i = 0; i < section.writeOrder.size(); ++i) {
        const uint8_t place = section.writeOrder[i];
        if (place >= section.keys.size() || section.keys[place].written == Written::No)
            return false;
        for (std::size_t j = 0; j < i; ++j)
            if (section.writeOrder[j] == place) return false;
    }
    return true;
}
constexpr bool tablesConsistent() {
    for (std::size_t s = 0; s < kSectionCount; ++s) {
        if (s != static_cast<std::size_t>(Section::General) && !placesMatchNumbers(kSections[s]))
            return false;
        if (!writeOrderCoversWrittenKeys(kSections[s])) return false;
        if (kSections[s].keys.size() > kMaxPlaces) return false;
    }
    return true;
}
static_assert(tablesConsistent());
static_assert(std::size(kGeneralKeys) == general_key::Places &&
              std::size(kHostKeys) == host_key::Places && std::size(kLanKeys) == lan_key::Places &&
              std::size(kWlanKeys) == wlan_key::Places && std::size(kCanKeys) == can_key::Places &&
              std::size(kFwdGenKeys) == fwd_key::Places &&
              std::size(kRouteKeys) == route_key::Places &&
              std::size(kGuiKeys) == gui_key::Places &&
              std::size(kFilterGenKeys) == filter_gen_key::Places &&
              std::size(kFilterKeys) == filter_key::Places &&
              std::size(kDhcpServerKeys) == dhcp_key::Places);

// The names in force, one list per section, starting as the current format's names.
using NameTable = std::array<std::array<const char*, kMaxPlaces>, kSectionCount>;

constexpr NameTable currentNames() {
    NameTable names{};
    for (std::size_t s = 0; s < kSectionCount; ++s)
        for (std::size_t place = 0; place < kSections[s].keys.size(); ++place)
            names[s][place] = kSections[s].keys[place].name;
    return names;
}

constinit NameTable gNames = currentNames();
constinit bool gLegacyFormat = false;
constinit bool gInvertMask = false;

constexpr KeySpec kEmptyPlace = empty(kNoKeyNumber);

std::size_t index(Section section) {
    return static_cast<std::size_t>(section);
}

auto& names(Section section) {
    return gNames[index(section)];
}

// snprintf's result as this module reports it: the length, or -1 and an empty text.
int fitted(KeyAddress& out, int length) {
    if (length < 0 || static_cast<std::size_t>(length) >= kKeyAddressSize) {
        out[0] = '\0';
        return -1;
    }
    return length;
}

}  // namespace

void writeHeader(std::FILE* stream) {
    // A failed write shows when the writer closes the stream.
    (void)std::fprintf(stream, kHeaderFormat, kHeaderRule, kHeaderTitle, kHeaderVersionLabel,
                       kFormatMajor, kFormatMinor, kFormatPatch, kHeaderRule);
}

const SectionSpec& sectionSpec(Section section) {
    return kSections[index(section)];
}

const KeySpec& keySpec(Section section, unsigned place) {
    const auto keys = sectionSpec(section).keys;
    return place < keys.size() ? keys[place] : kEmptyPlace;
}

const char* keyName(Section section, unsigned place) {
    return place < kMaxPlaces ? names(section)[place] : nullptr;
}

int formatKey(KeyAddress& out, const char* section, const char* key) {
    if (section == nullptr || key == nullptr) return fitted(out, -1);
    return fitted(out, std::snprintf(out, sizeof out, kKeyFormat, section, key));
}

int formatKey(KeyAddress& out, const char* baseName, int number, const char* key) {
    if (baseName == nullptr || key == nullptr) return fitted(out, -1);
    return fitted(out, std::snprintf(out, sizeof out, kNumberedKeyFormat, baseName, number, key));
}

int formatSectionName(KeyAddress& out, const char* baseName, int number) {
    if (baseName == nullptr) return fitted(out, -1);
    return fitted(out, std::snprintf(out, sizeof out, kNumberedSectionFormat, baseName, number));
}

int keyAddress(KeyAddress& out, Section section, int number, unsigned place) {
    const SectionSpec& layout = sectionSpec(section);
    const char* name = keyName(section, place);
    return layout.numbered ? formatKey(out, layout.name, number, name)
                           : formatKey(out, layout.name, name);
}

int sectionAddress(KeyAddress& out, Section section, int number) {
    const SectionSpec& layout = sectionSpec(section);
    if (layout.numbered) return formatSectionName(out, layout.name, number);
    return fitted(out, std::snprintf(out, sizeof out, "%s", layout.name));
}

int32_t readInteger(const dictionary* ini, Section section, int number, unsigned place) {
    const KeySpec& key = keySpec(section, place);
    KeyAddress address;
    int32_t value = key.defaultValue;
    if (keyAddress(address, section, number, place) >= 0) {
        // The library's own integer look-up wraps values beyond 32 bits on a 64-bit host.
        const char* text = iniparser_getstring(ini, address, nullptr);
        if (text != nullptr) value = parseInteger(text);
    }
    return clampInteger(value, key.low, key.high);
}

int readBoolean(const dictionary* ini, Section section, int number, unsigned place) {
    const KeySpec& key = keySpec(section, place);
    KeyAddress address;
    // A section named like the key ("[RT_0:NoCtrl]") is an entry without a value, which the
    // library's boolean look-up reads through: it counts as a missing key.
    if (keyAddress(address, section, number, place) < 0 ||
        iniparser_getstring(ini, address, nullptr) == nullptr)
        return key.defaultValue;
    return iniparser_getboolean(ini, address, key.defaultValue);
}

const char* readText(const dictionary* ini, Section section, int number, unsigned place,
                     KeyAddress& defaultBuffer) {
    (void)formatDefaultText(defaultBuffer, section, number, place);  // empty when none
    KeyAddress address;
    if (keyAddress(address, section, number, place) < 0) return defaultBuffer;
    const char* text = iniparser_getstring(ini, address, defaultBuffer);
    return text != nullptr ? text : defaultBuffer;  // a section named like the key has none
}

int formatDefaultText(KeyAddress& out, Section section, int number, unsigned place) {
    const KeySpec& key = keySpec(section, place);
    if (key.defaultText == nullptr) return fitted(out, -1);
    if (key.defaultTakesNumber)
        return fitted(out, std::snprintf(out, sizeof out, key.defaultText, number));
    return fitted(out, std::snprintf(out, sizeof out, "%s", key.defaultText));
}

const char* booleanText(Written written, bool value) {
    if (written == Written::TrueFalse) return value ? "TRUE" : "FALSE";
    return value ? "1" : "0";
}

SavedKeyNames saveKeyNames() {
    SavedKeyNames saved{};
    std::copy_n(names(Section::Can).begin(), saved.can.size(), saved.can.begin());
    std::copy_n(names(Section::Filter).begin(), saved.filter.size(), saved.filter.begin());
    return saved;
}

void restoreKeyNames(const SavedKeyNames& saved) {
    std::copy(saved.can.begin(), saved.can.end(), names(Section::Can).begin());
    std::copy(saved.filter.begin(), saved.filter.end(), names(Section::Filter).begin());
}

int applyLegacyKeyNames(int major, int minor, int patch) {
    if (major != 1) return -1;
    if (minor == 1) return 0;
    if (minor == 2) {
        if (patch != 0) return -1;
        names(Section::Filter)[filter_key::FilterType] = kLegacyFilterTypeName;
        names(Section::Filter)[filter_key::FilterMode] = kLegacyFilterModeName;
        gInvertMask = true;
        return 0;
    }
    if (minor != 0 || patch != 0) return -1;
    names(Section::Can)[can_key::BR_Register] = kLegacyBrRegisterName;
    return 0;
}

bool legacyFormat() {
    return gLegacyFormat;
}

void setLegacyFormat() {
    gLegacyFormat = true;
}

bool invertMask() {
    return gInvertMask;
}

void resetFormatState() {
    gNames = currentNames();
    gLegacyFormat = false;
    gInvertMask = false;
}

}  // namespace ini
