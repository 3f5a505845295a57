#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/session.h"
#include "fake_system.h"
#include "filters/filter_group.h"
#include "filters/filter_store.h"
#include "filters/route_filters.h"

namespace {

using Pairs = std::vector<gw::MaskEntry>;

class RouteFilters : public SeamTest {
  protected:
    void define(unsigned number, unsigned kind, const char* term, bool inverted = false) {
        Filter f{};
        f.index = number - 1;
        f.filter_type = kind;
        f.filter_mode = 1 | (inverted ? kFilterInverted : 0);
        Filter* stored = insertFilter(m().filters, f);
        ASSERT_NE(stored, nullptr);
        ASSERT_EQ(kind <= kRange29 ? parseRangeTerm(*stored, term, m().filters)
                                   : parseMaskTerm(*stored, term),
                  1);
    }
    std::string filtersOf(int index, bool zeroBased = false, std::size_t size = 64) {
        char text[64] = "";
        return getRtFilters(m().filters, index, text, size, zeroBased) == 0 ? text : "-1";
    }
    // Applies route `index` on its node; the list the node got and the route's file.
    int apply(int index) {
        const int fd = fake.openNode(("/dev/canoip" + std::to_string(index)).c_str(), O_RDWR);
        return applyFilters2Route(m().routes[index], fd, index, m().filters);
    }
    std::string file(int index) {
        return fake.readFile(("/tmp/canoip" + std::to_string(index) + "_filter.cfg").c_str());
    }
    const SimDriver::FilterCall& lastCall() { return fake.driver.filterCalls.back(); }
};

TEST_F(RouteFilters, ListsRelateAndReadBack) {
    EXPECT_EQ(parseFilterList(m().filters, "1, 3;40 2,1,0,32,33", 0, false), 0);
    EXPECT_EQ(filtersOf(0), "1,3,2,32");  // duplicates, 0 and numbers above 32 are dropped
    EXPECT_EQ(parseFilterList(m().filters, "0,2 32", 1, true), 0);
    EXPECT_EQ(filtersOf(1), "1,3,33");
    EXPECT_EQ(filtersOf(1, true), "0,2,32");
    EXPECT_EQ(filtersOf(2), "-1");
    EXPECT_EQ(filtersOf(1, false, 7), "1,3,33");
    EXPECT_EQ(filtersOf(1, false, 6), "-1");

    m().changed.clearAll();
    EXPECT_EQ(delFiltRealtions(m(), 3), 2u);
    EXPECT_EQ(filtersOf(0), "1,2,32");
    EXPECT_TRUE(m().changed.isSet(flag::Route, 1) && m().changed.isSet(flag::Route, 2));
    EXPECT_EQ(delRtFiltRealtions(m(), 1), 3u);
    EXPECT_EQ(filtersOf(0), "-1");
    EXPECT_EQ(filtersOf(1), "1,33");
}

TEST_F(RouteFilters, FullRelationTableRefuses) {
    unsigned made = 0;
    for (unsigned route = 1; made < kMaxRelations; ++route)
        for (unsigned filter = 1; filter <= 34 && made < kMaxRelations; ++filter, ++made)
            ASSERT_EQ(addRtFiltRealtion(m().filters, route, filter), 0);
    EXPECT_EQ(addRtFiltRealtion(m().filters, 1, 1), 0);  // exists already
    EXPECT_EQ(addRtFiltRealtion(m().filters, 200, 1), -1);
    EXPECT_EQ(parseFilterList(m().filters, "1,2", 199, false), -1);
}

TEST_F(RouteFilters, OneRangeGoesToNodeAndFile) {
    define(1, kRange11, "0x100-0x1FF");
    ASSERT_EQ(parseFilterList(m().filters, "1", 0, false), 0);
    EXPECT_EQ(apply(0), 0);
    EXPECT_EQ(file(0),
              "filters defined: 1, join filters is: false, unify filters is: false\n"
              "0: id = 0x00000100 mask = 0x80000700\n\n\n");
    EXPECT_EQ(lastCall().node, 0);
    EXPECT_EQ(lastCall().request, gw::kSetFilters);
    EXPECT_EQ(lastCall().entries, (Pairs{{0x100, 0x80000700}}));
}

TEST_F(RouteFilters, ListsByRouteSettings) {
    struct Case {
        const char* name;
        uint32_t routeFlags;
        bool inverted;
        const char* filters;
        unsigned long request;
        Pairs pairs;
    } cases[] = {
        {"ranges", 0, false, "1,2", gw::kSetFilters, {{0x100, 0x80000700}, {0x300, 0x80000700}}},
        {"unify", kRouteUnifyFilters, false, "1,2", gw::kSetFilters, {{0x100, 0x80000500}}},
        {"join", kRouteJoinFilters, false, "2", gw::kSetJoinedFilters, {{0x300, 0x80000700}}},
        {"inverted range",
         0,
         true,
         "4",
         gw::kSetFilters,
         {{0x20000000, 0x80000780}, {0x20000080, 0x80000780}}},
        {"mask", 0, false, "3", gw::kSetFilters, {{0x123, 0x5FFFF80F}}},
        {"inverted mask", 0, true, "3", gw::kSetFilters, {{0x20000123, 0x5FFFF80F}}},
        {"unified mask keeps bit 29",
         kRouteUnifyFilters,
         false,
         "3",
         gw::kSetFilters,
         {{0x123, 0x7FFFF80F}}},
        {"equal bounds and a missing filter: accept all",
         kRouteJoinFilters,
         false,
         "5,9",
         gw::kSetFilters,
         {{0, 0}}},
    };
    for (const Case& c : cases) {
        resetModel(m());
        define(1, kRange11, "0x100-0x1FF", c.inverted);
        define(2, kRange11, "0x300-0x3FF", c.inverted);
        define(3, kMask11, "0x123/0x7F0", c.inverted);
        define(4, kRange11, "0x000-0x0FF", c.inverted);
        define(5, kRange11, "0x100-0x100", c.inverted);
        m().routes[2].RouteFlags = c.routeFlags;
        ASSERT_EQ(parseFilterList(m().filters, c.filters, 2, false), 0);
        EXPECT_EQ(apply(2), 0) << c.name;
        EXPECT_EQ(lastCall().request, c.request) << c.name;
        EXPECT_EQ(lastCall().entries, c.pairs) << c.name;
        EXPECT_EQ(fake.driver.routeNode(2).filters, c.pairs) << c.name;
        // The stored identifier carries the inversion from now on.
        EXPECT_EQ(findFilter(m().filters, 2)->FilterFrom & gw::kInvertedFilter,
                  std::strchr(c.filters, '3') && c.inverted ? gw::kInvertedFilter : 0u);
    }
}

TEST_F(RouteFilters, NoFilterAtAllAcceptsEverythingWhateverTheDriverSays) {
    m().routes[1].RouteFlags = kRouteJoinFilters | kRouteUnifyFilters;
    fake.driver.failRequest(gw::kSetFilters, EINVAL);
    EXPECT_EQ(apply(1), 0);
    EXPECT_EQ(file(1),
              "filters defined: 1, join filters is: true, unify filters is: true\n"
              "0: id = 0x00000000 mask = 0x00000000\n\n\n");
    ASSERT_FALSE(fake.driver.requests.empty());
    EXPECT_EQ(fake.driver.requests.back().request, gw::kSetFilters);
}

TEST_F(RouteFilters, RefusedListFailsAfterTheFileAndNegativeIndexDoesNothing) {
    define(1, kRange29, "0x100-0x1FF");
    ASSERT_EQ(parseFilterList(m().filters, "1", 0, false), 0);
    fake.driver.failRequest(gw::kSetFilters, EINVAL);
    EXPECT_EQ(apply(0), -1);
    EXPECT_NE(file(0).find("0: id = 0x80000100 mask = 0x1FFFFF00\n"), std::string::npos);

    const std::size_t before = fake.driver.requests.size();
    EXPECT_EQ(applyFilters2Route(m().routes[0], -1, -1, m().filters), 0);
    EXPECT_EQ(fake.driver.requests.size(), before);
}

TEST_F(RouteFilters, UnopenableFileEndsTheDaemon) {
    std::filesystem::create_directories(fake.pathOf("/tmp/canoip3_filter.cfg"));
    static FilterList list{};
    EXPECT_EXIT(storeFilterInformation(m().routes[3], 3, list), ::testing::ExitedWithCode(255),
                "can't open output file: Is a directory");
}

TEST_F(RouteFilters, SessionDefinesFilterThatReachesTheRoute) {
    auto request = [&](uint8_t mt, uint8_t f1, uint8_t f2, uint8_t f3, const char* da) {
        RequestMessage r{};
        r.mt = mt;
        r.f1 = f1;
        r.f2 = f2;
        r.f3 = f3;
        std::snprintf(r.da, sizeof r.da, "%s", da);
        AnswerMessage a{};
        (void)procMsg(r, a, m());  // the answer type says it
        return std::pair<int, std::string>{a.mt, a.da};
    };
    EXPECT_EQ(request(START_SESSION, 7, 0, 2, "").first, POS_ANSW);
    EXPECT_EQ(request(SET_PARAM, 9, 1, 0, "1").first, POS_ANSW);
    EXPECT_EQ(request(SET_PARAM, 9, 1, 2, "0x100-0x1FF").first, POS_ANSW);
    EXPECT_EQ(request(READ_PARAM, 9, 1, 2, ""),
              (std::pair<int, std::string>{POS_ANSW, "0x100-0x1FF"}));
    ASSERT_EQ(parseFilterList(m().filters, "1", 0, false), 0);
    EXPECT_EQ(apply(0), 0);
    EXPECT_NE(file(0).find("\n0: id = 0x00000100 mask = 0x80000700\n"), std::string::npos);
    EXPECT_EQ(request(FINISH_SESSION, 0, 0, 0, ""), (std::pair<int, std::string>{POS_ANSW, ""}));
    EXPECT_EQ(m().general.Count, 1u);
}

}  // namespace
