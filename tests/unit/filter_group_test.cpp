#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "fake_system.h"
#include "filters/filter_group.h"
#include "filters/filter_store.h"
#include "filters/route_filters.h"

namespace {

constexpr uint8_t kFilterGroup = 9;

struct Outcome {
    int result;
    std::string text;
};

class FilterGroup : public SeamTest {
  protected:
    Outcome call(bool write, unsigned f2, unsigned f3, const std::string& data = "") {
        RequestMessage request{};
        request.mt = write ? SET_PARAM : READ_PARAM;
        request.f1 = kFilterGroup;
        request.f2 = static_cast<uint8_t>(f2);
        request.f3 = static_cast<uint8_t>(f3);
        std::snprintf(request.da, sizeof request.da, "%s", data.c_str());
        AnswerMessage answer{};
        const int result =
            write ? setFilter(request, answer, m()) : readFilter(request, answer, m());
        return {result, answer.da};
    }
    Outcome set(unsigned f2, unsigned f3, const std::string& data) {
        return call(true, f2, f3, data);
    }
    Outcome read(unsigned f2, unsigned f3) { return call(false, f2, f3); }
    void define(unsigned number, unsigned kind, const char* term) {
        ASSERT_EQ(set(number, 0, std::to_string(kind)).result, 0);
        ASSERT_EQ(set(number, 2, term).result, 0);
    }
    const Filter* filter(unsigned number) { return findFilter(m().filters, number - 1); }
    bool routeMarked(unsigned route) { return m().changed.isSet(flag::Route, route); }
};

TEST_F(FilterGroup, KindCreatesOrRefuses) {
    struct Case {
        std::string kind;
        Outcome outcome;
        bool created;
    } cases[] = {
        {"1", {0, ""}, true},
        {"4x", {0, ""}, true},  // base-10 strtol takes the 4
        {"0", {0, "filter does not exist anyway"}, false},
        {"0x3", {0, "filter does not exist anyway"}, false},
        {"7", {-1, "unknown filter type 7"}, false},
        {"-1", {-1, "unknown filter type -1"}, false},
    };
    for (const Case& c : cases) {
        resetModel(m());
        const Outcome o = set(4, 0, c.kind);
        EXPECT_EQ(o.result, c.outcome.result) << c.kind;
        EXPECT_EQ(o.text, c.outcome.text) << c.kind;
        ASSERT_EQ(filter(4) != nullptr, c.created) << c.kind;
        EXPECT_EQ(m().general.Count, c.created ? 1u : 0u) << c.kind;
        if (c.created) {
            EXPECT_EQ(filter(4)->filter_mode, 1u);
        }
    }
    EXPECT_EQ(set(5, 2, "0x1-0x2").text, "false filter index (5) - create filter by setting kind");
}

TEST_F(FilterGroup, ReadsAndGroupValues) {
    define(1, 1, "0x100-0x1FF");
    define(5, 3, "0x7FF/0x7FF");
    ASSERT_EQ(set(5, 1, "0").result, 0);
    ASSERT_EQ(set(5, 3, std::string(300, 'c')).result, 0);
    ASSERT_EQ(set(5, 4, std::string(200, 'n')).result, 0);
    struct Case {
        unsigned f2, f3;
        Outcome outcome;
    } cases[] = {
        {0, 0, {0, "2"}},
        {0, 1, {0, "32"}},
        {0, 2, {0, "0;4;"}},
        {0, 3, {-1, "Unknown subidx II in f3 (f1:9, f2:0, f3:3)"}},
        {33, 0, {-1, "Unknown subidx I in f2 (f1:9, f2:33, f3:0)"}},
        {3, 0, {-1, "Can't find filter with index 3"}},
        {1, 0, {0, "1"}},
        {1, 1, {0, "1"}},
        {1, 2, {0, "0x100-0x1FF"}},
        {5, 1, {0, "0"}},
        {5, 2, {0, "0x7FF/0x7FF"}},
        {5, 3, {0, std::string(255, 'c')}},
        {5, 4, {0, std::string(127, 'n')}},
        {5, 5, {-1, "Unknown subidx II in f3 (f1:9, f2:5, f3:5)"}},
    };
    for (const Case& c : cases) {
        const Outcome o = read(c.f2, c.f3);
        EXPECT_EQ(o.result, c.outcome.result) << c.f2 << "/" << c.f3;
        EXPECT_EQ(o.text, c.outcome.text) << c.f2 << "/" << c.f3;
    }
    resetModel(m());
    EXPECT_EQ(read(0, 2).text, "");
}

TEST_F(FilterGroup, EveryKindConvertsKeepingTheRest) {
    const char* terms[] = {"", "0x100-0x1FF", "0x100-0x1FF", "0x123/0x7F0", "0x12345/0x1FFFF"};
    struct Case {
        unsigned from, to;
        uint32_t low, high;
    } cases[] = {
        {1, 2, 0x80000100, 0x800001FF},
        {1, 3, 0x100, 0x800007FF},
        {1, 4, 0x80000100, 0x1FFFFFFF},
        {2, 1, 0x100, 0x1FF},
        {2, 3, 0x100, 0x800007FF},
        {2, 4, 0x80000100, 0x1FFFFFFF},
        {3, 1, 0, 2047},
        {3, 2, 0, 0x9FFFFFFF},
        {3, 4, 0x80000123, 0x800007F0},
        {4, 1, 0, 2047},
        {4, 2, 0, 0x9FFFFFFF},
        {4, 3, 0x345, 0x7FF},
    };
    for (const Case& c : cases) {
        resetModel(m());
        define(7, c.from, terms[c.from]);
        ASSERT_EQ(set(7, 1, "0").result, 0);
        ASSERT_EQ(set(7, 4, "name").result, 0);
        ASSERT_EQ(addRtFiltRealtion(m().filters, 3, 7), 0);
        m().changed.clearAll();
        ASSERT_EQ(set(7, 0, std::to_string(c.to)).result, 0);
        const Filter* f = filter(7);
        ASSERT_NE(f, nullptr);
        EXPECT_EQ(f->filter_type, c.to) << c.from;
        EXPECT_EQ(f->FilterFrom, c.low) << c.from << "->" << c.to;
        EXPECT_EQ(f->FilterTo, c.high) << c.from << "->" << c.to;
        EXPECT_EQ(f->index, 6u);
        EXPECT_EQ(f->filter_mode, 1u | kFilterInverted);
        EXPECT_STREQ(f->Name, "name");
        EXPECT_TRUE(routeMarked(3)) << c.from << "->" << c.to;
        EXPECT_EQ(m().filters.relationCount, 1u);
    }
    for (const char* unchanged : {"3", "9"}) {  // the same kind (4 -> 3 came last), no kind
        m().changed.clearAll();
        ASSERT_EQ(set(7, 0, unchanged).result, 0);
        EXPECT_EQ(filter(7)->filter_type, 3u);
        EXPECT_FALSE(routeMarked(3));
        EXPECT_TRUE(m().changed.isSet(flag::Filter, 7));
    }
}

TEST_F(FilterGroup, WritesMarkFilterAndRelatedRoutes) {
    define(2, 1, "1-2");
    define(3, 1, "1-2");
    for (unsigned route : {2u, 5u})
        ASSERT_EQ(addRtFiltRealtion(m().filters, route, 2), 0);
    ASSERT_EQ(addRtFiltRealtion(m().filters, 1, 3), 0);
    struct Case {
        unsigned f3;
        const char* data;
        bool routes;
    } cases[] = {
        {1, "0", true}, {1, "1", true}, {2, "3-4", true}, {3, "c", false}, {4, "n", false}};
    for (const Case& c : cases) {
        m().changed.clearAll();
        ASSERT_EQ(set(2, c.f3, c.data).result, 0);
        EXPECT_TRUE(m().changed.isSet(flag::Filter, 0));
        EXPECT_TRUE(m().changed.isSet(flag::Filter, 2));
        EXPECT_EQ(routeMarked(2) && routeMarked(5), c.routes) << c.f3;
        EXPECT_FALSE(routeMarked(1)) << c.f3;
    }
    m().changed.clearAll();  // delete: both routes lose the filter and are marked
    ASSERT_EQ(set(2, 0, "0").result, 0);
    EXPECT_EQ(filter(2), nullptr);
    EXPECT_TRUE(routeMarked(2) && routeMarked(5));
    EXPECT_EQ(m().filters.relationCount, 1u);
    EXPECT_EQ(m().general.Count, 1u);
}

TEST_F(FilterGroup, FailedRangeTermDropsTheFilterButNotItsRelations) {
    define(3, 2, "1-2");
    ASSERT_EQ(addRtFiltRealtion(m().filters, 4, 3), 0);
    m().changed.clearAll();
    EXPECT_EQ(set(3, 2, "0x100").text, "parsing filter term failed (3)");
    EXPECT_EQ(filter(3), nullptr);
    EXPECT_EQ(m().filters.relationCount, 1u);
    EXPECT_TRUE(routeMarked(4));
    EXPECT_TRUE(m().changed.isSet(flag::Filter, 3));
    EXPECT_EQ(m().general.Count, 0u);
}

TEST_F(FilterGroup, CountIsCrossWrittenOnEveryPath) {
    define(1, 1, "1-2");
    for (unsigned f2 : {0u, 33u}) {
        m().general.Count = 99;
        const Outcome o = set(f2, 0, "1");
        EXPECT_EQ(o.result, f2 == 0 ? 0 : -1);
        EXPECT_EQ(o.text, f2 == 0 ? "" : "false filter index (33)");
        EXPECT_EQ(m().general.Count, 1u);
    }
}

TEST_F(FilterGroup, ApplyReportsDeletedFiltersInsideSuccess) {
    define(2, 1, "1-2");
    struct Case {
        unsigned instance;
        Outcome outcome;
        uint32_t count;
    } cases[] = {{0, {0, ""}, 1},
                 {2, {0, ""}, 1},
                 {3, {0, "filter 2 not found or deleted"}, 99},
                 {33, {-1, "false filter index (33)"}, 1}};
    for (const Case& c : cases) {
        m().general.Count = 99;
        AnswerMessage answer{};
        EXPECT_EQ(applyFilter(c.instance, m(), answer), c.outcome.result);
        EXPECT_STREQ(answer.da, c.outcome.text.c_str());
        EXPECT_EQ(m().general.Count, c.count) << c.instance;
    }
}

}  // namespace
