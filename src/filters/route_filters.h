#pragma once
// Filters on routes: the relations between routes and filters, the filter list a route's
// driver node gets, and the per-route filter file written beside it.

#include <array>
#include <cstddef>
#include <cstdint>

#include "filters/filter.h"
#include "filters/filter_term.h"
#include "sys/gateway_driver.h"

struct ConfigModel;
struct RouteRecord;

inline constexpr const char* kFilterFileFormat = "/tmp/canoip%d_filter.cfg";

// Room for every range entry of every filter a route can have.
inline constexpr unsigned kMaxListPairs = kMaxFilters * kMaxRangeEntries;

// The list handed to a route node (little-endian on the device): the count, then that many
// identifier/mask pairs.
struct FilterList {
    uint32_t count;
    std::array<gw::MaskEntry, kMaxListPairs> pairs;
};
static_assert(offsetof(FilterList, pairs) == sizeof(uint32_t));
static_assert(sizeof(FilterList) == sizeof(uint32_t) + kMaxListPairs * sizeof(gw::MaskEntry));

// Relates filter `filter` (1-based) to route `route` (1-based). 0 also when the relation
// exists already or names route or filter 0 (such a relation means nothing); -1 when the
// relation table is full.
[[nodiscard]] int addRtFiltRealtion(FilterTable& table, unsigned route, unsigned filter);

// Remove every relation of one filter / of one route (both 1-based) and mark each route that
// lost one changed, so that the end of the session re-applies its filters. Result: the number
// of relations removed.
unsigned delFiltRealtions(ConfigModel& model, unsigned filter);
unsigned delRtFiltRealtions(ConfigModel& model, unsigned route);

// Marks every route related to filter `filter` (1-based) changed.
void markFilterRoutes(ConfigModel& model, unsigned filter);

// Relates route `index` + 1 to every filter number up to 32 in `text` (plus 1 when
// `zeroBased`, the configuration file's numbering). 0, or -1 when a relation found no room.
int parseFilterList(FilterTable& table, const char* text, int index, bool zeroBased);

// The filter numbers of route `index` + 1 as "1,3" (each minus 1 when `zeroBased`). 0, or -1
// when the route has no relation or the text does not fit in `size`.
int getRtFilters(const FilterTable& table, int index, char* text, std::size_t size, bool zeroBased);

// Puts a mask filter's inversion into its stored identifier (bit 29), as every list that uses
// the filter does; range filters are left as they are.
void keepInversion(Filter& filter);

// Hands the filter list of route `index` to its open node `fd` and writes the route's filter
// file. 0, or -1 when the driver refused the list. Inverted id/mask filters get bit 29 set in
// their stored identifier.
int applyFilters2Route(RouteRecord& route, int fd, int index, FilterTable& filters);

// Writes the route's filter file; a file that cannot be created ends the daemon.
void storeFilterInformation(const RouteRecord& route, int index, const FilterList& list);
