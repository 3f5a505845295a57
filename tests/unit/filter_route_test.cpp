#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "core/session.h"
#include "fake_system.h"
#include "filters/filter_store.h"
#include "filters/route_filters.h"

namespace {

using Pairs = std::vector<gw::MaskEntry>;
constexpr unsigned long kSet = 0x40045A58, kSetJoined = 0x40045A59;  // the driver's numbers

class RouteFilters : public SeamTest {
  protected:
    void define(unsigned number, uint32_t kind, uint32_t from, uint32_t to, bool inverted = false) {
        const uint32_t mode = 1 | (inverted ? kFilterInverted : 0);
        ASSERT_NE(insertFilter(m().filters, {number - 1, kind, mode, {}, {}, from, to}), nullptr);
    }
    std::string filtersOf(int index, bool zeroBased = false, std::size_t size = 64) {
        char text[64] = "";
        return getRtFilters(m().filters, index, text, size, zeroBased) == 0 ? text : "-1";
    }
    int apply(int index) {
        const int fd = fake.openNode(("/dev/canoip" + std::to_string(index)).c_str(), O_RDWR);
        return applyFilters2Route(m().routes[index], fd, index, m().filters);
    }
};

TEST_F(RouteFilters, ListsRelateAndReadBack) {
    EXPECT_EQ(parseFilterList(m().filters, "1, 3;40 2,1,0,32,33", 0, false), 0);
    EXPECT_EQ(filtersOf(0), "1,3,2,32");  // duplicates, 0 and numbers above 32 are dropped
    EXPECT_EQ(parseFilterList(m().filters, "0,2 32", 1, true), 0);
    EXPECT_EQ(filtersOf(1, true), "0,2,32");
    EXPECT_EQ(filtersOf(1, false, 7), "1,3,33");  // the last comma's place takes the terminator
    EXPECT_EQ(filtersOf(1, false, 6), "-1");
    EXPECT_EQ(filtersOf(2), "-1");
    EXPECT_EQ(delFiltRealtions(m(), 3), 2u);  // marks both routes
    EXPECT_EQ(filtersOf(0), "1,2,32");
    EXPECT_TRUE(m().changed.isSet(flag::Route, 1) && m().changed.isSet(flag::Route, 2));
    EXPECT_EQ(delRtFiltRealtions(m(), 1), 3u);
    EXPECT_EQ(filtersOf(1), "1,33");
}

TEST_F(RouteFilters, ListsByRouteSettings) {
    define(1, kRange11, 0x100, 0x1FF);
    define(2, kRange11, 0x300, 0x3FF);
    define(3, kMask11, 0x20000123, 0x800007F0);  // was inverted until now
    define(4, kRange11, 0x000, 0x0FF, true);
    define(5, kRange11, 0x100, 0x100);
    define(6, kRange29, 0xA0000000, 0x80000000);  // blocks of size 0 without end
    define(7, kMask29, 0x80012345, 0x81FFFF00);
    define(8, kMask11, 0x123, 0x800007F0, true);
    const std::tuple<uint32_t, const char*, unsigned long, Pairs> cases[] = {
        {kRouteJoinFilters, "1,2", kSetJoined, {{0x100, 0x80000700}, {0x300, 0x80000700}}},
        {kRouteUnifyFilters, "2,1", kSet, {{0x300, 0x80000500}}},
        {0, "4", kSet, {{0x20000000, 0x80000780}, {0x20000080, 0x80000780}}},
        {0, "3,7", kSet, {{0x123, 0x5FFFF80F}, {0x80012345, 0x5E0000FF}}},
        {0, "8", kSet, {{0x20000123, 0x5FFFF80F}}},
        {kRouteUnifyFilters, "3", kSet, {{0x123, 0x7FFFF80F}}},  // the mask keeps bit 29
        {kRouteJoinFilters, "5,9", kSet, {{0, 0}}},              // nothing to take: accept all
        {0, "6", kSet, Pairs(60, {0x80000000, 0})},              // a range gives at most 60 pairs
    };
    int route = 0;
    for (const auto& [flags, list, request, pairs] : cases) {
        m().routes[route].RouteFlags = flags;
        ASSERT_EQ(parseFilterList(m().filters, list, route, false), 0);
        EXPECT_EQ(apply(route), 0) << list;
        const SimDriver::RouteNode& node = fake.driver.routeNode(route++);
        EXPECT_EQ(std::pair(node.filterRequest, node.filters), std::pair(request, pairs)) << list;
    }
}

TEST_F(RouteFilters, FileIsWrittenBeforeTheDriverIsAsked) {
    m().routes[0].RouteFlags = kRouteJoinFilters;
    fake.driver.failRequest(kSet, EINVAL);
    EXPECT_EQ(apply(0), 0);  // no filter at all: accept all, whatever the driver says
    EXPECT_EQ(fake.readFile("/tmp/canoip0_filter.cfg"),
              "filters defined: 1, join filters is: true, unify filters is: false\n"
              "0: id = 0x00000000 mask = 0x00000000\n\n\n");
    m().routes[0].RouteFlags = 0;
    define(1, kRange11, 0x100, 0x1FF);
    ASSERT_EQ(parseFilterList(m().filters, "1", 0, false), 0);
    EXPECT_EQ(apply(0), -1);
    EXPECT_EQ(fake.readFile("/tmp/canoip0_filter.cfg"),
              "filters defined: 1, join filters is: false, unify filters is: false\n"
              "0: id = 0x00000100 mask = 0x80000700\n\n\n");
}

// A filter made by requests reaches the route's node and file once the route applies it.
TEST_F(RouteFilters, FilterCreatedInASessionReachesTheRoute) {
    const std::tuple<uint8_t, uint8_t, uint8_t, const char*> requests[] = {
        {START_SESSION, 2, 2, ""},
        {SET_PARAM, 9, 0, "1"},
        {SET_PARAM, 9, 2, "0x100-0x1FF"},
        {FINISH_SESSION, 0, 0, ""}};
    for (const auto& [mt, f1, f3, da] : requests) {
        RequestMessage rq{0, mt, f1, uint8_t(mt == START_SESSION ? 0 : 1), f3, {}};
        std::snprintf(rq.da, sizeof rq.da, "%s", da);
        AnswerMessage a{};
        ASSERT_EQ(procMsg(rq, a, m()), 0) << a.da;
    }
    ASSERT_EQ(parseFilterList(m().filters, "1", 0, false), 0);
    EXPECT_EQ(apply(0), 0);
    EXPECT_EQ(fake.readFile("/tmp/canoip0_filter.cfg"),
              "filters defined: 1, join filters is: false, unify filters is: false\n"
              "0: id = 0x00000100 mask = 0x80000700\n\n\n");
    ASSERT_EQ(fake.driver.filterCalls.size(), 1u);
    EXPECT_EQ(fake.driver.filterCalls[0].entries, (Pairs{{0x100, 0x80000700}}));
}

TEST_F(RouteFilters, UnopenableFileEndsTheDaemon) {
    std::filesystem::create_directories(fake.pathOf("/tmp/canoip3_filter.cfg"));
    EXPECT_EXIT(storeFilterInformation(m().routes[3], 3, FilterList{}),
                ::testing::ExitedWithCode(255), "can't open output file: Is a directory");
}

}  // namespace
