// The clients on the simulated device: cfgctl's dump of a daemon with every route and filter in
// use, applied to a daemon with the defaults, and the session lock that cfgctl and the PHP
// library share.

#include "client.h"
#include "harness.h"

namespace e2e {
namespace {

TEST(Clients, DumpOfAFullDeviceAppliedToADefaultOneGivesItsValues) {
    Daemon full(31, 32, Daemon::fullFile());
    // Dumped before the second daemon starts: both set the one eth0 and host name there are.
    const std::string dump = ran(full, {"dump"});
    std::map<std::string, std::string> before = lines(dump);
    const std::map<std::string, std::string> access = accessByName(full);
    ASSERT_GT(access.size(), 400u);
    EXPECT_EQ(before.size(), access.size());
    for (const auto& [name, word] : access)  // the WLAN group is not served yet
        EXPECT_TRUE(name.starts_with("wlan") || before[name].starts_with(name + " = ")) << name;
    EXPECT_EQ(before.at("route4.filters"), "route4.filters = 13,14,15,16");  // the file's
    const std::string dumpFile = "/tmp/e2e-full.dump";
    std::ofstream(dumpFile) << dump;

    Daemon fresh(33, 34);
    EXPECT_EQ(lines(cfgctl(fresh, {"dump"}).output).at("filter5.term"),
              "# filter5.term refused: Can't find filter with index 5");
    const std::string applied = ran(fresh, {"apply", dumpFile});
    // Read-only lines are counted in the summary, and listed only with -v.
    EXPECT_EQ(applied.find("read only: skipped"), std::string::npos) << applied;
    EXPECT_TRUE(applied.ends_with(" read only\n")) << applied;
    EXPECT_NE(cfgctl(fresh, {"-v", "apply", dumpFile})
                  .output.find(dumpFile + ":1: general.sw_version is read only: skipped\n"),
              std::string::npos);
    std::map<std::string, std::string> after = lines(cfgctl(fresh, {"dump"}).output);
    // Identity and live values aside, the same lines; of the values that only the file sets,
    // a route's retries and a CAN interface's sample point, requests leave the defaults.
    for (const auto& [name, word] : access) {
        if (word == "live" || name.ends_with(".retry_delay") || name.ends_with(".retry_count") ||
            name.ends_with(".sample_point"))
            continue;
        EXPECT_EQ(after[name], before[name]);
    }

    // A file with one bad value changes nothing (the daemon holds the values it held, so it
    // cannot have stored any either), and names its line.
    const std::string badFile = "/tmp/e2e-bad.apply";
    std::ofstream(badFile) << "general.description = changed\n"
                              "can0.bitrate = 4999\n"
                              "gui.show_device = 0\n";
    const std::string line2 = "cfgctl: " + badFile + ":2: can0.bitrate = 4999: ";
    // arguments, the output's beginning; a set names the parameter as written
    const std::pair<std::vector<std::string>, std::string> refusals[] = {
        {{"apply", badFile}, line2},
        {{"apply", "--trial", "5", badFile}, line2},
        {{"set", "4", "1", "2", "4999"}, "cfgctl: set 4 1 2: baud rate"},
        {{"set", "can0.bitrate", "4999"}, "cfgctl: set can0.bitrate: baud rate"}};
    for (const auto& [arguments, output] : refusals) {
        const Outcome refused = cfgctl(fresh, arguments);
        EXPECT_EQ(refused.status, 1) << output;
        EXPECT_TRUE(refused.output.starts_with(output)) << refused.output;
    }
    std::map<std::string, std::string> unchanged = lines(cfgctl(fresh, {"dump"}).output);
    for (const char* name : {"general.description", "can0.bitrate", "gui.show_device"})
        EXPECT_EQ(unchanged[name], after[name]);
}

// PHP's sem_get resets the session lock when it finds no other user of the semaphore set: a
// cfgctl session must count as one, or a PHP client would start a session beside it.
TEST(Clients, PhpLibraryWaitsForASessionThatCfgctlsClientHolds) {
    Daemon d(35, 36);
    const std::string script = "require '" + sandbox("CFGD_SANDBOX_REPO") +
                               "/clients/php/cfgd.php'; try { $s = new Cfgd\\Session('" + d.lock +
                               "', 1); $s->start(0); $s->finish(); } catch (Cfgd\\Busy $e) "
                               "{ exit(7); }";
    client::Connection cfgd;
    ASSERT_EQ(cfgd.open(d.lock.c_str()), client::Status::Ok);
    RequestMessage answer;
    ASSERT_EQ(cfgd.startSession(0, answer), client::Status::Ok);
    Process waiting("/usr/bin/php", {"-r", script});
    EXPECT_EQ(waiting.wait(kStartMs), 7) << waiting.output();
    ASSERT_EQ(cfgd.exchange(FINISH_SESSION, 0, 0, 0, nullptr, answer), client::Status::Ok);
    cfgd.endSession();
    Process after("/usr/bin/php", {"-r", script});
    EXPECT_EQ(after.wait(kStartMs), 0) << after.output();
}

}  // namespace
}  // namespace e2e
