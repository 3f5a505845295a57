#include "config/store.h"

#include <arpa/inet.h>
#include <iniparser.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "config/config_path.h"
#include "config/conversions.h"
#include "config/ini_layout.h"
#include "config/loader.h"
#include "config/stored_check.h"
#include "filters/filter_store.h"
#include "filters/filter_term.h"
#include "filters/route_filters.h"
#include "model/config_model.h"
#include "model/handler.h"
#include "network/dhcp_server.h"
#include "sys/log.h"
#include "sys/profile.h"
#include "sys/shell_command.h"
#include "sys/system.h"

using ini::Section;
using ini::Written;

namespace {

constexpr const char* kKeyErrorFormat = "ERROR@(%u,%u,%u): key pair doesn't exist in .ini file!";
constexpr const char* kSectionErrorFormat = "ERROR@(%u,%u,%u): section doesn't exist in .ini file!";

// The file-step texts lost the comma between their second and third number long ago, so the
// loop counter and the 0 run together ("ERROR@(2,80): ..."); clients know them in this form.
constexpr const char* kCreateFailedFormat = "ERROR@(%d,%d%d): new .ini file can't be created (%s)";
constexpr const char* kCloseFailedFormat = "ERROR@(%d,%d%d): can't close new .ini file (%s)";
constexpr const char* kRenameOldFailedFormat = "ERROR@(%d,%d%d): can't rename old .ini file (%s)";
constexpr const char* kRenameNewFailedFormat = "ERROR@(%d,%d%d): can't rename new .ini file (%s)";
constexpr const char* kSyncFailedFormat = "ERROR@(%d,%d%d): can't sync new .ini file (%s)";
constexpr int kFileErrorGroup = 2;
constexpr int kFileErrorKey = 0;

constexpr const char* kTemporaryOpenMode = "w";
// Made anew and exclusively: /tmp is every local user's, and a link planted at the temporary
// path would have root write the configuration through it.
constexpr const char* kExclusiveTemporaryOpenMode = "wx";
constexpr const char* kMoveFormat = "mv -f %s %s";
constexpr std::size_t kMoveCommandSize = 200;  // bytes, the terminator included

// A section is made by setting its own name; the value is never written out.
constexpr const char* kNewSectionValue = "0";
// The filter code writes a route's filter list and a filter's term into this much.
constexpr std::size_t kFilterTextSize = 200;
// The longest text a value takes: a device description of 511 characters.
constexpr std::size_t kValueSize = 512;

// max_leases has always reported the route group's number, unlike its neighbours.
constexpr unsigned kMaxLeasesErrorGroup = 5;
// GUI errors carry instance 1, although the GUI has only the group as a whole.
constexpr unsigned kGuiErrorInstance = 1;

// The directory a placed file is in, whose entry for the file is synced with it.
sys::FilePath directoryOf(const sys::FilePath& file) {
    sys::FilePath directory = file;
    char* slash = std::strrchr(directory.text, '/');
    if (slash == nullptr)
        std::snprintf(directory.text, sizeof directory.text, ".");
    else
        slash[slash == directory.text ? 1 : 0] = '\0';
    return directory;
}

struct ErrorAt {
    unsigned group;
    unsigned index;
    unsigned key;
};

// The numbers of a failed key's text. General, HOST and DHCP_SERVER carry the key number as
// their second number and 0 as their third; the others carry the instance and the key number.
ErrorAt keyError(Section section, unsigned instance, unsigned place) {
    const unsigned group = ini::sectionSpec(section).errorGroup;
    const unsigned number = ini::keySpec(section, place).number;
    switch (section) {
        case Section::General:
        case Section::Host:
            return {group, number, 0};
        case Section::DhcpServer:
            return {place == ini::dhcp_key::MaxLeases ? kMaxLeasesErrorGroup : group, number, 0};
        case Section::Filter:
            // filter_mode reports the number of filter_type; both stay as clients have seen them.
            return {group, instance, place == ini::filter_key::FilterMode ? 0 : number};
        default:
            return {group, instance, number};
    }
}

ErrorAt sectionError(Section section, unsigned instance) {
    return {ini::sectionSpec(section).errorGroup, instance, kSectionErrorKey};
}

// One key's value as text, in the written form the layout gives the key. The section's own
// code says which record field the key holds.
class Value {
  public:
    explicit Value(Written form) : form_(form) {}

