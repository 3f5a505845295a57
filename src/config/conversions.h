#pragma once
// Text forms of configuration values that the loader and the writer share, one function per
// direction, so that a value written out always reads back through its partner.

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "can/can_interface.h"
#include "routing/destination.h"
#include "routing/route_record.h"

// Address kinds of a route's destinations.
inline constexpr uint8_t kAddrTypeNone = 0;
inline constexpr uint8_t kAddrTypeIPv4 = 1;
inline constexpr uint8_t kAddrTypeIPv6 = 2;

inline constexpr const char* kEndpointFormat = "%s:%u";

inline constexpr const char* kBrRegsFormat =
    "BRP %d, RJW %d, TQ %d, PSEG1 %d, PSEG2 %d, PROPSEG %d";
// What stands in the file for an interface whose bit timing is not given by registers.
inline constexpr const char* kNoBrRegsText = "-";

// The parse functions always store a usable value; a negative result only says that the text
// was not one of the known forms and the fallback was taken. Callers rely on the fallback.

// "CAN2LAN"/"can2lan" set bit 31 (0); "LAN2CAN"/"lan2can" leave the word alone (0); any other
// text sets bit 31 (-1). Bit 31 is never cleared here.
int parseRouteType(const char* text, uint32_t& typeWord);
// "UDP"/"udp": 17, "TCP"/"tcp": 6 (0); anything else: 17 (-1).
int parseProtocol(const char* text, uint32_t& protocol);
// "none"/"NONE": 0, "IPv4"/"ipv4": 1, "IPv6"/"ipv6": 2 (0); anything else: 1 (-1).
int parseAddrType(const char* text, uint8_t& kind);
// "address:port" (parseDestination) for address kind 1 only; other kinds leave the end point
// untouched. Always 0.
int parseEndpoint(const char* text, uint8_t kind, sockaddr_in& endpoint);

// Each returns what snprintf returns.
int formatBrRegs(char* buffer, std::size_t size, const BitTiming& timing);
int formatEndpoint(char* buffer, std::size_t size, const sockaddr_in& endpoint);
// "CAN2LAN" when bit 31 is set, else "LAN2CAN".
const char* formatRouteType(uint32_t typeWord);
// "TCP", "UDP", or "UDP ; UNDEF!" for any other number: the ';' starts a comment in the file,
// so an unknown number reads back as UDP.
const char* formatProtocol(uint32_t protocol);

// The configuration file's integer rule: base 0 (decimal, 0x hexadecimal, 0 octal), as far as
// the text is a number. Values beyond 32 bits saturate, as the device's 32-bit strtol does, so
// a huge value clamps to the top of its range instead of wrapping.
int32_t parseInteger(const char* text);
int32_t clampInteger(int32_t value, int32_t low, int32_t high);
