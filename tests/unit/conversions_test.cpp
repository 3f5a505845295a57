#include <gtest/gtest.h>
#include <sys/socket.h>

#include <climits>
#include <cstring>
#include <string>
#include <utility>

#include "config/conversions.h"

namespace {

// A parse function's result and the value it leaves behind.
template <typename Value>
std::pair<int, uint32_t> parsed(int (*parse)(const char*, Value&), const char* text, Value value) {
    const int result = parse(text, value);
    return {result, value};
}

// Spellings that give the fallback value anyway ("CAN2LAN", "UDP", "IPv4") differ only in the
// result, which no caller looks at.
TEST(ParseTexts, KnownSpellingsOnlyOthersFallBack) {
    // The route type sets bit 31 but never clears it, and keeps the other bits.
    EXPECT_EQ(parsed(parseRouteType, "can2lan", 0x10000000u), std::pair(0, 0x90000000u));
    EXPECT_EQ(parsed(parseRouteType, "LAN2CAN", 0x80000000u), std::pair(0, 0x80000000u));
    EXPECT_EQ(parsed(parseRouteType, "lan2can", 0x20000000u), std::pair(0, 0x20000000u));
    EXPECT_EQ(parsed(parseRouteType, "Lan2Can", 0u), std::pair(-1, 0x80000000u));
    EXPECT_EQ(parsed(parseRouteType, "LAN2CAN ", 0u), std::pair(-1, 0x80000000u));
    EXPECT_EQ(parsed(parseProtocol, "TCP", 99u), std::pair(0, 6u));
    EXPECT_EQ(parsed(parseProtocol, "tcp", 99u), std::pair(0, 6u));
    EXPECT_EQ(parsed(parseProtocol, "Tcp", 99u), std::pair(-1, 17u));
    EXPECT_EQ(parsed(parseAddrType, "none", uint8_t{7}), std::pair(0, 0u));
    EXPECT_EQ(parsed(parseAddrType, "NONE", uint8_t{7}), std::pair(0, 0u));
    EXPECT_EQ(parsed(parseAddrType, "IPv6", uint8_t{7}), std::pair(0, 2u));
    EXPECT_EQ(parsed(parseAddrType, "ipv6", uint8_t{7}), std::pair(0, 2u));
    EXPECT_EQ(parsed(parseAddrType, "None", uint8_t{7}), std::pair(-1, 1u));
}

TEST(ParseEndpoint, PortAfterLastColonClampedAndAddressBoundedTo64) {
    const std::string zeros(57, '0');  // octal zeros: the address stays 1.2.3.4 if kept whole
    struct Case {
        std::string text;
        uint8_t kind;
        const char* written;  // formatEndpoint's text of the result
    } cases[] = {
        {"10.0.0.1:99999", kAddrTypeIPv4, "10.0.0.1:65535"},
        {"10.0.0.1:-4", kAddrTypeIPv4, "10.0.0.1:0"},
        {"10.0.0.1", kAddrTypeIPv4, "255.255.255.255:5000"},  // no colon: no address text
        {"1.2.3.4:5:6", kAddrTypeIPv4, "255.255.255.255:6"},
        {zeros + "1.2.3.4:80", kAddrTypeIPv4, "1.2.3.4:80"},           // 64 characters
        {zeros + "01.2.3.4:80", kAddrTypeIPv4, "255.255.255.255:80"},  // 65: cut
        {"1.2.3.4:80", kAddrTypeNone, "165.165.165.165:42405"},        // left as it was
        {"1.2.3.4:80", kAddrTypeIPv6, "165.165.165.165:42405"},
    };
    for (const Case& c : cases) {
        sockaddr_in endpoint;
        std::memset(&endpoint, 0xA5, sizeof endpoint);
        EXPECT_EQ(parseEndpoint(c.text.c_str(), c.kind, endpoint), 0);
        EXPECT_EQ(endpoint.sin_family, c.kind == kAddrTypeIPv4 ? AF_INET : 0xA5A5) << c.text;
        char written[64];
        formatEndpoint(written, sizeof written, endpoint);
        EXPECT_STREQ(written, c.written) << c.text;
    }
}

TEST(FormatTexts, RouteTypeProtocolAndBitTiming) {
    EXPECT_STREQ(formatRouteType(0x80000000u), "CAN2LAN");
    EXPECT_STREQ(formatRouteType(0x7FFFFFFFu), "LAN2CAN");
    EXPECT_STREQ(formatProtocol(6), "TCP");
    EXPECT_STREQ(formatProtocol(17), "UDP");
    EXPECT_STREQ(formatProtocol(99), "UDP ; UNDEF!");
    char text[128];
    formatBrRegs(text, sizeof text, BitTiming{125, 0, 13, 2, 1, 3});  // tq .. sjw, brp
    EXPECT_STREQ(text, "BRP 3, RJW 1, TQ 125, PSEG1 13, PSEG2 2, PROPSEG 0");
}

TEST(ParseInteger, Base0AndSaturatedAt32Bits) {
    EXPECT_EQ(parseInteger("010"), 8);
    EXPECT_EQ(parseInteger("4294967296"), INT_MAX);
    EXPECT_EQ(parseInteger("-99999999999"), INT_MIN);
}

}  // namespace
