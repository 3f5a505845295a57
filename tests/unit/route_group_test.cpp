#include <tuple>

#include "fake_system.h"
#include "filters/filter_store.h"
#include "filters/route_filters.h"
#include "routing/route_group.h"

namespace {

class RouteGroupTest : public SeamTest {
  protected:
    RouteGroupTest() {
        for (RouteRecord& r : m().routes)
            r.DrvIndex = kNoDriverNode;
        m().stamps.routes = m().session.counter;  // live state already fetched in this session
    }
    Reply call(bool write, uint8_t f2, uint8_t f3, const char* value = "") {
        return handle(write ? setRoute : readRoute, 5, f2, f3, value);
    }
    std::string read(uint8_t f2, uint8_t f3) { return call(false, f2, f3).second; }
    RouteRecord& route(unsigned i) { return m().routes[i]; }
};

TEST_F(RouteGroupTest, ReadsAnswerTheRecordAndTheDriverImage) {
    RouteRecord& r = route(2);
    r.RouteFlags = kRouteActive | kRouteRunning | kRouteJoinFilters;
    RouteInfo& info = r.image.info;
    std::tie(info.flags, info.fpp, info.authorizedPeers, info.retryCount, info.retryDelay) =
        std::tuple(kDrvTcpConnected, 3, 2, 30, 300);
    for (unsigned i = 0; i < route_stat::Count; ++i)
        r.image.stats[i] = 100 + i;
    r.image.stats[route_stat::CanPackets] = 0xFFFFFFFF;  // printed signed, as always
    for (unsigned i = 0; i < 4; ++i)
        r.image.fppStats[i] = 5 + i;  // the fourth, beyond FPP, is not shown
    route(0).RouteFlags = kRouteActive;
    route(5).RouteFlags = kRouteRunning;  // running but not active counts as off

    // f2, f3, answer; 24 is LAN discarded, which lies after LAN dropped
    const std::tuple<uint8_t, uint8_t, const char*> values[] = {
        {0, 0, "8"},    {0, 1, "2"},        {3, 1, "2"},          {1, 1, "1"},
        {6, 1, "0"},    {3, 4, "- none -"}, {3, 10, "- none -"},  {3, 12, "0"},
        {3, 14, "2"},   {3, 16, "-1"},      {3, 23, "107"},       {3, 24, "109"},
        {3, 25, "108"}, {3, 27, "111"},     {3, 28, "5; 6; 7; "}, {3, 29, "300"},
        {3, 30, "30"},  {3, 31, "1"},       {3, 33, "-1"},        {3, 34, "0"},
        {3, 35, "1"}};
    for (const auto& [f2, f3, text] : values)
        EXPECT_EQ(call(false, f2, f3), Reply(0, text)) << +f2 << "/" << +f3;
    EXPECT_EQ(call(false, 0, 2), Reply(-1, "Unknown subidx II in f3 (f1:5, f2:0, f3:2)"));
    EXPECT_EQ(call(false, 3, 15), Reply(-1, "write only value!"));
    EXPECT_EQ(call(false, 3, 36), Reply(-1, "Unknown subidx II in f3 (f1:5, f2:3, f3:36)"));
    EXPECT_EQ(call(false, 9, 0), Reply(-1, "Unknown subidx I in f2 (f1:5, f2:9, f3:0)"));
    EXPECT_EQ(m().general.Count, 2u);
    EXPECT_TRUE(fake.driver.opened.empty());  // refreshed already in this session
}

TEST_F(RouteGroupTest, WritesStoreTheirValuesAndSwitchTheRouteOnRefusalsToo) {
    // f3, value, what the record then shows through a read of the same f3; names are cut at
    // their field; -2 is compared unsigned: clamped like any number above 255
    const std::tuple<uint8_t, const char*, const char*> cases[] = {
        {0, "line 4", "line 4"},
        {2, "1", "1"},
        {2, "7", "0"},
        {6, "17", "17"},
        {6, "16", "6"},
        {11, "70000", "65535"},
        {11, "-5", "0"},
        {12, "3", "1"},
        {13, "-2", "255"},
        {32, "1", "1"},
        {32, "0", "0"},
        {3, "can0-name-too-long", "can0-name-too-l"},
        {8, "1.2.3.4:70000", "1.2.3.4:65535"}};
    for (const auto& [f3, value, shown] : cases) {
        SCOPED_TRACE(testing::Message() << +f3 << " " << value);
        route(4).RouteFlags = 0;
        m().changed.clearAll();
        EXPECT_EQ(call(true, 5, f3, value), Reply(0, ""));
        EXPECT_EQ(read(5, f3), shown);
        EXPECT_TRUE(route(4).RouteFlags & kRouteActive);
        EXPECT_TRUE(m().changed.isSet(flag::Route, 5));
    }
    for (const auto& [value, cdm] : {std::pair("5", 10u), {"99999", 65535u}}) {
        ASSERT_EQ(call(true, 5, 36, value).first, 0);
        EXPECT_EQ(route(4).image.info.cdm, cdm);
    }

    // value, RouteFlags after, image run bit after
    const std::tuple<const char*, uint32_t, bool> states[] = {
        {"2", kRouteActive | kRouteRunning, true}, {"1", kRouteActive, false}, {"0", 0, false}};
    for (const auto& [value, flags, run] : states) {
        SCOPED_TRACE(value);
        EXPECT_EQ(call(true, 1, 1, value), Reply(0, ""));
        EXPECT_EQ(route(0).RouteFlags, flags);
        EXPECT_EQ((route(0).image.info.flags & kDrvRunRequest) != 0, run);
    }

    // f2, f3, reply, whether the route was switched on; none of them marks the route
    const std::tuple<uint8_t, uint8_t, Reply, bool> refusals[] = {
        {0, 0, {-1, "read only value!"}, false},
        {0, 5, {-1, "Unknown subidx II in f3 (f1:5, f2:0, f3:5)"}, false},
        {9, 0, {-1, "Unknown subidx I in f2 (f1:5, f2:9, f3:0)"}, false},
        {2, 14, {-1, "read only value!"}, true},
        {2, 24, {-1, "read only value!"}, true},
        {2, 25, {-1, "Unknown subidx II in f3 (f1:5, f2:2, f3:25)"}, true},
        {2, 37, {-1, "Unknown subidx II in f3 (f1:5, f2:2, f3:37)"}, true},
        {2, 4, {0, ""}, true},  // accepted and ignored
    };
    for (const auto& [f2, f3, reply, on] : refusals) {
        SCOPED_TRACE(testing::Message() << +f2 << "/" << +f3);
        route(1).RouteFlags = 0;
        m().changed.clearAll();
        EXPECT_EQ(call(true, f2, f3, "1"), reply);
        EXPECT_EQ((route(1).RouteFlags & kRouteActive) != 0, on);
        EXPECT_FALSE(m().changed.isSet(flag::Route, 2));
    }
}

TEST_F(RouteGroupTest, FilterWritesReachTheDriverAtOnce) {
    route(1).DrvIndex = 1;
    ASSERT_NE(insertFilter(m().filters, {2, kMask11, 1, {}, {}, 0x123, 0x7FF}), nullptr);
    ASSERT_EQ(parseFilterList(m().filters, "1", 1, false), 0);  // replaced below

    EXPECT_EQ(call(true, 2, 33, "3"), Reply(0, ""));
    EXPECT_EQ(read(2, 33), "3");
    EXPECT_EQ(fake.driver.requests.size(), 1u);  // one list, on node 1
    ASSERT_EQ(fake.driver.routeNode(1).filters.size(), 1u);
    EXPECT_EQ(fake.driver.routeNode(1).filters[0].id, 0x123u);
    EXPECT_EQ(call(true, 2, 35, "1"), Reply(0, ""));
    EXPECT_EQ(read(2, 35), "1");
    EXPECT_EQ(fake.driver.requestsOn(1).size(), 2u);
    EXPECT_EQ(call(true, 2, 15, ""), Reply(-1, ""));  // the node holds no route to reset
    EXPECT_EQ(fake.driver.openDescriptors(), 0);      // every node closed again

    fake.driver.failOpen("/dev/canoip1", EACCES);
    EXPECT_EQ(call(true, 2, 34, "0"), Reply(-1, "unable to open route (Permission denied)"));
    EXPECT_EQ(call(true, 2, 15, ""), Reply(-1, "unable to open route (Permission denied)"));
    EXPECT_FALSE(route(1).RouteFlags & kRouteUnifyFilters);
}

TEST_F(RouteGroupTest, LiveStateIsFetchedOncePerSessionAndReset) {
    route(0).DrvIndex = 0;
    route(0).RouteFlags = kRouteActive | kRouteRunning;
    DriverRoute held{};
    std::tie(held.info.flags, held.info.fpp) = std::tuple(kDrvCan2Lan, 2);  // the driver halted it
    held.stats[route_stat::LanMsgs] = 42;
    held.fppStats[1] = 9;
    fake.driver.routeNode(0).route = held;
    route(1) = route(0);
    route(1).DrvIndex = 1;
    held.info.flags |= kDrvRunRequest;  // this one the driver runs
    fake.driver.routeNode(1).route = held;

    ++m().session.counter;  // route 1 no longer runs
    EXPECT_EQ(read(1, 22) + "|" + read(1, 28) + "|" + read(1, 1) + "|" + read(2, 1),
              "42|0; 9; |1|2");
    const auto opened = fake.driver.opened.size();
    EXPECT_EQ(m().stamps.routes, m().session.counter);

    EXPECT_EQ(call(true, 1, 15, ""), Reply(0, ""));
    EXPECT_EQ(fake.driver.routeNode(0).route->stats[route_stat::LanMsgs], 0u);
    EXPECT_EQ(read(1, 22), "42");  // still this session's figures
    EXPECT_EQ(fake.driver.opened.size(), opened + 1);
    ++m().session.counter;
    EXPECT_EQ(read(1, 22), "0");
    EXPECT_EQ(fake.driver.openDescriptors(), 0);
}

}  // namespace
