#include "sim_driver.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

// The node a path names: kControl, a route node 0..7, or -2 for none.
int nodeOf(const std::string& path) {
    if (path == gw::kControlNode) return SimDriver::kControl;
    int index = -1;
    char tail = 0;
    if (std::sscanf(path.c_str(), "/dev/canoip%d%c", &index, &tail) == 1 && index >= 0 &&
        index < SimDriver::kRouteNodes)
        return index;
    return -2;
}

// More pairs than any route can have: a count beyond it is garbage, refused as the kernel
// refuses a list it cannot copy.
constexpr uint32_t kMaxFilterPairs = 32 * 60;

}  // namespace

int SimDriver::open(const std::string& path) {
    opened.push_back(path);
    if (auto it = openErrors_.find(path); it != openErrors_.end()) return failWith(it->second);
    const int node = nodeOf(path);
    if (node == -2) return failWith(ENOENT);
    const int fd = nextDescriptor_++;
    descriptors_[fd] = node;
    return fd;
}

int SimDriver::close(int fd) {
    if (descriptors_.erase(fd) == 0) {
        ++badCloses;
        return failWith(EBADF);
    }
    return 0;
}

int SimDriver::ioctl(int fd, unsigned long request, void* argument) {
    auto it = descriptors_.find(fd);
    if (it == descriptors_.end()) return failWith(EBADF);
    const int node = it->second;
    requests.push_back({node, request});
    if (auto failure = requestErrors_.find(request); failure != requestErrors_.end())
        return failWith(failure->second);
    return node == kControl ? controlRequest(request, argument)
                            : routeRequest(node, request, argument);
}

std::vector<unsigned long> SimDriver::requestsOn(int node) const {
    std::vector<unsigned long> made;
    for (const Request& r : requests)
        if (r.node == node) made.push_back(r.request);
    return made;
}

int SimDriver::controlRequest(unsigned long request, void* argument) {
    if (request == gw::kGetForwardDefaults) {
        std::memcpy(argument, &forwardDefaults_, sizeof forwardDefaults_);
        return 0;
    }
    if (request == gw::kGetCanLinkInfo) {
        auto* info = static_cast<gw::CanLinkInfo*>(argument);
        auto known =
            linkInfo_.find(std::string(info->name, strnlen(info->name, sizeof info->name)));
        if (known == linkInfo_.end()) return failWith(ENODEV);
        *info = known->second;
        return 0;
    }
    return failWith(ENOTTY);
}

int SimDriver::routeRequest(int node, unsigned long request, void* argument) {
    RouteNode& slot = routeNodes_[node];
    if (request == gw::kSetFilters || request == gw::kSetJoinedFilters) {
        uint32_t count;
        std::memcpy(&count, argument, sizeof count);
        if (count > kMaxFilterPairs) return failWith(EINVAL);
        slot.filters.resize(count);
        std::memcpy(slot.filters.data(), static_cast<const uint8_t*>(argument) + sizeof count,
                    count * sizeof(gw::MaskEntry));
        slot.filterRequest = request;
        return 0;
    }
    if (request == gw::kAddRoute) {
        if (slot.route) return failWith(EEXIST);
        slot.route.emplace();
        std::memcpy(&*slot.route, argument, sizeof(DriverRoute));
        return 0;
    }
    // Every other request concerns the route the node holds.
    if (!slot.route) return failWith(ENODATA);
    DriverRoute& route = *slot.route;
    switch (request) {
        case gw::kDeleteRoute:
            if (--slot.deletesNeeded <= 0) {
                slot.route.reset();
                slot.deletesNeeded = 1;
            }
            return 0;
        case gw::kRunRoute:
            route.info.flags |= kDrvRunRequest;
            return 0;
        case gw::kHaltRoute:
            route.info.flags &= ~kDrvRunRequest;
            return 0;
        case gw::kGetRoute:
            std::memcpy(argument, &route.info, sizeof route.info);
            return 0;
        case gw::kGetRouteStats:
            // The counters and the per-size counters after them, as one block.
            std::memcpy(argument, route.stats,
                        offsetof(DriverRoute, reserved444) - offsetof(DriverRoute, stats));
            return 0;
        case gw::kResetRouteStats:
            std::memset(route.stats, 0, sizeof route.stats);
            std::memset(route.fppStats, 0, sizeof route.fppStats);
            return 0;
        default:
            return failWith(ENOTTY);
    }
}