    const char* text() const { return text_; }
    // The key is to be removed instead of set.
    bool removed() const { return text_ == nullptr; }

    template <std::size_t N>
    void stored(const char (&field)[N]) {
        copyText(buffer_, field, N - 1);  // a field filled elsewhere may lack its terminator
        text_ = buffer_;
    }
    void literal(const char* text) { text_ = text; }
    void flag(bool on) { text_ = ini::booleanText(form_, on); }
    void number(uint32_t value) {
        if (form_ == Written::Unsigned)
            std::snprintf(buffer_, sizeof buffer_, "%u", value);
        else
            std::snprintf(buffer_, sizeof buffer_, "%d", static_cast<int>(value));
        text_ = buffer_;
    }
    template <typename Address>
    void address(int family, const Address& value) {
        text_ = inet_ntop(family, &value, buffer_, sizeof buffer_) != nullptr ? buffer_ : "";
    }
    // A text that a formatter writes into the value's buffer (at most `size` bytes of it).
    template <typename Formatter>
    void formatted(std::size_t size, Formatter format) {
        (void)format(buffer_, size < sizeof buffer_ ? size : sizeof buffer_);
        text_ = buffer_;
    }
    void remove() { text_ = nullptr; }

    std::size_t size() const { return sizeof buffer_; }
    char* buffer() { return buffer_; }

  private:
    Written form_;
    const char* text_ = "";
    char buffer_[kValueSize] = {};
};

// One store: the parsed file, the answer that receives error texts, and the state that the
// texts carry.
class Store {
  public:
    Store(dictionary& file, ConfigModel& model, AnswerMessage& answer)
        : file_(file), model_(model), answer_(answer) {}

    void general();
    void host();
    void lan();
    void wlan();
    void can();
    void routes();
    void filters();
    void forwarding();
    void gui();
    void dhcpServer();
    // Writes the edited file and puts it in place of the configuration file, when any group
    // was visited. The status of the whole store.
    int replaceFile();

  private:
    bool changed(unsigned base, unsigned instance = 0) const {
        return model_.changed.isSet(base, instance);
    }
    void fail(const ErrorAt& error);
    [[nodiscard]] int failFileStep(const char* format);
    // Makes the section when the file lacks it; false (with the error text) when it cannot.
    bool ensureSection(Section section, int number, const ErrorAt& error);
    void setKey(Section section, int number, unsigned place, const char* value,
                const ErrorAt& error);
    void removeKey(Section section, int number, unsigned place);
    // Removes every key the section's list names (under the names in force), then the section.
    void removeSection(Section section, int number);
    void removeLegacyFilterKeys(int number);
    // Sets the section's written keys in the layout's order; `valueOf(place, value)` gives
    // each key's value.
    template <typename ValueOf>
    void writeKeys(Section section, int number, unsigned instance, ValueOf valueOf);

