#include "routing/destination.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>

void parseDestination(const char* text, sockaddr_in& destination) {
    char address[kDestinationAddressMax + 1] = "";
    long port = kDefaultDestinationPort;
    if (const char* colon = std::strrchr(text, ':'); colon != nullptr) {
        port = std::strtol(colon + 1, nullptr, 10);
        port = port < 0 ? 0 : port > 65535 ? 65535 : port;
        const std::size_t length = static_cast<std::size_t>(colon - text);
        const std::size_t kept = length < kDestinationAddressMax ? length : kDestinationAddressMax;
        std::memcpy(address, text, kept);
        address[kept] = '\0';
    }
    destination.sin_family = AF_INET;
    destination.sin_addr.s_addr = inet_addr(address);
    destination.sin_port = htons(static_cast<uint16_t>(port));
}
