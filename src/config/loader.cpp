#include "config/loader.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <iniparser.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "can/bit_timing.h"
#include "config/config_path.h"
#include "config/conversions.h"
#include "config/ini_layout.h"
#include "filters/filter_store.h"
#include "filters/filter_term.h"
#include "filters/route_filters.h"
#include "model/config_model.h"
#include "model/handler.h"
#include "model/value_rules.h"
#include "routing/gateway.h"
#include "sys/log.h"
#include "sys/system.h"

using ini::Section;

namespace {

constexpr std::size_t kHeaderScanSize = 2048;

// The check a client's write of the same value meets; nullptr when it passes, else its text.
using Rule = const char* (*)(const char* value);

constexpr const char* kRefusedAtLoadFormat =
    "cfgd: %s in the configuration file refused, its default \"%s\" loaded: %s\n";

// The text of a key, cut to the key's own limit. The hardened profile trusts the file no more
// than a client (a legacy build may have written it, or a hand or a backup): a text that fails
// its rule is never loaded, and the line names the key and the rule, not the text.
void loadText(char* field, std::size_t fieldSize, const dictionary* file, Section section,
              int number, unsigned place, [[maybe_unused]] Rule rule) {
    ini::KeyAddress fallback;
    const char* text = ini::readText(file, section, number, place, fallback);
    if constexpr (kHardened) {
        if (const char* refusal = rule(text)) {
            ini::KeyAddress key;
            (void)ini::keyAddress(key, section, number, place);  // an empty name if it failed
            sys::logError(kRefusedAtLoadFormat, key, fallback, refusal);
            text = fallback;  // every default passes its rule
        }
    }
    copyText(field, fieldSize, text, static_cast<std::size_t>(ini::keySpec(section, place).high));
}

template <std::size_t N>
void loadText(char (&field)[N], const dictionary* file, Section section, int number, unsigned place,
              Rule rule) {
    loadText(field, N, file, section, number, place, rule);
}

uint8_t loadFlag(const dictionary* file, Section section, int number, unsigned place) {
    return ini::readBoolean(file, section, number, place) == 1 ? 1 : 0;
}

void loadGeneralAndHost(const dictionary* file, ConfigModel& model) {
    using namespace ini::general_key;
    GeneralRecord& general = model.general;
    loadText(general.Description, file, Section::General, 0, Description, rules::checkStoredText);
    general.KL15pwdn = loadFlag(file, Section::General, 0, KL15pwdn);
    // The power-down setting is not the hardware's default, so the next apply must set it.
    if (general.KL15pwdn) model.changed.mark(flag::General);
    general.LighttpdPort =
        static_cast<uint32_t>(ini::readInteger(file, Section::General, 0, LighttpdPort));
    general.UseNTP = loadFlag(file, Section::General, 0, UseNTP);
    loadText(general.NTPServer, file, Section::General, 0, NTPServer, rules::checkNtpServer);

    loadText(general.hostName, file, Section::Host, 0, ini::host_key::Devicename,
             rules::checkHostName);
}

// An address that does not convert leaves the field as it was.
template <typename Address>
void loadAddress(Address& field, int family, const dictionary* file, Section section, int n,
                 unsigned place) {
    ini::KeyAddress fallback;
    Address converted;
    if (inet_pton(family, ini::readText(file, section, n, place, fallback), &converted) == 1)
        field = converted;
}

void loadLan(const dictionary* file, int n, LanInterface& lan) {
    using namespace ini::lan_key;
    loadText(lan.IfName, file, Section::Lan, n, IfName, rules::checkInterfaceName);
    lan.UseDHCP = loadFlag(file, Section::Lan, n, UseDHCP);
    loadAddress(lan.IPv4, AF_INET, file, Section::Lan, n, IPv4);
    loadAddress(lan.Subnetmask, AF_INET, file, Section::Lan, n, Subnetmask);
    loadAddress(lan.IPv6, AF_INET6, file, Section::Lan, n, IPv6);
    loadAddress(lan.IPv4Gw, AF_INET, file, Section::Lan, n, IPv4Gw);
    loadAddress(lan.IPv6Gw, AF_INET6, file, Section::Lan, n, IPv6Gw);
    lan.Netbitsv6 = ini::readInteger(file, Section::Lan, n, Netbitsv6);
}

void loadWlan(const dictionary* file, int n, WlanInterface& wlan) {
    using namespace ini::wlan_key;
    loadText(wlan.IfName, file, Section::Wlan, n, IfName, rules::checkInterfaceName);
    loadText(wlan.SSID, file, Section::Wlan, n, SSID, rules::checkSsid);
    wlan.Encryption = loadFlag(file, Section::Wlan, n, Encryption);
    wlan.EncryptionType =
        static_cast<uint8_t>(ini::readInteger(file, Section::Wlan, n, EncryptionType));
    wlan.KeyType = static_cast<uint8_t>(ini::readInteger(file, Section::Wlan, n, KeyType));
    loadText(wlan.Key, file, Section::Wlan, n, Key, rules::checkWlanKey);
    wlan.Mode = static_cast<uint8_t>(ini::readInteger(file, Section::Wlan, n, Mode));
    wlan.UseDHCP = loadFlag(file, Section::Wlan, n, UseDHCP);
    loadAddress(wlan.IPv4, AF_INET, file, Section::Wlan, n, IPv4);
    loadAddress(wlan.Subnetmask, AF_INET, file, Section::Wlan, n, Subnetmask);
    loadAddress(wlan.IPv6, AF_INET6, file, Section::Wlan, n, IPv6);
    loadAddress(wlan.IPv4Gw, AF_INET, file, Section::Wlan, n, IPv4Gw);
    loadAddress(wlan.IPv6Gw, AF_INET6, file, Section::Wlan, n, IPv6Gw);
    wlan.Netbitsv6 = static_cast<uint8_t>(ini::readInteger(file, Section::Wlan, n, Netbitsv6));
}

void loadCan(const dictionary* file, int n, CanInterface& can) {
    using namespace ini::can_key;
    loadText(can.IfName, file, Section::Can, n, IfName, rules::checkInterfaceName);
    can.Active = loadFlag(file, Section::Can, n, Active);
    can.Baudrate = static_cast<uint32_t>(ini::readInteger(file, Section::Can, n, Baudrate));
    can.Listenonly = loadFlag(file, Section::Can, n, Listenonly);
    can.Autoresume = loadFlag(file, Section::Can, n, Autoresume);
    ini::KeyAddress fallback;
    // "-" and malformed texts leave the timing as it was; ManBr decides whether it is used.
    (void)parseBrRegs(ini::readText(file, Section::Can, n, BR_Register, fallback), can.timing);
    can.Loopback = loadFlag(file, Section::Can, n, Loopback);
    can.Oneshot = loadFlag(file, Section::Can, n, Oneshot);
    can.Triplesampling = loadFlag(file, Section::Can, n, Triplesampling);
    can.Samplepoint = static_cast<uint32_t>(ini::readInteger(file, Section::Can, n, Samplepoint));
    can.ManBr = loadFlag(file, Section::Can, n, ManBr);
}

// A filter exists only where its section does, with a known kind and a term that parses.
void loadFilter(const dictionary* file, int n, FilterTable& filters) {
    using namespace ini::filter_key;
    ini::KeyAddress section;
    if (ini::sectionAddress(section, Section::Filter, n) < 0) return;
    if (!iniparser_find_entry(file, section)) return;

    const int32_t kind = ini::readInteger(file, Section::Filter, n, FilterType);
    if (kind < static_cast<int32_t>(kRange11) || kind > static_cast<int32_t>(kMask29)) return;
    Filter record{};
    record.index = static_cast<uint32_t>(n);
    record.filter_type = static_cast<uint32_t>(kind);
    record.filter_mode = 1;
    if (!loadFlag(file, Section::Filter, n, FilterMode)) record.filter_mode |= kFilterInverted;

    ini::KeyAddress fallback;
    const char* term = ini::readText(file, Section::Filter, n, Term, fallback);
    const bool range = record.filter_type == kRange11 || record.filter_type == kRange29;
    const int entries = range ? parseRangeTerm(record, term, filters) : parseMaskTerm(record, term);
    if (entries < 1) return;
    // Files of format 1.2.0 hold the driver's inverted masks.
    if (!range && ini::invertMask()) record.FilterTo = ~record.FilterTo;

    Filter* kept = insertFilter(filters, record);
    if (kept == nullptr) return;
    loadText(kept->Comment, file, Section::Filter, n, Comment, rules::checkStoredText);
    loadText(kept->Name, file, Section::Filter, n, Name, rules::checkStoredText);
}

void loadForwarding(const dictionary* file, GeneralRecord& general) {
    using namespace ini::fwd_key;
    general.Count = static_cast<uint32_t>(ini::readInteger(file, Section::FwdGen, 0, Count));
    general.CANoIPdPort =
        static_cast<uint32_t>(ini::readInteger(file, Section::FwdGen, 0, CANoIPdPort));
}

void setFlag(uint32_t& word, uint32_t bit, bool on) {
    word = on ? word | bit : word & ~bit;
}

// Route n. The type word's direction and "no control" bits are only ever set here, never
// cleared: a file cannot take them back from a route the model already holds.
void loadRoute(const dictionary* file, int n, RouteRecord& route, FilterTable& filters) {
    using namespace ini::route_key;
    ini::KeyAddress fallback;
    RouteInfo& info = route.image.info;
    route.RouteFlags = kRouteActive;
    loadText(route.RtInfo, file, Section::Route, n, RtInfo, rules::checkStoredText);
    if (loadFlag(file, Section::Route, n, Active)) route.RouteFlags |= kRouteRunning;
    (void)parseRouteType(ini::readText(file, Section::Route, n, Type, fallback), info.flags);
    loadText(info.interface1, file, Section::Route, n, Interface1, rules::checkInterfaceName);
    (void)ini::readText(file, Section::Route, n, Interface2, fallback);  // not used
    (void)ini::readText(file, Section::Route, n, Protocol1, fallback);   // not used
    (void)parseProtocol(ini::readText(file, Section::Route, n, Protocol2, fallback),
                        info.protocol2);
    (void)ini::readText(file, Section::Route, n, Destination1, fallback);  // not used
    uint8_t destinationKind = kAddrTypeIPv4;
    // The kind decides how the destination text is read, so it is looked up first.
    (void)parseAddrType(ini::readText(file, Section::Route, n, Dest2Type, fallback),
                        destinationKind);
    (void)parseEndpoint(ini::readText(file, Section::Route, n, Destination2, fallback),
                        destinationKind, info.destination);
    info.fpp = static_cast<uint16_t>(ini::readInteger(file, Section::Route, n, FPP));
    setFlag(info.flags, kDrvTcpDelay, loadFlag(file, Section::Route, n, TCPDelay));
    route.DispIdx = static_cast<uint8_t>(ini::readInteger(file, Section::Route, n, DispIdx));
    info.retryDelay = static_cast<uint32_t>(ini::readInteger(file, Section::Route, n, SndUdelay));
    info.retryCount = static_cast<uint32_t>(ini::readInteger(file, Section::Route, n, SndMax));
    if (loadFlag(file, Section::Route, n, NoCtrl)) info.flags |= kDrvNoControl;
    // The file numbers filters from 0. A full relation table keeps what fitted.
    (void)parseFilterList(filters, ini::readText(file, Section::Route, n, Filters, fallback), n,
                          true);
    if (loadFlag(file, Section::Route, n, UnifyFilters)) route.RouteFlags |= kRouteUnifyFilters;
    if (loadFlag(file, Section::Route, n, JoinFilters)) route.RouteFlags |= kRouteJoinFilters;
    info.cdm = static_cast<uint32_t>(ini::readInteger(file, Section::Route, n, Cdm));
}

void loadGui(const dictionary* file, GuiRecord& gui) {
    for (unsigned place = 0; place < ini::gui_key::Places; ++place)
        gui.show[place] = loadFlag(file, Section::Gui, 0, place);
}

void loadDhcpServer(const dictionary* file, DhcpServerConfig& dhcp) {
    using namespace ini::dhcp_key;
    dhcp.active = loadFlag(file, Section::DhcpServer, 0, Active);
    dhcp.max_leases =
        static_cast<uint8_t>(ini::readInteger(file, Section::DhcpServer, 0, MaxLeases));
    loadAddress(dhcp.start_addr, AF_INET, file, Section::DhcpServer, 0, StartAddr);
    loadAddress(dhcp.end_addr, AF_INET, file, Section::DhcpServer, 0, EndAddr);
}

// A base-10 number with leading blanks; false when no digit was converted.
bool readVersionNumber(const char*& at, int& number) {
    char* end = nullptr;
    const long value = std::strtol(at, &end, 10);
    if (end == at) return false;
    number = static_cast<int>(value);
    at = end;
    return true;
}

}  // namespace

