#pragma once
// Reading a whole file into memory, for the files cfgctl reads (apply files, trial records).

#include <cstddef>
#include <cstdio>
#include <string>

namespace cfgctl {

// Reads `in` to its end, or until `text` holds at least `limit` bytes; false on a read error
// (errno tells why). The caller closes `in`.
[[nodiscard]] inline bool readToEnd(std::FILE* in, std::string& text, std::size_t limit) {
    char buffer[4096];
    std::size_t n = 0;
    while (text.size() < limit && (n = std::fread(buffer, 1, sizeof buffer, in)) > 0)
        text.append(buffer, n);
    return std::ferror(in) == 0;
}

}  // namespace cfgctl
