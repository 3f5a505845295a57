// The real daemon, driven over a real System V message queue inside the sandbox, where its
// commands only reach logging stubs and its files land on private mounts.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "harness.h"

namespace e2e {
namespace {

constexpr int kStartMs = 20000;  // start-up runs every apply; sanitizer builds are slow
constexpr int kAnswerMs = 5000;  // an answer that is due
constexpr int kSilenceMs = 300;  // how long an answer that must not come is waited for
constexpr const char* kWorkDir = "/tmp/e2e";
constexpr const char* kUbootEnv = "/tmp/uboot_env";

enum : unsigned {
    kStart = 0,
    kRead = 1,
    kSet = 2,
    kPositive = 3,
    kNegative = 4,
    kFinish = 5,
    kAbort = 6,
};
constexpr unsigned kCanGroup = 4;
constexpr unsigned kBitRate = 2;

const std::string kUsage =
    "\nUsage: cfgd [-f IniFile] [-l lockFile] [-s semKey] [-q queueKey]\n"
    "\t\t -f\t Ini file to use (default /etc/kiv_config.ini)\n"
    "\t\t -l\t Lock file to use (default /tmp/kiv_lock)\n"
    "\t\t -s\t IPC key for semaphore \n"
    "\t\t -s\t 0 < semKey < 255, if no number is specified ftoc(iniFile, 1) is used to create "
    "one\n"
    "\t\t -q\t IPC key for queue \n"
    "\t\t -q\t 0 < queueKey < 255, if no number is specified ftoc(iniFile, 2) is used to create "
    "one\n";

// A path of exactly `length` characters in the work directory.
std::string pathOfLength(std::size_t length) {
    std::string path = std::string(kWorkDir) + "/";
    path += std::string(length - path.size() - 4, 'p') + ".ini";
    return path;
}

// The value of "key=" in the boot loader's environment file.
std::string ubootValue(const std::string& key) {
    const std::string content = readFile(kUbootEnv).value_or("");
    const std::size_t at = content.find(key + "=");
    if (at == std::string::npos) return "";
    const std::size_t begin = at + key.size() + 1;
    return content.substr(begin, content.find('\n', begin) - begin);
}

TEST(CommandLine, EndsWithItsTextAndStatus) {
    const std::string version = "1.5.5\nbuild for: GWMD-310275 at Jan 25 2017 13:37:14\n";
    const std::string tooLong = "filename to large (max. 127)\n";
    struct Case {
        std::vector<std::string> arguments;
        int status;
        std::string output;
    } cases[] = {
        {{"-v"}, 2, version},
        {{"-v", "-q", "256"}, 2, version},
        {{"-f", pathOfLength(128)}, 255, tooLong},
        {{"-l", pathOfLength(128)}, 255, tooLong},
        {{"-q", "256"}, 255, kUsage},
        {{"-s", "-1"}, 255, kUsage},
    };
    for (const Case& c : cases) {
        Process daemon(daemonPath(), c.arguments);
        ASSERT_TRUE(daemon.started());
        ASSERT_TRUE(daemon.waitForExit(kStartMs)) << "still running: " << c.arguments[0];
        const std::string call = c.arguments.front() + " " + c.arguments.back();
        EXPECT_EQ(daemon.exitStatus(), c.status) << call << "\n" << daemon.errors();
        EXPECT_EQ(daemon.output(), c.output) << call;
    }
}

// Each test starts its own daemon, with keys, lock file and configuration file of its own.
class Daemon : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { (void)mkdir(kWorkDir, 0755); }  // may exist already

