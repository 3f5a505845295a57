#include <gtest/gtest.h>

#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cfgctl_args.h"
#include "client.h"

namespace {

TEST(CfgctlLockLine, ReadsTheDaemonsLineAndNothingElse) {
    struct Case {
        std::string text;
        bool valid;
    } cases[] = {
        {"17, 18, 4242\n", true},    {"17, 18, 4242", true},
        {"-1, 33554432, 7\n", true}, {"", false},
        {"17,18,4242\n", false},     {"17, 18\n", false},
        {"x, 18, 4242\n", false},    {"17, 18, 4242 \n", false},
        {"17, 18, 4242\n9", false},
    };
    for (const Case& c : cases) {
        client::LockLine line{};
        EXPECT_EQ(client::parseLockLine(c.text, line), c.valid) << c.text;
    }
    client::LockLine line{};
    ASSERT_TRUE(client::parseLockLine("-1, 33554432, 7\n", line));
    EXPECT_EQ(line.semaphoreKey, -1);
    EXPECT_EQ(line.queueKey, 33554432);
    EXPECT_EQ(line.pid, 7);
}

TEST(CfgctlLockLine, MissingAndForeignFilesAreToldApart) {
    client::Connection cfgd;
    EXPECT_EQ(cfgd.open("/nonexistent/kiv_lock"), client::Status::NoLockFile);
    EXPECT_EQ(errno, ENOENT);

    char path[] = "/tmp/cfgctl_lock_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "not a lock line\n", 16), 16);
    close(fd);
    EXPECT_EQ(cfgd.open(path), client::Status::BadLockFile);
    unlink(path);
}

bool parse(std::vector<const char*> args, cfgctl::Invocation& invocation) {
    args.insert(args.begin(), "cfgctl");
    char error[160];
    return cfgctl::parseArguments(static_cast<int>(args.size()), args.data(), invocation, error,
                                  sizeof error);
}

TEST(CfgctlArguments, RefusesWhatCannotBeSent) {
    const std::vector<std::vector<const char*>> bad = {
        {},
        {"-l"},
        {"--verbose", "get", "0", "2", "0"},
        {"put", "0", "2", "0"},
        {"get"},
        {"get", "0", "2"},
        {"get", "0", "2", "0", "1"},
        {"get", "0", "256", "0"},
        {"get", "0", "-1", "0"},
        {"get", "0", "", "0"},
        {"get", "0x1", "2", "0"},
        {"set", "0", "4", "0"},
        {"--temp", "get", "0", "2", "0"},
        {"-t", "0", "get", "0", "2", "0"},
        {"-t", "5s", "get", "0", "2", "0"},
    };
    for (const auto& args : bad) {
        cfgctl::Invocation invocation;
        EXPECT_FALSE(parse(args, invocation)) << (args.empty() ? "(none)" : args[0]);
    }
}

TEST(CfgctlArguments, OptionsThenOneParameterPerGroupOfOperands) {
    cfgctl::Invocation invocation;
    ASSERT_TRUE(parse({"-l", "/run/lock", "--temp", "--abort", "-t", "9", "set", "4", "1", "3",
                       "-5", "255", "0", "255", ""},
                      invocation));
    EXPECT_EQ(invocation.command, cfgctl::Command::Set);
    EXPECT_STREQ(invocation.lockPath, "/run/lock");
    EXPECT_EQ(invocation.timeoutSeconds, 9);
    EXPECT_TRUE(invocation.temporary);
    EXPECT_TRUE(invocation.abort);
    ASSERT_EQ(invocation.parameters.size(), 2u);
    EXPECT_EQ(invocation.parameters[0].f3, 3);
    EXPECT_STREQ(invocation.parameters[0].value, "-5");  // an operand, not an option
    EXPECT_EQ(invocation.parameters[1].f1, 255);
    EXPECT_STREQ(invocation.parameters[1].value, "");

    ASSERT_TRUE(parse({"get", "0", "2", "0", "9", "1", "4"}, invocation));
    ASSERT_EQ(invocation.parameters.size(), 2u);
    EXPECT_EQ(invocation.parameters[1].f2, 1);
    EXPECT_EQ(invocation.parameters[1].value, nullptr);
}

TEST(CfgctlRequest, ValueArrivesTerminatedOverALongerOne) {
    client::RequestQueueMessage message;
    RequestMessage parsed{};
    std::size_t length = client::formatRequest(message, SET_PARAM, 0, 4, 0, "a long description");
    ASSERT_EQ(parseRequest(message.text, length, parsed), 0);
    length = client::formatRequest(message, SET_PARAM, 0, 4, 0, "short");
    ASSERT_EQ(parseRequest(message.text, length, parsed), 0);
    EXPECT_STREQ(parsed.da, "short");
    EXPECT_EQ(parsed.mt, SET_PARAM);
    EXPECT_EQ(parsed.f2, 4);
}

TEST(CfgctlRequest, LongestValueFillsTheQueueMessageExactly) {
    std::string value;
    while (client::fitsInRequest(SET_PARAM, 255, 255, 255, (value + "x").c_str()))
        value += "x";
    client::RequestQueueMessage message;
    EXPECT_EQ(client::formatRequest(message, SET_PARAM, 255, 255, 255, value.c_str()),
              kQueueTextSize);
    value += "x";
    EXPECT_EQ(client::formatRequest(message, SET_PARAM, 255, 255, 255, value.c_str()), 0u);
}

}  // namespace
