#include "filters/filter_group.h"

#include <array>
#include <cstdio>

#include "filters/filter_store.h"
#include "filters/filter_term.h"
#include "filters/route_filters.h"
#include "model/config_model.h"
#include "model/device_numbers.h"
#include "model/value_rules.h"

namespace {

// Sub-index II of f2 = 0.
enum GroupParam : uint8_t { DefinedCount = 0, MaxCount = 1, DefinedList = 2 };
// Sub-index II of a filter.
enum FilterParam : uint8_t { Kind = 0, Type = 1, Term = 2, Comment = 3, Name = 4 };

constexpr const char* kNoFilterFormat = "Can't find filter with index %d";
constexpr const char* kFalseIndexFormat = "false filter index (%d)";
constexpr const char* kCreateByKindFormat =
    "false filter index (%d) - create filter by setting kind";
constexpr const char* kNoFilterAnywayText = "filter does not exist anyway";
constexpr const char* kUnknownKindFormat = "unknown filter type %s";
constexpr const char* kTermFailedFormat = "parsing filter term failed (%d)";
constexpr const char* kNotFoundFormat = "filter %d not found or deleted";

constexpr uint32_t kNewFilterMode = 1;  // passing
constexpr std::size_t kCommentChars = sizeof(Filter::Comment) - 1;
constexpr std::size_t kNameChars = sizeof(Filter::Name) - 1;

// A kind conversion's new number: (old & keep) | set.
struct NumberRule {
    uint32_t keep;
    uint32_t set;
};
constexpr NumberRule kUnchanged{~0u, 0};
constexpr NumberRule kExtend{~0u, gw::kExtendedFrame};
constexpr NumberRule kCutTo11Bits{kStandardIdBits, 0};
constexpr NumberRule value(uint32_t number) {
    return {0, number};
}

struct Conversion {
    NumberRule from;
    NumberRule to;
};

// What a converted filter matches by default: all 11-bit or all 29-bit identifiers.
constexpr uint32_t kWholeStandardMask = gw::kExtendedFrame | kStandardIdBits;
constexpr uint32_t kWholeExtendedMask = gw::kIdentifierBits;
constexpr uint32_t kLastStandardId = kStandardIdLimit - 1;
constexpr uint32_t kLastExtendedId = gw::kExtendedFrame | gw::kIdentifierBits;

// Indexed [current kind - 1][new kind - 1]; the diagonal is never used.
constexpr Conversion kConversions[4][4] = {
    {{},
     {kExtend, kExtend},
     {kUnchanged, value(kWholeStandardMask)},
     {kExtend, value(kWholeExtendedMask)}},
    {{kCutTo11Bits, kCutTo11Bits},
     {},
     {kCutTo11Bits, value(kWholeStandardMask)},
     {kUnchanged, value(kWholeExtendedMask)}},
    {{value(0), value(kLastStandardId)},
     {value(0), value(kLastExtendedId)},
     {},
     {kExtend, kExtend}},
    {{value(0), value(kLastStandardId)},
     {value(0), value(kLastExtendedId)},
     {kCutTo11Bits, kCutTo11Bits},
     {}},
};

// Wide enough for a number read from a request and for a stored kind alike, on the device and
// on a 64-bit host.
bool isKind(int64_t kind) {
    return kind >= kRange11 && kind <= kMask29;
}

void convertFilter(Filter& filter, uint32_t kind) {
    const Conversion& c = kConversions[filter.filter_type - 1][kind - 1];
    filter.filter_type = kind;
    filter.FilterFrom = (filter.FilterFrom & c.from.keep) | c.from.set;
    filter.FilterTo = (filter.FilterTo & c.to.keep) | c.to.set;
}

int readGroup(const RequestMessage& request, AnswerMessage& answer, const FilterTable& table) {
    const unsigned count = definedFilterCount(table);
    switch (request.f3) {
        case DefinedCount:
            answerText(answer, "%d", static_cast<int>(count));
            return 0;
        case MaxCount:
            answerText(answer, "%u", kMaxFilters);
            return 0;
        case DefinedList: {
            if (count < 1 || count > kMaxFilters) return 0;
            std::size_t used = 0;
            for (uint32_t index = 0; index < kMaxFilters; ++index) {
                if (findFilter(table, index) == nullptr) continue;
                const int n = std::snprintf(answer.da + used, sizeof answer.da - used, "%d;",
                                            static_cast<int>(index));
                if (n > 0) used += static_cast<std::size_t>(n);
            }
            return 0;
        }
        default:
            return failUnknownSubidxII(request, answer);
    }
}

int createFilter(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model,
                 unsigned number) {
    if (request.f3 != Kind) {
        answerText(answer, kCreateByKindFormat, static_cast<int>(number));
        return -1;
    }
    const int32_t kind = deviceStrtol(request.da, 10);
    if (kind == 0) {
        answerCopy(answer, kNoFilterAnywayText);  // a success that carries a text
        return 0;
    }
    if (!isKind(kind)) {
        answerText(answer, kUnknownKindFormat, request.da);
        return -1;
    }
    Filter record{};
    record.index = number - 1;
    record.filter_type = static_cast<uint32_t>(kind);
    record.filter_mode = kNewFilterMode;
    (void)insertFilter(model.filters, record);  // the number was checked against the store
    // Routes may name the filter before it exists; they get it now.
    markFilterRoutes(model, number);
    return 0;
}

// Kind of an existing filter: 0 deletes it, another kind converts it. True when the routes
// that use the filter must apply it again.
bool writeKind(const RequestMessage& request, ConfigModel& model, Filter& filter, unsigned number) {
    const int32_t kind = deviceStrtol(request.da, 10);
    if (kind == 0) {
        (void)delFiltRealtions(model, number);  // marks the routes that used it
        removeFilter(model.filters, filter.index);
        return false;
    }
    if (!isKind(kind) || static_cast<uint32_t>(kind) == filter.filter_type ||
        !isKind(filter.filter_type))
        return false;
    convertFilter(filter, static_cast<uint32_t>(kind));
    return true;
}

int writeFilter(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if (request.f2 == 0) return 0;
    const unsigned number = request.f2;
    if (number > kMaxFilters) {
        answerText(answer, kFalseIndexFormat, static_cast<int>(number));
        return -1;
    }
    // Every write marks, refused ones too: a filter a failed term took away must leave the
    // stored configuration as well.
    model.changed.mark(flag::Filter, 0);
    model.changed.mark(flag::Filter, number);

    Filter* filter = findFilter(model.filters, number - 1);
    if (filter == nullptr) return createFilter(request, answer, model, number);

    int result = 0;
    bool routesAffected = false;
    switch (request.f3) {
        case Kind:
            routesAffected = writeKind(request, model, *filter, number);
            break;
        case Type:
            if (request.da[0] == '0')
                filter->filter_mode |= kFilterInverted;
            else
                filter->filter_mode &= ~kFilterInverted;
            routesAffected = true;
            break;
        case Term: {
            const bool range = filter->filter_type == kRange11 || filter->filter_type == kRange29;
            // A range term that fails takes the filter out of the store.
            const int parsed = range ? parseRangeTerm(*filter, request.da, model.filters)
                                     : parseMaskTerm(*filter, request.da);
            if (parsed < 0) {
                answerText(answer, kTermFailedFormat, static_cast<int>(number));
                result = -1;
            }
            routesAffected = true;
            break;
        }
        case Comment:
            if constexpr (kHardened) {
                if (const char* refusal = rules::checkStoredText(request.da))
                    return failText(answer, refusal);
            }
            copyText(filter->Comment, request.da, kCommentChars);
            break;
        case Name:
            if constexpr (kHardened) {
                if (const char* refusal = rules::checkStoredText(request.da))
                    return failText(answer, refusal);
            }
            copyText(filter->Name, request.da, kNameChars);
            break;
        default:
            break;
    }
    if (routesAffected) markFilterRoutes(model, number);
    return result;
}

// The number of defined filters goes into the route-count value; the route group recounts
// before it answers, so the value there is only transient. The web front end has always seen
// it so.
void crossWriteFilterCount(ConfigModel& model) {
    model.general.Count = definedFilterCount(model.filters);
}

}  // namespace