dictionary* parseConfigFile(const char* placedPath) {
    // A directory in the file's place would load as the defaults without a word, and the next
    // store would rename it to the backup and put a file in its place.
    struct stat status {};
    if (stat(placedPath, &status) == 0 && !S_ISREG(status.st_mode)) return nullptr;
    return iniparser_load(placedPath);
}

int checkHeader(const char* path, int& major, int& minor, int& patch) {
    const int fd = open(sys::placeFile(path).c_str(), O_RDONLY);
    // Descriptor 0 counts as a failure, as it always has. The daemon keeps descriptor 0 taken
    // (/dev/null replaces standard input once the route apply has closed it), so a file opened
    // here does not get it.
    if (fd < 1) {
        if (fd == 0) (void)close(fd);
        return -1;
    }
    char text[kHeaderScanSize];
    std::size_t held = 0;
    while (held < sizeof text - 1) {
        const ssize_t n = read(fd, text + held, sizeof text - 1 - held);
        if (n <= 0) break;
        held += static_cast<std::size_t>(n);
    }
    text[held] = '\0';
    (void)close(fd);  // read-only: nothing to lose

    if (strcasestr(text, ini::kHeaderTitle) == nullptr) return -1;
    const char* label = strcasestr(text, ini::kHeaderVersionLabel);
    if (label == nullptr) return -1;
    const char* at = label + std::strlen(ini::kHeaderVersionLabel);
    // One character is skipped after a number, whatever it is (the dot). A number that ends
    // the scanned text has nothing after it: there the next number is missing.
    if (!readVersionNumber(at, major) || *at++ == '\0') return -1;
    if (!readVersionNumber(at, minor) || *at++ == '\0') return -1;
    if (!readVersionNumber(at, patch)) return -1;

    const bool older =
        major < ini::kFormatMajor || (major == ini::kFormatMajor && minor < ini::kFormatMinor) ||
        (major == ini::kFormatMajor && minor == ini::kFormatMinor && patch <= ini::kFormatPatch);
    return older ? 0 : -1;
}

