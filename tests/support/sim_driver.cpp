#include "sim_driver.h"

#include <cerrno>
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

int fail(int error) {
    errno = error;
    return -1;
}

}  // namespace

int SimDriver::open(const std::string& path) {
    opened.push_back(path);
    if (auto it = openErrors_.find(path); it != openErrors_.end()) return fail(it->second);
    const int node = nodeOf(path);
    if (node == -2) return fail(ENOENT);
    const int fd = nextDescriptor_++;
    descriptors_[fd] = node;
    return fd;
}

int SimDriver::close(int fd) {
    if (descriptors_.erase(fd) == 0) {
        ++badCloses;
        return fail(EBADF);
    }
    return 0;
}

int SimDriver::ioctl(int fd, unsigned long request, void* argument) {
    auto it = descriptors_.find(fd);
    if (it == descriptors_.end()) return fail(EBADF);
    const int node = it->second;
    requests.push_back({node, request});
    if (auto failure = requestErrors_.find(request); failure != requestErrors_.end())
        return fail(failure->second);
    return node == kControl ? controlRequest(request, argument)
                            : routeRequest(node, request, argument);
}

int SimDriver::controlRequest(unsigned long request, void* argument) {
    if (request == gw::kGetCanLinkInfo) {
        auto* info = static_cast<gw::CanLinkInfo*>(argument);
        auto known =
            linkInfo_.find(std::string(info->name, strnlen(info->name, sizeof info->name)));
        if (known == linkInfo_.end()) return fail(ENODEV);
        *info = known->second;
        return 0;
    }
    return fail(ENOTTY);
}

int SimDriver::routeRequest(int node, unsigned long request, void* argument) {
    switch (request) {
        case gw::kSetFilters:
        case gw::kSetJoinedFilters:
            return setFilters(node, request, argument);
        default:
            return fail(ENOTTY);
    }
}

int SimDriver::setFilters(int node, unsigned long request, const void* argument) {
    const auto* list = static_cast<const uint8_t*>(argument);
    uint32_t count;
    std::memcpy(&count, list, sizeof count);
    if (count > kMaxFilterPairs) return fail(EINVAL);
    FilterCall call{node, request, std::vector<gw::MaskEntry>(count)};
    std::memcpy(call.entries.data(), list + sizeof count, count * sizeof(gw::MaskEntry));
    routeNodes_[node] = {call.entries, request};
    filterCalls.push_back(std::move(call));
    return 0;
}
