#include <gtest/gtest.h>

#include <tuple>

#include "fake_system.h"
#include "filters/filter_term.h"

namespace {

class FilterTerm : public SeamTest {};

// How ranges become blocks is checked where routes take them (filter_route_test.cpp).
TEST_F(FilterTerm, TermsParseAndPrintBack) {
    const std::tuple<uint32_t, const char*, const char*, uint32_t, uint32_t> cases[] = {
        // Decimal and hex; saturates like the device's 32-bit strtoul instead of wrapping.
        {kRange11, "100-0x100000005", "0x064-0x1FFFFFFF", 0x80000064, 0xFFFFFFFF},
        {kRange29, "0x100-0x1FF", "0x00000100-0x000001FF", 0x80000100, 0x800001FF},
        {kMask11, "0x7FF/0xFFF", "0x7FF/0x7FF", 0x7FF, 0x800007FF},
        {kMask11, "0x800/0xFFFF", "0x800/0x7FF", 0x80000800, 0x8000FFFF},  // becomes extended
        {kMask29, "0x100/0xFFFFFFFF", "0x00000100/0x1FFFFFFF", 0x80000100, 0x9FFFFFFF},
    };
    for (const auto& [kind, in, out, from, to] : cases) {
        Filter f{2, kind, 1, {}, {}, 0, 0};
        EXPECT_EQ(kind < kMask11 ? parseRangeTerm(f, in, m().filters) : parseMaskTerm(f, in), 1);
        EXPECT_EQ(std::pair(f.FilterFrom, f.FilterTo), std::pair(from, to)) << in;
        char text[32];
        (void)formatFilterTerm(f, text, sizeof text);  // always 0
        EXPECT_STREQ(text, out);
    }
}

}  // namespace
