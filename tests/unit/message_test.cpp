#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "core/message.h"

namespace {

int parse(const std::string& text, RequestMessage& request) {
    return parseRequest(text.data(), text.size(), request);
}

std::string request(const std::string& mt, const std::string& f1, const std::string& f3,
                    const std::string& value = "", int declared = -1) {
    std::string text = "a:" + std::string(declared < 0 ? "4" : "5") + ":{s:2:\"mt\";i:" + mt +
                       ";s:2:\"f1\";i:" + f1 + ";s:2:\"f2\";i:3;s:2:\"f3\";i:" + f3 + ";";
    if (declared >= 0) text += "s:2:\"da\";s:" + std::to_string(declared) + ":\"" + value + "\";";
    return text + "}";
}

TEST(ParseRequest, ResultsNameTheMalformedElement) {
    const std::string good = request("1", "0", "0");
    const std::pair<std::string, int> cases[] = {
        {request("255", "255", "255"), 0},
        {request("256", "0", "0"), -2},
        {request("1", "256", "0"), -3},
        {request("1", "0", "256"), -5},
        {"b" + good.substr(1), -1},
        {"a:3" + good.substr(3), -1},
        {"a:4:{s:2:\"mt\";d:1" + good.substr(17), -2},
        {"a:5" + good.substr(3), -6},
        {good.substr(0, 40), -4},
        {"", -1},
    };
    for (const auto& [text, result] : cases) {
        RequestMessage r{};
        std::strcpy(r.da, "left over");
        EXPECT_EQ(parse(text, r), result) << text;
        // A request without value clears it; a dropped one leaves it alone.
        EXPECT_STREQ(r.da, result == 0 ? "" : "left over") << text;
    }
}

// Numbers are read as strtoul reads them in base 10: a number above 255 is refused, one that
// leaves characters behind fails at the next element.
TEST(ParseRequest, NumbersAreReadAsStrtoulReadsThemValuesCopiedUpToTheTextsEnd) {
    for (const char* spelling : {" 7", "\t\n+7", "-0", "-1", "007", "255x", "", "+", "- 1",
                                 "99999999999999999999999", "-99999999999999999999999"}) {
        char* end = nullptr;
        const unsigned long value = std::strtoul(spelling, &end, 10);
        const int expected = value > 255 ? -3 : *end != '\0' ? -4 : 0;
        RequestMessage r{};
        EXPECT_EQ(parse(request("1", spelling, "0"), r), expected) << spelling;
        EXPECT_EQ(r.f1, expected == -3 ? 0ul : value) << spelling;
    }

    RequestMessage r{};
    ASSERT_EQ(parse(request("2", "4", "2", "500000", 6), r), 0);
    ASSERT_EQ(parse(request("2", "4", "2", "25", 2), r), 0);
    EXPECT_STREQ(r.da, "250000");  // the old tail stays behind the new value
    ASSERT_EQ(parse(request("2", "4", "2", "abc", 999), r), 0);
    EXPECT_STREQ(r.da, "abc\";}");  // a declared length beyond the text stops at its end

    // A full-size text that is not terminated: nothing beyond it is read.
    const std::string huge = request("2", "0", "0", std::string(600, 'x'), 600);
    RequestMessage big{};
    ASSERT_EQ(parseRequest(huge.data(), 508, big), 0);
    EXPECT_EQ(std::strlen(big.da), 508 - (huge.find("600:\"") + 5));
}

TEST(SerialiseAnswer, FormatsBytesUnescapedAndCutsAt507) {
    AnswerMessage a{42, POS_ANSW, 4, 1, 2, "say \"hi\"; \xC3\xA4"};
    AnswerQueueMessage out{};
    EXPECT_EQ(serialiseAnswer(a, out), 0);
    EXPECT_EQ(out.mtype, 42);
    EXPECT_STREQ(out.text,
                 "a:5:{s:2:\"mt\";i:3;s:2:\"f1\";i:4;s:2:\"f2\";i:1;s:2:\"f3\";i:2;s:2:\"da\";s:12:"
                 "\"say \"hi\"; \xC3\xA4\";}");
    std::memset(a.da, 'v', sizeof a.da - 1);
    EXPECT_EQ(serialiseAnswer(a, out), -1);
    EXPECT_EQ(std::strlen(out.text), 507u);
}

}  // namespace
