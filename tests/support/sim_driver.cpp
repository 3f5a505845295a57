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
    if (std::sscanf(path.c_str(), "/dev/canoip%d%c", &index, &tail) == 1 && index >= 0 && index < 8)
        return index;
    return -2;
}

}  // namespace

int SimDriver::open(const std::string& path) {
    opened.push_back(path);
    if (auto it = openErrors_.find(path); it != openErrors_.end()) {
        errno = it->second;
        return -1;
    }
    const int node = nodeOf(path);
    if (node == -2) {
        errno = ENOENT;
        return -1;
    }
    const int fd = nextDescriptor_++;
    descriptors_[fd] = node;
    return fd;
}

int SimDriver::close(int fd) {
    if (descriptors_.erase(fd) == 0) {
        ++badCloses;
        errno = EBADF;
        return -1;
    }
    return 0;
}

int SimDriver::ioctl(int fd, unsigned long request, void* argument) {
    auto it = descriptors_.find(fd);
    if (it == descriptors_.end()) {
        errno = EBADF;
        return -1;
    }
    const int node = it->second;
    requests.push_back({node, request});
    if (auto failure = requestErrors_.find(request); failure != requestErrors_.end()) {
        errno = failure->second;
        return -1;
    }
    if (node == kControl && request == gw::kGetCanLinkInfo) {
        auto* info = static_cast<gw::CanLinkInfo*>(argument);
        auto known =
            linkInfo_.find(std::string(info->name, strnlen(info->name, sizeof info->name)));
        if (known == linkInfo_.end()) {
            errno = ENODEV;
            return -1;
        }
        *info = known->second;
        return 0;
    }
    if (node >= 0 && (request == gw::kSetFilters || request == gw::kSetJoinedFilters)) {
        const auto* list = static_cast<const uint8_t*>(argument);
        uint32_t count;
        std::memcpy(&count, list, sizeof count);
        FilterCall call{node, request, std::vector<gw::MaskEntry>(count)};
        std::memcpy(call.entries.data(), list + sizeof count, count * sizeof(gw::MaskEntry));
        filterCalls.push_back(std::move(call));
        return 0;
    }
    errno = ENOTTY;
    return -1;
}
