#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "cfgctl_args.h"
#include "client.h"

namespace {

TEST(CfgctlLockFile, ReadsTheDaemonsLineAndNothingElse) {
    client::LockLine line{};
    for (const char* bad : {"17,18,4242\n", "17, 18\n", "17, 18, 4242 \n", "17, 18, 4242\n9"})
        EXPECT_FALSE(client::parseLockLine(bad, line)) << bad;
    ASSERT_TRUE(client::parseLockLine("-1, 33554432, 7\n", line));
    EXPECT_EQ(std::tie(line.semaphoreKey, line.queueKey, line.pid), std::tuple(-1, 33554432, 7));

    client::Connection cfgd;
    EXPECT_EQ(cfgd.open("/nonexistent/kiv_lock"), client::Status::NoLockFile);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(cfgd.open("/dev/null"), client::Status::BadLockFile);  // readable, no lock line
}

// Parses "cfgctl <line>", split at each blank (two blanks in a row give an empty word), and
// tells what it understood: the command, the options given, then f1.f2.f3[=value] each.
std::string understood(const std::string& line) {
    std::deque<std::string> words;  // holds the texts that argv points to
    std::vector<const char*> argv{"cfgctl"};
    std::istringstream in(line);
    for (std::string word; std::getline(in, word, ' ');)
        argv.push_back(words.emplace_back(word).c_str());
    cfgctl::Invocation inv;
    char error[160];
    if (!cfgctl::parseArguments(static_cast<int>(argv.size()), argv.data(), inv, error,
                                sizeof error))
        return "refused";
    std::string text = inv.command == cfgctl::Command::Set ? "set" : "get";
    if (inv.lockPath != nullptr) text += std::string(" -l ") + inv.lockPath;
    if (inv.timeoutSeconds != 0) text += " -t " + std::to_string(inv.timeoutSeconds);
    if (inv.temporary) text += " --temp";
    if (inv.abort) text += " --abort";
    for (const cfgctl::Parameter& p : inv.parameters)
        text += " " + std::to_string(p.f1) + "." + std::to_string(p.f2) + "." +
                std::to_string(p.f3) + (p.value != nullptr ? "=" + std::string(p.value) : "");
    return text;
}

TEST(CfgctlArguments, RefusesWhatCannotBeSent) {
    for (const char* line : {"", "-l", "--verbose get 0 2 0", "put 0 2 0", "get", "get 0 2 0 1",
                             "get 0 256 0", "get 0 -1 0", "get 0x1 2 0", "set 0 4 0",
                             "--temp get 0 2 0", "-t 0 get 0 2 0", "-t 5s get 0 2 0"})
        EXPECT_EQ(understood(line), "refused") << line;
}

TEST(CfgctlArguments, OptionsThenOneParameterPerGroupOfOperands) {
    // Behind the command word "-5" is a value, not an option; a value may be empty.
    EXPECT_EQ(understood("-l /run/lock --temp --abort -t 9 set 4 1 3 -5 255 0 255  7 8 9 x"),
              "set -l /run/lock -t 9 --temp --abort 4.1.3=-5 255.0.255= 7.8.9=x");
    EXPECT_EQ(understood("get 0 2 0 9 1 4"), "get 0.2.0 9.1.4");
}

TEST(CfgctlRequest, ValueArrivesTerminatedAndTheLongestFillsTheQueueMessage) {
    client::RequestQueueMessage message;
    RequestMessage parsed{};
    std::size_t length = client::formatRequest(message, SET_PARAM, 0, 4, 0, "a long description");
    ASSERT_EQ(parseRequest(message.text, length, parsed), 0);
    length = client::formatRequest(message, SET_PARAM, 0, 4, 0, "short");
    ASSERT_EQ(parseRequest(message.text, length, parsed), 0);
    EXPECT_STREQ(parsed.da, "short");  // the daemon copies a value without terminating it
    EXPECT_EQ(parsed.f2, 4);

    std::string value;
    while (client::fitsInRequest(SET_PARAM, 255, 255, 255, (value + "x").c_str()))
        value += "x";
    EXPECT_EQ(client::formatRequest(message, SET_PARAM, 255, 255, 255, value.c_str()),
              kQueueTextSize);
    value += "x";
    EXPECT_EQ(client::formatRequest(message, SET_PARAM, 255, 255, 255, value.c_str()), 0u);
}

}  // namespace
