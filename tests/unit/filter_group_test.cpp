#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "core/session.h"
#include "fake_system.h"
#include "filters/filter_group.h"
#include "filters/filter_store.h"
#include "filters/route_filters.h"

namespace {

using Outcome = std::pair<int, std::string>;

class FilterGroup : public SeamTest {
  protected:
    Outcome set(unsigned f2, unsigned f3, const std::string& data) {
        RequestMessage rq{0, SET_PARAM, 9, uint8_t(f2), uint8_t(f3), {}};
        data.copy(rq.da, sizeof rq.da - 1);
        AnswerMessage a{};
        return {setFilter(rq, a, m()), a.da};
    }
    void define(unsigned number, unsigned kind, const char* term) {
        ASSERT_EQ(set(number, 0, std::to_string(kind)).first, 0);
        ASSERT_EQ(set(number, 2, term).first, 0);
    }
    const Filter* filter(unsigned number) { return findFilter(m().filters, number - 1); }
    bool routeMarked(unsigned route) { return m().changed.isSet(flag::Route, route); }
};

// One session through the daemon's dispatch: refusals, creation, reads, a deletion reported by
// the end of the session inside its success.
TEST_F(FilterGroup, SessionAnswers) {
    const std::tuple<uint8_t, unsigned, unsigned, std::string, int, std::string> steps[] = {
        {START_SESSION, 0, 30, "", POS_ANSW, ""},
        {SET_PARAM, 4, 0, "0x3", POS_ANSW, "filter does not exist anyway"},  // base 10
        {SET_PARAM, 4, 0, "7", NEG_ANSW, "unknown filter type 7"},
        {SET_PARAM, 4, 2, "", NEG_ANSW, "false filter index (4) - create filter by setting kind"},
        {READ_PARAM, 0, 0, "", POS_ANSW, "0"},
        {SET_PARAM, 33, 0, "1", NEG_ANSW, "false filter index (33)"},
        {SET_PARAM, 4, 0, "3x", POS_ANSW, ""},
        {SET_PARAM, 1, 0, "1", POS_ANSW, ""},
        {SET_PARAM, 4, 1, "0", POS_ANSW, ""},
        {SET_PARAM, 4, 2, "0x123/0x7F0", POS_ANSW, ""},
        {SET_PARAM, 4, 3, std::string(300, 'c'), POS_ANSW, ""},
        {READ_PARAM, 0, 0, "", POS_ANSW, "2"},
        {READ_PARAM, 0, 2, "", POS_ANSW, "0;3;"},
        {READ_PARAM, 33, 0, "", NEG_ANSW, "Unknown subidx I in f2 (f1:9, f2:33, f3:0)"},
        {READ_PARAM, 3, 0, "", NEG_ANSW, "Can't find filter with index 3"},
        {READ_PARAM, 4, 0, "", POS_ANSW, "3"},
        {READ_PARAM, 4, 1, "", POS_ANSW, "0"},
        {READ_PARAM, 4, 2, "", POS_ANSW, "0x123/0x7F0"},
        {READ_PARAM, 4, 3, "", POS_ANSW, std::string(255, 'c')},
        {SET_PARAM, 4, 0, "0", POS_ANSW, ""},
        {FINISH_SESSION, 0, 0, "", POS_ANSW, "filter 3 not found or deleted"},
    };
    for (const auto& [mt, f2, f3, data, type, text] : steps) {
        RequestMessage rq{0, mt, 9, uint8_t(f2), uint8_t(f3), {}};
        data.copy(rq.da, sizeof rq.da - 1);
        AnswerMessage a{};
        (void)procMsg(rq, a, m());  // the answer's type tells
        EXPECT_EQ((Outcome{a.mt, a.da}), (Outcome{type, text}))
            << int(mt) << " " << f2 << "/" << f3;
    }
    EXPECT_EQ(filter(1)->filter_mode, 1u);  // created passing
}

TEST_F(FilterGroup, EveryKindConvertsKeepingTheRest) {
    const char* terms[] = {"", "0x100-0x1FF", "0x100-0x1FF", "0x123/0x7F0", "0x12345/0x1FFFF"};
    const std::tuple<unsigned, unsigned, uint32_t, uint32_t> cases[] = {
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
    for (const auto& [from, to, low, high] : cases) {
        resetModel(m());
        define(7, from, terms[from]);
        ASSERT_EQ(set(7, 1, "0").first, 0);
        ASSERT_EQ(set(7, 0, std::to_string(to)).first, 0);
        const Filter& f = *filter(7);
        EXPECT_EQ(std::tuple(f.filter_type, f.FilterFrom, f.FilterTo, f.filter_mode, f.index),
                  std::tuple(to, low, high, 1 | kFilterInverted, 6u))
            << from << "->" << to;
    }
    for (const char* unchanged : {"3", "9"}) {  // the same kind (4 -> 3 came last), no kind
        ASSERT_EQ(set(7, 0, unchanged).first, 0);
        EXPECT_TRUE(filter(7)->filter_type == 3 && filter(7)->FilterTo == 0x7FF) << unchanged;
    }
    // A failed id/mask term keeps the filter.
    EXPECT_EQ(set(7, 2, "0x100"), (Outcome{-1, "parsing filter term failed (7)"}));
    EXPECT_NE(filter(7), nullptr);
}

TEST_F(FilterGroup, WritesMarkFilterAndRoutesAndCrossWriteTheCount) {
    for (auto [route, number] : {std::pair{2u, 2u}, {5u, 2u}, {1u, 3u}})
        ASSERT_EQ(addRtFiltRealtion(m().filters, route, number), 0);
    ASSERT_EQ(set(2, 0, "1").first, 0);  // routes may name a filter before it exists
    EXPECT_TRUE(routeMarked(2) && routeMarked(5));
    define(3, 1, "1-2");
    const std::tuple<unsigned, const char*, bool> cases[] = {
        {1, "0", true}, {2, "3-4", true}, {0, "2", true}, {3, "c", false}};
    for (const auto& [f3, data, routes] : cases) {
        m().changed.clearAll();
        ASSERT_EQ(set(2, f3, data).first, 0);
        EXPECT_TRUE(m().changed.isSet(flag::Filter, 0) && m().changed.isSet(flag::Filter, 2));
        EXPECT_EQ(std::tuple(routeMarked(2), routeMarked(5), routeMarked(1)),
                  std::tuple(routes, routes, false))
            << f3;
    }
    m().changed.clearAll();  // deleting marks both routes that lose the filter
    ASSERT_EQ(set(2, 0, "0").first, 0);
    EXPECT_TRUE(filter(2) == nullptr && routeMarked(2) && routeMarked(5));
    // The filter count goes into the route count (Count), not into a filter count.
    EXPECT_EQ(std::pair(m().filters.relationCount, m().general.Count), std::pair(1u, 1u));
    // A failed range term takes the filter away, but neither its relation nor the marks.
    EXPECT_EQ(set(3, 2, "0x100"), (Outcome{-1, "parsing filter term failed (3)"}));
    EXPECT_TRUE(filter(3) == nullptr && routeMarked(1) && m().changed.isSet(flag::Filter, 3));
    EXPECT_EQ(std::pair(m().filters.relationCount, m().general.Count), std::pair(1u, 0u));
    AnswerMessage a{};
    for (unsigned n : {0u, 33u}) {  // so do the other paths of write and apply
        m().general.Count = 99;
        EXPECT_EQ(set(n, 0, "1").first, n ? -1 : 0);
        EXPECT_EQ(m().general.Count, 0u);
        m().general.Count = 99;
        EXPECT_EQ(applyFilter(n, m(), a), n ? -1 : 0);
        EXPECT_EQ(m().general.Count, 0u);
    }
    EXPECT_STREQ(a.da, "false filter index (33)");
}

}  // namespace
