#include "routing/gateway.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "filters/route_filters.h"
#include "model/config_model.h"
#include "routing/canoipd.h"
#include "routing/route_record.h"
#include "routing/routing_command.h"
#include "sys/gateway_driver.h"
#include "sys/system.h"

namespace {

constexpr const char* kFalseRouteIndexFormat = "false route index (%d)";
constexpr const char* kUnableToOpenFormat = "unable to open route (%s)";
constexpr const char* kFailedToDeleteText = "failed to delete old route";
constexpr const char* kFailedToAddFormat = "failed to add route (%s)";

constexpr const char* kRouteNameFormat = "rt%d";
constexpr std::size_t kRouteNameChars = 30;
constexpr std::size_t kNodePathSize = 32;

constexpr std::size_t kProcReadLimit = 4095;
constexpr long kMaxMajor = 255;

constexpr int kDeleteAttempts = 10;
constexpr long kDeleteWaitNanoseconds = 100000000L;  // 100 ms for the driver to let go

constexpr const char* kLoadFormat = "modprobe %s ";
constexpr const char* kUnloadFormat = "rmmod %s";
constexpr const char* kCommandSeparator = "; ";
constexpr const char* kParameterSeparator = " ";

struct ModuleParameter {
    const char* format;
    int value;
};
// Appended to the load command in this order.
constexpr std::array<ModuleParameter, 10> kModuleParameters{{
    {"routesmax=%d", static_cast<int>(kMaxRoutes)},
    {"defamax=%d", 8},
    {"defsmax=%d", 6},
    {"defsdu=%d", 50},
    {"defcdm=%d", 500},
    {"deffpp=%d", 8},
    {"deftcpdly=%d", 0},
    {"deftcpkeepcnt=%d", 3},
    {"deftcpkeepidle=%d", 5},
    {"deftcpkeepintvl=%d", 5},
}};

// Flag bits of a driver route that the apply compares with the record's image: a difference
// in the first set changes the run state, one in the second replaces the route.
constexpr uint32_t kRunStateBits = kDrvHighByte | kDrvRunRequest;
constexpr uint32_t kReplaceBits = kDrvCan2Lan | kDrvNoControl | kDrvTcpDelay;

// The byte ranges of a route's first 140 bytes that make two routes the same route (with the
// interface name and, depending on the caller, some flag bits).
struct Span {
    std::size_t offset;
    std::size_t size;
};
constexpr Span kSameRouteSpans[] = {
    {offsetof(RouteInfo, cdm), sizeof(RouteInfo::cdm)},
    {offsetof(RouteInfo, default100), sizeof(RouteInfo::default100)},
    {offsetof(RouteInfo, default80), sizeof(RouteInfo::default80)},
    {offsetof(RouteInfo, default84), sizeof(RouteInfo::default84)},
    {offsetof(RouteInfo, retryCount), sizeof(RouteInfo::retryCount)},
    {offsetof(RouteInfo, retryDelay), sizeof(RouteInfo::retryDelay)},
    {offsetof(RouteInfo, fpp), sizeof(RouteInfo::fpp)},
    {offsetof(RouteInfo, protocol2), sizeof(RouteInfo::protocol2)},
    {offsetof(RouteInfo, destination), sizeof(RouteInfo::destination)},
};

bool sameRoute(const RouteInfo& a, const RouteInfo& b) {
    const auto* bytesA = reinterpret_cast<const unsigned char*>(&a);
    const auto* bytesB = reinterpret_cast<const unsigned char*>(&b);
    for (const Span& span : kSameRouteSpans) {
        if (std::memcmp(bytesA + span.offset, bytesB + span.offset, span.size) != 0) return false;
    }
    return std::strncmp(a.interface1, b.interface1, sizeof a.interface1) == 0;
}

// An open driver node, closed when it goes out of scope. Descriptor 0 is a valid node: once
// the legacy exit of applyRoute has closed the daemon's standard input, open() hands out 0.
class Node {
  public:
    explicit Node(int fd) : fd_(fd) {}
    ~Node() {
        // A node that will not close has nothing left for the daemon to do with it.
        if (fd_ >= 0) (void)sys::current().closeNode(fd_);
    }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    bool isOpen() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    [[nodiscard]] int call(unsigned long request, void* argument) const {
        return sys::current().ioctlNode(fd_, request, argument);
    }
    // Halt, run and delete: their answers are not acted on, since the next get shows the
    // route as the driver really holds it.
    void issue(unsigned long request) const {
        (void)sys::current().ioctlNode(fd_, request, nullptr);
    }
    bool holdsRoute() const {
        RouteInfo held{};
        return call(gw::kGetRoute, &held) >= 0;
    }

