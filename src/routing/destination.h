#pragma once
// A route's destination as text: "address:port", shared by the Route group and the
// configuration file.

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

// Transport protocol numbers of a route.
inline constexpr uint32_t kProtocolTcp = 6;
inline constexpr uint32_t kProtocolUdp = 17;

inline constexpr uint16_t kDefaultDestinationPort = 5000;
inline constexpr std::size_t kDestinationAddressMax = 64;  // characters of the address part

// The port follows the last ':' (base 10, clamped to 0..65535), the address is the text before
// it, converted with inet_addr. Without a ':' the port is 5000 and the address text is empty,
// which is how the device has always read such a text. Family AF_INET, network byte order.
void parseDestination(const char* text, sockaddr_in& destination);
