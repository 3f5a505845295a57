#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "fake_system.h"
#include "filters/filter_term.h"

namespace {

Filter rec(uint32_t kind, uint32_t from = 0, uint32_t to = 0) {
    return {2, kind, 1, {}, {}, from, to};
}

class FilterTerm : public SeamTest {};

TEST_F(FilterTerm, TermsParseAndPrintBack) {
    const std::tuple<uint32_t, const char*, const char*, uint32_t, uint32_t> cases[] = {
        {kRange11, "100-0400", "0x064-0x100", 100, 0x100},                 // decimal and octal
        {kRange11, "0x100-0x800", "0x100-0x800", 0x80000100, 0x80000800},  // beyond 11 bits
        {kRange29, "0x100-0x1FF", "0x00000100-0x000001FF", 0x80000100, 0x800001FF},
        // Saturates like the device's 32-bit strtoul instead of wrapping.
        {kRange29, "0x100000005-0", "0x1FFFFFFF-0x00000000", 0xFFFFFFFF, 0x80000000},
        {kMask11, "0x7FF/0xFFF", "0x7FF/0x7FF", 0x7FF, 0x800007FF},
        {kMask11, "0x800/0xFFFF", "0x800/0x7FF", 0x80000800, 0x8000FFFF},  // becomes extended
        {kMask29, "0x100/0xFFFFFFFF", "0x00000100/0x1FFFFFFF", 0x80000100, 0x9FFFFFFF},
    };
    for (const auto& [kind, term, printed, from, to] : cases) {
        Filter f = rec(kind);
        const int parsed =
            kind <= kRange29 ? parseRangeTerm(f, term, m().filters) : parseMaskTerm(f, term);
        EXPECT_EQ(std::tuple(parsed, f.FilterFrom, f.FilterTo), std::tuple(1, from, to)) << term;
        char text[32];
        EXPECT_EQ(formatFilterTerm(f, text, sizeof text), 0);
        EXPECT_STREQ(text, printed);
    }
}

TEST_F(FilterTerm, RangesBecomeAlignedBlocks) {
    const std::pair<Filter, std::vector<gw::MaskEntry>> cases[] = {
        // From 0 the first block is only the largest one below hi's highest bit.
        {rec(kRange11, 0x000, 0x0FF), {{0x000, 0x80000780}, {0x080, 0x80000780}}},
        {rec(kRange11, 0x101, 0x104),
         {{0x101, 0x800007FF}, {0x102, 0x800007FE}, {0x104, 0x800007FF}}},
        {rec(kRange29, 0x80000100, 0x800001FF), {{0x80000100, 0x1FFFFF00}}},
        {rec(kRange11, 0x100, 0x100), {}},  // equal bounds count no entry at all
    };
    for (const auto& [f, entries] : cases) {
        gw::MaskEntry out[60]{};
        const int n = conv_range2masks(&f, out, 60);
        ASSERT_GE(n, 0);
        EXPECT_EQ(std::vector(out, out + n), entries) << f.FilterFrom;
    }
}

}  // namespace
