#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "core/daemon.h"
#include "core/options.h"
#include "fake_system.h"

namespace {

// The texts' exact wording is checked end to end; here the right one has to begin the output.
TEST(Options, StatusesTextsAndValues) {
    const std::string p127 = "/" + std::string(126, 'p'), p128 = p127 + "p";
    const std::string usage = "\nUsage: cfgd [", tooLarge = "filename to large (max. 127)\n";
    const std::string version = "1.5.5\nbuild for: GWMD-310275 at Jan 25 2017 13:37:14\n";
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{}, kContinue, ""},
        {{"-f", "/a.ini", "-f", p127, "-l", "/l", "-q", "255", "-s", "0"}, kContinue, ""},
        {{"-f", p128}, -1, tooLarge},
        {{"-l", p128}, -1, tooLarge},
        {{"-q", "256"}, -1, usage},
        {{"-s", "-1"}, -1, usage},
        {{"-v", "-q", "256"}, 2, version},
        {{"-q", "256", "-v"}, -1, usage},
        {{"-x"}, 2, usage},
    };
    for (auto [args, status, printed] : cases) {
        args.insert(args.begin(), "/usr/sbin/cfgd");
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        char* text = nullptr;
        std::size_t size = 0;
        std::FILE* out = open_memstream(&text, &size);
        Options o{};
        EXPECT_EQ(parseOptions(static_cast<int>(argv.size()), argv.data(), o, out), status);
        std::fclose(out);
        EXPECT_EQ(std::string(text, size).substr(0, printed.size()), printed) << args[1];
        EXPECT_EQ(size == 0, printed.empty()) << args[1];
        std::free(text);
        if (args.size() == 1) {
            EXPECT_STREQ(o.configPath, "/mnt/user/kiv_config.ini");
            EXPECT_STREQ(o.lockPath, "/tmp/kiv_lock");
            EXPECT_EQ(o.queueKey, kNoKey);
            EXPECT_EQ(o.semaphoreKey, kNoKey);
        } else if (status == kContinue) {
            EXPECT_EQ(o.configPath, p127);  // the later -f replaces the earlier
            EXPECT_STREQ(o.lockPath, "/l");
            EXPECT_EQ(o.queueKey, 255);
            EXPECT_EQ(o.semaphoreKey, 0);
        }
    }
}

class LockFile : public SeamTest {};

TEST_F(LockFile, HoldsKeysAndProcessIdAndReplacesAnOldOne) {
    fake.writeFile("/tmp/kiv_lock", "a much longer line left by an earlier daemon\n");
    ASSERT_EQ(writeLockFile("/tmp/kiv_lock", 5, 6, 4242), 0);
    EXPECT_EQ(fake.readFile("/tmp/kiv_lock"), "5, 6, 4242\n");
    EXPECT_EQ(writeLockFile("/tmp", 5, 6, 4242), -1);  // a directory cannot be the lock file
}

}  // namespace
