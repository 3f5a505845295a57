#include "filters/route_filters.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "filters/filter_store.h"
#include "model/config_model.h"
#include "routing/route_record.h"
#include "sys/system.h"

namespace {

constexpr const char* kCannotOpenFilterFile = "can't open output file";
constexpr const char* kFilterFileHeader =
    "filters defined: %u, join filters is: %s, unify filters is: %s\n";
constexpr const char* kFilterFileLine = "%u: id = 0x%08X mask = 0x%08X\n";
constexpr const char* kFilterFileEnd = "\n\n";
constexpr std::size_t kFilterFileLineSize = 99;

const char* boolText(bool value) {
    return value ? "true" : "false";
}

void markRoute(ConfigModel& model, unsigned route) {
    // Only the served routes have change flags; beyond them lie other groups' places.
    if (route >= 1 && route <= kRoutesServed) model.changed.mark(flag::Route, route);
}

// Removes the relations `matches` selects, keeping the others in their order.
template <typename Predicate>
unsigned removeRelations(ConfigModel& model, Predicate matches) {
    FilterTable& table = model.filters;
    unsigned kept = 0;
    unsigned removed = 0;
    for (unsigned i = 0; i < table.relationCount && i < kMaxRelations; ++i) {
        const FilterRelation relation = table.relations[i];
        if (matches(relation)) {
            markRoute(model, relation.route);
            ++removed;
        } else {
            table.relations[kept++] = relation;
        }
    }
    table.relationCount = kept;
    return removed;
}

// Appends one pair, or folds it into the running first pair when unifying.
struct ListBuilder {
    FilterList& list;
    bool unify;
    uint32_t pairs = 0;

    void add(gw::MaskEntry pair) {
        if (unify && pairs == 0) {
            list.pairs[0] = pair;
        } else if (unify) {
            gw::MaskEntry& running = list.pairs[0];
            (void)unifyFilter(running.id, running.mask, pair.id, pair.mask, running);  // always 0
        } else if (pairs < list.pairs.size()) {
            list.pairs[pairs] = pair;
        } else {
            return;  // cannot happen: every filter has room for all its entries
        }
        ++pairs;
    }
};

void addFilterPairs(Filter& filter, ListBuilder& builder) {
    const bool inverted = (filter.filter_mode & kFilterInverted) != 0;
    if (filter.filter_type == kRange11 || filter.filter_type == kRange29) {
        gw::MaskEntry entries[kMaxRangeEntries];
        const int count = conv_range2masks(&filter, entries, kMaxRangeEntries);
        for (int i = 0; i < count; ++i) {
            if (inverted) entries[i].id |= gw::kInvertedFilter;
            builder.add(entries[i]);
        }
    } else if (filter.filter_type == kMask11 || filter.filter_type == kMask29) {
        keepInversion(filter);
        // The driver's mask is the complement of the term's mask.
        gw::MaskEntry pair{filter.FilterFrom, ~filter.FilterTo};
        if (!builder.unify) pair.mask &= ~gw::kInvertedFilter;
        builder.add(pair);
    }
}

// No filter on the route: it passes every frame.
int applyAcceptAll(const RouteRecord& route, int fd, int index, FilterList& list) {
    list.count = 1;
    list.pairs[0] = {0, 0};
    storeFilterInformation(route, index, list);
    // A refused accept-all list has never failed a route's apply; the route goes on.
    (void)sys::current().ioctlNode(fd, gw::kSetFilters, &list);
    return 0;
}

[[nodiscard]] bool writeText(int fd, const char* text) {
    const std::size_t length = std::strlen(text);
    return ::write(fd, text, length) == static_cast<ssize_t>(length);
}

}  // namespace

void keepInversion(Filter& filter) {
    if (filter.filter_type != kMask11 && filter.filter_type != kMask29) return;
    // The inversion is kept in the stored identifier itself.
    if ((filter.filter_mode & kFilterInverted) != 0)
        filter.FilterFrom |= gw::kInvertedFilter;
    else
        filter.FilterFrom &= ~gw::kInvertedFilter;
}

int addRtFiltRealtion(FilterTable& table, unsigned route, unsigned filter) {
    if (route == 0 || filter == 0 || route > UINT8_MAX || filter > UINT8_MAX) return 0;
    for (unsigned i = 0; i < table.relationCount; ++i) {
        if (table.relations[i].route == route && table.relations[i].filter == filter) return 0;
    }
    if (table.relationCount >= kMaxRelations) return -1;
    table.relations[table.relationCount++] = {static_cast<uint8_t>(route),
                                              static_cast<uint8_t>(filter)};
    return 0;
}

