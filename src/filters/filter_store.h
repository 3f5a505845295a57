#pragma once
// The filter store: the defined filters kept in place by their zero-based index, so that the
// store is always ordered by index and never has to allocate.

#include <cstdint>

#include "filters/filter.h"

// The filter with this index, or nullptr when none is defined there.
Filter* findFilter(FilterTable& table, uint32_t index);
const Filter* findFilter(const FilterTable& table, uint32_t index);

unsigned definedFilterCount(const FilterTable& table);

// Puts `record` into the store at `record.index`, replacing a filter defined there. nullptr
// when the index lies beyond the store.
[[nodiscard]] Filter* insertFilter(FilterTable& table, const Filter& record);

// Takes the filter with this index out of the store; its route relations stay.
void removeFilter(FilterTable& table, uint32_t index);

// Takes `filter` out of the store when it is one of the store's records; a record that lives
// elsewhere (one the loader is still filling) is left alone.
void releaseFilter(FilterTable& table, const Filter& filter);
