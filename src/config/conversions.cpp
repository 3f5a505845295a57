#include "config/conversions.h"

#include "model/device_numbers.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

template <typename Value>
struct TextValue {
    const char* text;
    Value value;
};

constexpr const char* kCan2LanText = "CAN2LAN";
constexpr const char* kLan2CanText = "LAN2CAN";
constexpr const char* kUdpText = "UDP";
constexpr const char* kTcpText = "TCP";
constexpr const char* kUnknownProtocolText = "UDP ; UNDEF!";

// Only these exact spellings are known; mixed case such as "Lan2Can" is not.
constexpr TextValue<bool> kRouteTypes[] = {
    {kCan2LanText, true}, {"can2lan", true}, {kLan2CanText, false}, {"lan2can", false}};
constexpr TextValue<uint32_t> kProtocols[] = {{kUdpText, kProtocolUdp},
                                              {"udp", kProtocolUdp},
                                              {kTcpText, kProtocolTcp},
                                              {"tcp", kProtocolTcp}};
constexpr TextValue<uint8_t> kAddrTypes[] = {{"none", kAddrTypeNone}, {"NONE", kAddrTypeNone},
                                             {"IPv4", kAddrTypeIPv4}, {"ipv4", kAddrTypeIPv4},
                                             {"IPv6", kAddrTypeIPv6}, {"ipv6", kAddrTypeIPv6}};

template <typename Value, std::size_t N>
const TextValue<Value>* find(const TextValue<Value> (&table)[N], const char* text) {
    for (const TextValue<Value>& row : table)
        if (std::strcmp(row.text, text) == 0) return &row;
    return nullptr;
}

}  // namespace

int parseRouteType(const char* text, uint32_t& typeWord) {
    const auto* row = find(kRouteTypes, text);
    if (row == nullptr || row->value) typeWord |= kDrvCan2Lan;
    return row != nullptr ? 0 : -1;
}

int parseProtocol(const char* text, uint32_t& protocol) {
    const auto* row = find(kProtocols, text);
    protocol = row != nullptr ? row->value : kProtocolUdp;
    return row != nullptr ? 0 : -1;
}

int parseAddrType(const char* text, uint8_t& kind) {
    const auto* row = find(kAddrTypes, text);
    kind = row != nullptr ? row->value : kAddrTypeIPv4;
    return row != nullptr ? 0 : -1;
}

int parseEndpoint(const char* text, uint8_t kind, sockaddr_in& endpoint) {
    if (kind == kAddrTypeIPv4) parseDestination(text, endpoint);
    return 0;
}

int formatBrRegs(char* buffer, std::size_t size, const BitTiming& timing) {
    return std::snprintf(buffer, size, kBrRegsFormat, static_cast<int>(timing.brp),
                         static_cast<int>(timing.sjw), static_cast<int>(timing.tq),
                         static_cast<int>(timing.phase_seg1), static_cast<int>(timing.phase_seg2),
                         static_cast<int>(timing.prop_seg));
}

int formatEndpoint(char* buffer, std::size_t size, const sockaddr_in& endpoint) {
    return std::snprintf(buffer, size, kEndpointFormat, inet_ntoa(endpoint.sin_addr),
                         static_cast<unsigned>(ntohs(endpoint.sin_port)));
}

const char* formatRouteType(uint32_t typeWord) {
    return static_cast<int32_t>(typeWord) < 0 ? kCan2LanText : kLan2CanText;
}

const char* formatProtocol(uint32_t protocol) {
    if (protocol == kProtocolTcp) return kTcpText;
    if (protocol == kProtocolUdp) return kUdpText;
    return kUnknownProtocolText;
}

int32_t parseInteger(const char* text) {
    return deviceStrtol(text, 0);
}

int32_t clampInteger(int32_t value, int32_t low, int32_t high) {
    return value < low ? low : value > high ? high : value;
}