    dictionary& file_;
    ConfigModel& model_;
    AnswerMessage& answer_;
    int status_ = 0;
    unsigned visited_ = 0;
    // The one loop counter of the route and filter passes. The file-step texts carry the value
    // it is left with (8 after routes were written, 33 after the filter pass, 9 when an earlier
    // failure skipped both), which tells which passes ran.
    unsigned loop_ = 0;
    bool routesChanged_ = false;
    unsigned routesWritten_ = 0;
};

void Store::fail(const ErrorAt& error) {
    (void)formatIniError(answer_.da, sizeof answer_.da, error.group, error.index, error.key);
    status_ = -1;
}

int Store::failFileStep(const char* format) {
    answerText(answer_, format, kFileErrorGroup, static_cast<int>(loop_), kFileErrorKey,
               std::strerror(errno));
    return -1;
}

bool Store::ensureSection(Section section, int number, const ErrorAt& error) {
    ini::KeyAddress name;
    if (ini::sectionAddress(name, section, number) >= 0) {
        if (iniparser_find_entry(&file_, name)) return true;
        if (iniparser_set(&file_, name, kNewSectionValue) == 0) return true;
    }
    fail(error);
    return false;
}

void Store::setKey(Section section, int number, unsigned place, const char* value,
                   const ErrorAt& error) {
    ini::KeyAddress address;
    if (ini::keyAddress(address, section, number, place) >= 0 &&
        iniparser_set(&file_, address, value) == 0)
        return;
    fail(error);
}

void Store::removeKey(Section section, int number, unsigned place) {
    ini::KeyAddress address;
    if (ini::keyAddress(address, section, number, place) >= 0) iniparser_unset(&file_, address);
}

void Store::removeSection(Section section, int number) {
    for (unsigned place = 0; place < ini::sectionSpec(section).keys.size(); ++place)
        removeKey(section, number, place);  // empty places have no address: nothing happens
    ini::KeyAddress name;
    if (ini::sectionAddress(name, section, number) >= 0) iniparser_unset(&file_, name);
}

void Store::removeLegacyFilterKeys(int number) {
    int major = 0;
    int minor = 0;
    int patch = 0;
    (void)checkHeader(configPath(), major, minor, patch);  // only the numbers matter here
    const ini::SavedKeyNames current = ini::saveKeyNames();
    (void)ini::applyLegacyKeyNames(major, minor, patch);  // unknown versions keep the names
    for (unsigned place = 0; place < ini::filter_key::Places; ++place)
        removeKey(Section::Filter, number, place);
    ini::restoreKeyNames(current);
}

template <typename ValueOf>
void Store::writeKeys(Section section, int number, unsigned instance, ValueOf valueOf) {
    for (const uint8_t place : ini::sectionSpec(section).writeOrder) {
        Value value(ini::keySpec(section, place).written);
        valueOf(place, value);
        if (value.removed())
            removeKey(section, number, place);
        else
            setKey(section, number, place, value.text(), keyError(section, instance, place));
    }
}

void Store::general() {
    if (status_ != 0 || !changed(flag::General)) return;
    ++visited_;
    if (!ensureSection(Section::General, 0, sectionError(Section::General, 0))) return;
    const GeneralRecord& general = model_.general;
    writeKeys(Section::General, 0, 0, [&](unsigned place, Value& value) {
        using namespace ini::general_key;
        if (place == Description) value.stored(general.Description);
        if (place == KL15pwdn) value.flag(general.KL15pwdn != 0);
    });
}

void Store::host() {
    if (status_ != 0 || !changed(flag::Host)) return;
    ++visited_;
    if (!ensureSection(Section::Host, 0, sectionError(Section::Host, 0))) return;
    writeKeys(Section::Host, 0, 0,
              [&](unsigned, Value& value) { value.stored(model_.general.hostName); });
}

void Store::lan() {
    if (status_ != 0) return;
    if (changed(flag::Lan)) ++visited_;  // the group as a whole has no keys of its own
    for (unsigned n = 0; n < ini::sectionSpec(Section::Lan).countWritten; ++n) {
        if (status_ != 0) return;
        if (!changed(flag::Lan, n + 1)) continue;
        ++visited_;
        const int number = static_cast<int>(n);
        if (!ensureSection(Section::Lan, number, sectionError(Section::Lan, n))) continue;
        const LanInterface& lan = model_.lan[n];
        writeKeys(Section::Lan, number, n, [&](unsigned place, Value& value) {
            using namespace ini::lan_key;
            switch (place) {
                case IfName:
                    return value.stored(lan.IfName);
                case UseDHCP:
                    return value.flag(lan.UseDHCP != 0);
                case IPv4:
                    return value.address(AF_INET, lan.IPv4);
                case Subnetmask:
                    return value.address(AF_INET, lan.Subnetmask);
                case IPv6:
                    return value.address(AF_INET6, lan.IPv6);
                case IPv4Gw:
                    return value.address(AF_INET, lan.IPv4Gw);
                case IPv6Gw:
                    return value.address(AF_INET6, lan.IPv6Gw);
            }
        });
    }
}

void Store::wlan() {
    // No WLAN section is written while the interface count is zero; the group still counts.
    if (status_ != 0 || !changed(flag::Wlan)) return;
    ++visited_;
}

void Store::can() {
    if (status_ != 0) return;
    if (changed(flag::Can)) ++visited_;  // the group as a whole has no keys of its own
    for (unsigned n = 0; n < ini::sectionSpec(Section::Can).countWritten; ++n) {
        if (status_ != 0) return;
        if (!changed(flag::Can, n + 1)) continue;
        ++visited_;
        const int number = static_cast<int>(n);
        if (!ensureSection(Section::Can, number, sectionError(Section::Can, n))) continue;
        const CanInterface& can = model_.can[n];
        writeKeys(Section::Can, number, n, [&](unsigned place, Value& value) {
            using namespace ini::can_key;
            switch (place) {
                case IfName:
                    return value.stored(can.IfName);
                case Active:
                    return value.flag(can.Active != 0);
                case Baudrate:
                    return value.number(can.Baudrate);
                case Listenonly:
                    return value.flag(can.Listenonly != 0);
                case Autoresume:
                    return value.flag(can.Autoresume != 0);
                case Loopback:
                    return value.flag(can.Loopback != 0);
                case Oneshot:
                    return value.flag(can.Oneshot != 0);
                case Triplesampling:
                    return value.flag(can.Triplesampling != 0);
                case ManBr:
                    return value.flag(can.ManBr != 0);
                case BR_Register:
                    if (can.ManBr == 0) return value.literal(kNoBrRegsText);
                    return value.formatted(value.size(), [&](char* text, std::size_t size) {
                        return formatBrRegs(text, size, can.timing);
                    });
                case Samplepoint:
                    return value.number(can.Samplepoint);
            }
        });
    }
}

void Store::routes() {
    // Summed whatever the status: when an earlier failure skips the passes below, the counter
    // left here (9) is what the file-step texts show.
    unsigned sum = 0;
    for (loop_ = 1; loop_ <= kRoutesServed; ++loop_)
        sum += changed(flag::Route, loop_) ? 1 : 0;
    routesChanged_ = sum >= 1;
    if (status_ != 0 || !routesChanged_) return;
    ++visited_;
    // Every route in use is written, whichever of them changed, renumbered without gaps.
    for (loop_ = 0; loop_ < ini::sectionSpec(Section::Route).countWritten; ++loop_) {
        if (status_ != 0) continue;  // no further section is begun; the counter runs on
        const RouteRecord& route = model_.routes[loop_];
        if ((route.RouteFlags & kRouteActive) == 0) continue;
        const int number = static_cast<int>(routesWritten_);
        // Error texts name the route record, not the section number.
        if (!ensureSection(Section::Route, number, sectionError(Section::Route, loop_))) continue;
        ++routesWritten_;
        const RouteInfo& info = route.image.info;
        const int index = static_cast<int>(loop_);
        writeKeys(Section::Route, number, loop_, [&](unsigned place, Value& value) {
            using namespace ini::route_key;
            switch (place) {
                case RtInfo:
                    return value.stored(route.RtInfo);
                case Active:
                    return value.flag((route.RouteFlags & kRouteRunning) != 0);
                case Type:
                    return value.literal(formatRouteType(info.flags));
                case Interface1:
                    return value.stored(info.interface1);
                case Protocol2:
                    return value.literal(formatProtocol(info.protocol2));
                case Destination2:
                    return value.formatted(value.size(), [&](char* text, std::size_t size) {
                        return formatEndpoint(text, size, info.destination);
                    });
                case FPP:
                    return value.number(info.fpp);
                case TCPDelay:
                    return value.flag((info.flags & kDrvTcpDelay) != 0);
                case DispIdx:
                    return value.number(route.DispIdx);
                case SndUdelay:
                    return value.number(info.retryDelay);
                case SndMax:
                    return value.number(info.retryCount);
                case Cdm:
                    return value.number(info.cdm);
                case NoCtrl:
                    return value.flag((info.flags & kDrvNoControl) != 0);
                case Filters:
                    // The file numbers filters from 0; a route without filters loses the key.
                    if (getRtFilters(model_.filters, index, value.buffer(), kFilterTextSize, true) <
                        0)
                        return value.remove();
                    return value.literal(value.buffer());
                case UnifyFilters:
                    return value.flag((route.RouteFlags & kRouteUnifyFilters) != 0);
                case JoinFilters:
                    return value.flag((route.RouteFlags & kRouteJoinFilters) != 0);
            }
        });
    }
}

void Store::filters() {
    if (status_ != 0) return;
    // Once begun, the pass goes through every filter even after a failure.
    for (loop_ = 1; loop_ <= ini::sectionSpec(Section::Filter).countWritten; ++loop_) {
        if (!changed(flag::Filter, loop_)) continue;
        ++visited_;
        const unsigned n = loop_ - 1;
        const int number = static_cast<int>(n);
        const Filter* filter = findFilter(model_.filters, n);
        ini::KeyAddress name;
        const bool exists = ini::sectionAddress(name, Section::Filter, number) >= 0 &&
                            iniparser_find_entry(&file_, name);
        if (filter == nullptr) {
            if (exists) removeSection(Section::Filter, number);
            continue;
        }
        if (!exists) {
            if (!ensureSection(Section::Filter, number, sectionError(Section::Filter, n))) continue;
        } else if (ini::legacyFormat()) {
            // The section may hold keys under an older format's names; they go before the
            // current names are written.
            removeLegacyFilterKeys(number);
        }
        writeKeys(Section::Filter, number, n, [&](unsigned place, Value& value) {
            using namespace ini::filter_key;
            switch (place) {
                case FilterType:
                    return value.number(filter->filter_type);
                case FilterMode:
                    return value.number((filter->filter_mode & kFilterInverted) ? 0 : 1);
                case Comment:
                    return value.stored(filter->Comment);
                case Name:
                    return value.stored(filter->Name);
                case Term:
                    return value.formatted(kFilterTextSize, [&](char* text, std::size_t size) {
                        return formatFilterTerm(*filter, text, size);
                    });
            }
        });
    }
}

void Store::forwarding() {
    if (status_ != 0 || !routesChanged_) return;
    // The Count error carries the counter as the filter pass left it (33).
    if (ensureSection(Section::FwdGen, 0, sectionError(Section::FwdGen, loop_)))
        writeKeys(Section::FwdGen, 0, loop_,
                  [&](unsigned, Value& value) { value.number(routesWritten_); });
    // Every round looks for the same name, the first section beyond the written ones, so one
    // stale section goes per store and any further ones stay in the file. Nothing reads them
    // (Count stops the loader before them), and the file has always been cleaned up this way.
    const int stale = static_cast<int>(routesWritten_);
    for (loop_ = routesWritten_; loop_ < ini::sectionSpec(Section::Route).countWritten; ++loop_) {
        ini::KeyAddress name;
        if (ini::sectionAddress(name, Section::Route, stale) >= 0 &&
            iniparser_find_entry(&file_, name))
            removeSection(Section::Route, stale);
    }
}

void Store::gui() {
    if (status_ != 0 || !changed(flag::Gui)) return;
    ++visited_;
    if (!ensureSection(Section::Gui, 0, sectionError(Section::Gui, kGuiErrorInstance))) return;
    writeKeys(Section::Gui, 0, kGuiErrorInstance,
              [&](unsigned place, Value& value) { value.flag(model_.gui.show[place] != 0); });
}

void Store::dhcpServer() {
    if (status_ != 0 || !changed(flag::DhcpServer)) return;
    ++visited_;
    // The server's own file follows the record; a file that cannot be written does not keep
    // the record from being stored.
    (void)nw_write_dhcpd_config(model_.dhcp, model_.platform);
    if (!ensureSection(Section::DhcpServer, 0, sectionError(Section::DhcpServer, 0))) return;
    const DhcpServerConfig& dhcp = model_.dhcp;
    writeKeys(Section::DhcpServer, 0, 0, [&](unsigned place, Value& value) {
        using namespace ini::dhcp_key;
        switch (place) {
            case Active:
                return value.flag(dhcp.active != 0);
            case MaxLeases:
                return value.number(dhcp.max_leases);
            case StartAddr:
                return value.address(AF_INET, dhcp.start_addr);
            case EndAddr:
                return value.address(AF_INET, dhcp.end_addr);
        }
    });
}

int Store::replaceFile() {
    if (visited_ == 0) return status_;
    sys::System& system = sys::current();
    const sys::FilePath temporary = sys::placeFile(kTemporaryConfigPath);
    if constexpr (kHardened) (void)system.unlinkFile(kTemporaryConfigPath);  // "wx" tells
    std::FILE* stream = system.openStream(
        temporary.c_str(), kHardened ? kExclusiveTemporaryOpenMode : kTemporaryOpenMode);
    if (stream == nullptr) return failFileStep(kCreateFailedFormat);
    errno = 0;
    bool written = true;
    if constexpr (kHardened) {
        // Checked at start: the text goes to memory first, so that a line with its length and
        // checksum can go before it.
        char* text = nullptr;
        std::size_t size = 0;
        std::FILE* memory = open_memstream(&text, &size);
        if (memory != nullptr) {
            ini::writeHeader(memory);
            iniparser_dump_ini(&file_, memory);
        }
        written = memory != nullptr && std::fclose(memory) == 0 &&
                  stored::writeChecked(stream, text, size);
        std::free(text);
    } else {
        ini::writeHeader(stream);
        iniparser_dump_ini(&file_, stream);
    }
    // A failed sync still leaves a complete file once the stream is closed.
    (void)system.syncStream(stream);
    // A write that failed on the way counts as a failed close, with the write's error: the C
    // library drops what it could not write, so the close itself may well succeed, and the
    // configuration file must never be replaced by a part of the new one.
    const bool writeFailed = std::ferror(stream) != 0 || !written;
    const int writeError = errno != 0 ? errno : EIO;
    if (system.closeStream(stream) != 0) return failFileStep(kCloseFailedFormat);
    if (writeFailed) {
        errno = writeError;
        return failFileStep(kCloseFailedFormat);
    }

    const sys::FilePath current = sys::placeFile(configPath());
    const sys::FilePath backup = sys::placeFile(kBackupConfigPath);
    if (system.renameFile(current.c_str(), backup.c_str()) != 0)
        return failFileStep(kRenameOldFailedFormat);
    ShellCommand<kMoveCommandSize - 1> command;
    command.append(kMoveFormat, temporary.c_str(), current.c_str());
    // Only a shell that could not run counts; the exit status of mv is not examined.
    if (system.runCommand(command.text()) < 0) {
        const int result = failFileStep(kRenameNewFailedFormat);
        (void)system.renameFile(backup.c_str(), current.c_str());  // nothing more to try
        return result;
    }
    // The mv wrote the file's data without a sync: until it and the new name in the directory
    // reach the flash, a power cut can leave an empty or cut file. The client's answer waits.
    if constexpr (kHardened) {
        if (system.syncPath(current.c_str()) != 0 ||
            system.syncPath(directoryOf(current).c_str()) != 0)
            return failFileStep(kSyncFailedFormat);
    }
    return status_;
}

struct DictionaryRelease {
    void operator()(dictionary* file) const { iniparser_freedict(file); }
};

}  // namespace