  private:
    int fd_;
};

// The start of a file under /proc, terminated.
struct ProcText {
    std::array<char, kProcReadLimit + 1> data{};
    std::size_t length = 0;
    std::string_view view() const { return {data.data(), length}; }
};

[[nodiscard]] bool readProcFile(const char* devicePath, ProcText& text) {
    const sys::FilePath path = sys::placeFile(devicePath);
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return false;
    while (text.length < kProcReadLimit) {
        const ssize_t got =
            ::read(fd, text.data.data() + text.length, kProcReadLimit - text.length);
        if (got <= 0) break;
        text.length += static_cast<std::size_t>(got);
    }
    (void)::close(fd);  // read only: nothing can be lost
    text.data[text.length] = '\0';
    return true;
}

void appendLoad(RoutingCommand& command) {
    command.append(kLoadFormat, gw::kDeviceName);
    for (const ModuleParameter& parameter : kModuleParameters) {
        command.append(parameter.format, parameter.value);
        command.append("%s", kParameterSeparator);
    }
}

void loadModule() {
    (void)controlModule(static_cast<int>(ModuleMode::Load));  // a known mode: always 0
}

int readForwardDefaults(ConfigModel& model) {
    if (findDriverMajor() < 0) return -1;
    const Node node(sys::current().openNode(gw::kControlNode, O_RDWR));
    if (!node.isOpen()) return -1;
    return node.call(gw::kGetForwardDefaults, &model.forwardDefaults) < 0 ? -1 : 0;
}

// The first record whose route is the one the driver holds.
RouteRecord* findMatchingRecord(ConfigModel& model, const RouteInfo& held) {
    for (unsigned i = 0; i < kMaxRoutes; ++i) {
        const RouteInfo& own = model.routes[i].image.info;
        if (((own.flags ^ held.flags) & kDrvHighByte) == 0 && sameRoute(own, held))
            return &model.routes[i];
    }
    return nullptr;
}

// A route the driver already holds at start-up is taken over by its record, or deleted when
// no record describes it.
void takeOverOrDelete(ConfigModel& model, unsigned index) {
    const Node node(openRouteNode(model.routes[index]));
    if (!node.isOpen()) return;
    RouteInfo held{};
    if (node.call(gw::kGetRoute, &held) < 0) return;  // the node holds no route
    RouteRecord* owner = findMatchingRecord(model, held);
    if (owner == nullptr) {
        node.issue(gw::kDeleteRoute);
        return;
    }
    // The route is in the driver already: marking it so keeps the start-up from adding it to
    // its occupied node, which the driver refuses, and from switching the route off for that.
    owner->RouteFlags |= kRouteInDriver;
    if ((held.flags & kDrvRunRequest) != 0) owner->RouteFlags |= kRouteRunning;
}

int addAtStart(ConfigModel& model, unsigned index) {
    RouteRecord& route = model.routes[index];
    route.RouteFlags |= kRouteInDriver;
    const Node node(openRouteNode(route));
    if (!node.isOpen()) return -1;
    nameRoute(route, index);
    if (node.call(gw::kAddRoute, &route.image) < 0) {
        route.RouteFlags &= ~kRouteActive;
        return -1;
    }
    return 0;
}

// Halts and deletes the node's route until it holds none. False when all attempts were used,
// even when the last one removed the route: a driver that slow is not to be trusted with a
// new route.
[[nodiscard]] bool removeHeldRoute(const Node& node) {
    int attempts = 0;
    for (bool holds = node.holdsRoute(); holds && attempts < kDeleteAttempts; ++attempts) {
        node.issue(gw::kHaltRoute);
        node.issue(gw::kDeleteRoute);
        sys::current().sleepNanoseconds(kDeleteWaitNanoseconds);
        holds = node.holdsRoute();
    }
    return attempts < kDeleteAttempts;
}

}  // namespace

