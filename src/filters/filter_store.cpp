#include "filters/filter_store.h"

#include <cstring>

Filter* findFilter(FilterTable& table, uint32_t index) {
    if (index >= kMaxFilters || !table.defined[index]) return nullptr;
    return &table.slots[index];
}

const Filter* findFilter(const FilterTable& table, uint32_t index) {
    if (index >= kMaxFilters || !table.defined[index]) return nullptr;
    return &table.slots[index];
}

unsigned definedFilterCount(const FilterTable& table) {
    unsigned count = 0;
    for (uint8_t defined : table.defined)
        count += defined != 0;
    return count;
}

Filter* insertFilter(FilterTable& table, const Filter& record) {
    if (record.index >= kMaxFilters) return nullptr;
    table.slots[record.index] = record;
    table.defined[record.index] = 1;
    return &table.slots[record.index];
}

void removeFilter(FilterTable& table, uint32_t index) {
    if (index >= kMaxFilters) return;
    // Cleared as well, so that nothing of a removed filter can be read back by mistake.
    std::memset(&table.slots[index], 0, sizeof(Filter));
    table.defined[index] = 0;
}

void releaseFilter(FilterTable& table, const Filter& filter) {
    for (uint32_t index = 0; index < kMaxFilters; ++index) {
        if (&table.slots[index] == &filter) removeFilter(table, index);
    }
}
