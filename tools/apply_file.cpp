#include "apply_file.h"

#include <charconv>
#include <cstdio>

#include "cfgctl_args.h"

namespace cfgctl {

namespace {

constexpr std::string_view kBlanks = " \t";

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// "F1 F2 F3", each 0..255, separated by blanks.
bool readAddress(std::string_view text, uint8_t (&address)[3]) {
    for (uint8_t& index : address) {
        text = trimmed(text);
        unsigned value = 0;
        auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error != std::errc{} || value > 255) return false;
        index = static_cast<uint8_t>(value);
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    }
    return trimmed(text).empty();
}

bool readLine(std::string_view text, unsigned number, ApplyFile& file, char* error,
              std::size_t errorSize) {
    if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
    const std::string_view content = trimmed(text);
    if (content.empty() || content.front() == '#') return true;
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos) {
        std::snprintf(error, errorSize, "%u: expected NAME = VALUE", number);
        return false;
    }
    const std::string name(trimmed(text.substr(0, equals)));
    std::string_view value = text.substr(equals + 1);
    if (!value.empty() && value.front() == ' ') value.remove_prefix(1);

    ApplyLine line{number, {}, std::string(value)};
    uint8_t address[3];
    if (findParam(name, line.param)) {
        // found by its name
    } else if (readAddress(name, address)) {
        if (!findParamAt(address[0], address[1], address[2], line.param)) {
            // An address without a name is written as it is.
            line.param = Param{};
            line.param.f1 = address[0];
            line.param.f2 = address[1];
            line.param.f3 = address[2];
        }
    } else {
        char reason[kErrorSize];
        unknownNameError(name, reason, sizeof reason);
        std::snprintf(error, errorSize, "%u: %s", number, reason);
        return false;
    }
    const ParamAccess access = line.param.access;
    const bool readOnly = access == ParamAccess::ReadOnly || access == ParamAccess::Live;
    (readOnly ? file.readOnly : file.writes).push_back(std::move(line));
    return true;
}

bool sameInstance(const Param& a, const Param& b) {
    return a.f1 == b.f1 && a.f2 == b.f2;
}

}  // namespace

bool parseApplyText(std::string_view text, ApplyFile& file, char* error, std::size_t errorSize) {
    file = ApplyFile{};
    unsigned number = 0;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        if (!readLine(line, ++number, file, error, errorSize)) return false;
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return true;
}

std::vector<std::size_t> planWrites(const std::vector<ApplyLine>& writes,
                                    const std::vector<std::optional<std::string>>& current) {
    const std::size_t count = writes.size();
    std::vector<bool> chosen(count);
    for (std::size_t i = 0; i < count; ++i)
        chosen[i] = !current[i].has_value() || *current[i] != writes[i].value;
    // Where a follower goes: behind the last other write of its instance, or its own line.
    std::vector<std::size_t> placeOf(count);
    for (std::size_t i = 0; i < count; ++i) {
        placeOf[i] = i;
        if (!writes[i].param.followsInstance) continue;
        for (std::size_t j = 0; j < count; ++j) {
            if (j == i || !chosen[j] || writes[j].param.followsInstance ||
                !sameInstance(writes[i].param, writes[j].param))
                continue;
            chosen[i] = true;
            if (j > placeOf[i]) placeOf[i] = j;
        }
    }
    std::vector<std::size_t> order;
    for (std::size_t place = 0; place < count; ++place) {
        if (chosen[place] && placeOf[place] == place) order.push_back(place);
        for (std::size_t i = 0; i < place; ++i)
            if (chosen[i] && placeOf[i] == place) order.push_back(i);
    }
    return order;
}

}  // namespace cfgctl