    void start(int semaphoreKey, int queueKey, const std::string& configPath = "") {
        const int n = ++started_;
        lockPath_ = std::string(kWorkDir) + "/lock-" + std::to_string(n);
        const std::string config =
            configPath.empty() ? std::string(kWorkDir) + "/config-" + std::to_string(n) + ".ini"
                               : configPath;
        daemon_ = std::make_unique<Process>(
            daemonPath(),
            std::vector<std::string>{"-s", std::to_string(semaphoreKey), "-q",
                                     std::to_string(queueKey), "-l", lockPath_, "-f", config});
        ASSERT_TRUE(daemon_->started()) << daemonPath();
        const std::optional<std::string> line = waitForLine(lockPath_, kStartMs);
        ASSERT_TRUE(line) << "no lock file; output: " << daemon_->output() << daemon_->errors();
        lockLine_ = *line;
        const int id = msgget(queueKey, 0);
        ASSERT_GE(id, 0) << "no queue with key " << queueKey;
        queue_ = std::make_unique<Queue>(id);
    }

    // Starts with the next free pair of keys.
    void start() {
        const int key = nextKey_;
        nextKey_ += 2;
        start(key, key + 1);
    }

    // Sends a request and returns the answer that arrives for `answerType`.
    std::string ask(const std::string& text, long answerType) {
        EXPECT_TRUE(queue_->send(text)) << text;
        return queue_->receive(answerType, kAnswerMs).value_or("(no answer)");
    }

    Queue& queue() { return *queue_; }
    Process& daemon() { return *daemon_; }
    const std::string& lockPath() const { return lockPath_; }
    const std::string& lockLine() const { return lockLine_; }

