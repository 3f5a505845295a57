#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "core/daemon.h"
#include "core/options.h"
#include "fake_system.h"

namespace {

struct Outcome {
    int status;
    std::string printed;
    Options options;
};

Outcome parse(std::vector<std::string> args) {
    args.insert(args.begin(), "/usr/sbin/cfgd");
    std::vector<char*> argv;
    for (auto& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    char* buffer = nullptr;
    std::size_t size = 0;
    std::FILE* out = open_memstream(&buffer, &size);
    Outcome o{};
    o.status = parseOptions(static_cast<int>(args.size()), argv.data(), o.options, out);
    std::fclose(out);
    o.printed.assign(buffer, size);
    std::free(buffer);
    return o;
}

// The usage text's exact wording is checked end to end; here it only has to be the one printed.
const std::string kUsage = "\nUsage: cfgd [-f IniFile] [-l lockFile] [-s semKey] [-q queueKey]\n";

TEST(Options, DefaultsWithoutArguments) {
    Outcome o = parse({});
    EXPECT_EQ(o.status, kContinue);
    EXPECT_STREQ(o.options.configPath, "/mnt/user/kiv_config.ini");
    EXPECT_STREQ(o.options.lockPath, "/tmp/kiv_lock");
    EXPECT_EQ(o.options.queueKey, kNoKey);
    EXPECT_EQ(o.options.semaphoreKey, kNoKey);
}

TEST(Options, ExitStatusesAndTexts) {
    const std::string path127 = "/" + std::string(126, 'p');
    const std::string path128 = path127 + "p";
    const std::string tooLarge = "filename to large (max. 127)\n";
    const std::string version = "1.5.5\nbuild for: GWMD-310275 at Jan 25 2017 13:37:14\n";
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string printed;
    } cases[] = {
        {{"-f", path127}, kContinue, ""},
        {{"-f", path128}, -1, tooLarge},
        {{"-l", path128}, -1, tooLarge},
        {{"-q", "255", "-s", "0"}, kContinue, ""},
        {{"-q", "256"}, -1, kUsage},
        {{"-s", "-1"}, -1, kUsage},
        {{"-v", "-q", "256"}, 2, version},
        {{"-q", "256", "-v"}, -1, kUsage},
        {{"-x"}, 2, kUsage},
    };
    for (const Case& c : cases) {
        Outcome o = parse(c.args);
        EXPECT_EQ(o.status, c.status) << c.args[0];
        EXPECT_EQ(o.printed.substr(0, c.printed.size()), c.printed) << c.args[0];
        EXPECT_EQ(o.printed.empty(), c.printed.empty()) << c.args[0];
    }
}

TEST(Options, LaterPathReplacesEarlierAndKeysAreTaken) {
    Outcome o = parse({"-f", "/a.ini", "-l", "/l", "-f", "/b.ini", "-s", "5", "-q", "6"});
    EXPECT_EQ(o.status, kContinue);
    EXPECT_STREQ(o.options.configPath, "/b.ini");
    EXPECT_STREQ(o.options.lockPath, "/l");
    EXPECT_EQ(o.options.semaphoreKey, 5);
    EXPECT_EQ(o.options.queueKey, 6);
}

class LockFile : public SeamTest {};

TEST_F(LockFile, HoldsKeysAndProcessIdAndReplacesAnOldOne) {
    fake.writeFile("/tmp/kiv_lock", "a much longer line left by an earlier daemon\n");
    ASSERT_EQ(writeLockFile("/tmp/kiv_lock", 5, 6, 4242), 0);
    EXPECT_EQ(fake.readFile("/tmp/kiv_lock"), "5, 6, 4242\n");
    EXPECT_EQ(writeLockFile("/tmp", 5, 6, 4242), -1);  // a directory cannot be the lock file
}

}  // namespace
