// The gateway driver of the simulated device. Preloaded into the programs of the sandbox, it
// answers open, ioctl and close of the driver's nodes ("/dev/tarn-gw", "/dev/canoip0" to
// "/dev/canoip7") with the simulated driver the unit tests use, and hands every other call on
// to the C library. Like the real driver it exists only while its module is loaded: an open
// fails with ENODEV while the sandbox's /proc/modules does not name the module (its modprobe
// and rmmod stubs edit that file), and a module loaded anew starts without routes.
//
// A node's descriptor is a real one (/dev/null opened with the caller's close-on-exec bit), so
// that the daemon's descriptors counted in /proc/<pid>/fd include the nodes it holds open. The
// daemon is single-threaded; so is this shim.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "sim_driver.h"
#include "sys/gateway_driver.h"

// The fortified open of the C library, called by programs built with _FORTIFY_SOURCE.
extern "C" int __open_2(const char* path, int flags);
extern "C" int __open64_2(const char* path, int flags);

namespace {

constexpr const char* kModulesPath = "/proc/modules";
constexpr const char* kNodeStandIn = "/dev/null";
constexpr std::size_t kModulesReadSize = 4096;
// Descriptors above this are refused (EMFILE): far more than the daemon ever holds.
constexpr int kMaxDescriptor = 1024;

using OpenFunction = int (*)(const char*, int, ...);
using IoctlFunction = int (*)(int, unsigned long, ...);
using CloseFunction = int (*)(int);

// The next definition of `name` after this library: the C library's, or a sanitizer's.
template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

OpenFunction realOpen() {
    static const OpenFunction function = next<OpenFunction>("open");
    return function;
}
OpenFunction realOpen64() {
    static const OpenFunction function = next<OpenFunction>("open64");
    return function;
}
IoctlFunction realIoctl() {
    static const IoctlFunction function = next<IoctlFunction>("ioctl");
    return function;
}
CloseFunction realClose() {
    static const CloseFunction function = next<CloseFunction>("close");
    return function;
}

// The link state the driver reports for the device's two CAN controllers: up, listen-only,
// 500 kbit/s from the 24 MHz clock, as the start-up's ip link commands with the default
// settings leave them. There are no CAN interfaces in the sandbox, so it never changes.
void addCanLinks(SimDriver& driver) {
    for (const char* name : {"can0", "can1"}) {
        gw::CanLinkInfo info{};
        std::snprintf(info.name, sizeof info.name, "%s", name);
        info.flags = gw::kCanLinkUp;
        info.ctrlMode = gw::kCtrlListenOnly;
        info.bitrate = 500000;
        info.samplePoint = 812;  // (1 + 6 + 6) of 16 time quanta
        info.tq = 125;
        info.propSeg = 6;
        info.phaseSeg1 = 6;
        info.phaseSeg2 = 3;
        info.sjw = 1;
        info.brp = 3;
        driver.setLinkInfo(info);
    }
}

// The driver's version and the forwarding defaults it was loaded with (modprobe's "defsdu=50",
// "defamax=8", "defsmax=6", "defcdm=500" and the TCP keep-alive count, idle time and interval).
void addForwardDefaults(SimDriver& driver) {
    ForwardDefaults defaults{};
    defaults.version[0] = 2;
    defaults.version[1] = 4;
    defaults.version[2] = 1;
    defaults.at40 = 50;
    defaults.at46 = 8;
    defaults.at48 = 6;
    defaults.at50 = 500;
    defaults.at64 = 3;
    defaults.at68 = 5;
    defaults.at72 = 5;
    driver.setForwardDefaults(defaults);
}

// Whether `path` names one of the driver's nodes.
bool isNode(const char* path) {
    if (path == nullptr) return false;
    if (std::strcmp(path, gw::kControlNode) == 0) return true;
    static char routePrefix[32];  // "/dev/canoip"
    if (routePrefix[0] == '\0')
        std::snprintf(routePrefix, sizeof routePrefix, gw::kRouteNodeFormat, gw::kRouteNodePrefix,
                      0);
    const std::size_t prefix = std::strlen(routePrefix) - 1;  // without the "0"
    if (std::strncmp(path, routePrefix, prefix) != 0) return false;
    const std::string_view number(path + prefix);
    return number.size() == 1 && number[0] >= '0' && number[0] < '0' + SimDriver::kRouteNodes;
}

// The route node number of a node's path (0..7), or -1 for the control node.
int routeNodeOf(const char* path) {
    return std::strcmp(path, gw::kControlNode) == 0 ? -1 : path[std::strlen(path) - 1] - '0';
}

// Whether /proc/modules names the module at the start of a line, as the kernel lists it.
bool moduleLoaded() {
    const int fd = realOpen()(kModulesPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    std::string text;
    char buffer[kModulesReadSize];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<std::size_t>(n));
    (void)realClose()(fd);  // read-only
    const std::string line = std::string(gw::kModuleName) + " ";
    return text.starts_with(line) || text.find("\n" + line) != std::string::npos;
}

// Simulated traffic, while the file kTrafficSwitch exists (`touch` it inside the sandbox):
// each running route forwards CAN frames at a rate that swings around (route number) x 20 per
// second with a period of a minute, counted when the daemon reads the route's statistics. Off
// by default, so that the counters stay as the daemon left them.
constexpr const char* kTrafficSwitch = "/tmp/cfgd-gwsim-traffic";

class Traffic {
  public:
    // Adds the frames of route node `node` since the last look to its counters.
    void count(int node, DriverRoute& route) {
        timespec now{};
        (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
        const double t = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
        Flow& flow = flows_[static_cast<std::size_t>(node)];
        const double elapsed = flow.seen > 0 ? t - flow.seen : 0;
        flow.seen = t;
        if ((route.info.flags & kDrvRunRequest) == 0 || access(kTrafficSwitch, F_OK) != 0) return;
        constexpr double kTwoPi = 6.283185307179586;
        const double rate = (node + 1) * 20.0 * (1.0 + 0.5 * std::sin(kTwoPi * t / 60.0));
        flow.frames += rate * elapsed;
        const auto frames = static_cast<uint32_t>(flow.frames);
        flow.frames -= frames;
        flow.unpacked += frames;
        const uint32_t perPacket = route.info.fpp > 0 ? route.info.fpp : 1;
        const uint32_t packets = flow.unpacked / perPacket;
        flow.unpacked %= perPacket;
        route.stats[route_stat::CanPackets] += frames;
        route.stats[route_stat::CanMsgs] += frames;
        route.stats[route_stat::LanPackets] += packets;
        route.stats[route_stat::LanMsgs] += packets;
    }

  private:
    struct Flow {
        double seen = 0;        // monotonic seconds of the last look; 0: none yet
        double frames = 0;      // a frame's part, carried to the next look
        uint32_t unpacked = 0;  // frames not yet in a LAN packet
    };
    std::array<Flow, SimDriver::kRouteNodes> flows_{};
};

// The driver's state in this process. Constant-initialised: programs that never open a node
// (the shell, the tools) pay nothing for it.
struct Driver {
    SimDriver* simulated = nullptr;  // made at the first open; never freed, in use to the end
    std::array<int, kMaxDescriptor> node{};  // real descriptor -> simulated one + 1; 0: none
    std::array<signed char, kMaxDescriptor> routeNode{};  // real descriptor -> its route node
    Traffic traffic;
    int held = 0;           // nodes open
    bool unloaded = false;  // an open found the module missing

