#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "can/bit_timing.h"
#include "config/conversions.h"

namespace {

TEST(ParseRouteType, SetsBit31ForCan2LanAndUnknownTextButNeverClearsIt) {
    struct Case {
        const char* text;
        uint32_t before, after;
        int result;
    } cases[] = {
        {"CAN2LAN", 0, 0x80000000u, 0},           {"can2lan", 0x10000000u, 0x90000000u, 0},
        {"LAN2CAN", 0x80000000u, 0x80000000u, 0}, {"lan2can", 0x20000000u, 0x20000000u, 0},
        {"Lan2Can", 0, 0x80000000u, -1},          {"", 0x10000000u, 0x90000000u, -1},
        {"LAN2CAN ", 0, 0x80000000u, -1},
    };
    for (const Case& c : cases) {
        uint32_t word = c.before;
        EXPECT_EQ(parseRouteType(c.text, word), c.result) << c.text;
        EXPECT_EQ(word, c.after) << c.text;
    }
}

TEST(ParseProtocolAndAddrType, KnownSpellingsOnlyOthersFallBack) {
    struct ProtocolCase {
        const char* text;
        uint32_t protocol;
        int result;
    } protocols[] = {{"UDP", 17, 0},  {"udp", 17, 0}, {"TCP", 6, 0}, {"tcp", 6, 0},
                     {"Tcp", 17, -1}, {"6", 17, -1},  {"", 17, -1}};
    for (const ProtocolCase& c : protocols) {
        uint32_t protocol = 99;
        EXPECT_EQ(parseProtocol(c.text, protocol), c.result) << c.text;
        EXPECT_EQ(protocol, c.protocol) << c.text;
    }
    struct KindCase {
        const char* text;
        uint8_t kind;
        int result;
    } kinds[] = {{"none", 0, 0}, {"NONE", 0, 0},  {"IPv4", 1, 0},  {"ipv4", 1, 0}, {"IPv6", 2, 0},
                 {"ipv6", 2, 0}, {"None", 1, -1}, {"IPV6", 1, -1}, {"", 1, -1}};
    for (const KindCase& c : kinds) {
        uint8_t kind = 7;
        EXPECT_EQ(parseAddrType(c.text, kind), c.result) << c.text;
        EXPECT_EQ(kind, c.kind) << c.text;
    }
}

TEST(ParseEndpoint, PortAfterLastColonClampedAndAddressBoundedTo64) {
    const std::string zeros(57, '0');  // octal zeros: the address stays 1.2.3.4 if kept whole
    struct Case {
        std::string text;
        const char* address;
        unsigned port;
    } cases[] = {
        {"192.168.1.20:5001", "192.168.1.20", 5001},
        {"10.0.0.1:99999", "10.0.0.1", 65535},
        {"10.0.0.1:-4", "10.0.0.1", 0},
        {"10.0.0.1:http", "10.0.0.1", 0},
        {"10.0.0.1", "255.255.255.255", 5000},  // no colon: the address text is empty
        {"1.2.3.4:5:6", "255.255.255.255", 6},
        {zeros + "1.2.3.4:80", "1.2.3.4", 80},           // 64 characters
        {zeros + "01.2.3.4:80", "255.255.255.255", 80},  // 65: cut to "0...01.2.3."
    };
    for (const Case& c : cases) {
        sockaddr_in endpoint{};
        EXPECT_EQ(parseEndpoint(c.text.c_str(), kAddrTypeIPv4, endpoint), 0);
        EXPECT_EQ(endpoint.sin_family, AF_INET);
        EXPECT_STREQ(inet_ntoa(endpoint.sin_addr), c.address) << c.text;
        EXPECT_EQ(ntohs(endpoint.sin_port), c.port) << c.text;
    }
}

TEST(ParseEndpoint, OtherKindsLeaveTheEndPointAlone) {
    for (uint8_t kind : {kAddrTypeNone, kAddrTypeIPv6}) {
        sockaddr_in endpoint;
        std::memset(&endpoint, 0xA5, sizeof endpoint);
        const sockaddr_in before = endpoint;
        EXPECT_EQ(parseEndpoint("1.2.3.4:80", kind, endpoint), 0);
        EXPECT_EQ(std::memcmp(&endpoint, &before, sizeof endpoint), 0);
    }
}

TEST(FormatEndpoint, ReadsBackThroughParseEndpoint) {
    for (const char* text : {"192.168.1.20:5001", "0.0.0.0:5000", "255.255.255.255:65535"}) {
        sockaddr_in endpoint{};
        ASSERT_EQ(parseEndpoint(text, kAddrTypeIPv4, endpoint), 0);
        char written[64];
        EXPECT_EQ(formatEndpoint(written, sizeof written, endpoint),
                  static_cast<int>(std::strlen(text)));
        EXPECT_STREQ(written, text);
    }
}

TEST(FormatRouteTypeAndProtocol, WrittenTextsReadBackToTheSameValue) {
    for (uint32_t word : {0u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        uint32_t back = 0;
        ASSERT_EQ(parseRouteType(formatRouteType(word), back), 0);
        EXPECT_EQ(back & kRouteTypeCan2Lan, word & kRouteTypeCan2Lan) << word;
    }
    EXPECT_STREQ(formatRouteType(0x80000000u), "CAN2LAN");
    EXPECT_STREQ(formatRouteType(0x10000000u), "LAN2CAN");

    EXPECT_STREQ(formatProtocol(6), "TCP");
    EXPECT_STREQ(formatProtocol(17), "UDP");
    EXPECT_STREQ(formatProtocol(0), "UDP ; UNDEF!");
    EXPECT_STREQ(formatProtocol(99), "UDP ; UNDEF!");
}

TEST(FormatBrRegs, WritesTheRegistersInFileOrderAndParsesBack) {
    const BitTiming timing{125, 0, 13, 2, 1, 3};  // tq, prop, pseg1, pseg2, sjw, brp
    char text[128];
    formatBrRegs(text, sizeof text, timing);
    EXPECT_STREQ(text, "BRP 3, RJW 1, TQ 125, PSEG1 13, PSEG2 2, PROPSEG 0");
    BitTiming back{};
    EXPECT_EQ(parseBrRegs(text, back), 0);
    EXPECT_EQ(std::memcmp(&back, &timing, sizeof back), 0);
}

TEST(ParseInteger, Base0AndSaturatedAt32Bits) {
    struct Case {
        const char* text;
        int32_t value;
    } cases[] = {
        {"0x7A120", 500000},
        {"010", 8},
        {"-3", -3},
        {" 42", 42},
        {"12abc", 12},
        {"", 0},
        {"maybe", 0},
        {"2147483647", INT_MAX},
        {"4294967296", INT_MAX},
        {"0xFFFFFFFF", INT_MAX},
        {"-99999999999", INT_MIN},
    };
    for (const Case& c : cases)
        EXPECT_EQ(parseInteger(c.text), c.value) << c.text;
}

}  // namespace
