#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <utility>

#include "config/conversions.h"

namespace {

// A parse function's result and the value it leaves behind.
std::pair<int, uint32_t> parsed(int (*parse)(const char*, uint32_t&), const char* text,
                                uint32_t value) {
    return {parse(text, value), value};  // a braced list is evaluated in order
}

// parseEndpoint's result read back through the C library, "address:port" in host order.
std::string endpoint(const char* text) {
    sockaddr_in out{};
    EXPECT_EQ(parseEndpoint(text, kAddrTypeIPv4, out), 0);
    EXPECT_EQ(out.sin_family, AF_INET);
    return std::string(inet_ntoa(out.sin_addr)) + ":" + std::to_string(ntohs(out.sin_port));
}

// Spellings that give the fallback value anyway ("CAN2LAN", "UDP") differ only in the result,
// which no caller looks at. (The bit timing's text is pinned down by the store's written file.)
TEST(ConvertTexts, KnownSpellingsOnlyOthersFallBackIntegersSaturateEndpointsClamp) {
    // The route type sets bit 31 but never clears it, and keeps the other bits.
    EXPECT_EQ(parsed(parseRouteType, "LAN2CAN", 0x20000000u), std::pair(0, 0x20000000u));
    EXPECT_EQ(parsed(parseRouteType, "lan2can", 0xA0000000u), std::pair(0, 0xA0000000u));
    EXPECT_EQ(parsed(parseRouteType, "Lan2Can", 0x10000000u), std::pair(-1, 0x90000000u));
    EXPECT_EQ(parsed(parseProtocol, "TCP", 99u), std::pair(0, 6u));
    EXPECT_EQ(parsed(parseProtocol, "tcp", 99u), std::pair(0, 6u));
    EXPECT_EQ(parsed(parseProtocol, "Tcp", 99u), std::pair(-1, 17u));
    // Integers: base 0, saturated at 32 bits as the device's strtol does.
    EXPECT_EQ(parseInteger("010"), 8);
    EXPECT_EQ(parseInteger("4294967296"), INT_MAX);
    EXPECT_EQ(parseInteger("-99999999999"), INT_MIN);
    // Written on purpose for an unknown number: ';' begins a comment, so it reads back as "UDP".
    EXPECT_STREQ(formatProtocol(6), "TCP");
    EXPECT_STREQ(formatProtocol(99), "UDP ; UNDEF!");

    // Endpoints: the port after the last colon, clamped, in network order.
    EXPECT_EQ(endpoint("10.0.0.1:99999"), "10.0.0.1:65535");
    EXPECT_EQ(endpoint("10.0.0.1"), "255.255.255.255:5000");  // no colon: no address text
    EXPECT_EQ(endpoint("1.2.3.4:5:6"), "255.255.255.255:6");
    EXPECT_EQ(endpoint("1.2.3.4:-4"), "1.2.3.4:0");
}

}  // namespace
