#include <fcntl.h>

#include <tuple>

#include "fake_system.h"
#include "filters/filter_store.h"
#include "filters/route_filters.h"

namespace {

using Pairs = std::vector<gw::MaskEntry>;
constexpr unsigned long kSet = 0x40045A58, kSetJoined = 0x40045A59;  // the driver's numbers

class RouteFilters : public SeamTest {
  protected:
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
    // Duplicates, 0 and numbers above 32 are dropped, however long.
    ASSERT_EQ(parseFilterList(m().filters, "1, 3;2,1,0,32,18446744073709551621", 0, false), 0);
    ASSERT_EQ(parseFilterList(m().filters, "0,2 32;33", 1, true), 0);
    // Route 2 read zero-based, then into 7 and 6 bytes: the last comma's place takes the end.
    EXPECT_EQ(filtersOf(0) + " " + filtersOf(1, true) + " " + filtersOf(1, false, 7) + " " +
                  filtersOf(1, false, 6),
              "1,3,2,32 0,2,32 1,3,33 -1");
    EXPECT_EQ(delRtFiltRealtions(m(), 1), 4u);
    EXPECT_EQ(filtersOf(0) + " " + filtersOf(1), "-1 1,3,33");
}

// Filter n sits at index n - 1; the lists name filter numbers.
TEST_F(RouteFilters, ListsByRouteSettingsAnUnopenableFileEndsTheDaemon) {
    const Filter filters[] = {
        {0, kRange11, 1, {}, {}, 0x100, 0x1FF},
        {2, kMask11, 1, {}, {}, 0x20000123, 0x800007F0},  // was inverted until now
        {3, kRange11, 1 | kFilterInverted, {}, {}, 0x000, 0x0FF},
        {4, kRange11, 1, {}, {}, 0x100, 0x100},            // equal bounds count no entry
        {5, kRange29, 1, {}, {}, 0xA0000000, 0x80000000},  // blocks of size 0 without end
        {7, kMask11, 1 | kFilterInverted, {}, {}, 0x123, 0x800007F0}};
    for (const Filter& filter : filters)
        ASSERT_NE(insertFilter(m().filters, filter), nullptr);
    const std::tuple<uint32_t, const char*, unsigned long, Pairs> cases[] = {
        {kRouteJoinFilters, "4", kSetJoined, {{0x20000000, 0x80000780}, {0x20000080, 0x80000780}}},
        {kRouteUnifyFilters, "1,4", kSet, {{0x100, 0x80000600}}},
        {0, "3,8", kSet, {{0x123, 0x5FFFF80F}, {0x20000123, 0x5FFFF80F}}},
        {kRouteJoinFilters, "5,9", kSet, {{0, 0}}},  // nothing to take: accept all, never joined
        {0, "6", kSet, Pairs(60, {0x80000000, 0})},  // a range gives at most 60 pairs
    };
    int route = 0;
    for (const auto& [flags, list, request, pairs] : cases) {
        m().routes[route].RouteFlags = flags;
        ASSERT_EQ(parseFilterList(m().filters, list, route, false), 0);
        EXPECT_EQ(apply(route), 0) << list;
        const SimDriver::RouteNode& node = fake.driver.routeNode(route++);
        EXPECT_EQ(std::pair(node.filterRequest, node.filters), std::pair(request, pairs)) << list;
    }
    EXPECT_EQ(fake.readFile("/tmp/canoip3_filter.cfg"),
              "filters defined: 1, join filters is: true, unify filters is: false\n"
              "0: id = 0x00000000 mask = 0x00000000\n\n\n");
    fake.driver.failRequest(kSet, EINVAL);  // refused, but not the accept-all list
    EXPECT_EQ(std::pair(apply(2), apply(3)), std::pair(-1, 0));

    fake.removeFile("/tmp/canoip3_filter.cfg");
    std::filesystem::create_directories(fake.pathOf("/tmp/canoip3_filter.cfg"));
    EXPECT_EXIT(storeFilterInformation(m().routes[3], 3, FilterList{}),
                ::testing::ExitedWithCode(255), "can't open output file: Is a directory");
}

}  // namespace