void nameRoute(RouteRecord& route, unsigned index) {
    std::snprintf(route.image.info.name, kRouteNameChars + 1, kRouteNameFormat,
                  static_cast<int>(index));
}

int findDriverMajor() {
    ProcText text;
    if (!readProcFile(kProcDevicesPath, text)) return -1;
    const std::size_t match = text.view().find(gw::kDeviceName);
    if (match == std::string_view::npos) return -1;
    std::size_t line = match;
    while (line > 0 && text.data[line - 1] != '\n' && text.data[line - 1] != '\r')
        --line;
    const long major = std::strtol(text.data.data() + line, nullptr, 10);
    return static_cast<int>(std::clamp(major, 0L, kMaxMajor));
}

int isModuleLoaded() {
    ProcText text;
    if (!readProcFile(kProcModulesPath, text)) return -1;
    return text.view().find(gw::kModuleName) == std::string_view::npos ? -1 : 0;
}

int controlModule(int mode) {
    RoutingCommand command;
    switch (static_cast<ModuleMode>(mode)) {
        case ModuleMode::Load:
            appendLoad(command);
            break;
        case ModuleMode::Unload:
            command.append(kUnloadFormat, gw::kDeviceName);
            break;
        case ModuleMode::Reload:
            command.append(kUnloadFormat, gw::kDeviceName);
            command.append("%s", kCommandSeparator);
            appendLoad(command);
            break;
        default:
            return -1;
    }
    command.run();
    return 0;
}

void applyForwardDefaults(RouteRecord& route, const ConfigModel& model) {
    const ForwardDefaults& defaults = model.forwardDefaults;
    RouteInfo& info = route.image.info;
    info.default80 = defaults.at46;
    info.default84 = defaults.at48;
    info.default100 = defaults.at40;
    info.cdm = defaults.at50;
    info.default116 = defaults.at64;
    info.default120 = defaults.at68;
    info.default124 = defaults.at72;
    info.flags |= kDrvTcpDelay | kDrvDefaultBit27;
}

unsigned recountActiveRoutes(ConfigModel& model) {
    unsigned active = 0;
    for (unsigned i = 0; i < kMaxRoutes; ++i) {
        if ((model.routes[i].RouteFlags & kRouteActive) != 0) ++active;
    }
    model.general.Count = active;
    return active;
}

int openRouteNode(const RouteRecord& route) {
    char path[kNodePathSize];
    std::snprintf(path, sizeof path, gw::kRouteNodeFormat, gw::kRouteNodePrefix,
                  static_cast<int>(route.DrvIndex));
    const int fd = sys::current().openNode(path, O_RDWR);
    if (fd < 0 && errno == ENODEV) {
        // The module is missing: load it for the next attempt; this one stays failed.
        loadModule();
        errno = ENODEV;
    }
    return fd;
}

bool assignRouteNodes(ConfigModel& model) {
    const bool present = findDriverMajor() >= 0;
    for (unsigned i = 0; i < kMaxRoutes; ++i) {
        model.routes[i].DrvIndex = present ? static_cast<uint8_t>(i) : kNoDriverNode;
        if (present) applyForwardDefaults(model.routes[i], model);
    }
    return present;
}

int startGatewayDriver(ConfigModel& model) {
    if (isModuleLoaded() != 0) loadModule();
    // Without the defaults the routes still go in, with zeros where the defaults would be.
    (void)readForwardDefaults(model);
    if (!assignRouteNodes(model)) return -2;

    for (unsigned i = 0; i < kMaxRoutes; ++i)
        takeOverOrDelete(model, i);

    int result = 0;
    for (unsigned i = 0; i < kMaxRoutes; ++i) {
        const uint32_t flags = model.routes[i].RouteFlags;
        if ((flags & kRouteActive) != 0 && (flags & kRouteInDriver) == 0 &&
            addAtStart(model, i) < 0)
            result = -1;
    }
    (void)controlCanoipd(static_cast<int>(CanoipdMode::Restart), model);  // known mode: 0
    return result;
}

