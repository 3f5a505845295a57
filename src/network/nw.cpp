#include "network/nw.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "model/handler.h"
#include "sys/shell_command.h"
#include "sys/system.h"

namespace {

constexpr const char* kIfconfigFormat = "ifconfig %s %s netmask %s up";
constexpr const char* kRouteDeleteFormat = "route del default gw 0.0.0.0 dev %s";
constexpr const char* kRouteAddFormat = "route add default gw %s dev %s";
constexpr const char* kNameServerFormat = "nameserver %s\n";
constexpr const char* kDhcpClientStartFormat = "%s start %s \"%s\"";
constexpr const char* kDhcpClientRestartFormat = "%s restart %s \"%s\"";
constexpr const char* kDhcpClientStopFormat = "%s stop %s \"%s\"";
constexpr const char* kNtpStartFormat = "ntpd -p %s";
constexpr const char* kNtpStopCommand = "killall ntpd";
constexpr const char* kDhcpServerStartFormat = "%s start";
constexpr const char* kDhcpServerRestartFormat = "%s restart";
constexpr const char* kDhcpServerStopFormat = "%s stop";
constexpr const char* kIfconfigDownFormat = "ifconfig %s%d down";
constexpr const char* kIfconfigUpFormat = "ifconfig %s%d %s up";
constexpr const char* kMacFormat = "%02X:%02X:%02X:%02X:%02X:%02X";
constexpr const char* kNoGateway = "0.0.0.0";
// Only this many characters of a gateway are compared with kNoGateway.
constexpr std::size_t kNoGatewayCompared = 4;
constexpr std::size_t kMacBytes = 6;

using DottedText = char[INET_ADDRSTRLEN];

// Formats one shell command into the bounded buffer (a longer line is cut) and runs it.
void runShellLine(const char* format, ...) __attribute__((format(printf, 1, 2)));
void runShellLine(const char* format, ...) {
    ShellCommand<kNwCommandChars> command;
    va_list arguments;
    va_start(arguments, format);
    command.appendList(format, arguments);
    va_end(arguments);
    command.run();
}

// The format of a service operation: 0 start, 2 restart, any other value stop.
const char* serviceFormat(int command, const char* start, const char* restart, const char* stop) {
    if (command == NW_START) return start;
    if (command == NW_RESTART) return restart;
    return stop;
}

bool printDotted(in_addr address, DottedText& text) {
    return inet_ntop(AF_INET, &address, text, sizeof text) != nullptr;
}

// A query of the interface `ifName` through the seam; false when it failed.
bool queryInterface(unsigned long request, const char* ifName, ifreq& query) {
    copyText(query.ifr_name, ifName);
    return sys::current().queryInterface(request, &query) == 0;
}

}  // namespace

int nw_update_ip_cfg(const char* ifName, in_addr address, in_addr netmask) {
    DottedText addressText;
    DottedText netmaskText;
    if (!printDotted(address, addressText) || !printDotted(netmask, netmaskText)) return -1;
    runShellLine(kIfconfigFormat, ifName, addressText, netmaskText);
    return 0;
}

int nw_update_default_route(const char* ifName, in_addr gateway) {
    DottedText gatewayText;
    if (!printDotted(gateway, gatewayText)) return -1;
    // Only "0.0." is compared, so every gateway beginning with it counts as none. Kept as it is:
    // no address in 0.0.0.0/16 is a usable gateway anyway.
    if (std::strncmp(gatewayText, kNoGateway, kNoGatewayCompared) == 0) return 0;
    // The deletion always names gateway 0.0.0.0, whatever route existed before; intended.
    runShellLine(kRouteDeleteFormat, ifName);
    runShellLine(kRouteAddFormat, gatewayText, ifName);
    return 0;
}

int nw_update_resolv_conf(const in_addr* gateway) {
    if (gateway == nullptr) return -1;
    std::FILE* file = sys::openFileStream(kResolvConfPath, "w");
    if (file == nullptr) return -1;
    DottedText gatewayText;
    const int written =
        printDotted(*gateway, gatewayText) ? std::fprintf(file, kNameServerFormat, gatewayText) : 0;
    const int closed = std::fclose(file);
    return written > 0 && closed == 0 ? 0 : -1;
}

int nw_dhcp_client(int command, const char* ifName, const char* hostName) {
    runShellLine(serviceFormat(command, kDhcpClientStartFormat, kDhcpClientRestartFormat,
                               kDhcpClientStopFormat),
                 kDhcpClientScript, ifName, hostName);
    return 0;
}

int nw_ntp(int command, const char* server) {
    if (command == NW_START || command == NW_RESTART)
        runShellLine(kNtpStartFormat, server);
    else
        runShellLine("%s", kNtpStopCommand);
    return 0;
}

int nw_dhcp_server(int command) {
    runShellLine(serviceFormat(command, kDhcpServerStartFormat, kDhcpServerRestartFormat,
                               kDhcpServerStopFormat),
                 kDhcpServerScript);
    return 0;
}

int nw_ifconfig_down(const char* baseName, int index) {
    runShellLine(kIfconfigDownFormat, baseName, index);
    return 0;
}

int nw_ifconfig_up(const char* baseName, int index, in_addr address) {
    DottedText addressText;
    if (!printDotted(address, addressText)) return -1;
    runShellLine(kIfconfigUpFormat, baseName, index, addressText);
    return 0;
}

int nw_get_mac(const char* ifName, char (&mac)[kMacTextSize]) {
    ifreq query{};
    const bool answered = queryInterface(SIOCGIFHWADDR, ifName, query);
    unsigned char bytes[kMacBytes] = {};
    static_assert(sizeof bytes <= sizeof query.ifr_hwaddr.sa_data);
    if (answered) std::memcpy(bytes, query.ifr_hwaddr.sa_data, sizeof bytes);
    std::snprintf(mac, sizeof mac, kMacFormat, bytes[0], bytes[1], bytes[2], bytes[3], bytes[4],
                  bytes[5]);
    return answered ? 0 : -1;
}

int nw_get_ipv4(const char* ifName, in_addr& address) {
    ifreq query{};
    query.ifr_addr.sa_family = AF_INET;
    const bool answered = queryInterface(SIOCGIFADDR, ifName, query);
    address.s_addr = INADDR_ANY;
    if (answered) {
        sockaddr_in reply;
        static_assert(sizeof reply == sizeof query.ifr_addr);  // the kernel's sockaddr
        std::memcpy(&reply, &query.ifr_addr, sizeof reply);
        address = reply.sin_addr;
    }
    return answered ? 0 : -1;
}
