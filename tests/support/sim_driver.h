#pragma once
// A simulated gateway driver: answers the control node's and the route nodes' requests from
// state that a test sets, keeps what the daemon hands it, and fails requests on demand.

#include <array>
#include <cerrno>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "routing/route_record.h"
#include "sys/gateway_driver.h"

// A failed call's result, with errno set as the kernel sets it.
inline int failWith(int error) {
    errno = error;
    return -1;
}

// Filter pairs compare and print by value in test expectations.
namespace gw {
inline bool operator==(const MaskEntry& a, const MaskEntry& b) {
    return a.id == b.id && a.mask == b.mask;
}
inline void PrintTo(const MaskEntry& e, std::ostream* out) {
    *out << std::hex << "(0x" << e.id << ", 0x" << e.mask << ")" << std::dec;
}
}  // namespace gw

class SimDriver {
  public:
    static constexpr int kControl = -1;  // node number of "/dev/tarn-gw"; route nodes are 0..7
    static constexpr int kRouteNodes = 8;

    struct Request {
        int node;
        unsigned long request;
    };
    // What one route node holds. Tests may also put a route into it before the daemon runs.
    struct RouteNode {
        std::vector<gw::MaskEntry> filters;  // the last list set, as long as its count says
        unsigned long filterRequest = 0;     // the request that set it (joined or not)
        std::optional<DriverRoute> route;    // the route added, as the driver keeps it
        int deletesNeeded = 1;  // deletes until the route is gone (a driver slow to let go)
    };

    // Test controls.
    void setLinkInfo(const gw::CanLinkInfo& info) { linkInfo_[info.name] = info; }
    void setForwardDefaults(const ForwardDefaults& defaults) { forwardDefaults_ = defaults; }
    // The next open hands out `fd` (0: as the kernel does once standard input is closed).
    void setNextDescriptor(int fd) { nextDescriptor_ = fd; }
    void failOpen(const std::string& path, int error) { openErrors_[path] = error; }
    void failRequest(unsigned long request, int error) { requestErrors_[request] = error; }
    void clearFailures() {
        openErrors_.clear();
        requestErrors_.clear();
    }

    // What the daemon did.
    std::vector<Request> requests;
    std::vector<std::string> opened;  // paths, in order
    int badCloses = 0;                // closes of a descriptor that was not open
    int openDescriptors() const { return static_cast<int>(descriptors_.size()); }
    RouteNode& routeNode(int node) { return routeNodes_.at(node); }
    std::vector<unsigned long> requestsOn(int node) const;

    // The seam's calls.
    int open(const std::string& path);
    int ioctl(int fd, unsigned long request, void* argument);
    int close(int fd);

  private:
    // Each returns the request's result and sets errno on failure.
    int controlRequest(unsigned long request, void* argument);
    int routeRequest(int node, unsigned long request, void* argument);

    std::map<std::string, gw::CanLinkInfo> linkInfo_;
    ForwardDefaults forwardDefaults_{};
    std::map<std::string, int> openErrors_;
    std::map<unsigned long, int> requestErrors_;
    std::map<int, int> descriptors_;  // descriptor -> node
    std::array<RouteNode, kRouteNodes> routeNodes_;
    int nextDescriptor_ = 1000;
};