int applyRoute(unsigned n, ConfigModel& model, AnswerMessage& answer) {
    if (n == 0 || n > kMaxRoutes) {
        int result = 0;
        if (n != 0) {
            answerText(answer, kFalseRouteIndexFormat, static_cast<int>(n));
            result = -1;
        }
        (void)recountActiveRoutes(model);
        // These two paths have always left through the exit that closes the node descriptor
        // while it still holds its initial 0, so they close descriptor 0, the daemon's standard
        // input. Kept as it stands: nothing in the daemon reads standard input or relies on
        // descriptor 0, and every node check here takes 0 as a valid descriptor.
        (void)sys::current().closeNode(0);  // usually already closed: nothing to learn
        return result;
    }

    model.stamps.routesChanged = 1;
    const unsigned index = n - 1;
    RouteRecord& route = model.routes[index];
    const bool active = (route.RouteFlags & kRouteActive) != 0;
    bool mustAdd = false;
    if (route.DrvIndex >= kNoDriverNode) {
        if (!active) return 0;  // never in the driver: nothing to take out
        if (findDriverMajor() < 0) return -2;
        // The driver was missing at start-up; the route gets the node the start-up would have
        // given it.
        route.DrvIndex = static_cast<uint8_t>(index);
        route.RouteFlags |= kRouteInDriver;
        applyForwardDefaults(route, model);
        mustAdd = true;
    }

    const Node node(openRouteNode(route));
    if (!node.isOpen()) {
        answerText(answer, kUnableToOpenFormat, std::strerror(errno));
        return -1;
    }
    if (!active) {
        node.issue(gw::kHaltRoute);
        node.issue(gw::kDeleteRoute);
        applyForwardDefaults(route, model);
        return 0;
    }

    bool changed = false;
    RouteInfo held{};
    if (node.call(gw::kGetRoute, &held) < 0) {
        mustAdd = true;
    } else {
        const uint32_t differing = held.flags ^ route.image.info.flags;
        changed = (differing & kRunStateBits) != 0;
        if (!sameRoute(held, route.image.info) || (differing & kReplaceBits) != 0) mustAdd = true;
    }

    if (mustAdd) {
        changed = true;
        if (!removeHeldRoute(node)) {
            return failText(answer, kFailedToDeleteText);
        }
        nameRoute(route, index);
        if (node.call(gw::kAddRoute, &route.image) < 0) {
            answerText(answer, kFailedToAddFormat, std::strerror(errno));
            // Switched off in the configuration too, so that the store keeps it off.
            route.RouteFlags &= ~kRouteActive;
            return -1;
        }
    }
    if (changed)
        node.issue((route.RouteFlags & kRouteRunning) != 0 ? gw::kRunRoute : gw::kHaltRoute);
    // Filters go on at every apply: a changed filter reaches its routes only through here. A
    // refused list leaves the route as it was and has never failed the apply.
    (void)applyFilters2Route(route, node.fd(), static_cast<int>(index), model.filters);
    (void)recountActiveRoutes(model);
    return 0;
}

int refreshRoute(ConfigModel& model, unsigned i) {
    if (i >= kMaxRoutes) return -1;
    RouteRecord& route = model.routes[i];
    const Node node(openRouteNode(route));
    if (!node.isOpen()) return -1;
    // A node without a route leaves the image as it was; its own run request then decides.
    (void)node.call(gw::kGetRoute, &route.image);
    if ((route.image.info.flags & kDrvRunRequest) == 0) route.RouteFlags &= ~kRouteRunning;
    (void)node.call(gw::kGetRouteStats, route.image.stats);  // failed: the last counts stay
    return 0;
}
