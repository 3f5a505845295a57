#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "fake_system.h"
#include "filters/filter_store.h"
#include "filters/filter_term.h"

namespace {

Filter record(uint32_t kind, uint32_t from = 0, uint32_t to = 0) {
    Filter f{};
    f.index = 2;
    f.filter_type = kind;
    f.FilterFrom = from;
    f.FilterTo = to;
    return f;
}

class FilterTerm : public SeamTest {};

TEST_F(FilterTerm, TermsParseIntoBothNumbers) {
    struct Case {
        uint32_t kind;
        const char* text;
        uint32_t from, to;
    } cases[] = {
        {kRange11, "0x100-0x1FF", 0x100, 0x1FF},
        {kRange11, "100-200", 100, 200},  // decimal
        {kRange11, "0400-0x7FF", 0400, 0x7FF},
        {kRange11, "0x100-0x800", 0x80000100, 0x80000800},  // beyond 11 bits: extended
        {kRange29, "0x100-0x1FF", 0x80000100, 0x800001FF},
        {kRange29, "0x1FFFFFFFF-0", 0xFFFFFFFF, 0x80000000},  // saturates like 32-bit strtoul
        {kMask11, "0x7FF/0x7FF", 0x7FF, 0x800007FF},
        {kMask11, "0x100/0xFFF", 0x100, 0x800007FF},
        {kMask11, "0x800/0x7FF", 0x80000800, 0x800007FF},
        {kMask29, "0x100/0xFFFFFFFF", 0x80000100, 0x9FFFFFFF},
    };
    for (const Case& c : cases) {
        Filter f = record(c.kind);
        const int result =
            c.kind <= kRange29 ? parseRangeTerm(f, c.text, m().filters) : parseMaskTerm(f, c.text);
        EXPECT_EQ(result, 1) << c.text;
        EXPECT_EQ(f.FilterFrom, c.from) << c.text;
        EXPECT_EQ(f.FilterTo, c.to) << c.text;
    }
}

TEST_F(FilterTerm, RangeWithoutHyphenReleasesTheStoredRecordMaskKeepsIt) {
    Filter* range = insertFilter(m().filters, record(kRange11));
    Filter* mask = insertFilter(m().filters, [] {
        Filter f = record(kMask11);
        f.index = 5;
        return f;
    }());
    ASSERT_TRUE(range && mask);
    EXPECT_EQ(parseRangeTerm(*range, "0x100", m().filters), -1);
    EXPECT_EQ(findFilter(m().filters, 2), nullptr);
    EXPECT_EQ(parseMaskTerm(*mask, "0x100"), -1);
    EXPECT_EQ(findFilter(m().filters, 5), mask);

    Filter outside = record(kRange11);  // not in the store: nothing else is released
    EXPECT_EQ(parseRangeTerm(outside, "7", m().filters), -1);
    EXPECT_EQ(definedFilterCount(m().filters), 1u);
}

TEST_F(FilterTerm, TermsPrintByKind) {
    struct Case {
        Filter f;
        const char* text;
    } cases[] = {
        {record(kRange11, 0x80000100, 0x80000800), "0x100-0x800"},
        {record(kRange29, 0x80000100, 0x800001FF), "0x00000100-0x000001FF"},
        {record(kMask11, 0x80000800, 0x800007FF), "0x800/0x7FF"},
        {record(kMask29, 0xA0000100, 0x9FFFFFFF), "0x00000100/0x1FFFFFFF"},
        {record(0, 1, 2), ""},
        {record(5, 1, 2), ""},
    };
    for (const Case& c : cases) {
        char text[32] = "junk";
        EXPECT_EQ(formatFilterTerm(c.f, text, sizeof text), 0);
        EXPECT_STREQ(text, c.text);
    }
}

TEST_F(FilterTerm, RangesBecomeAlignedBlocks) {
    struct Case {
        Filter f;
        int maxEntries;
        std::vector<gw::MaskEntry> entries;
    } cases[] = {
        {record(kRange11, 0x100, 0x1FF), 60, {{0x100, 0x80000700}}},
        {record(kRange11, 0x000, 0x0FF), 60, {{0x000, 0x80000780}, {0x080, 0x80000780}}},
        {record(kRange11, 0x101, 0x104),
         60,
         {{0x101, 0x800007FF}, {0x102, 0x800007FE}, {0x104, 0x800007FF}}},
        {record(kRange11, 0x101, 0x104), 2, {{0x101, 0x800007FF}, {0x102, 0x800007FE}}},
        {record(kRange29, 0x80000100, 0x800001FF), 60, {{0x80000100, 0x1FFFFF00}}},
        {record(kRange11, 0x200, 0x100), 60, {}},
        // Bounds 0 and 0 that differ only beyond the identifier bits: blocks of size 0 fill
        // the list up to its limit.
        {record(kRange29, 0xA0000000, 0x80000000),
         3,
         {{0x80000000, 0}, {0x80000000, 0}, {0x80000000, 0}}},
    };
    for (const Case& c : cases) {
        gw::MaskEntry out[60]{};
        const int n = conv_range2masks(&c.f, out, c.maxEntries);
        ASSERT_EQ(n, static_cast<int>(c.entries.size())) << c.f.FilterFrom;
        EXPECT_EQ(std::vector<gw::MaskEntry>(out, out + n), c.entries) << c.f.FilterFrom;
    }
}

TEST_F(FilterTerm, EqualBoundsWriteOneEntryButCountNone) {
    gw::MaskEntry out[2]{};
    const Filter f = record(kRange11, 0x100, 0x100);
    EXPECT_EQ(conv_range2masks(&f, out, 60), 0);
    EXPECT_EQ(out[0], (gw::MaskEntry{0x100, 0x800007FF}));
    EXPECT_EQ(conv_range2masks(nullptr, out, 60), -1);
    EXPECT_EQ(conv_range2masks(&f, nullptr, 60), -1);
}

TEST_F(FilterTerm, UnifyKeepsOnlyCommonBits) {
    gw::MaskEntry r{};
    EXPECT_EQ(unifyFilter(0x100, 0x7FF, 0x101, 0x7FF, r), 0);
    EXPECT_EQ(r, (gw::MaskEntry{0x100, 0x7FE}));
    EXPECT_EQ(unifyFilter(0x100, 0x7FF, 0x300, 0x7F0, r), 0);
    EXPECT_EQ(r, (gw::MaskEntry{0x100, 0x5F0}));
}

}  // namespace
