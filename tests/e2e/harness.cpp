#include "harness.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <signal.h>
#include <spawn.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

extern char** environ;

namespace e2e {

namespace {

constexpr const char* kSandboxTokenVariable = "CFGD_SANDBOX";
constexpr const char* kSandboxMarker = "/etc/cfgd-sandbox";
constexpr const char* kCommandLogVariable = "CFGD_SANDBOX_LOG";
constexpr const char* kBackgroundProgram = "canoipd ";  // started with "&" by the daemon
constexpr int kPollMs = 2;

std::string outputFileName(const char* kind) {
    static int count = 0;
    return "/tmp/e2e-" + std::to_string(getpid()) + "-" + std::to_string(++count) + "." + kind;
}

}  // namespace

const char* daemonPath() {
    return CFGD_E2E_DAEMON;
}

const char* clientPath() {
    return CFGD_E2E_CLIENT;
}

bool insideSandbox(std::string& why) {
    const char* token = std::getenv(kSandboxTokenVariable);
    if (token == nullptr || *token == '\0') {
        why = std::string(kSandboxTokenVariable) + " is not set";
        return false;
    }
    const std::optional<std::string> marker = readFile(kSandboxMarker);
    if (!marker || *marker != std::string(token) + "\n") {
        why = std::string(kSandboxMarker) + " does not hold this sandbox's token";
        return false;
    }
    struct statfs proc {};
    if (statfs("/proc", &proc) != 0 || proc.f_type != TMPFS_MAGIC) {
        why = "/proc is not the sandbox's simulated one";
        return false;
    }
    if (std::getenv(kCommandLogVariable) == nullptr) {
        why = std::string(kCommandLogVariable) + " is not set";
        return false;
    }
    return true;
}

Process::Process(const std::string& program, const std::vector<std::string>& arguments)
    : outputPath_(outputFileName("out")), errorPath_(outputFileName("err")) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outputPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, 2, errorPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0)
        pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
}

Process::~Process() {
    if (started() && running()) {
        signal(SIGTERM);
        if (!waitForExit(5000)) {
            signal(SIGKILL);
            (void)waitForExit(5000);  // SIGKILL cannot be refused
        }
    }
    (void)unlink(outputPath_.c_str());  // the files are only this process's scratch
    (void)unlink(errorPath_.c_str());
}

bool Process::running() {
    if (!started() || ended_) return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
        waitStatus_ = status;
        ended_ = true;
    }
    return !ended_;
}

bool Process::waitForExit(int timeoutMs) {
    for (int waited = 0; running(); waited += kPollMs) {
        if (waited >= timeoutMs) return false;
        sleepMilliseconds(kPollMs);
    }
    return true;
}

void Process::signal(int number) {
    if (started() && !ended_) (void)kill(pid_, number);  // it may have just ended
}

int Process::exitStatus() const {
    return ended_ && WIFEXITED(waitStatus_) ? WEXITSTATUS(waitStatus_) : -1;
}

std::string Process::output() const {
    return readFile(outputPath_).value_or("");
}

std::string Process::errors() const {
    return readFile(errorPath_).value_or("");
}

std::optional<std::string> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

std::optional<std::string> waitForLine(const std::string& path, int timeoutMs) {
    for (int waited = 0; waited < timeoutMs; waited += kPollMs) {
        std::optional<std::string> content = readFile(path);
        if (content && !content->empty() && content->back() == '\n') return content;
        sleepMilliseconds(kPollMs);
    }
    return std::nullopt;
}

void sleepMilliseconds(int milliseconds) {
    timespec pause{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    (void)nanosleep(&pause, nullptr);  // an early wake-up only polls sooner
}

std::string request(unsigned mt, unsigned f1, unsigned f2, unsigned f3) {
    char text[128];
    std::snprintf(text, sizeof text,
                  "a:4:{s:2:\"mt\";i:%u;s:2:\"f1\";i:%u;s:2:\"f2\";i:%u;s:2:\"f3\";i:%u;}", mt, f1,
                  f2, f3);
    return text;
}

std::string request(unsigned mt, unsigned f1, unsigned f2, unsigned f3, const std::string& da) {
    return "a:5:{s:2:\"mt\";i:" + std::to_string(mt) + ";s:2:\"f1\";i:" + std::to_string(f1) +
           ";s:2:\"f2\";i:" + std::to_string(f2) + ";s:2:\"f3\";i:" + std::to_string(f3) +
           ";s:2:\"da\";s:" + std::to_string(da.size()) + ":\"" + da + "\";}";
}

std::string answer(unsigned mt, unsigned f1, unsigned f2, unsigned f3, const std::string& da) {
    return request(mt, f1, f2, f3, da);  // answers always carry the value element
}

bool Queue::send(const std::string& text, long type) {
    std::vector<char> message(sizeof(long) + text.size());
    std::memcpy(message.data(), &type, sizeof type);
    std::memcpy(message.data() + sizeof type, text.data(), text.size());
    return msgsnd(id_, message.data(), text.size(), IPC_NOWAIT) == 0;
}

std::optional<std::string> Queue::receive(long type, int timeoutMs) {
    struct {
        long type;
        char text[8192];
    } message;
    for (int waited = 0;; waited += kPollMs) {
        ssize_t length = msgrcv(id_, &message, sizeof message.text, type, IPC_NOWAIT);
        if (length >= 0) return std::string(message.text, static_cast<std::size_t>(length));
        if (errno != ENOMSG || waited >= timeoutMs) return std::nullopt;
        sleepMilliseconds(kPollMs);
    }
}

std::size_t Queue::messageCount() {
    msqid_ds status{};
    return msgctl(id_, IPC_STAT, &status) == 0 ? status.msg_qnum : 0;
}

CommandLog::CommandLog() {
    const char* path = std::getenv(kCommandLogVariable);
    path_ = path != nullptr ? path : "";
}

std::size_t CommandLog::size() const {
    struct stat status {};
    return stat(path_.c_str(), &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

std::vector<std::string> CommandLog::linesSince(std::size_t offset) const {
    const std::string content = readFile(path_).value_or("");
    std::vector<std::string> lines;
    std::istringstream in(offset < content.size() ? content.substr(offset) : "");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(kBackgroundProgram, 0) != 0) lines.push_back(line);
    }
    return lines;
}

}  // namespace e2e
