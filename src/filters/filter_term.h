#pragma once
// Filter terms: the user's text form of a filter (an identifier range or an identifier with a
// mask), its two numbers in the filter record, and the identifier/mask pairs of the driver.

#include <cstddef>
#include <cstdint>

#include "filters/filter.h"
#include "sys/gateway_driver.h"

// Range widths: an 11-bit entry's mask includes the extended-frame bit, so that it never
// matches an extended frame.
inline constexpr uint32_t kStandardWidthMask = 0x800007FFu;
inline constexpr uint32_t kExtendedWidthMask = gw::kIdentifierBits;
inline constexpr uint32_t kStandardIdLimit = 2048;  // first identifier beyond 11 bits
inline constexpr uint32_t kStandardIdBits = 0x7FFu;
inline constexpr uint32_t kExtendedIdLimit = 0x20000000;  // first identifier beyond 29 bits

// Entries one range filter may produce on a route; longer ranges are cut off there.
inline constexpr int kMaxRangeEntries = 60;

// "from-to": 1, or -1 when the text has no '-'; the failing record is then released from
// `store` (when it is one of the store's records) and must not be used any more.
int parseRangeTerm(Filter& filter, const char* text, FilterTable& store);

// "id/mask": 1, or -1 when the text has no '/' (the record is kept).
int parseMaskTerm(Filter& filter, const char* text);

// Prints the term by kind; kinds outside 1..4 print an empty text. Result 0.
int formatFilterTerm(const Filter& filter, char* text, std::size_t size);

// Covers a range filter with aligned power-of-two blocks. The number of entries written, or
// -1 when `filter` or `entries` is missing.
int conv_range2masks(const Filter* filter, gw::MaskEntry* entries, int maxEntries);

// One pair that accepts at least every identifier either pair accepts. Result 0.
int unifyFilter(uint32_t id1, uint32_t mask1, uint32_t id2, uint32_t mask2, gw::MaskEntry& result);
