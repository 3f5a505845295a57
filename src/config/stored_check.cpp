#include "config/stored_check.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cinttypes>
#include <cstring>

namespace stored {

namespace {

constexpr const char* kCheckLineFormat = "# cfgd store: %zu bytes, crc32 %08" PRIx32 "\n";
// What every check line starts with; a file that starts with any part of it was written by the
// checking store, however little of it reached the flash.
constexpr const char* kCheckLineStart = "# cfgd store: ";
constexpr std::size_t kCheckLineSize = 64;

constexpr std::array<std::uint32_t, 256> kCrcTable = [] {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        std::uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit)
            c = (c & 1) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[i] = c;
    }
    return table;
}();

}  // namespace

std::uint32_t crc32(const void* data, std::size_t size, std::uint32_t crc) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    crc = ~crc;
    for (std::size_t i = 0; i < size; ++i)
        crc = kCrcTable[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

bool writeChecked(std::FILE* stream, const char* text, std::size_t size) {
    return std::fprintf(stream, kCheckLineFormat, size, crc32(text, size)) > 0 &&
           std::fwrite(text, 1, size, stream) == size;
}

Check checkFile(const char* path) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return Check::Fails;
    char buffer[4096];
    std::size_t held = 0;  // bytes of the first line in `buffer`
    char* end = nullptr;
    ssize_t n = 0;
    while (end == nullptr && held < kCheckLineSize &&
           (n = ::read(fd, buffer + held, sizeof buffer - held)) > 0) {
        held += static_cast<std::size_t>(n);
        end = static_cast<char*>(std::memchr(buffer, '\n', held));
    }
    const std::size_t start = std::strlen(kCheckLineStart);
    if (std::memcmp(buffer, kCheckLineStart, held < start ? held : start) != 0 || held == 0) {
        (void)::close(fd);  // read only
        return held == 0 && n < 0 ? Check::Fails : Check::NoCheckLine;
    }
    std::size_t size = 0;
    std::uint32_t crc = 0;
    const std::size_t lineLength = end != nullptr ? static_cast<std::size_t>(end - buffer) : 0;
    char line[kCheckLineSize + 1] = {};
    bool whole = end != nullptr && lineLength < kCheckLineSize;
    if (whole) {
        std::memcpy(line, buffer, lineLength);
        char after = '\0';  // nothing may follow the number on the line
        whole =
            std::sscanf(line + start, "%zu bytes, crc32 %8" SCNx32 "%c", &size, &crc, &after) == 2;
    }
    // Everything after the line: what the first reads held, then the rest of the file.
    std::size_t length = 0;
    std::uint32_t sum = 0;
    if (whole) {
        const std::size_t first = static_cast<std::size_t>(end + 1 - buffer);
        length = held - first;
        sum = crc32(end + 1, length);
        while ((n = ::read(fd, buffer, sizeof buffer)) > 0) {
            length += static_cast<std::size_t>(n);
            sum = crc32(buffer, static_cast<std::size_t>(n), sum);
        }
    }
    (void)::close(fd);  // read only
    return whole && n == 0 && length == size && sum == crc ? Check::Passes : Check::Fails;
}

}  // namespace stored