  private:
    static inline int started_ = 0;
    static inline int nextKey_ = 20;
    std::unique_ptr<Process> daemon_;
    std::unique_ptr<Queue> queue_;
    std::string lockPath_;
    std::string lockLine_;
};

TEST_F(Daemon, AcceptsConfigurationPathOf127Characters) {
    const std::string path = pathOfLength(127);
    ASSERT_NO_FATAL_FAILURE(start(18, 19, path));
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << "the daemon makes sure its file exists";
    EXPECT_EQ(daemon().output().find("filename to large"), std::string::npos);
}

TEST_F(Daemon, LockFileHoldsKeysAndProcessId) {
    ASSERT_NO_FATAL_FAILURE(start(5, 6));
    EXPECT_EQ(lockLine(), "5, 6, " + std::to_string(daemon().pid()) + "\n");
}

TEST_F(Daemon, AnswersSessionStartAndReadOfUnknownGroup) {
    ASSERT_NO_FATAL_FAILURE(start());
    EXPECT_EQ(ask(request(kStart, 33, 7, 2), 33), answer(kPositive, 1, 7, 2, ""));
    EXPECT_EQ(ask(request(kRead, 12, 3, 4), 33), answer(kPositive, 12, 3, 4, ""));
}

TEST_F(Daemon, DropsMalformedRequestAndServesTheNext) {
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_EQ(ask(request(kStart, 34, 0, 0), 34), answer(kPositive, 1, 0, 0, ""));
    ASSERT_TRUE(queue().send(request(kRead, 12, 256, 0)));
    EXPECT_FALSE(queue().receive(34, kSilenceMs));
    EXPECT_EQ(ask(request(kRead, 12, 255, 0), 34), answer(kPositive, 12, 255, 0, ""));
}

TEST_F(Daemon, AnswersOverlongRequestWithError) {
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_EQ(ask(request(kStart, 21, 0, 0), 21), answer(kPositive, 1, 0, 0, ""));
    EXPECT_EQ(ask(request(kSet, 0, 4, 0, std::string(540, 'x')), 21),
              answer(kNegative, 0, 0, 0, "ERROR: Argument list too long!"));
    EXPECT_EQ(ask(request(kRead, 12, 0, 0), 21), answer(kPositive, 12, 0, 0, ""));
}

TEST_F(Daemon, DiscardsMessagesLeftBeforeStart) {
    const int queueKey = 17;
    const int id = msgget(queueKey, IPC_CREAT | 0666);
    ASSERT_GE(id, 0);
    Queue early(id);
    ASSERT_TRUE(early.send(request(kStart, 40, 0, 0)));
    ASSERT_TRUE(early.send(request(kRead, 12, 0, 0)));
    ASSERT_TRUE(early.send("stale", 9));
    ASSERT_NO_FATAL_FAILURE(start(16, queueKey));
    EXPECT_EQ(queue().messageCount(), 0u);
    EXPECT_FALSE(queue().receive(40, kSilenceMs)) << "a stale request was served";
}

TEST_F(Daemon, TerminationRemovesQueueSemaphoresAndLockFile) {
    ASSERT_NO_FATAL_FAILURE(start(14, 15));
    const int semaphores = semget(14, 0, 0);
    ASSERT_GE(semaphores, 0);
    daemon().signal(SIGTERM);
    ASSERT_TRUE(daemon().waitForExit(kStartMs));
    EXPECT_EQ(daemon().exitStatus(), 255);
    msqid_ds queueStatus{};
    EXPECT_EQ(msgctl(queue().id(), IPC_STAT, &queueStatus), -1);
    semid_ds semaphoreStatus{};
    EXPECT_EQ(semctl(semaphores, 0, IPC_STAT, &semaphoreStatus), -1);
    EXPECT_NE(access(lockPath().c_str(), F_OK), 0);
}

TEST_F(Daemon, ClientReadsOrderNumber) {
    const std::string orderNumber = ubootValue("Ordernr");
    ASSERT_NE(orderNumber, "");
    ASSERT_NE(orderNumber, "GWMD-310275") << "the sample must differ from the built-in default";
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_EQ(access(clientPath(), X_OK), 0) << "no client built at " << clientPath();
    Process client(clientPath(), {"-l", lockPath(), "get", "0", "2", "0"});
    ASSERT_TRUE(client.waitForExit(kAnswerMs));
    EXPECT_EQ(client.exitStatus(), 0) << client.errors();
    EXPECT_EQ(client.output(), orderNumber + "\n");
}

TEST_F(Daemon, CanBitRateWriteReconfiguresTheInterface) {
    ASSERT_NO_FATAL_FAILURE(start());
    const CommandLog log;
    const std::size_t before = log.size();
    ASSERT_EQ(ask(request(kStart, 50, 0, 1), 50), answer(kPositive, 1, 0, 1, ""));
    ASSERT_EQ(ask(request(kSet, kCanGroup, 1, kBitRate, "250000"), 50),
              answer(kPositive, kCanGroup, 1, kBitRate, ""));
    ASSERT_EQ(ask(request(kFinish, 0, 0, 0), 50), answer(kPositive, 0, 0, 0, ""));
    // The log holds each command as its program received it: the shell's word splitting has
    // taken the blank at the end of the daemon's "... berr-reporting off " command.
    const std::vector<std::string> expected = {
        "ip link set can0 down",
        "ip link set can0 type can bitrate 250000 sample-point 0.800 listen-only on loopback off "
        "triple-sampling off one-shot off berr-reporting off",
        "ip link set can0 up",
    };
    EXPECT_EQ(log.linesSince(before), expected);
}

TEST_F(Daemon, CanBitRateOutsideLimitsIsRefused) {
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_EQ(ask(request(kStart, 51, 0, 5), 51), answer(kPositive, 1, 0, 5, ""));
    struct Case {
        const char* rate;
        const char* text;
    } cases[] = {
        {"4999", "baud rate not changed! min. baud rate is 1000000!"},
        {"1000001", "baud rate not changed! max. baud rate is 1000000!"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ask(request(kSet, kCanGroup, 1, kBitRate, c.rate), 51),
                  answer(kNegative, kCanGroup, 1, kBitRate, c.text))
            << c.rate;
    }
    EXPECT_EQ(ask(request(kAbort, 0, 0, 0), 51), answer(kPositive, 0, 0, 0, ""));
}

}  // namespace
}  // namespace e2e

int main(int argc, char** argv) {
    std::string why;
    if (!e2e::insideSandbox(why)) {
        std::fprintf(stderr,
                     "%s: runs only inside the sandbox (%s); run it as\n"
                     "  sandbox/sandbox.sh test %s\n",
                     argv[0], why.c_str(), argv[0]);
        return 2;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
