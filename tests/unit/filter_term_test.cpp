#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "fake_system.h"
#include "filters/filter_term.h"

namespace {

class FilterTerm : public SeamTest {};

TEST_F(FilterTerm, TermsParseAndPrintBackRangesBecomeAlignedBlocks) {
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

    // Ranges become aligned power-of-two blocks from the low bound up, as the driver's lists have
    // always been built: 11-bit pairs carry the frame bit in their mask, so that no extended frame
    // matches them.
    using Pairs = std::vector<gw::MaskEntry>;
    constexpr int all = kMaxRangeEntries;
    constexpr uint32_t kExt = 0x80000000;  // the extended frame bit
    const Pairs from3{{3, 0x800007FF}, {4, 0x800007FC}, {8, 0x800007F8}, {16, 0x800007FE}};
    // kind, bounds, entry limit, pairs
    const std::tuple<uint32_t, uint32_t, uint32_t, int, Pairs> ranges[] = {
        {kRange11, 3, 17, all, from3},
        {kRange11, 3, 17, 2, {from3[0], from3[1]}},
        // From 0 the first block is the one below hi's highest bit, even where a larger fits.
        {kRange11, 0, 7, all, {{0, 0x800007FC}, {4, 0x800007FC}}},
        {kRange11, 0, 6, all, {{0, 0x800007FC}, {4, 0x800007FE}, {6, 0x800007FF}}},
        {kRange29, kExt | 3, kExt | 5, all, {{kExt | 3, 0x1FFFFFFF}, {kExt | 4, 0x1FFFFFFE}}},
        {kRange29, 0x80000200, 0x80000100, all, {}},  // reversed bounds give nothing
    };
    for (const auto& [kind, from, to, limit, expected] : ranges) {
        const Filter filter{0, kind, 1, {}, {}, from, to};
        Pairs pairs(all);
        pairs.resize(static_cast<std::size_t>(conv_range2masks(&filter, pairs.data(), limit)));
        EXPECT_EQ(pairs, expected) << from << "-" << to << " at most " << limit;
    }
    // Bounds that are equal write one entry and count none.
    gw::MaskEntry pair{};
    const Filter equal{0, kRange11, 1, {}, {}, 0x100, 0x100};
    EXPECT_EQ(conv_range2masks(&equal, &pair, all), 0);
    EXPECT_EQ(std::pair(pair.id, pair.mask), std::pair(0x100u, 0x800007FFu));
}

}  // namespace
