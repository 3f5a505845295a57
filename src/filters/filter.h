#pragma once
#include <array>
#include <cstdint>

inline constexpr unsigned kMaxFilters = 32;

// Filter kinds.
inline constexpr uint32_t kRange11 = 1;
inline constexpr uint32_t kRange29 = 2;
inline constexpr uint32_t kMask11 = 3;
inline constexpr uint32_t kMask29 = 4;

inline constexpr uint32_t kFilterInverted = 1u << 1;  // in filter_mode: a blocking filter

struct Filter {
    uint32_t index;  // zero-based: filter number - 1
    uint32_t filter_type;
    uint32_t filter_mode;
    char Comment[256];
    char Name[128];
    uint32_t FilterFrom;
    uint32_t FilterTo;
};

// A route (1-based) that uses a filter (1-based); 0 in either means no relation.
struct FilterRelation {
    uint8_t route;
    uint8_t filter;
};

// Relations are unique per route and filter number; the configuration file can name filter
// numbers up to 33, so this holds every pair of 8 routes and 34 filter numbers.
inline constexpr unsigned kMaxRelations = 8 * 34;

// The defined filters, kept in place by their index, and the route relations in the order
// they were made.
struct FilterTable {
    std::array<Filter, kMaxFilters> slots;
    std::array<uint8_t, kMaxFilters> defined;
    std::array<FilterRelation, kMaxRelations> relations;
    uint32_t relationCount;
};
