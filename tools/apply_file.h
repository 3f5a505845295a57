#pragma once
// The file that `cfgctl apply` writes: the "name = value" lines of a dump, or a part of one, and
// which of them a session must write, in what order.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/param_names.h"

namespace cfgctl {

struct ApplyLine {
    unsigned line;  // from 1
    Param param;    // a numeric line of an address without a name has an empty name
    std::string value;
};

struct ApplyFile {
    std::vector<ApplyLine> writes;    // in file order
    std::vector<ApplyLine> readOnly;  // skipped with a note
};

// Parses the text of an apply file: "NAME = VALUE" or "F1 F2 F3 = VALUE" lines (the value is
// everything after "= ", blanks included), blank lines and "#" comments (a dump's refused
// reads). On a bad line returns false with "LINE: reason" in `error`.
[[nodiscard]] bool parseApplyText(std::string_view text, ApplyFile& file, char* error,
                                  std::size_t errorSize);

// The positions in `writes` to write, in order, given each line's current value (nullopt:
// unknown, so written). Lines that hold the current value are left out, except that a
// parameter that follows its instance is written, after the instance's last other write,
// whenever its instance gets another write.
std::vector<std::size_t> planWrites(const std::vector<ApplyLine>& writes,
                                    const std::vector<std::optional<std::string>>& current);

}  // namespace cfgctl