int formatIniError(char* buffer, std::size_t size, unsigned group, unsigned index, unsigned key) {
    return std::snprintf(buffer, size,
                         key == kSectionErrorKey ? kSectionErrorFormat : kKeyErrorFormat, group,
                         index, key);
}

int storeConfiguration(ConfigModel& model, AnswerMessage& answer) {
    // After a file of another format was loaded every group is stored, so that the whole file
    // is rewritten under the current names and header.
    if (ini::legacyFormat()) model.changed.setAll();
    const std::unique_ptr<dictionary, DictionaryRelease> file(
        parseConfigFile(sys::placeFile(configPath()).c_str()));
    if (file == nullptr) return -1;

    Store store(*file, model, answer);
    store.general();
    store.host();
    store.lan();
    store.wlan();
    store.can();
    store.routes();
    store.filters();
    store.forwarding();
    store.gui();
    store.dhcpServer();
    return store.replaceFile();
}

int restoreInterruptedStore() {
    const sys::FilePath file = sys::placeFile(configPath());
    const sys::FilePath backup = sys::placeFile(kBackupConfigPath);
    struct stat status {};
    const bool fileMissing = ::stat(file.c_str(), &status) != 0 && errno == ENOENT;
    const bool fileEmpty = !fileMissing && S_ISREG(status.st_mode) && status.st_size == 0;
    // A file that the checking store wrote but that did not reach the flash whole.
    bool fileCut = false;
    if constexpr (kHardened)
        fileCut = !fileMissing && stored::checkFile(file.c_str()) == stored::Check::Fails;
    if (!fileMissing && !fileEmpty && !fileCut) return 0;
    if (::stat(backup.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0)
        return 0;
    if constexpr (kHardened) {
        if (stored::checkFile(backup.c_str()) == stored::Check::Fails) {
            sys::logLine("%s: %s and %s are both cut short\n", __func__, configPath(),
                         kBackupConfigPath);
            return 0;
        }
    }
    if (sys::current().renameFile(backup.c_str(), file.c_str()) != 0) return -1;
    if constexpr (kHardened) {
        if (sys::current().syncPath(directoryOf(file).c_str()) != 0) return -1;
    }
    sys::logLine("%s: %s put back from %s\n", __func__, configPath(), kBackupConfigPath);
    return 1;
}