unsigned delFiltRealtions(ConfigModel& model, unsigned filter) {
    return removeRelations(model, [filter](const FilterRelation& r) { return r.filter == filter; });
}

unsigned delRtFiltRealtions(ConfigModel& model, unsigned route) {
    return removeRelations(model, [route](const FilterRelation& r) { return r.route == route; });
}

void markFilterRoutes(ConfigModel& model, unsigned filter) {
    const FilterTable& table = model.filters;
    for (unsigned i = 0; i < table.relationCount; ++i) {
        if (table.relations[i].filter == filter) markRoute(model, table.relations[i].route);
    }
}

int parseFilterList(FilterTable& table, const char* text, int index, bool zeroBased) {
    int result = 0;
    const char* p = text;
    while (*p != '\0') {
        if (*p < '0' || *p > '9') {
            ++p;
            continue;
        }
        unsigned long number = 0;
        for (; *p >= '0' && *p <= '9'; ++p) {
            if (number <= kMaxFilters) number = number * 10 + static_cast<unsigned>(*p - '0');
        }
        if (number > kMaxFilters) continue;
        const unsigned filter = static_cast<unsigned>(number) + (zeroBased ? 1 : 0);
        if (addRtFiltRealtion(table, static_cast<unsigned>(index + 1), filter) < 0) result = -1;
    }
    return result;
}

int getRtFilters(const FilterTable& table, int index, char* text, std::size_t size,
                 bool zeroBased) {
    const unsigned route = static_cast<unsigned>(index + 1);
    std::size_t used = 0;
    for (unsigned i = 0; i < table.relationCount; ++i) {
        const FilterRelation& relation = table.relations[i];
        if (relation.route != route || relation.filter == 0) continue;
        const unsigned number = relation.filter - (zeroBased ? 1u : 0u);
        const int length = std::snprintf(text + used, size - used, "%u,", number);
        // The last comma may take the terminator's place: it becomes the terminator.
        if (length < 0 || used + static_cast<std::size_t>(length) > size) return -1;
        used += static_cast<std::size_t>(length);
    }
    if (used == 0) return -1;
    text[used - 1] = '\0';  // the last comma
    return 0;
}

int applyFilters2Route(RouteRecord& route, int fd, int index, FilterTable& filters) {
    // Room for 60 pairs of every filter: built here rather than on the heap, so that the
    // list can never fail to find room.
    static FilterList list;
    if (definedFilterCount(filters) == 0) return applyAcceptAll(route, fd, index, list);
    if (index < 0) return 0;

    ListBuilder builder{list, (route.RouteFlags & kRouteUnifyFilters) != 0};
    const unsigned routeNumber = static_cast<unsigned>(index + 1);
    for (unsigned i = 0; i < filters.relationCount; ++i) {
        const FilterRelation& relation = filters.relations[i];
        if (relation.route != routeNumber || relation.filter == 0) continue;
        Filter* filter = findFilter(filters, relation.filter - 1u);
        if (filter != nullptr) addFilterPairs(*filter, builder);
    }
    if (builder.pairs == 0) return applyAcceptAll(route, fd, index, list);

    list.count = builder.unify ? 1 : builder.pairs;
    storeFilterInformation(route, index, list);
    const unsigned long request =
        (route.RouteFlags & kRouteJoinFilters) ? gw::kSetJoinedFilters : gw::kSetFilters;
    return sys::current().ioctlNode(fd, request, &list) < 0 ? -1 : 0;
}

void storeFilterInformation(const RouteRecord& route, int index, const FilterList& list) {
    char devicePath[64];
    std::snprintf(devicePath, sizeof devicePath, kFilterFileFormat, index);
    const int fd = sys::current().openFile(devicePath, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) {
        std::perror(kCannotOpenFilterFile);
        std::exit(-1);
    }
    char line[kFilterFileLineSize];
    std::snprintf(line, sizeof line, kFilterFileHeader, list.count,
                  boolText(route.RouteFlags & kRouteJoinFilters),
                  boolText(route.RouteFlags & kRouteUnifyFilters));
    bool written = writeText(fd, line);
    for (uint32_t i = 0; i < list.count && i < list.pairs.size(); ++i) {
        std::snprintf(line, sizeof line, kFilterFileLine, i, list.pairs[i].id, list.pairs[i].mask);
        written = writeText(fd, line) && written;
    }
    written = writeText(fd, kFilterFileEnd) && written;
    (void)written;  // the file only informs the CAN-over-IP side; a short one is not an error
    // Closed until close fails, so the descriptor is closed a second time; the second close
    // only reports EBADF, and the device has always done so.
    while (::close(fd) == 0) {
    }
}
