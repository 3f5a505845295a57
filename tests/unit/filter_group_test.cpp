#include <tuple>

#include "config/config_path.h"
#include "fake_system.h"
#include "filters/filter_group.h"
#include "filters/filter_store.h"
#include "filters/route_filters.h"

namespace {

class FilterGroup : public SeamTest {
  protected:
    Reply set(uint8_t f2, uint8_t f3, const std::string& data) {
        return handle(setFilter, 9, f2, f3, data.c_str());
    }
    bool routeMarked(unsigned route) { return m().changed.isSet(flag::Route, route); }
};

// One session through the daemon's dispatch: refusals, creation, reads, and at its end a
// deletion reported inside its success. (How a filter reaches its routes is the route filter
// tests' part.)
TEST_F(FilterGroup, SessionAnswers) {
    fake.writeFile(kDefaultConfigPath, "");  // the daemon makes sure it exists; the end stores
    const std::tuple<uint8_t, uint8_t, uint8_t, const char*, std::string> steps[] = {
        {START_SESSION, 0, 30, "", "POS to 9 1/0/30: "},
        {SET_PARAM, 32, 0, "0x3", "POS to 9 9/32/0: filter does not exist anyway"},  // base 10
        {SET_PARAM, 32, 0, "7", "NEG to 9 9/32/0: unknown filter type 7"},
        {SET_PARAM, 5, 2, "",
         "NEG to 9 9/5/2: false filter index (5) - create filter by setting kind"},
        {SET_PARAM, 32, 0, "3", "POS to 9 9/32/0: "},
        {READ_PARAM, 32, 1, "", "POS to 9 9/32/1: 1"},  // created passing
        {SET_PARAM, 32, 1, "0", "POS to 9 9/32/1: "},
        {READ_PARAM, 0, 2, "", "POS to 9 9/0/2: 31;"},
        {READ_PARAM, 32, 1, "", "POS to 9 9/32/1: 0"},
        {SET_PARAM, 32, 0, "0", "POS to 9 9/32/0: "},
        {FINISH_SESSION, 0, 0, "", "POS to 9 0/0/0: filter 31 not found or deleted"},
    };
    for (const auto& [mt, f2, f3, data, answer] : steps)
        EXPECT_EQ(shown(send(mt, 9, f2, f3, data)), answer);
}

TEST_F(FilterGroup, WritesMarkFilterAndRoutesCrossWriteTheCountAndEveryKindConverts) {
    for (auto [route, number] : {std::pair{2u, 2u}, {5u, 2u}, {1u, 3u}})
        ASSERT_EQ(addRtFiltRealtion(m().filters, route, number), 0);
    ASSERT_EQ(set(3, 0, "1").first, 0);
    // Routes may name a filter before it exists. Creating, writing type, term or another kind
    // and deleting mark them.
    for (const auto& [f3, data] : {std::pair{0, "1"}, {1, "0"}, {2, "3-4"}, {0, "2"}, {0, "0"}}) {
        m().changed.clearAll();
        ASSERT_EQ(set(2, f3, data).first, 0);
        EXPECT_TRUE(m().changed.isSet(flag::Filter, 0) && m().changed.isSet(flag::Filter, 2) &&
                    routeMarked(2) && routeMarked(5) && !routeMarked(1));
    }
    // The filter count goes into the route count (Count), not into a filter count.
    EXPECT_EQ(std::pair(m().filters.relationCount, m().general.Count), std::pair(1u, 1u));
    // A failed range term takes the filter away; its route still applies again.
    EXPECT_EQ(set(3, 2, "0x100"), Reply(-1, "parsing filter term failed (3)"));
    EXPECT_TRUE(findFilter(m().filters, 2) == nullptr && routeMarked(1));
    for (unsigned n : {0u, 33u}) {  // so do both ends of the apply
        m().general.Count = 99;
        EXPECT_EQ(applied(applyFilter, n), n ? Reply(-1, "false filter index (33)") : Reply(0, ""));
        EXPECT_EQ(m().general.Count, 0u);
    }

    // A conversion keeps the mode; the same kind changes nothing. 4 to 1 and 4 to 2 follow the
    // rules of 3 to 1 and 3 to 2, so they are not repeated.
    const std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t> cases[] = {
        {1, 2, 0x100, 0x1FF, 0x80000100, 0x800001FF},
        {1, 3, 0x100, 0x1FF, 0x100, 0x800007FF},
        {1, 4, 0x100, 0x1FF, 0x80000100, 0x1FFFFFFF},
        {2, 1, 0x80000100, 0x800001FF, 0x100, 0x1FF},
        {2, 3, 0x80000100, 0x800001FF, 0x100, 0x800007FF},
        {2, 4, 0x80000100, 0x800001FF, 0x80000100, 0x1FFFFFFF},
        {3, 1, 0x123, 0x800007F0, 0, 2047},
        {3, 2, 0x123, 0x800007F0, 0, 0x9FFFFFFF},
        {3, 4, 0x123, 0x800007F0, 0x80000123, 0x800007F0},
        {4, 3, 0x80012345, 0x8001FFFF, 0x345, 0x7FF},
        {4, 4, 0x80012345, 0x8001FFFF, 0x80012345, 0x8001FFFF}};
    for (const auto& [from, to, lo, hi, newLo, newHi] : cases) {
        ASSERT_NE(insertFilter(m().filters, {6, from, kFilterInverted, {}, {}, lo, hi}), nullptr);
        ASSERT_EQ(set(7, 0, std::to_string(to)).first, 0);
        const Filter& f = *findFilter(m().filters, 6);
        EXPECT_EQ(std::tuple(f.filter_type, f.FilterFrom, f.FilterTo, f.filter_mode),
                  std::tuple(to, newLo, newHi, kFilterInverted));
    }
}

}  // namespace
