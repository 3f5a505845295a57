// Built once per program: the legacy builds state what an aborted session leaves behind, the
// hardened build (`hardened.` tests) that an abort leaves the model and the driver as a fresh
// start on the same file does, and runs no command where nothing differs.

#include <array>
#include <cstddef>
#include <cstring>
#include <tuple>

#include "config/config_path.h"
#include "config/loader.h"
#include "core/session.h"
#include "fake_system.h"
#include "model/value_rules.h"
#include "network/wlan_group.h"

namespace {

using Write = std::tuple<uint8_t, uint8_t, uint8_t, const char*>;
// One session's writes, then ABORT_SESSION; the probe's read then starts with the legacy text
// in the legacy profile and with the fresh one, as after a fresh start, in the hardened one,
// whose abort runs commands only when a group of the system must be set back.
using Case = std::tuple<std::vector<Write>, std::array<uint8_t, 3>, const char*, const char*, bool>;
const Case kCases[] = {
    {{{9, 3, 0, "3"}, {9, 3, 2, "0x10/0x7FF"}}, {9, 3, 0}, "3", "Can't find filter", false},
    {{{5, 1, 33, "2"}}, {5, 1, 33}, "2,1", "1", false},  // link one, unlink the other
    {{{5, 3, 0, "extra"}}, {5, 3, 1}, "1", "0", false},  // switch a route on
    {{{5, 1, 2, "0"}}, {5, 1, 2}, "0", "1", false},      // the route's direction
    {{{5, 1, 32, "1"}}, {5, 1, 32}, "1", "0", false},    // no control
    {{{4, 1, 5, "BRP 4; RJW 1; PSEG1 7; PSEG2 2; PROPSEG 6"}}, {4, 1, 5}, "BRP 4", "BRP 0", true},
    {{{5, 4, 14, "1"}}, {5, 4, 1}, "1", "0", false},  // refused: read only
    {{}, {0, 4, 0}, "Module", "Module", false},
};

using Abort = SeamTest;

TEST_F(Abort, HardenedLeavesAFreshStartLegacyKeepsTheSession) {
    // The start-up's part, on a new model and an empty driver (without the interface base
    // names: the commands do not matter here).
    const auto startUp = [&] {
        resetModel(m());
        fake.driver = SimDriver{};
        startWlanInterfaces(m());
        ASSERT_EQ(loadConfiguration(m()), 0);
        m().previousWlanMode = m().wlan.Mode;
        markForStartApply(m());
        AnswerMessage answer{};
        (void)applyChangedGroups(m(), answer);
    };
    // The model up to the session's bookkeeping (the configuration), then each node's route
    // and filters.
    const auto state = [&] {
        std::string bytes(reinterpret_cast<const char*>(model), offsetof(ConfigModel, changed));
        for (int n = 0; n < SimDriver::kRouteNodes; ++n) {
            const SimDriver::RouteNode& node = fake.driver.routeNode(n);
            if (node.route) bytes.append(reinterpret_cast<const char*>(&node.route->info), 140);
            bytes.append(reinterpret_cast<const char*>(node.filters.data()),
                         node.filters.size() * 8) += std::to_string(node.filterRequest) + ';';
        }
        return bytes;
    };
    fake.writeFile("/proc/devices", "250 tarn-gw\n");
    // Filter 1 is an inverted id/mask filter on route 1, filter 2 a range filter on no route.
    fake.writeFile(kDefaultConfigPath,
                   configHeader("1.3.1") +
                       "[HOST]\nDevicename = lab-gw\n[CAN_0]\nBR_Register = -\n"
                       "[FILTER_0]\nfilter_type = 3\nfilter_mode = 0\nTerm = 0x123/0x7FF\n"
                       "[FILTER_1]\nfilter_type = 1\nTerm = 0x200-0x2FF\n[FWD_GEN]\nCount = 1\n"
                       "[RT_0]\nType = LAN2CAN\nFilters = 0\nDestination2 = 198.51.100.9:7000\n");
    startUp();
    const std::string fresh = state();
    for (const auto& [writes, probe, legacy, freshText, runs] : kCases) {
        SCOPED_TRACE(legacy);
        startUp();
        send(START_SESSION, 40, 0, static_cast<uint8_t>(writes.size()));
        for (const auto& [f1, f2, f3, value] : writes)
            send(SET_PARAM, f1, f2, f3, value);
        fake.commands.clear();
        fake.hostNamesSet.clear();
        EXPECT_EQ(send(ABORT_SESSION).mt, POS_ANSW);
        if (kHardened) {  // the legacy reload sets the host name and restarts canoipd every time
            EXPECT_TRUE(state() == fresh);
            EXPECT_EQ(!fake.commands.empty() || !fake.hostNamesSet.empty(), runs)
                << ::testing::PrintToString(fake.commands);
        }
        send(START_SESSION, 40, 0, 0);
        const std::string read = send(READ_PARAM, probe[0], probe[1], probe[2]).da;
        EXPECT_EQ(read.rfind(kHardened ? freshText : legacy, 0), 0u) << read;
    }
}

}  // namespace
