#include <cstdio>

#include "core/daemon.h"
#include "core/options.h"
#include "fake_system.h"

namespace {

using CommandLine = SeamTest;

// The usage text's wording is the code's own table and is not repeated here; the right text has
// to begin the output. The version and the refusals of paths of 128 characters and keys out of
// range are checked end to end.
TEST_F(CommandLine, StatusesTextsAndValuesTheLockFileHoldsKeysAndProcessIdReplacingAnOldOne) {
    const std::string p127 = "/" + std::string(126, 'p'), usage = "\nUsage: cfgd [";
    // arguments, status, the output's beginning, then the path of the file, of the lock file, and
    // the keys of the queue and of the semaphore
    const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
        {{}, kContinue, "", "/mnt/user/kiv_config.ini /tmp/kiv_lock -1 -1"},
        // The later -f replaces the earlier.
        {{"-f", "/a.ini", "-f", p127, "-l", "/l", "-q", "255", "-s", "0"},
         kContinue,
         "",
         p127 + " /l 255 0"},
        {{"-q", "256", "-v"}, -1, usage, ""},
        {{"-x"}, 2, usage, ""},
    };
    for (auto [args, status, printed, values] : cases) {
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
        EXPECT_EQ(std::string(text, size).substr(0, printed.size()), printed) << args.back();
        EXPECT_EQ(size == 0, printed.empty()) << args.back();
        std::free(text);
        const std::string taken = std::string(o.configPath) + " " + o.lockPath + " " +
                                  std::to_string(o.queueKey) + " " + std::to_string(o.semaphoreKey);
        EXPECT_EQ(status == kContinue ? taken : "", values) << args.back();
    }

    fake.writeFile("/tmp/kiv_lock", "a much longer line left by an earlier daemon\n");
    ASSERT_EQ(writeLockFile("/tmp/kiv_lock", 5, 6, 4242), 0);
    EXPECT_EQ(fake.readFile("/tmp/kiv_lock"), "5, 6, 4242\n");
    EXPECT_EQ(writeLockFile("/tmp", 5, 6, 4242), -1);  // a directory cannot be the lock file
}

}  // namespace