int readFilter(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if (request.f2 == 0) return readGroup(request, answer, model.filters);
    if (request.f2 > kMaxFilters) return failUnknownSubidxI(request, answer);
    const Filter* filter = findFilter(model.filters, request.f2 - 1u);
    if (filter == nullptr) {
        answerText(answer, kNoFilterFormat, request.f2);
        return -1;
    }
    switch (request.f3) {
        case Kind:
            answerText(answer, "%u", filter->filter_type);
            return 0;
        case Type:
            answerText(answer, "%u", (filter->filter_mode & kFilterInverted) ? 0u : 1u);
            return 0;
        case Term:
            return formatFilterTerm(*filter, answer.da, sizeof answer.da);
        case Comment:
            answerCopy(answer, filter->Comment);
            return 0;
        case Name:
            answerCopy(answer, filter->Name);
            return 0;
        default:
            return failUnknownSubidxII(request, answer);
    }
}

int setFilter(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    const int result = writeFilter(request, answer, model);
    crossWriteFilterCount(model);
    return result;
}

int applyFilter(unsigned instance, ConfigModel& model, AnswerMessage& answer) {
    if (instance > kMaxFilters) {
        answerText(answer, kFalseIndexFormat, static_cast<int>(instance));
        crossWriteFilterCount(model);
        return -1;
    }
    if (instance != 0 && findFilter(model.filters, instance - 1) == nullptr) {
        // Still a success: the text reaches the client inside the positive answer.
        answerText(answer, kNotFoundFormat, static_cast<int>(instance - 1));
        return 0;
    }
    crossWriteFilterCount(model);
    return 0;
}