    bool owns(int fd) const { return fd >= 0 && fd < kMaxDescriptor && node[fd] != 0; }
    int simulatedOf(int fd) const { return node[fd] - 1; }

    // A driver as the module brings it when it is loaded: no routes, its defaults, the CAN
    // links.
    void fresh() {
        delete simulated;
        simulated = new SimDriver;
        addCanLinks(*simulated);
        addForwardDefaults(*simulated);
    }

    int open(const char* path, int flags) {
        if (!moduleLoaded()) {
            unloaded = true;
            errno = ENODEV;
            return -1;
        }
        if (simulated == nullptr || (unloaded && held == 0)) fresh();
        unloaded = false;
        const int fd = simulated->open(path);
        if (fd < 0) return -1;
        const int real = realOpen()(kNodeStandIn, O_RDWR | (flags & O_CLOEXEC));
        if (real < 0 || real >= kMaxDescriptor) {
            const int error = real < 0 ? errno : EMFILE;
            if (real >= 0) (void)realClose()(real);  // refused: nothing else holds it
            (void)simulated->close(fd);              // it was just opened
            errno = error;
            return -1;
        }
        node[real] = fd + 1;
        routeNode[real] = static_cast<signed char>(routeNodeOf(path));
        ++held;
        return real;
    }

    int ioctl(int fd, unsigned long request, void* argument) {
        const int number = routeNode[fd];
        if (request == gw::kGetRouteStats && number >= 0) {
            auto& held = simulated->routeNode(number).route;
            if (held) traffic.count(number, *held);
        }
        return simulated->ioctl(simulatedOf(fd), request, argument);
    }

    int close(int fd) {
        (void)simulated->close(simulatedOf(fd));  // it is open: the map says so
        node[fd] = 0;
        if (--held == 0) forgetRequests();
        return realClose()(fd);
    }

    // The simulated driver records every request for the unit tests; a daemon that runs for
    // days must not grow by that record.
    void forgetRequests() {
        simulated->requests.clear();
        simulated->opened.clear();
    }
};

Driver driver;

int modeOf(int flags, va_list arguments) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, int) : 0;
}

}  // namespace

#define CFGD_GWSIM_EXPORT extern "C" __attribute__((visibility("default")))

CFGD_GWSIM_EXPORT int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = modeOf(flags, arguments);
    va_end(arguments);
    if (isNode(path)) return driver.open(path, flags);
    return realOpen()(path, flags, mode);
}

CFGD_GWSIM_EXPORT int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = modeOf(flags, arguments);
    va_end(arguments);
    if (isNode(path)) return driver.open(path, flags);
    return realOpen64()(path, flags, mode);
}

CFGD_GWSIM_EXPORT int __open_2(const char* path, int flags) {
    if (isNode(path)) return driver.open(path, flags);
    return realOpen()(path, flags);
}

CFGD_GWSIM_EXPORT int __open64_2(const char* path, int flags) {
    if (isNode(path)) return driver.open(path, flags);
    return realOpen64()(path, flags);
}

CFGD_GWSIM_EXPORT int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (driver.owns(fd)) return driver.ioctl(fd, request, argument);
    return realIoctl()(fd, request, argument);
}

CFGD_GWSIM_EXPORT int close(int fd) {
    if (driver.owns(fd)) return driver.close(fd);
    return realClose()(fd);
}
