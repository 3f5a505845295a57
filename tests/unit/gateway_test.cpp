#include <arpa/inet.h>

#include <cstring>
#include <string_view>

#include "fake_system.h"
#include "routing/canoipd.h"
#include "routing/gateway.h"
#include "routing/routing_command.h"

namespace {

using Requests = std::vector<unsigned long>;
using Commands = std::vector<std::string>;
constexpr unsigned long kAdd = 0x400450C8;
// Requests by letter: Add, Delete, Run, Halt, Get, Filters. The driver's numbers are written
// out so that a wrong number in the daemon shows.
Requests seq(std::string_view letters) {
    const unsigned long numbers[] = {kAdd, 0x50C9, 0x50CA, 0x50CB, 0x800450CC, 0x40045A58};
    Requests made;
    for (char letter : letters)
        made.push_back(numbers[std::string_view("ADRHGF").find(letter)]);
    return made;
}
const std::string kModprobe =
    "modprobe tarn-gw routesmax=8 defamax=8 defsmax=6 defsdu=50 defcdm=500 deffpp=8 deftcpdly=0 "
    "deftcpkeepcnt=3 deftcpkeepidle=5 deftcpkeepintvl=5 ";
const std::string kCanoipdStart =
    "/home/tarn/canoip/canoipd -P canoip -p 45321 -N VORL-Gateway -I eth0 & ";
const std::string kCanoipdStop = "killall /home/tarn/canoip/canoipd";
constexpr ForwardDefaults kDefaults{{1, 2, 3}, {}, 40, {}, 46, 48, 50, {}, 64, 68, 72};

class Gateway : public SeamTest {
  protected:
    Gateway() {
        fake.writeFile("/proc/devices", "Character devices:\n  1 mem\n 10 misc\n250 tarn-gw\n");
        fake.writeFile("/proc/modules", "can_raw 20480 0 - Live 0x0\ntarn_gw 98304 8 - Live 0x0\n");
        fake.driver.setForwardDefaults(kDefaults);
        m().forwardDefaults = kDefaults;
        m().general.CANoIPdPort = 45321;
        std::strcpy(m().general.hostName, "VORL-Gateway");
    }
    void TearDown() override { EXPECT_EQ(fake.driver.openDescriptors(), 0); }

