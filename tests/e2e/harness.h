#pragma once
// What the end-to-end tests need to drive the real programs: starting them, talking over the
// daemon's message queue as a client does, and reading the sandbox's command log.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "soak_session.h"

extern char** environ;

namespace e2e {

constexpr int kStartMs = 20000;  // start-up runs every apply; sanitizer builds are slow
constexpr int kAnswerMs = 5000;  // an answer, or a command, that is due

// Calls `done` every few milliseconds until it returns true; false once `timeoutMs` passed.
inline bool poll(const std::function<bool()>& done, int timeoutMs) {
    for (int waited = 0; !done(); waited += 2) {
        if (waited >= timeoutMs) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// A path the sandbox gives in the environment variable `name`; empty outside.
inline std::string sandbox(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// The whole content of a file; empty when it cannot be read.
inline std::string readFile(const std::string& path) {
    return (std::ostringstream() << std::ifstream(path, std::ios::binary).rdbuf()).str();
}

// A started program; its standard output and error go to one file of its own (or its standard
// output to the descriptor `output`). It leads a process group of its own, so that a test can
// end it together with the programs it runs.
class Process {
  public:
    Process(const std::string& program, std::vector<std::string> arguments, int output = -1)
        : outputPath_("/tmp/e2e-" + std::to_string(getpid()) + "-" + std::to_string(++count_)) {
        arguments.insert(arguments.begin(), program);
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, outputPath_.c_str(), O_WRONLY | O_CREAT,
                                         0644);
        posix_spawn_file_actions_adddup2(&actions, output >= 0 ? output : 2, 1);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);  // group 0: its own
        if (posix_spawn(&pid_, program.c_str(), &actions, &attributes, argv.data(), environ) != 0)
            ended_ = true;  // never started: nothing to wait for
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Process() {
        // Ended as the daemon is meant to end, so that it removes its lock file and IPC objects.
        if (!ended_) (void)kill(pid_, SIGTERM);  // it may have just ended
        if (wait(5000) < 0 && !ended_ && kill(pid_, SIGKILL) == 0) (void)waitpid(pid_, nullptr, 0);
        (void)unlink(outputPath_.c_str());  // only this process's scratch
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }
    std::string output() const { return readFile(outputPath_); }
    // Exit status (0..255) once it has exited, waiting at most `timeoutMs`; -1 otherwise.
    int wait(int timeoutMs) {
        (void)poll(  // the status below tells
            [this] { return ended_ || (ended_ = waitpid(pid_, &waitStatus_, WNOHANG) == pid_); },
            timeoutMs);
        return ended_ && WIFEXITED(waitStatus_) ? WEXITSTATUS(waitStatus_) : -1;
    }

  private:
    pid_t pid_ = -1;
    bool ended_ = false;
    int waitStatus_ = -1;  // not an exit status until reaped
    std::string outputPath_;
    static inline int count_ = 0;
};

// The head of a configuration file as the daemon writes it.
constexpr const char* kFileHead =
    "#########################################\n# KIV configuration file\n"
    "# Format version 1.3.1\n#########################################\n";

// A message text: four elements, five with a value. Clients send a value with its terminator
// (text(..., value + '\0')), so that no tail of a longer one before it stays behind; answers
// carry it without.
inline std::string text(unsigned mt, unsigned f1, unsigned f2, unsigned f3,
                        const std::optional<std::string>& da = std::nullopt) {
    char head[128];
    std::snprintf(head, sizeof head,
                  "a:%d:{s:2:\"mt\";i:%u;s:2:\"f1\";i:%u;s:2:\"f2\";i:%u;s:2:\"f3\";i:%u;",
                  da ? 5 : 4, mt, f1, f2, f3);
    std::string text = head;
    if (da) text += "s:2:\"da\";s:" + std::to_string(da->size()) + ":\"" + *da + "\";";
    return text + "}";
}
// The positive answer to a request at f1 f2 f3 (a START_SESSION's has f1 1).
inline std::string ok(unsigned f1, unsigned f2, unsigned f3, const std::string& da = "") {
    return text(POS_ANSW, f1, f2, f3, da);
}

// Puts `text` on the daemon's queue `id` as a client does (requests go as type 1); any size
// up to the system's limit for one message.
inline bool send(int id, const std::string& text, long type = 1) {
    std::vector<char> message(sizeof type + text.size());
    std::memcpy(message.data(), &type, sizeof type);
    std::memcpy(message.data() + sizeof type, text.data(), text.size());
    return msgsnd(id, message.data(), text.size(), IPC_NOWAIT) == 0;
}
// The next message of `type` on queue `id`, polled for at most `timeoutMs`.
inline std::optional<std::string> receive(int id, long type, int timeoutMs) {
    QueueMessage message;
    ssize_t length = -1;
    (void)poll(  // the length below tells
        [&] {
            length = msgrcv(id, &message, sizeof message.text, type, IPC_NOWAIT);
            return length >= 0 || errno != ENOMSG;
        },
        timeoutMs);
    if (length < 0) return std::nullopt;
    return std::string(message.text, static_cast<std::size_t>(length));
}

// The sandbox's command log (the stubs record there the commands the daemon runs) from line
// `first` on; commands().size() marks where the next commands will begin. Without the lines of
// the helper the daemon leaves running in the background, which may land there at any time.
inline std::vector<std::string> commands(std::size_t first = 0) {
    std::istringstream in(readFile(sandbox("CFGD_SANDBOX_LOG")));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        if (!line.starts_with("canoipd ")) lines.push_back(line);
    lines.erase(lines.begin(), lines.begin() + std::min(first, lines.size()));
    return lines;
}

// Runs one of the sandbox's stubs (such as rmmod, which unloads the simulated gateway module)
// by its path inside the sandbox; its exit status, or -1.
inline int runStub(const std::string& name, const std::vector<std::string>& arguments) {
    Process stub(sandbox("CFGD_SANDBOX_BIN") + "/" + name, arguments);
    return stub.wait(kAnswerMs);
}

// A daemon with keys, lock file and configuration file of its own, up when constructed: by
// default on a fresh path with no file there (so the defaults); freshFile(content) writes one.
struct Daemon {
    Daemon(int semaphoreKey, int queueKey, const std::string& configuration = freshFile(""),
           const char* program = CFGD_E2E_DAEMON, int output = -1)
        : key(queueKey),
          lock("/tmp/e2e-lock-" + std::to_string(key)),
          staleLock(unlink(lock.c_str())),
          file(configuration),
          process(program,
                  {"-s", std::to_string(semaphoreKey), "-q", std::to_string(key), "-l", lock, "-f",
                   file},
                  output) {
        // Up once its lock file's line is written; a test goes on, and fails, without it.
        if (!poll([&] { return (line = readFile(lock)).ends_with('\n'); }, kStartMs))
            ADD_FAILURE() << "the daemon did not come up: " << process.output();
        queue = msgget(key, 0);  // made before the lock file is written
    }
    // The answer to `request` in the current session is `expected`.
    ::testing::AssertionResult answers(const std::string& request, const std::string& expected) {
        EXPECT_TRUE(send(queue, request)) << request;
        const std::string answer = receive(queue, session, kAnswerMs).value_or("(no answer)");
        if (answer == expected) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure()
               << request << "\n  answered " << answer << "\n  expected " << expected;
    }
    // The usual requests, each answered positively.
    ::testing::AssertionResult start(long id, unsigned f2 = 0, unsigned f3 = 0) {
        session = id;
        return answers(text(START_SESSION, id, f2, f3), ok(1, f2, f3));
    }
    ::testing::AssertionResult end() { return answers(text(FINISH_SESSION, 0, 0, 0), ok(0, 0, 0)); }
    ::testing::AssertionResult reads(unsigned f1, unsigned f2, unsigned f3, const char* value) {
        return answers(text(READ_PARAM, f1, f2, f3), ok(f1, f2, f3, value));
    }
    ::testing::AssertionResult sets(unsigned f1, unsigned f2, unsigned f3, const char* value,
                                    unsigned mt = SET_PARAM) {
        return answers(text(mt, f1, f2, f3, value), ok(f1, f2, f3));
    }

    static std::string freshFile(const std::string& content) {
        // In /mnt/user, as on the device: a store renames the file to the backup there, which
        // works only within one file system.
        const std::string path = "/mnt/user/e2e-" + std::to_string(++started) + ".ini";
        if (!content.empty()) std::ofstream(path) << content;
        // A daemon that finds its file missing puts the backup back, and the backup's path is
        // fixed: without this it would start on an earlier test's last store.
        if (content.empty()) (void)std::remove("/mnt/user/kiv_config.old");
        return path;
    }
    // A file with the benchmark's configuration: every route and every filter in use.
    static std::string fullFile() {
        return freshFile(readFile(sandbox(soak::kRepositoryVariable) + "/" + soak::kConfiguration));
    }

    static inline int started = 0;
    const int key;
    const std::string lock;
    const int staleLock;  // the file a killed daemon of the same key left, removed before start
    const std::string file;
    Process process;
    std::string line;  // the lock file's
    int queue = -1;
    long session = 1;
};

// cfgctl run against daemon `d`: its exit status and its output.
struct Outcome {
    int status;
    std::string output;  // standard output and error
};

inline Outcome cfgctl(const Daemon& d, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"-l", d.lock});
    Process client(CFGD_E2E_CLIENT, arguments);
    const int status = client.wait(kStartMs);
    return {status, client.output()};
}
// cfgctl's output; a test failure when it does not exit with `status`.
inline std::string ran(const Daemon& d, std::vector<std::string> arguments, int status = 0) {
    const Outcome outcome = cfgctl(d, std::move(arguments));
    EXPECT_EQ(outcome.status, status) << outcome.output;
    return outcome.output;
}

// A dump's lines by name: "name = value", or the comment of a refused read.
inline std::map<std::string, std::string> lines(const std::string& dump) {
    std::map<std::string, std::string> byName;
    std::istringstream in(dump);
    for (std::string line; std::getline(in, line);) {
        const std::size_t from = line.starts_with("# ") ? 2 : 0;
        byName[line.substr(from, line.find(from ? " refused" : " = ") - from)] = line;
    }
    return byName;
}

// The names that a dump shows, by access: "rw", "r", "live" (write-only ones are not read).
inline std::map<std::string, std::string> accessByName(const Daemon& d) {
    std::map<std::string, std::string> access;
    std::istringstream in(cfgctl(d, {"names"}).output);
    for (std::string name, f1, f2, f3, word; in >> name >> f1 >> f2 >> f3 >> word;)
        if (word != "w") access[name] = word;
    return access;
}

}  // namespace e2e
