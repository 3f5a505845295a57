#include <gtest/gtest.h>

#include <cstring>
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
}

// Parses "cfgctl <line>", split at each blank (two blanks in a row give an empty word), and
// tells what it understood: the command, the options given, then f1.f2.f3[=value] each.
std::string understood(std::string line) {
    std::vector<const char*> argv{"cfgctl"};
    char* rest = line.empty() ? nullptr : line.data();  // strsep ends each word in place
    while (rest != nullptr)
        argv.push_back(strsep(&rest, " "));
    cfgctl::Invocation inv;
    char error[160];
    if (!cfgctl::parseArguments(static_cast<int>(argv.size()), argv.data(), inv, error,
                                sizeof error))
        return "refused";
    std::string text = (inv.command == cfgctl::Command::Set ? "set -l " : "get -l ") +
                       std::string(inv.lockPath ? inv.lockPath : "-") + " -t " +
                       std::to_string(inv.timeoutSeconds) + (inv.temporary ? " --temp" : "") +
                       (inv.abort ? " --abort" : "");
    for (const cfgctl::Parameter& p : inv.parameters)
        text += " " + std::to_string(p.f1) + "." + std::to_string(p.f2) + "." +
                std::to_string(p.f3) + (p.value != nullptr ? "=" + std::string(p.value) : "");
    return text;
}

TEST(CfgctlArguments, RefusesWhatCannotBeSentAndGroupsTheOperands) {
    for (const char* line : {"", "-l", "--verbose get 0 2 0", "put 0 2 0", "get", "get 0 2 0 1",
                             "get 0 256 0", "get 0 -1 0", "get 0x1 2 0", "set 0 4 0",
                             "--temp get 0 2 0", "-t 0 get 0 2 0", "-t 5s get 0 2 0"})
        EXPECT_EQ(understood(line), "refused") << line;
    // Behind the command word "-5" is a value, not an option; a value may be empty.
    EXPECT_EQ(understood("-l /run/lock --temp --abort -t 9 set 4 1 3 -5 255 0 255  7 8 9 x"),
              "set -l /run/lock -t 9 --temp --abort 4.1.3=-5 255.0.255= 7.8.9=x");
}

}  // namespace
