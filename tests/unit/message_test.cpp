#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/message.h"

namespace {

int parse(const std::string& text, RequestMessage& request) {
    return parseRequest(text.data(), text.size(), request);
}

std::string request4(const std::string& mt, const std::string& f1, const std::string& f2,
                     const std::string& f3) {
    return "a:4:{s:2:\"mt\";i:" + mt + ";s:2:\"f1\";i:" + f1 + ";s:2:\"f2\";i:" + f2 +
           ";s:2:\"f3\";i:" + f3 + ";}";
}

std::string request5(int f3, const std::string& value, std::size_t declared) {
    return "a:5:{s:2:\"mt\";i:2;s:2:\"f1\";i:4;s:2:\"f2\";i:1;s:2:\"f3\";i:" + std::to_string(f3) +
           ";s:2:\"da\";s:" + std::to_string(declared) + ":\"" + value + "\";}";
}

TEST(ParseRequest, FourElementReadHasEmptyValue) {
    RequestMessage r{};
    std::strcpy(r.da, "left over");
    ASSERT_EQ(parse(request4("1", "0", "3", "0"), r), 0);
    EXPECT_EQ(r.mt, READ_PARAM);
    EXPECT_EQ(r.f1, 0);
    EXPECT_EQ(r.f2, 3);
    EXPECT_EQ(r.f3, 0);
    EXPECT_STREQ(r.da, "");
}

TEST(ParseRequest, MalformedElementsNameTheirPlace) {
    struct Case {
        std::string text;
        int result;
    } cases[] = {
        {request4("256", "0", "0", "0"), -2},
        {request4("1", "256", "0", "0"), -3},
        {request4("1", "0", "256", "0"), -4},
        {request4("1", "0", "0", "256"), -5},
        {"b" + request4("1", "0", "0", "0").substr(1), -1},
        {"a:3:{s:2:\"mt\";i:1;s:2:\"f1\";i:0;s:2:\"f2\";i:0;}", -1},
        {"a:4:{s:2:\"mx\";i:1;s:2:\"f1\";i:0;s:2:\"f2\";i:0;s:2:\"f3\";i:0;}", -2},
        {"a:4:{s:2:\"mt\";d:1;s:2:\"f1\";i:0;s:2:\"f2\";i:0;s:2:\"f3\";i:0;}", -2},
        {"a:5:{s:2:\"mt\";i:1;s:2:\"f1\";i:0;s:2:\"f2\";i:0;s:2:\"f3\";i:0;}", -6},
        {"a:5:{s:2:\"mt\";i:1;s:2:\"f1\";i:0;s:2:\"f2\";i:0;s:2:\"f3\";i:0;s:2:\"da\";i:5;}", -6},
        {"a", -1},
        {"", -1},
        {"a:4:{s:2:\"mt\";i:1;s:2:\"f1\";i:0;s:2", -4},
    };
    for (const Case& c : cases) {
        RequestMessage r{};
        EXPECT_EQ(parse(c.text, r), c.result) << c.text;
    }
    RequestMessage r{};
    EXPECT_EQ(parse(request4("255", "255", "255", "255"), r), 0);
    EXPECT_EQ(r.mt, 255);
    EXPECT_EQ(r.f3, 255);
}

TEST(ParseRequest, ValueOverwritesThePreviousOneWithoutClearingIt) {
    RequestMessage r{};
    ASSERT_EQ(parse(request5(2, "500000", 6), r), 0);
    EXPECT_STREQ(r.da, "500000");
    ASSERT_EQ(parse(request5(2, "25", 2), r), 0);
    EXPECT_STREQ(r.da, "250000");  // the old tail stays behind the new value
}

TEST(ParseRequest, DeclaredLengthIsBoundedByTheText) {
    RequestMessage r{};
    const std::string text = request5(0, "abc", 999);
    ASSERT_EQ(parse(text, r), 0);
    EXPECT_STREQ(r.da, "abc\";}");  // copies to the end of the text, no further

    // A full-size message whose text is not terminated: nothing beyond it is read.
    std::string huge = request5(0, std::string(600, 'x'), 600).substr(0, kQueueTextSize);
    RequestMessage big{};
    ASSERT_EQ(parse(huge, big), 0);
    EXPECT_EQ(std::strlen(big.da), kQueueTextSize - (huge.find("600:\"") + 5));
}

TEST(SerialiseAnswer, FormatsBytesUnescapedAndCutsAt507) {
    AnswerMessage a{};
    a.type = 42;
    a.mt = POS_ANSW;
    a.f1 = 4;
    a.f2 = 1;
    a.f3 = 2;
    std::strcpy(a.da, "say \"hi\"; \xC3\xA4");
    AnswerQueueMessage out{};
    EXPECT_EQ(serialiseAnswer(a, out), 0);
    EXPECT_EQ(out.mtype, 42);
    EXPECT_STREQ(out.text,
                 "a:5:{s:2:\"mt\";i:3;s:2:\"f1\";i:4;s:2:\"f2\";i:1;s:2:\"f3\";i:2;s:2:\"da\";s:12:"
                 "\"say \"hi\"; \xC3\xA4\";}");

    std::memset(a.da, 'v', sizeof a.da - 1);
    a.da[sizeof a.da - 1] = '\0';
    EXPECT_EQ(serialiseAnswer(a, out), -1);
    EXPECT_EQ(std::strlen(out.text), kQueueTextSize - 1);
}

}  // namespace