int loadConfiguration(ConfigModel& model, LoadEffects effects) {
    int major = 0;
    int minor = 0;
    int patch = 0;
    (void)checkHeader(configPath(), major, minor, patch);  // only the numbers matter here

    // Any other version (and a file without header) is read under its own key names and
    // rewritten whole in the current format by the next store.
    const bool legacy =
        major != ini::kFormatMajor || minor != ini::kFormatMinor || patch != ini::kFormatPatch;
    const ini::SavedKeyNames saved = ini::saveKeyNames();
    if (legacy) {
        (void)ini::applyLegacyKeyNames(major, minor, patch);  // unknown versions keep the names
        ini::setLegacyFormat();
    }

    dictionary* file = parseConfigFile(sys::placeFile(configPath()).c_str());
    if (file == nullptr) sys::logError("can't parse file %s\n", configPath());

    loadGeneralAndHost(file, model);
    if (effects == LoadEffects::Apply) {
        // Set at once, its result ignored: the Host apply reports failures.
        const char* name = model.general.hostName;
        (void)sys::current().setHostName(name, std::strlen(name));
    }
    for (unsigned n = 0; n < ini::sectionSpec(Section::Lan).countRead; ++n)
        loadLan(file, static_cast<int>(n), model.lan[n]);
    // None on this device: the count of WLAN sections is the number of WLAN interfaces served.
    for (unsigned n = 0; n < ini::sectionSpec(Section::Wlan).countRead && n < kWlanRecords; ++n)
        loadWlan(file, static_cast<int>(n), model.wlan);
    for (unsigned n = 0; n < ini::sectionSpec(Section::Can).countRead; ++n)
        loadCan(file, static_cast<int>(n), model.can[n]);
    (void)ini::readInteger(file, Section::FilterGen, 0, ini::filter_gen_key::Count);  // unused
    for (unsigned n = 0; n < ini::sectionSpec(Section::Filter).countRead; ++n)
        loadFilter(file, static_cast<int>(n), model.filters);
    loadForwarding(file, model.general);
    // The driver takes over or clears the routes it holds before the sections say what they
    // should be; a driver that is missing leaves every route without a node.
    if (effects == LoadEffects::Apply)
        (void)startGatewayDriver(model);
    else
        (void)assignRouteNodes(model);  // a missing driver leaves every route without a node
    const unsigned routes = model.general.Count;
    for (unsigned n = 0; n < routes && n < ini::sectionSpec(Section::Route).countRead; ++n)
        loadRoute(file, static_cast<int>(n), model.routes[n], model.filters);
    loadGui(file, model.gui);
    loadDhcpServer(file, model.dhcp);

    if (legacy) ini::restoreKeyNames(saved);
    iniparser_freedict(file);
    return 0;
}
