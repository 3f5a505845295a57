#include "core/identity.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "core/version.h"
#include "model/config_model.h"
#include "model/handler.h"
#include "sys/system.h"

namespace {

// Both files are read into one buffer, boardinfo behind uboot_env; its last place stays a
// terminator.
constexpr std::size_t kBufferSize = 2048;
constexpr std::size_t kReadLimit = kBufferSize - 1;

using IdentityField = char (GeneralRecord::*)[kIdentityChars + 1];

struct IdentityText {
    const char* key;
    IdentityField field;
    const char* fallback;
    char separator;
    std::size_t skipAfterSeparator;  // boardinfo puts a blank after its colon
};

constexpr IdentityText kUbootTexts[] = {
    {"Ordernr", &GeneralRecord::orderNumber, kProductOrderNumber, '=', 0},
    {"Serialnr", &GeneralRecord::serialNumber, "0000000", '=', 0},
    {"HWVersion", &GeneralRecord::hwVersion, "2.0", '=', 0},
};
constexpr IdentityText kBspText{"BSP version", &GeneralRecord::bspVersion, "0.0.0", ':', 1};

struct TextBuffer {
    std::array<char, kBufferSize> bytes{};
    std::size_t held = 0;
};

// Appends the file at the device path to the buffer, up to the read limit. false when the file
// cannot be opened.
[[nodiscard]] bool appendFile(const char* devicePath, TextBuffer& buffer) {
    const int fd = open(sys::placeFile(devicePath).c_str(), O_RDONLY);
    if (fd < 0) return false;
    while (buffer.held < kReadLimit) {
        const ssize_t n = read(fd, buffer.bytes.data() + buffer.held, kReadLimit - buffer.held);
        if (n <= 0) break;
        buffer.held += static_cast<std::size_t>(n);
    }
    (void)close(fd);  // opened read-only: nothing to lose
    return true;
}

void useDefault(ConfigModel& model, const IdentityText& text) {
    copyText(model.general.*text.field, text.fallback);
}

// Finds the key anywhere in the text (inside another word too) and copies the value behind its
// separator up to a line feed or kIdentityChars characters. The text's last character is never
// copied, so a value on an unterminated last line loses its last character; kept, so that the
// texts read as they always have. Without a separator behind the key the value is empty.
void copyValue(ConfigModel& model, const IdentityText& text, const TextBuffer& buffer) {
    const char* const bytes = buffer.bytes.data();
    const char* found = std::strstr(bytes, text.key);
    if (found == nullptr) return useDefault(model, text);
    std::size_t at = static_cast<std::size_t>(found - bytes) + std::strlen(text.key) - 1;
    while (at < buffer.held && bytes[at] != text.separator)
        ++at;
    at += 1 + text.skipAfterSeparator;
    const std::size_t last = buffer.held - 1;  // held > 0: the key was found in it
    char* field = model.general.*text.field;
    std::size_t copied = 0;
    while (at < last && bytes[at] != '\n' && copied < kIdentityChars)
        field[copied++] = bytes[at++];
    field[copied] = '\0';
}

}  // namespace

int readDeviceIdentity(ConfigModel& model) {
    GeneralRecord& general = model.general;
    copyText(general.swVersion, kSoftwareVersion);
    copyText(general.buildDate, kBuildDate);
    copyText(general.buildTime, kBuildTime);

    TextBuffer buffer;
    if (!appendFile(kUbootEnvPath, buffer)) {
        for (const IdentityText& text : kUbootTexts)
            useDefault(model, text);
        return -1;
    }
    for (const IdentityText& text : kUbootTexts)
        copyValue(model, text, buffer);

    if (!appendFile(kBoardInfoPath, buffer)) {
        useDefault(model, kBspText);
        return -1;
    }
    // The search covers the boot loader's text as well.
    copyValue(model, kBspText, buffer);
    return 0;
}
