#include "filters/filter_term.h"

#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "filters/filter_store.h"
#include "model/device_numbers.h"

namespace {

struct TermForm {
    const char* format;
    uint32_t fromMask;
    uint32_t toMask;
};

// Indexed by filter kind; place 0 is no kind.
constexpr std::array<TermForm, 5> kTermForms{{
    {nullptr, 0, 0},
    {"0x%03X-0x%03X", gw::kIdentifierBits, gw::kIdentifierBits},
    {"0x%08X-0x%08X", gw::kIdentifierBits, gw::kIdentifierBits},
    {"0x%03X/0x%03X", gw::kIdentifierBits, kStandardIdBits},
    {"0x%08X/0x%08X", gw::kIdentifierBits, gw::kIdentifierBits},
}};

}  // namespace

int parseRangeTerm(Filter& filter, const char* text, FilterTable& store) {
    filter.FilterFrom = deviceStrtoul(text, 0);
    const char* hyphen = std::strchr(text, '-');
    if (hyphen == nullptr) {
        releaseFilter(store, filter);
        return -1;
    }
    filter.FilterTo = deviceStrtoul(hyphen + 1, 0);
    if (filter.filter_type != kRange29 && filter.FilterFrom < kStandardIdLimit &&
        filter.FilterTo < kStandardIdLimit)
        return 1;
    filter.FilterFrom |= gw::kExtendedFrame;
    filter.FilterTo |= gw::kExtendedFrame;
    return 1;
}

int parseMaskTerm(Filter& filter, const char* text) {
    filter.FilterFrom = deviceStrtoul(text, 0);
    const char* slash = std::strchr(text, '/');
    if (slash == nullptr) return -1;
    filter.FilterTo = deviceStrtoul(slash + 1, 0);
    if (filter.filter_type == kMask11 && filter.FilterFrom < kStandardIdLimit) {
        filter.FilterTo %= kStandardIdLimit;
    } else if (filter.filter_type == kMask29 || filter.filter_type == kMask11) {
        filter.FilterFrom |= gw::kExtendedFrame;
        filter.FilterTo %= kExtendedIdLimit;
    }
    filter.FilterTo |= gw::kExtendedFrame;
    return 1;
}

int formatFilterTerm(const Filter& filter, char* text, std::size_t size) {
    if (size == 0) return 0;
    text[0] = '\0';
    if (filter.filter_type < kRange11 || filter.filter_type > kMask29) return 0;
    const TermForm& form = kTermForms[filter.filter_type];
    std::snprintf(text, size, form.format, filter.FilterFrom & form.fromMask,
                  filter.FilterTo & form.toMask);
    return 0;
}

int conv_range2masks(const Filter* filter, gw::MaskEntry* entries, int maxEntries) {
    if (filter == nullptr || entries == nullptr) return -1;
    if (maxEntries < 1) return 0;
    const bool extended = filter->filter_type == kRange29;
    const uint32_t width = extended ? kExtendedWidthMask : kStandardWidthMask;
    const uint32_t frame = extended ? gw::kExtendedFrame : 0;

    // Equal bounds write their one entry but count none, so callers that go by the count
    // take nothing from such a range; the device has always behaved so.
    if (filter->FilterFrom == filter->FilterTo) {
        entries[0] = {filter->FilterFrom, width};
        return 0;
    }

    uint32_t lo = filter->FilterFrom & gw::kIdentifierBits;
    const uint32_t hi = filter->FilterTo & gw::kIdentifierBits;
    int count = 0;
    // A range from 0 first takes only the largest block below hi's highest bit, even where a
    // larger one would fit; kept, as the driver's lists have always been built so.
    if (lo == 0) {
        const uint32_t size = std::bit_floor(hi);
        if (size <= hi + 1) {
            entries[count++] = {lo | frame, (0 - size) & width};
            lo = size;
        }
    }
    while (lo <= hi && count < maxEntries) {
        // 32 trailing zeros for lo = 0 give a block of size 0 (2^32 in 32 bits).
        int shift = std::countr_zero(lo);
        uint32_t size = static_cast<uint32_t>(uint64_t{1} << shift);
        while (lo + size > hi + 1 && shift > 0)
            size = uint32_t{1} << --shift;
        entries[count++] = {lo | frame, (0 - size) & width};
        lo += size;
    }
    return count;
}

int unifyFilter(uint32_t id1, uint32_t mask1, uint32_t id2, uint32_t mask2, gw::MaskEntry& result) {
    result.id = id1;
    result.mask = mask1 & mask2 & ~(id1 ^ id2);
    return 0;
}
