#pragma once
// The configuration file as a format: its header, its sections, and for every key its name,
// number, value form, default and written form. The writer walks these tables in each section's
// write order; the loader names the keys group by group and reads each through the look-ups
// below. Both map the keys to record fields themselves.

#include <iniparser.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

namespace ini {

// The comment header and the format version this daemon writes.
inline constexpr const char* kHeaderFormat = "#%s\n# %s\n# %s %d.%d.%d\n#%s ";
inline constexpr const char* kHeaderRule = "########################################";
inline constexpr const char* kHeaderTitle = "KIV configuration file";
inline constexpr const char* kHeaderVersionLabel = "Format version";
inline constexpr int kFormatMajor = 1;
inline constexpr int kFormatMinor = 3;
inline constexpr int kFormatPatch = 1;

// Writes the header; the first section's leading newline ends its last line.
void writeHeader(std::FILE* stream);

enum class Section : uint8_t {
    General,
    Host,
    Lan,
    Wlan,
    Can,
    FwdGen,
    Route,
    Gui,
    FilterGen,
    Filter,
    DhcpServer,
};
inline constexpr unsigned kSectionCount = 11;

// Key places (the key numbers of the numbered sections and of GUI, FWD_GEN and DHCP_SERVER).
namespace general_key {
enum : unsigned { Description, KL15pwdn, LighttpdPort, UseNTP, NTPServer, Places };
}
namespace host_key {
enum : unsigned { Devicename, Places };
}
namespace lan_key {
enum : unsigned { IfName, UseDHCP, IPv4, Subnetmask, IPv6, IPv4Gw, IPv6Gw, Netbitsv6, Places };
}
namespace wlan_key {
enum : unsigned {
    IfName,
    SSID,
    Encryption,
    EncryptionType,
    KeyType,
    Key,
    Modes,  // reserved name
    Mode,
    UseDHCP,
    IPv4,
    Subnetmask,
    IPv6,
    IPv4Gw,
    IPv6Gw,
    Netbitsv6,
    Places
};
}
namespace can_key {
// Places 11 to 15 of the list are empty.
enum : unsigned {
    IfName,
    Active,
    Baudrate,
    Listenonly,
    Autoresume,
    BR_Register,
    Loopback,
    Oneshot,
    Triplesampling,
    Samplepoint,
    ManBr,
    Places = 16
};
}  // namespace can_key
namespace fwd_key {
enum : unsigned { Count, Reserved, CANoIPdPort, Places };
}
namespace route_key {
// Places 14 to 28 and 31 are empty.
enum : unsigned {
    RtInfo,
    Active,
    Type,
    Interface1,
    Interface2,
    Protocol1,
    Protocol2,
    Destination1,
    Destination2,
    Dest1Type,
    Dest2Type,
    FPP,
    TCPDelay,
    DispIdx,
    SndUdelay = 29,
    SndMax = 30,
    NoCtrl = 32,
    Filters,
    UnifyFilters,
    JoinFilters,
    Cdm,
    Places
};
}  // namespace route_key
namespace gui_key {
enum : unsigned { Places = 9 };  // show_device_info .. show_filter_info, as the GUI record
}
namespace filter_gen_key {
enum : unsigned { Count, Places };
}
namespace filter_key {
enum : unsigned { FilterType, FilterMode, Term, Comment, Name, Places };
}
namespace dhcp_key {
enum : unsigned { Active, MaxLeases, StartAddr, EndAddr, Places };
}

inline constexpr unsigned kMaxPlaces = route_key::Places;

// How a value is read.
enum class Form : uint8_t {
    Reserved,       // an empty place or a reserved name: never read or written
    Text,           // kept up to `high` characters (0: handed on whole)
    Discarded,      // text that is read and thrown away
    Boolean,        // first character decides, else `defaultValue`
    Integer,        // base 0, clamped to low..high
    IPv4,           // inet_pton; a text that does not convert leaves the field as it was
    IPv6,           // inet_pton (AF_INET6), likewise
    RouteType,      // parseRouteType
    Protocol,       // parseProtocol
    AddrType,       // parseAddrType
    Endpoint,       // parseEndpoint
    BitTimingText,  // parseBrRegs
    FilterList,     // the route's filter list, handed to the filter code
    FilterTerm,     // the filter's term, handed to the term readers
};

// How a value is written.
enum class Written : uint8_t {
    No,
    AsStored,
    OneZero,     // "1"/"0"
    TrueFalse,   // "TRUE"/"FALSE"
    Decimal,     // "%d"
    Unsigned,    // "%u"
    Address,     // inet_ntop text (dotted for IPv4)
    RouteType,   // formatRouteType
    Protocol,    // formatProtocol
    Endpoint,    // formatEndpoint
    BrRegs,      // formatBrRegs when the bit timing is manual, else kNoBrRegsText
    FilterList,  // the filter code's list text; the key is removed when there is none
    FilterTerm,  // the filter code's term text
};

inline constexpr unsigned kNoKeyNumber = 0xFFFF;  // keys that are never written

struct KeySpec {
    // The current format's spelling. Look names up with keyName(), which follows the switch
    // to an older format's names.
    const char* name;  // nullptr: an empty place
    unsigned number;   // the key number the writer's error texts carry
    Form form;
    int32_t low;              // Integer: the clamp range
    int32_t high;             // Integer: the clamp range; Text: the characters kept
    int32_t defaultValue;     // Boolean and Integer
    const char* defaultText;  // the other forms
    bool defaultTakesNumber;  // defaultText is a format taking the section number ("can%d")
    Written written;
};

struct SectionSpec {
    const char* name;  // the base name of a numbered section
    bool numbered;     // "%s_%d", counting from 0
    unsigned countRead;
    unsigned countWritten;
    unsigned errorGroup;                  // the group number of the writer's error texts
    std::span<const KeySpec> keys;        // by place
    std::span<const uint8_t> writeOrder;  // places, in the order the writer sets them
};

const SectionSpec& sectionSpec(Section section);
// A place beyond the section's list yields an empty place.
const KeySpec& keySpec(Section section, unsigned place);
// The name in force for a key; nullptr for an empty place.
const char* keyName(Section section, unsigned place);

// Key addresses and numbered section names, each into a buffer of 200 bytes. Each returns the
// length written, or -1 (and an empty text) when the name is empty or does not fit.
inline constexpr std::size_t kKeyAddressSize = 200;
using KeyAddress = char[kKeyAddressSize];
inline constexpr const char* kKeyFormat = "%s:%s";
inline constexpr const char* kNumberedKeyFormat = "%s_%d:%s";
inline constexpr const char* kNumberedSectionFormat = "%s_%d";

int formatKey(KeyAddress& out, const char* section, const char* key);
int formatKey(KeyAddress& out, const char* baseName, int number, const char* key);
int formatSectionName(KeyAddress& out, const char* baseName, int number);
// From the tables: section `section` (number `number` where it is numbered; ignored where it
// is not) and the key at `place` under its name in force.
int keyAddress(KeyAddress& out, Section section, int number, unsigned place);
int sectionAddress(KeyAddress& out, Section section, int number);

// Look-ups of one key with the table's default and limits; `ini` may be null (no file), then
// every look-up gives the default.
// Integer: base 0, saturated at 32 bits, then clamped to the key's range.
int32_t readInteger(const dictionary* ini, Section section, int number, unsigned place);
// Boolean: 1 or 0 by the first character, the key's default otherwise.
int readBoolean(const dictionary* ini, Section section, int number, unsigned place);
// Any text form: the file's text, or the key's default (formatted into `defaultBuffer` when it
// takes the section number). The result lives in the dictionary or in `defaultBuffer`.
const char* readText(const dictionary* ini, Section section, int number, unsigned place,
                     KeyAddress& defaultBuffer);
// The default text of a key for section number `number`.
int formatDefaultText(KeyAddress& out, Section section, int number, unsigned place);

// "1"/"0" or "TRUE"/"FALSE" as the key's written form asks.
const char* booleanText(Written written, bool value);

// Names of keys in older format versions.
inline constexpr const char* kLegacyFilterTypeName = "Kind";         // 1.2.0
inline constexpr const char* kLegacyFilterModeName = "Type";         // 1.2.0
inline constexpr const char* kLegacyBrRegisterName = "BR_reigster";  // 1.0.0, misspelt so

// The key lists that an older format renames, saved before the switch and put back after.
struct SavedKeyNames {
    std::array<const char*, can_key::Places> can;
    std::array<const char*, filter_key::Places> filter;
};
SavedKeyNames saveKeyNames();
void restoreKeyNames(const SavedKeyNames& saved);

// Switches key names to those of format major.minor.patch: 1.2.0 renames the filter keys
// "filter_type" and "filter_mode" and sets the invert-mask flag; 1.0.0 renames the CAN key
// "BR_Register". 1.1.x changes nothing and gives 0; every other version changes nothing and
// gives -1.
int applyLegacyKeyNames(int major, int minor, int patch);

// Process-wide flags of the format met. Once set they stay set for the process's life.
// Legacy format: a file of another version than the current one was loaded, so every store
// rewrites the whole file.
bool legacyFormat();
void setLegacyFormat();
// Invert masks: a 1.2.0 file was met, whose identifier/mask filters hold inverted masks.
bool invertMask();

// Back to a fresh process: flags clear, current names. The daemon never calls it; tests do.
void resetFormatState();

}  // namespace ini
