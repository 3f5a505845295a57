#include "config/loader.h"

#include <fcntl.h>
#include <iniparser.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "can/bit_timing.h"
#include "config/config_path.h"
#include "config/ini_layout.h"
#include "filters/filter_store.h"
#include "filters/filter_term.h"
#include "model/config_model.h"
#include "model/handler.h"
#include "sys/system.h"

using ini::Section;

namespace {

constexpr std::size_t kHeaderScanSize = 2048;

// The text of a key, cut to the key's own limit.
void loadText(char* field, std::size_t fieldSize, const dictionary* file, Section section,
              int number, unsigned place) {
    ini::KeyAddress fallback;
    const char* text = ini::readText(file, section, number, place, fallback);
    copyText(field, fieldSize, text, static_cast<std::size_t>(ini::keySpec(section, place).high));
}

template <std::size_t N>
void loadText(char (&field)[N], const dictionary* file, Section section, int number,
              unsigned place) {
    loadText(field, N, file, section, number, place);
}

uint8_t loadFlag(const dictionary* file, Section section, int number, unsigned place) {
    return ini::readBoolean(file, section, number, place) == 1 ? 1 : 0;
}

void loadGeneralAndHost(const dictionary* file, ConfigModel& model) {
    using namespace ini::general_key;
    GeneralRecord& general = model.general;
    loadText(general.Description, file, Section::General, 0, Description);
    general.KL15pwdn = loadFlag(file, Section::General, 0, KL15pwdn);
    // The power-down setting is not the hardware's default, so the next apply must set it.
    if (general.KL15pwdn) model.changed.mark(flag::General);
    general.LighttpdPort =
        static_cast<uint32_t>(ini::readInteger(file, Section::General, 0, LighttpdPort));
    general.UseNTP = loadFlag(file, Section::General, 0, UseNTP);
    loadText(general.NTPServer, file, Section::General, 0, NTPServer);

    loadText(general.hostName, file, Section::Host, 0, ini::host_key::Devicename);
    (void)sys::current().setHostName(general.hostName,  // the Host apply reports failures
                                     std::strlen(general.hostName));
}

void loadCan(const dictionary* file, int n, CanInterface& can) {
    using namespace ini::can_key;
    loadText(can.IfName, file, Section::Can, n, IfName);
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
    loadText(kept->Comment, file, Section::Filter, n, Comment);
    loadText(kept->Name, file, Section::Filter, n, Name);
}

void loadForwarding(const dictionary* file, GeneralRecord& general) {
    using namespace ini::fwd_key;
    general.Count = static_cast<uint32_t>(ini::readInteger(file, Section::FwdGen, 0, Count));
    general.CANoIPdPort =
        static_cast<uint32_t>(ini::readInteger(file, Section::FwdGen, 0, CANoIPdPort));
}

void loadGui(const dictionary* file, GuiRecord& gui) {
    for (unsigned place = 0; place < ini::gui_key::Places; ++place)
        gui.show[place] = loadFlag(file, Section::Gui, 0, place);
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

int checkHeader(const char* path, int& major, int& minor, int& patch) {
    const int fd = open(sys::placeFile(path).c_str(), O_RDONLY);
    // Descriptor 0 counts as a failure too: the daemon never runs without its standard input.
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
    if (!readVersionNumber(at, major)) return -1;
    ++at;  // the dot
    if (!readVersionNumber(at, minor)) return -1;
    ++at;
    if (!readVersionNumber(at, patch)) return -1;

    const bool older =
        major < ini::kFormatMajor || (major == ini::kFormatMajor && minor < ini::kFormatMinor) ||
        (major == ini::kFormatMajor && minor == ini::kFormatMinor && patch <= ini::kFormatPatch);
    return older ? 0 : -1;
}

int loadConfiguration(ConfigModel& model) {
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

    dictionary* file = iniparser_load(sys::placeFile(configPath()).c_str());
    if (file == nullptr) std::fprintf(stderr, "can't parse file %s\n", configPath());

    loadGeneralAndHost(file, model);
    for (unsigned n = 0; n < ini::sectionSpec(Section::Can).countRead; ++n)
        loadCan(file, static_cast<int>(n), model.can[n]);
    (void)ini::readInteger(file, Section::FilterGen, 0, ini::filter_gen_key::Count);  // unused
    for (unsigned n = 0; n < ini::sectionSpec(Section::Filter).countRead; ++n)
        loadFilter(file, static_cast<int>(n), model.filters);
    loadForwarding(file, model.general);
    loadGui(file, model.gui);

    if (legacy) ini::restoreKeyNames(saved);
    iniparser_freedict(file);
    return 0;
}
