#include <gtest/gtest.h>

#include <bit>
#include <random>
#include <tuple>
#include <vector>

#include "fake_system.h"
#include "filters/filter_term.h"

namespace {

class FilterTerm : public SeamTest {};

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

// The fewest aligned power-of-two blocks that cover lo..hi, found by splitting the identifier
// space in halves (independent of the conversion's walk from low to high).
unsigned fewestBlocks(uint32_t lo, uint32_t hi, uint32_t start = 0, uint32_t size = 0x20000000) {
    const uint32_t last = start + (size - 1);
    if (last < lo || start > hi) return 0;
    if (start >= lo && last <= hi) return 1;
    return fewestBlocks(lo, hi, start, size / 2) + fewestBlocks(lo, hi, start + size / 2, size / 2);
}

bool accepts(const std::vector<gw::MaskEntry>& pairs, uint32_t frameId) {
    for (const gw::MaskEntry& p : pairs)
        if ((frameId & p.mask) == (p.id & p.mask)) return true;
    return false;
}

// For lo < hi: the pairs are aligned blocks from lo upwards without gap or overlap, exactly as
// many as the fewest cover needs (one more from 0 to one below a power of two, as a range from
// 0 starts with the block below hi's highest bit), cut off after maxEntries. Returns the
// identifiers covered, which the caller compares with what is accepted.
void checkRange(uint32_t kind, uint32_t lo, uint32_t hi, int maxEntries, std::mt19937& random) {
    const bool extended = kind == kRange29;
    const uint32_t frame = extended ? gw::kExtendedFrame : 0,
                   idBits = extended ? 0x1FFFFFFF : 0x7FF;
    const Filter filter{0, kind, 1, {}, {}, lo | frame, hi | frame};
    std::vector<gw::MaskEntry> pairs(kMaxRangeEntries + 1, {0xDEADBEEF, 0xDEADBEEF});
    const int count = conv_range2masks(&filter, pairs.data(), maxEntries);
    const unsigned fromZeroExtra = lo == 0 && std::has_single_bit(hi + 1) ? 1 : 0;
    const int expected = static_cast<int>(std::min<unsigned>(fewestBlocks(lo, hi) + fromZeroExtra,
                                                             static_cast<unsigned>(maxEntries)));
    ASSERT_EQ(count, expected) << std::hex << lo << "-" << hi << " max " << std::dec << maxEntries;
    pairs.resize(static_cast<std::size_t>(count));
    uint32_t next = lo;
    for (const gw::MaskEntry& p : pairs) {
        const uint32_t size = (~p.mask & idBits) + 1;
        ASSERT_TRUE(std::has_single_bit(size) &&
                    (p.mask | idBits) == (extended ? kExtendedWidthMask : kStandardWidthMask))
            << std::hex << p.mask;
        ASSERT_EQ(p.id, next | frame) << std::hex << lo << "-" << hi;
        ASSERT_EQ(next % size, 0u);
        next += size;
    }
    const uint32_t end = next;  // one past the last identifier covered
    EXPECT_TRUE(count < maxEntries ? end == hi + 1 : end <= hi + 1) << std::hex << lo << "-" << hi;
    // What the pairs accept, at the edges and inside; 11-bit pairs never take an extended frame.
    std::vector<uint32_t> probes = {
        lo - 1, lo, end - 1, end, hi, hi + 1, lo + static_cast<uint32_t>(random() % (hi - lo + 1))};
    if (hi < 64)
        for (uint32_t id = 0; id < 128; ++id)
            probes.push_back(id);
    for (const uint32_t id : probes) {
        if (id > idBits) continue;
        EXPECT_EQ(accepts(pairs, id | frame), id >= lo && id < end) << std::hex << id;
        if (!extended) {
            EXPECT_FALSE(accepts(pairs, id | gw::kExtendedFrame)) << std::hex << id;
        }
    }
}

TEST_F(FilterTerm, RangesBecomeExactlyTheBlocksThatCoverThem) {
    std::mt19937 random(20261123);
    // Every small 11-bit and 29-bit range, every identifier probed around it.
    for (const uint32_t kind : {kRange11, kRange29})
        for (uint32_t lo = 0; lo < 64; ++lo)
            for (uint32_t hi = lo + 1; hi < 64; ++hi)
                checkRange(kind, lo, hi, kMaxRangeEntries, random);
    // Random large ones, some cut off by a small entry limit.
    for (int n = 0; n < 20000; ++n) {
        const bool extended = n % 2 == 1;
        const uint32_t bits = extended ? 0x1FFFFFFF : 0x7FF;
        uint32_t a = random() & bits, b = random() & bits;
        if (n % 8 == 0) a = 0;  // ranges from 0 take their own first step
        if (a == b) continue;
        const int maxEntries = n % 5 == 0 ? 1 + static_cast<int>(random() % 20) : kMaxRangeEntries;
        checkRange(extended ? kRange29 : kRange11, std::min(a, b), std::max(a, b), maxEntries,
                   random);
    }
    // Bounds that are equal write one entry and count none; reversed bounds give nothing.
    gw::MaskEntry pair{};
    const Filter equal{0, kRange11, 1, {}, {}, 0x100, 0x100},
        reversed{0, kRange29, 1, {}, {}, 0x80000200, 0x80000100};
    EXPECT_EQ(conv_range2masks(&equal, &pair, kMaxRangeEntries), 0);
    EXPECT_EQ(std::pair(pair.id, pair.mask), std::pair(0x100u, 0x800007FFu));
    EXPECT_EQ(conv_range2masks(&reversed, &pair, kMaxRangeEntries), 0);
}

}  // namespace
