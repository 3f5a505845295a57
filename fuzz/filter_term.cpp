// Filter terms on arbitrary text, and the range conversion and pair merging on arbitrary filter
// numbers. The input's last bytes give the numbers, the rest is the term.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "filters/filter_term.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    Filter numbers{};
    numbers.filter_type = in.ConsumeIntegralInRange<uint32_t>(0, 5);  // 0 and 5: no kind
    numbers.FilterFrom = in.ConsumeIntegral<uint32_t>();
    numbers.FilterTo = in.ConsumeIntegral<uint32_t>();
    const int maxEntries = in.ConsumeIntegralInRange<int>(0, kMaxRangeEntries);
    const size_t printSize = in.ConsumeIntegralInRange<size_t>(0, 24);
    const std::vector<char> bytes = in.ConsumeRemainingBytes<char>();
    std::vector<char> text(bytes.size() + 1);  // exactly sized: a read past the end shows
    std::copy(bytes.begin(), bytes.end(), text.begin());

    // The term parsed into a record of the store, as the loader and the set handler do.
    FilterTable store{};
    Filter& filter = store.slots[0];
    store.defined[0] = 1;
    filter.filter_type = numbers.filter_type;
    const bool range = filter.filter_type == kRange11 || filter.filter_type == kRange29;
    const int parsed =
        range ? parseRangeTerm(filter, text.data(), store) : parseMaskTerm(filter, text.data());
    std::vector<char> printed(printSize);  // exactly sized: a write past the end shows
    if (parsed == 1) (void)formatFilterTerm(filter, printed.data(), printed.size());  // always 0

    // Entries sized to the limit passed; their merge must accept every identifier of each.
    std::vector<gw::MaskEntry> entries(std::max(maxEntries, 1));
    const int count = conv_range2masks(&numbers, entries.data(), maxEntries);
    if (count < 0 || count > maxEntries) std::abort();
    if (count == 0) return 0;
    gw::MaskEntry merged = entries[0];
    for (int i = 1; i < count; ++i)  // each merge gives 0
        (void)unifyFilter(merged.id, merged.mask, entries[i].id, entries[i].mask, merged);
    for (int i = 0; i < count; ++i) {
        if ((entries[i].id & merged.mask) != (merged.id & merged.mask)) std::abort();
    }
    return 0;
}