    // Route `i` configured on, with its node and the defaults, to the peer 10.0.0.9:`port`.
    RouteRecord& route(unsigned i, uint16_t port = 5000) {
        RouteRecord& r = m().routes[i];
        r.RouteFlags = kRouteActive;
        r.DrvIndex = static_cast<uint8_t>(i);
        std::strcpy(r.image.info.interface1, "can0");
        r.image.info.protocol2 = 6;
        r.image.info.destination = {AF_INET, htons(port), {htonl(0x0A000009)}, {}};
        applyForwardDefaults(r, m());
        return r;
    }
    // Node `node` holds what route `i` describes now.
    void hold(unsigned i, bool running, int node = -1) {
        DriverRoute held = m().routes[i].image;
        held.info.flags =
            running ? held.info.flags | kDrvRunRequest : held.info.flags & ~kDrvRunRequest;
        fake.driver.routeNode(node < 0 ? static_cast<int>(i) : node).route = held;
    }
    Reply apply(unsigned n) { return applied(applyRoute, n); }
};

TEST_F(Gateway, ProcFilesAndModuleCommands) {
    const std::pair<std::string, int> devices[] = {
        {"Character devices:\n  1 mem\n250 tarn-gw\n", 250},
        {"x\r254 tarn-gw", 254},
        {"300 tarn-gw\n", 255},
        {"-4 tarn-gw\n", 0},
        {"250 tarn_gw\n", -1},
        {std::string(4090, 'x') + "\n250 tarn-gw\n", -1},  // beyond what is read
    };
    for (const auto& [text, major] : devices) {
        fake.writeFile("/proc/devices", text);
        EXPECT_EQ(findDriverMajor(), major) << text;
    }
    for (const auto& [text, loaded] : {std::pair("tarn-gw 1 0\n", -1), {"tarn_gw 1 0\n", 0}}) {
        fake.writeFile("/proc/modules", text);
        EXPECT_EQ(isModuleLoaded(), loaded) << text;
    }
    fake.removeFile("/proc/devices");
    fake.removeFile("/proc/modules");
    EXPECT_EQ(std::pair(findDriverMajor(), isModuleLoaded()), std::pair(-1, -1));

    for (int command : {0, 1, 2, 3, -1})
        EXPECT_EQ(controlModule(command), command >= 0 && command < 3 ? 0 : -1) << command;
    EXPECT_EQ(fake.commands, (Commands{kModprobe, "rmmod tarn-gw", "rmmod tarn-gw; " + kModprobe}));
}

TEST_F(Gateway, StartWithoutTheDriverLeavesEveryRouteWithoutNode) {
    fake.writeFile("/proc/devices", "Character devices:\n  1 mem\n");
    fake.writeFile("/proc/modules", "can_raw 20480 0 - Live 0x0\n");
    route(0).DrvIndex = 3;
    EXPECT_EQ(startGatewayDriver(m()), -2);
    EXPECT_EQ(fake.commands, Commands{kModprobe});  // no helper restart either
    for (unsigned i = 0; i < kMaxRoutes; ++i)
        EXPECT_EQ(m().routes[i].DrvIndex, 255) << i;

    // Active without a node needs the driver; inactive without one is nobody's business.
    EXPECT_EQ(apply(1).first, -2);
    EXPECT_EQ(apply(2), Reply(0, ""));
    EXPECT_TRUE(fake.driver.opened.empty());
    EXPECT_EQ(refreshRoute(m(), 0), -1);  // nor can a route without node be read
}

TEST_F(Gateway, StartTakesOverMatchingRoutesAndAddsTheRest) {
    route(0);
    route(1, 6000).RouteFlags = 0;
    route(2, 5002);
    route(4, 5004);
    hold(0, true);
    hold(1, false);
    fake.driver.routeNode(1).route->info.destination.sin_port = htons(7000);  // no record's
    hold(2, false, 5);                             // record 2's route, on another node
    fake.driver.failOpen("/dev/canoip3", ENODEV);  // no module: it is loaded
    fake.driver.failOpen("/dev/canoip4", ENOENT);
    for (RouteRecord& r : m().routes)
        r.DrvIndex = 0;
    m().forwardDefaults = {};  // the driver's own come back

    EXPECT_EQ(startGatewayDriver(m()), -1);  // route 4's node would not open
    EXPECT_EQ(fake.commands, (Commands{kModprobe, kCanoipdStop, kCanoipdStart}));
    const uint32_t in = kRouteActive | kRouteInDriver;
    for (const auto& [i, flags] : {std::pair(0, in | kRouteRunning), {1, 0u}, {2, in}, {4, in}})
        EXPECT_EQ(m().routes[i].RouteFlags, flags) << i;
    // Node 2 was taken over from node 5: not added.
    for (const auto& [node, requests] : {std::pair(0, "G"), {1, "GD"}, {2, "G"}})
        EXPECT_EQ(fake.driver.requestsOn(node), seq(requests)) << node;
    EXPECT_EQ(m().forwardDefaults.version[2], 3);
    for (unsigned i = 0; i < kMaxRoutes; ++i) {
        const RouteInfo& info = m().routes[i].image.info;
        EXPECT_EQ(m().routes[i].DrvIndex, i);
        EXPECT_EQ(
            std::vector<uint32_t>({info.default80, info.default84, info.default100, info.cdm,
                                   info.default116, info.default120, info.default124,
                                   info.flags & (kDrvTcpDelay | kDrvDefaultBit27)}),
            std::vector<uint32_t>({46, 48, 40, 50, 64, 68, 72, kDrvTcpDelay | kDrvDefaultBit27}));
    }

    // Added at start, named after its index; a refused add switches the route off.
    route(6);
    fake.driver.clearFailures();
    fake.driver.failRequest(kAdd, ENOMEM);
    EXPECT_EQ(startGatewayDriver(m()), -1);
    EXPECT_EQ(m().routes[6].RouteFlags, kRouteInDriver);
    fake.driver.clearFailures();
    m().routes[6].RouteFlags = kRouteActive;
    EXPECT_EQ(startGatewayDriver(m()), 0);
    EXPECT_STREQ(fake.driver.routeNode(6).route->info.name, "rt6");
}

constexpr uint32_t kOn = kRouteActive, kOnRunning = kRouteActive | kRouteRunning;

// One apply of route 2 (index 1): what the driver holds, how the record differs from it, the
// driver's faults, and what must come of it.
struct ApplyCase {
    const char* name;
    int held;  // the node before: -1 empty, else the run bit of the record's route
    // RouteFlags configured (kRouteRunning also sets the image's run bit), the port configured
    // after the driver got the route on 5000, bits set in the image's flags after that
    uint32_t flags, port, imageBits;
    // deletes until the driver lets go; a failing open (ENOENT) or add (ENOSPC)
    int deletesNeeded, fault;
    const char* text;  // the answer; the apply fails where there is one
    // The requests on node 1: a replacement's rounds of halt, delete and asking again after two
    // gets, then the tail
    int rounds;
    const char* requests;
    uint32_t flagsAfter;
    int heldAfter;  // the node afterwards, as `held`
};
class ApplyRoute : public Gateway, public ::testing::WithParamInterface<ApplyCase> {};

const ApplyCase kApplyCases[] = {
    {"NewRouteIsAddedHalted", -1, kOn, 5000, 0, 1, 0, "", 0, "GGAHF", kOn, 0},
    {"UnchangedRouteOnlyGetsItsFilters", 0, kOn, 5000, 0, 1, 0, "", 0, "GF", kOn, 0},
    {"RunRequestStartsIt", 0, kOnRunning, 5000, 0, 1, 0, "", 0, "GRF", kOnRunning, 1},
    {"NewPortReplacesAndKeepsRunning", 1, kOnRunning, 6000, 0, 1, 0, "", 1, "ARF", kOnRunning, 1},
    {"NoControlBitReplaces", 0, kOn, 5000, kDrvNoControl, 1, 0, "", 1, "AHF", kOn, 0},
    {"SwitchedOffIsHaltedDeletedAndReset", 1, 0, 5000, 0, 1, 0, "", 0, "HD", 0, -1},
    {"RefusedAddSwitchesTheRouteOff", -1, kOn, 5000, 0, 1, ENOSPC,
     "failed to add route (No space left on device)", 0, "GGA", 0, -1},
    {"NineDeletesAreEnough", 1, kOnRunning, 6000, 0, 9, 0, "", 9, "ARF", kOnRunning, 1},
    {"TenAreNotEvenWhenTheTenthRemovesIt", 1, kOnRunning, 6000, 0, 10, 0,
     "failed to delete old route", 10, "", kOnRunning, -1},
    {"NodeThatWillNotOpen", -1, kOn, 5000, 0, 1, ENOENT,
     "unable to open route (No such file or directory)", 0, "", kOn, -1},
};

TEST_P(ApplyRoute, BringsTheDriverInLine) {
    const ApplyCase& c = GetParam();
    m().routes[5].RouteFlags = kRouteActive;
    RouteRecord& r = route(1);
    r.RouteFlags = c.flags;
    if (c.flags & kRouteRunning) r.image.info.flags |= kDrvRunRequest;
    if (c.held >= 0) hold(1, c.held == 1);
    r.image.info.destination.sin_port = htons(static_cast<uint16_t>(c.port));
    r.image.info.flags |= c.imageBits;
    if (c.flags == 0) r.image.info.default80 = 99;  // a switch-off puts the default back
    fake.driver.routeNode(1).deletesNeeded = c.deletesNeeded;
    if (c.fault == ENOENT) fake.driver.failOpen("/dev/canoip1", ENOENT);
    if (c.fault == ENOSPC) fake.driver.failRequest(kAdd, ENOSPC);
    const int result = *c.text ? -1 : 0;

    EXPECT_EQ(apply(2), Reply(result, c.text));
    std::string requests = c.rounds > 0 ? "GG" : "";
    for (int i = 0; i < c.rounds; ++i)
        requests += "HDG";
    EXPECT_EQ(fake.driver.requestsOn(1), seq(requests + c.requests));
    EXPECT_EQ(fake.sleeps, std::vector<long>(static_cast<std::size_t>(c.rounds), 100000000L));
    EXPECT_EQ(r.RouteFlags, c.flagsAfter);
    const auto& held = fake.driver.routeNode(1).route;
    EXPECT_EQ(held ? static_cast<int>(held->info.flags & kDrvRunRequest) / 2 : -1, c.heldAfter);
    if (result == 0 && c.heldAfter >= 0) {  // the driver's route is the one configured
        EXPECT_EQ(held->info.destination.sin_port, r.image.info.destination.sin_port);
        EXPECT_EQ(held->info.name, std::string(c.held < 0 || c.rounds > 0 ? "rt1" : ""));
    }
    EXPECT_EQ(r.image.info.default80, 46u);
    EXPECT_EQ(m().general.Count, result == 0 && c.flags != 0 ? 2u : 0u);  // recounted
    EXPECT_EQ(fake.commands, Commands());
}
INSTANTIATE_TEST_SUITE_P(Gateway, ApplyRoute, ::testing::ValuesIn(kApplyCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(Gateway, IndexZeroAndBadIndexOnlyRecountCanoipdCommandLines) {
    route(0);
    route(3);
    m().general.Count = 7;
    EXPECT_EQ(apply(0), Reply(0, ""));
    EXPECT_EQ(apply(9), Reply(-1, "false route index (9)"));
    EXPECT_EQ(m().general.Count, 2u);
    EXPECT_TRUE(fake.driver.opened.empty());
    EXPECT_EQ(fake.driver.badCloses, 2);  // descriptor 0, never opened here
    EXPECT_EQ(m().stamps.routesChanged, 0);

    // With standard input closed the next node is descriptor 0, a node like any other.
    fake.driver.setNextDescriptor(0);
    EXPECT_EQ(apply(1), Reply(0, ""));
    EXPECT_TRUE(fake.driver.routeNode(0).route.has_value());
    EXPECT_EQ(fake.driver.badCloses, 2);

    const std::pair<int, Commands> modes[] = {
        {0, {kCanoipdStart}}, {1, {kCanoipdStop}}, {2, {kCanoipdStop, kCanoipdStart}}, {3, {}}};
    for (const auto& [mode, commands] : modes) {
        fake.commands.clear();
        EXPECT_EQ(controlCanoipd(mode, m()), mode < 3 ? 0 : -1);
        EXPECT_EQ(fake.commands, commands) << mode;
    }
    // Blanks stay unquoted; the LAN interface number follows "eth".
    std::strcpy(m().general.hostName, "Hall 3 gateway");
    m().lan[0].Index = 1;
    m().general.CANoIPdPort = 1;
    fake.commands.clear();
    EXPECT_EQ(controlCanoipd(0, m()), 0);
    EXPECT_EQ(fake.commands,
              Commands{"/home/tarn/canoip/canoipd -P canoip -p 1 -N Hall 3 gateway -I eth1 & "});

    // A command is cut at 255 characters, and nothing is appended after the cut.
    fake.commands.clear();
    RoutingCommand command;
    command.append("%s", std::string(300, 'n').c_str());
    command.append("& ");
    command.run();
    EXPECT_EQ(fake.commands, Commands{std::string(255, 'n')});
}

}  // namespace
