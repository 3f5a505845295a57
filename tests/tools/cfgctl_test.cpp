#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "apply_file.h"
#include "cfgctl_args.h"
#include "client.h"
#include "json_out.h"

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
    // strsep ends each word in place
    for (char* rest = line.empty() ? nullptr : line.data(); rest != nullptr;)
        argv.push_back(strsep(&rest, " "));
    cfgctl::Invocation inv;
    char error[cfgctl::kErrorSize];
    if (!cfgctl::parseArguments(static_cast<int>(argv.size()), argv.data(), inv, error,
                                sizeof error))
        return "refused";
    constexpr const char* kWords[] = {"get",     "set",      "dump",  "apply", "names",
                                      "confirm", "rollback", "trial", "help",  "version"};
    std::string text = kWords[static_cast<int>(inv.command)] + std::string(" -l ") +
                       std::string(inv.lockPath ? inv.lockPath : "-") + " -t " +
                       std::to_string(inv.timeoutSeconds) + (inv.temporary ? " --temp" : "") +
                       (inv.abort ? " --abort" : "") + (inv.numeric ? " --numeric" : "") +
                       (inv.php ? " --php" : "") + (inv.file ? " " + std::string(inv.file) : "") +
                       (inv.json ? " --json" : "") + (inv.verbose ? " -v" : "");
    for (const cfgctl::Parameter& p : inv.parameters)
        text += " " + std::to_string(p.f1) + "." + std::to_string(p.f2) + "." +
                std::to_string(p.f3) + (p.value != nullptr ? "=" + std::string(p.value) : "");
    return text;
}

TEST(CfgctlArguments, RefusesWhatCannotBeSentAndGroupsTheOperands) {
    // Command words and numbers that cannot be sent; options out of place, unknown names and
    // operands that do not fit the command; --json for the commands whose outcome the web front
    // end does not read, -v for any but apply; --version behind the command word, an operand.
    for (const char* line :
         {"", "-l", "--verbose get 0 2 0", "put 0 2 0", "get", "get 0 2 0 1", "get 0 256 0",
          "get 0 -1 0", "get 0x1 2 0", "set 0 4 0", "--temp get 0 2 0", "get --version"})
        EXPECT_EQ(understood(line), "refused") << line;
    for (const char* line :
         {"-t 0 get 0 2 0", "-t 5s get 0 2 0", "get can1.baudrate", "set can1.bitrate",
          "set lan0.mac x", "get host.user_name", "dump --php", "apply", "apply a b", "names x",
          "--temp dump", "--json names", "-v set 0 2 0 x", "set --json 0"})
        EXPECT_EQ(understood(line), "refused") << line;
    // Behind the command word "-5" is a value, not an option; a value may be empty.
    EXPECT_EQ(understood("-l /run/lock --temp --abort -t 9 set 4 1 3 -5 255 0 255  7 8 9 x"),
              "set -l /run/lock -t 9 --temp --abort 4.1.3=-5 255.0.255= 7.8.9=x");
    // Names and numbers mix; a route's "no filters" is written as the empty list.
    EXPECT_EQ(understood("get can1.bitrate 0 2 0 filter32.term"),
              "get -l - -t 0 4.2.2 0.2.0 9.32.2");
    EXPECT_EQ(understood("set route8.filters -1 can0.bitrate 250000 4 1 2 -1"),
              "set -l - -t 0 5.8.33= 4.1.2=250000 4.1.2=-1");
    EXPECT_EQ(understood("dump --numeric"), "dump -l - -t 0 --numeric");
    EXPECT_EQ(understood("--temp apply -"), "apply -l - -t 0 --temp -");
    EXPECT_EQ(understood("--json -v apply f"), "apply -l - -t 0 f --json -v");
    EXPECT_EQ(understood("--json get 0 2 0"), "get -l - -t 0 --json 0.2.0");
    for (const char* line : {"--version", "-V", "-l /run/lock --version get 0 2 0"})
        EXPECT_TRUE(understood(line).starts_with("version ")) << line;
}

