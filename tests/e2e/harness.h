#pragma once
// What the end-to-end tests need to drive the real daemon: starting programs, talking over its
// message queue as a client does, and reading the sandbox's command log.

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace e2e {

// The programs under test, as built (paths set by the build).
const char* daemonPath();
const char* clientPath();

// Whether this process runs inside sandbox/sandbox.sh; `why` says what is missing.
bool insideSandbox(std::string& why);

// A started program whose standard output and error go to files of their own.
class Process {
  public:
    Process(const std::string& program, const std::vector<std::string>& arguments);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool started() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    bool running();
    // Waits for the end, at most `timeoutMs`; false when it is still running.
    bool waitForExit(int timeoutMs);
    void signal(int number);
    // Exit status (0..255) once it has ended by exit; -1 otherwise.
    int exitStatus() const;
    std::string output() const;
    std::string errors() const;

  private:
    pid_t pid_ = -1;
    int waitStatus_ = 0;
    bool ended_ = false;
    std::string outputPath_;
    std::string errorPath_;
};

// The whole content of a file, or nothing when it cannot be read.
std::optional<std::string> readFile(const std::string& path);
// Polls `path` until it holds a complete line; nothing when `timeoutMs` passed first.
std::optional<std::string> waitForLine(const std::string& path, int timeoutMs);
void sleepMilliseconds(int milliseconds);

// Request texts as a client writes them: four elements without a value, five with one.
std::string request(unsigned mt, unsigned f1, unsigned f2, unsigned f3);
std::string request(unsigned mt, unsigned f1, unsigned f2, unsigned f3, const std::string& da);
// The answer text the daemon is expected to send.
std::string answer(unsigned mt, unsigned f1, unsigned f2, unsigned f3, const std::string& da);

// A client's end of the daemon's queue.
class Queue {
  public:
    explicit Queue(int id) : id_(id) {}
    int id() const { return id_; }
    bool send(const std::string& text, long type = 1);
    // The next message of `type`, polled for at most `timeoutMs`.
    std::optional<std::string> receive(long type, int timeoutMs);
    std::size_t messageCount();

  private:
    int id_;
};

// The sandbox's command log, where the stubs record the commands the daemon runs.
class CommandLog {
  public:
    CommandLog();
    std::size_t size() const;
    // The lines appended since `offset`, without those of programs the daemon leaves running
    // in the background (their lines may land at any time).
    std::vector<std::string> linesSince(std::size_t offset) const;

  private:
    std::string path_;
};

}  // namespace e2e