TEST(CfgctlNames, SuggestCloseOnesForAnUnknownName) {
    const std::tuple<const char*, std::vector<std::string>> cases[] = {
        {"can1.baudrate", {"can1.bitrate"}},
        {"CAN1.Bitrate", {"can1.bitrate", "can0.bitrate"}},
        {"route9.name", {"route1.name", "route2.name", "route3.name"}},
        {"nothing.like.it", {}},
    };
    for (const auto& [name, expected] : cases)
        EXPECT_EQ(cfgctl::closeMatches(name, expected.size()), expected) << name;
}

TEST(CfgctlApply, ReadsTheLinesAndWritesWhatDiffersWithWhatMustFollow) {
    // Lines 1 to 13.
    const char* text =
        "# a dump's refused read\ngeneral.description = A = B  \r\n\nroute2.state = 0\n"
        "route2.name = bench\ncan0.bit_timing = BRP 3\ncan0.bitrate = 250000\n"
        "general.order_number = X\n4 2 2 =\nroute2.fpp = 8\nroute2.filters = -1\n"
        "  can0.listen_only=1\n9 9 9 = raw\n";
    cfgctl::ApplyFile file;
    char error[cfgctl::kErrorSize];
    ASSERT_TRUE(cfgctl::parseApplyText(text, file, error, sizeof error)) << error;
    ASSERT_EQ(file.readOnly.size(), 1u);
    EXPECT_EQ(file.readOnly[0].line, 8u);
    std::vector<std::string> lines;
    for (const cfgctl::ApplyLine& l : file.writes)
        lines.push_back(std::to_string(l.line) + " " + l.param.name + "=" + l.value);
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "2 general.description=A = B  ", "4 route2.state=0", "5 route2.name=bench",
                         "6 can0.bit_timing=BRP 3", "7 can0.bitrate=250000",
                         "9 can1.bitrate=", "10 route2.fpp=8", "11 route2.filters=-1",
                         "12 can0.listen_only=1", "13 =raw"}));

    // What the daemon holds: equal values are left out, unless they follow a written one.
    const std::vector<std::optional<std::string>> current = {
        "A = B  ", "0", "bench", "BRP 1", "250000", std::nullopt, "15", "-1", "1", "raw"};
    std::vector<unsigned> written;
    for (std::size_t i : cfgctl::planWrites(file.writes, current))
        written.push_back(file.writes[i].line);
    EXPECT_EQ(written, (std::vector<unsigned>{6, 7, 9, 10, 4}));

    EXPECT_FALSE(cfgctl::parseApplyText("\nroute2.nmae = x\n", file, error, sizeof error));
    EXPECT_STREQ(error, "2: unknown parameter name \"route2.nmae\"; close: route2.name");
    EXPECT_FALSE(cfgctl::parseApplyText("can0.bitrate 5\n", file, error, sizeof error));
    EXPECT_STREQ(error, "1: expected NAME = VALUE");
}

TEST(CfgctlJson, EscapesEveryByteSoThatTheTextReadsBack) {
    const std::tuple<std::string, std::string> cases[] = {
        {"plain = text", "\"plain = text\""},
        {"a\"b\\c/", "\"a\\\"b\\\\c/\""},
        {"\n\r\t", "\"\\n\\r\\t\""},
        {std::string("\0\x01\x1f\x7f", 4), "\"\\u0000\\u0001\\u001f\\u007f\""},
        {"gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80",
         "\"gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80\""},
        // Not UTF-8: a lone byte, a cut sequence, an overlong form, a surrogate.
        {"\xe9t\xc3", "\"\\u00e9t\\u00c3\""},
        {"\xc0\xaf\xed\xa0\x80", "\"\\u00c0\\u00af\\u00ed\\u00a0\\u0080\""},
    };
    for (const auto& [text, json] : cases)
        EXPECT_EQ(cfgctl::jsonString(text), json) << text;
}

TEST(CfgctlJson, ReportsTrialRefusalAndCounts) {
    Param rate{};
    ASSERT_TRUE(findParam("can1.bitrate", rate));
    cfgctl::Report report;
    cfgctl::TrialRecord trial;
    trial.deadline = 100;
    trial.entries = {{rate, "500000", "250000"}, {Param{}, std::nullopt, {}}};
    report.setTrial(trial, 7);
    report.refuse({rate, "4 2 2", "4999", "too \"low\"", 3});
    report.refuse({std::nullopt, "FINISH_SESSION", std::nullopt, "later"});
    report.counts = {{"written", 1}, {"read_only", 2}};
    EXPECT_EQ(
        cfgctl::reportJson(cfgctl::kExitTrialPending, report),
        "{\"status\":\"trial_pending\",\"exit\":5,\"trial\":{\"seconds_left\":7,\"deadline\":100,"
        "\"params\":[{\"name\":\"can1.bitrate\",\"address\":[4,2,2],\"old\":\"500000\",\"new\":"
        "\"250000\"},{\"name\":null,\"address\":[0,0,0],\"old\":null,\"new\":null}]},"
        "\"refusal\":{\"param\":{\"name\":\"can1.bitrate\",\"address\":[4,2,2],\"as_written\":"
        "\"4 2 2\"},\"value\":\"4999\",\"text\":\"too \\\"low\\\"\",\"line\":3},"
        "\"counts\":{\"written\":1,\"read_only\":2}}");
    EXPECT_EQ(cfgctl::reportJson(cfgctl::kExitNoTrial, {}), "{\"status\":\"no_trial\",\"exit\":6}");
    cfgctl::Report busy;
    busy.unreachable = "busy";
    EXPECT_EQ(cfgctl::reportJson(cfgctl::kExitNoDaemon, busy),
              "{\"status\":\"not_reachable\",\"exit\":3,\"unreachable\":\"busy\"}");
}

TEST(CfgctlJson, ReportsValuesAndRefusedNames) {
    Param rate{}, order{};
    ASSERT_TRUE(findParam("can1.bitrate", rate));
    ASSERT_TRUE(findParam("general.order_number", order));
    cfgctl::Report report;
    report.hasValues = true;
    report.values = {{rate, "a;b\n", {}}, {order, std::nullopt, "no"}};
    EXPECT_EQ(cfgctl::reportJson(cfgctl::kExitRefused, report),
              "{\"status\":\"refused\",\"exit\":1,\"values\":[{\"name\":\"can1.bitrate\","
              "\"address\":[4,2,2],\"access\":\"rw\",\"follows\":true,\"value\":\"a;b\\n\"},"
              "{\"name\":\"general.order_number\",\"address\":[0,2,0],\"access\":\"r\","
              "\"follows\":false,\"value\":null,\"refused\":\"no\"}]}");
    // What a program needs to say why a name was refused: its close matches, or its access.
    const std::tuple<const char*, const char*> lines[] = {
        {"--json get can1.baudrate",
         "\"name\":\"can1.baudrate\",\"access\":null,"
         "\"close\":[\"can1.bitrate\"]"},
        {"--json set lan0.mac x", "\"name\":\"lan0.mac\",\"access\":\"live\",\"close\":[]"},
        {"--json get host.user_name", "\"name\":\"host.user_name\",\"access\":\"w\""}};
    for (const auto& [line, part] : lines) {
        std::string words = std::string("cfgctl ") + line;
        std::vector<const char*> argv;
        for (char* rest = words.data(); rest != nullptr;)
            argv.push_back(strsep(&rest, " "));
        cfgctl::Invocation inv;
        char error[cfgctl::kErrorSize];
        ASSERT_FALSE(cfgctl::parseArguments(static_cast<int>(argv.size()), argv.data(), inv, error,
                                            sizeof error));
        EXPECT_NE(cfgctl::nameErrorJson(inv.nameProblem).find(part), std::string::npos) << line;
    }
}

}  // namespace
