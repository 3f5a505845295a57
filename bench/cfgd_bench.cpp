// Measures READ_PARAM round trips through a running cfgd against a bare System V echo loop in
// the same run: the same request text, an answer of the same length, the same CPU for client
// and server in both measurements, a warm-up first. It also follows the daemon's resident
// memory over the run, which must not grow with the number of requests.
//
// Its soak mode (--soak N) sends N requests in whole sessions of the web front end's kind
// instead, reads and writes of every group mixed (see soak_session.h), and reports the daemon's
// open descriptors and resident memory after a warm-up and every 100,000 requests: both must
// stay level.

#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "client.h"
#include "soak_session.h"

namespace {

// The daemon runs only inside the sandbox. It sets a token in the environment and in a marker
// file, and its own host name; it replaces /proc and shows the real procfs elsewhere.
constexpr const char* kSandboxVariable = "CFGD_SANDBOX";
constexpr const char* kSandboxMarker = "/etc/cfgd-sandbox";
constexpr const char* kSandboxHostName = "cfgd-sandbox";
constexpr const char* kSandboxProcVariable = "CFGD_SANDBOX_PROC";
constexpr const char* kSandboxProcDefault = "/mnt/.proc";

constexpr const char* kDaemonName = "cfgd";  // beside the benchmark's own build directory
constexpr const char* kEchoName = "the echo server";
constexpr const char* kLockPath = "/tmp/cfgd_bench_lock";
constexpr int kSemaphoreKey = 211;
constexpr int kQueueKey = 212;
constexpr int kStartSeconds = 30;  // the daemon applies its whole configuration first
constexpr long kStartPollNanoseconds = 20000000L;
constexpr long kDefaultRequests = 100000;
constexpr long kDefaultWarmUp = 10000;
constexpr int kDefaultRounds = 3;
constexpr long kRequestsPerDeadline = 1000;
constexpr double kTargetRatio = 1.10;
// Instructions per READ: the daemon under callgrind, which counts the instructions it executes
// exactly, whatever else the machine does. Two runs that differ only in their number of READs;
// the difference leaves the start-up, the session and the end out.
constexpr const char* kValgrind = "valgrind";
constexpr const char* kCallgrindOutput = "/tmp/cfgd_bench.callgrind";
constexpr long kCountedReadsFew = 1000;
constexpr long kCountedReadsMany = 11000;
constexpr long kSoakReportEvery = 100000;
// The soak's permanent sessions store into the configuration file: a copy on the sandbox's
// private /mnt/user (on one file system with the backup, as the store needs).
constexpr const char* kSoakConfigCopy = "/mnt/user/cfgd-soak.ini";

struct Settings {
    const char* daemon = nullptr;      // the cfgd of the benchmark's own build
    const char* configFile = nullptr;  // the daemon's default
    long requests = kDefaultRequests;
    long warmUp = kDefaultWarmUp;
    int rounds = kDefaultRounds;
    int cpu = 0;
    unsigned f1 = 0, f2 = 2, f3 = 0;
    bool echoOnly = false;  // no daemon: the bare loop alone, with a stand-in answer
    long soakRequests = 0;  // > 0: the soak instead of the round-trip measurement
};

constexpr const char* kUsage =
    "Usage: cfgd_bench [-d CFGD] [-f INIFILE] [-n REQUESTS] [-w WARMUP] [-r ROUNDS] [-c CPU]\n"
    "                  [-p F1,F2,F3] [-e]\n"
    "       cfgd_bench [-d CFGD] [-f INIFILE] [-c CPU] --soak REQUESTS\n"
    "Runs inside the sandbox (sandbox/sandbox.sh test cfgd_bench). Starts CFGD (default: the\n"
    "%s of the build this program belongs to) and an echo server, pins both and itself to\n"
    "CPU (default 0) and measures READ_PARAM F1 F2 F3 (default 0 2 0): WARMUP requests\n"
    "(default %ld), then ROUNDS (default %d) rounds of REQUESTS (default %ld) on each server.\n"
    "-e measures the echo server alone with an empty answer; it starts no daemon and may run\n"
    "outside the sandbox.\n"
    "--soak sends REQUESTS requests in sessions that read every parameter in turn and write\n"
    "CAN bit rates, filters and routes, ending permanently, temporarily or aborted; it runs on\n"
    "a copy of INIFILE (all routes and filters in use; default: the repository's\n"
    "%s) and reports cfgd's open descriptors and VmRSS after %ld\n"
    "requests and every %ld after.\n";

[[noreturn]] void usage() {
    std::fprintf(stderr, kUsage, kDaemonName, kDefaultWarmUp, kDefaultRounds, kDefaultRequests,
                 soak::kConfiguration, soak::kWarmUpRequests, kSoakReportEvery);
    std::exit(2);
}

template <typename Number>
bool readNumber(std::string_view text, Number& value, Number least) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc{} && end == text.data() + text.size() && value >= least;
}

bool readAddress(const char* text, Settings& s) {
    unsigned parts[3];
    std::string_view rest = text;
    for (unsigned i = 0; i < 3; ++i) {
        const std::size_t comma = i < 2 ? rest.find(',') : rest.size();
        if (comma == std::string_view::npos) return false;
        if (!readNumber(rest.substr(0, comma), parts[i], 0u) || parts[i] > 255) return false;
        rest.remove_prefix(std::min(rest.size(), comma + 1));
    }
    s.f1 = parts[0];
    s.f2 = parts[1];
    s.f3 = parts[2];
    return true;
}

Settings parseSettings(int argc, char** argv) {
    Settings s;
    constexpr int kSoakOption = 256;  // a long option only
    static const struct option kLongOptions[] = {{"soak", required_argument, nullptr, kSoakOption},
                                                 {nullptr, 0, nullptr, 0}};
    int option;
    while ((option = getopt_long(argc, argv, "d:f:n:w:r:c:p:e", kLongOptions, nullptr)) != -1) {
        bool good = true;
        switch (option) {
            case 'd':
                s.daemon = optarg;
                break;
            case 'f':
                s.configFile = optarg;
                break;
            case 'n':
                good = readNumber(std::string_view(optarg), s.requests, 1L);
                break;
            case 'w':
                good = readNumber(std::string_view(optarg), s.warmUp, 1L);
                break;
            case 'r':
                good = readNumber(std::string_view(optarg), s.rounds, 1);
                break;
            case 'c':
                good = readNumber(std::string_view(optarg), s.cpu, 0) && s.cpu < CPU_SETSIZE;
                break;
            case 'p':
                good = readAddress(optarg, s);
                break;
            case 'e':
                s.echoOnly = true;
                break;
            case kSoakOption:
                good = readNumber(std::string_view(optarg), s.soakRequests, 1L);
                break;
            default:
                good = false;
        }
        if (!good) usage();
    }
    if (optind != argc || (s.echoOnly && s.soakRequests > 0)) usage();
    return s;
}

[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char* format, ...) {
    std::fprintf(stderr, "cfgd_bench: ");
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "\n");
    std::exit(1);
}

// All three marks, so that a stray variable alone does not let the daemon loose on a machine.
bool insideSandbox() {
    const char* token = std::getenv(kSandboxVariable);
    if (token == nullptr || token[0] == '\0') return false;
    char name[64] = {};
    if (gethostname(name, sizeof name - 1) != 0 || std::string_view(name) != kSandboxHostName)
        return false;
    std::FILE* marker = std::fopen(kSandboxMarker, "r");
    if (marker == nullptr) return false;
    char line[128] = {};
    const bool read = std::fgets(line, sizeof line, marker) != nullptr;
    (void)std::fclose(marker);  // read-only
    line[std::strcspn(line, "\n")] = '\0';
    return read && std::string_view(line) == token;
}

// The sandbox's view of the real procfs: its /proc holds no process entries.
const char* procfs() {
    const char* path = std::getenv(kSandboxProcVariable);
    return path != nullptr && path[0] != '\0' ? path : kSandboxProcDefault;
}

// <directory of the build>/cfgd, found from this program's path <build>/bench/cfgd_bench.
std::string daemonBesideBenchmark() {
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) fail("cannot find this program's path; give the daemon with -d");
    std::string path(self, static_cast<std::size_t>(n));
    for (int level = 0; level < 2; ++level) {
        const std::size_t slash = path.rfind('/');
        if (slash == std::string::npos) fail("cannot find the build directory; use -d");
        path.erase(slash);
    }
    return path + "/" + kDaemonName;
}

double secondsNow() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// What the benchmark started; stopped at exit however it ends (fail() exits directly).
pid_t daemonPid = -1;
pid_t echoPid = -1;
int echoQueue = -1;

void stopChild(pid_t& pid) {
    if (pid < 0) return;
    (void)kill(pid, SIGTERM);        // it may be gone already
    (void)waitpid(pid, nullptr, 0);  // its status is of no interest here
    pid = -1;
}

void cleanUp() {
    if (echoQueue >= 0) (void)msgctl(echoQueue, IPC_RMID, nullptr);  // also ends the echo loop
    echoQueue = -1;
    stopChild(echoPid);
    stopChild(daemonPid);
}

// The daemon, with its own keys and lock file, so that it cannot meet any other daemon; under
// callgrind when `counted`.
void startDaemon(const Settings& s, bool counted = false) {
    (void)unlink(kLockPath);  // a line left by an earlier run would name a dead daemon
    char semaphoreKey[16], queueKey[16];
    std::snprintf(semaphoreKey, sizeof semaphoreKey, "%d", kSemaphoreKey);
    std::snprintf(queueKey, sizeof queueKey, "%d", kQueueKey);
    const std::string daemon = s.daemon != nullptr ? s.daemon : daemonBesideBenchmark();
    const std::string output = std::string("--callgrind-out-file=") + kCallgrindOutput;
    std::vector<const char*> args = {"cfgd"};
    if (counted) args = {kValgrind, "--tool=callgrind", "-q", output.c_str(), daemon.c_str()};
    args.insert(args.end(), {"-s", semaphoreKey, "-q", queueKey, "-l", kLockPath});
    if (s.configFile != nullptr) {
        args.push_back("-f");
        args.push_back(s.configFile);
    }
    args.push_back(nullptr);
    if (!counted) std::printf("daemon: %s\n", daemon.c_str());
    std::fflush(stdout);  // before the child inherits the buffer
    const pid_t pid = fork();
    if (pid < 0) fail("fork: %s", std::strerror(errno));
    if (pid == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGTERM);  // never outlive the benchmark
        if (counted)
            execvp(kValgrind, const_cast<char* const*>(args.data()));
        else
            execv(daemon.c_str(), const_cast<char* const*>(args.data()));
        std::fprintf(stderr, "cfgd_bench: cannot run %s: %s\n", args[0], std::strerror(errno));
        _exit(127);
    }
    daemonPid = pid;
}

// Waits until the daemon has written its lock line and connects to it.
void connectToDaemon(client::Connection& cfgd) {
    const double giveUp = secondsNow() + kStartSeconds;
    for (;;) {
        int status = 0;
        if (waitpid(daemonPid, &status, WNOHANG) == daemonPid) {
            daemonPid = -1;
            std::fprintf(stderr, "cfgd_bench: cfgd ended during start-up with status %d\n",
                         WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status));
            std::exit(1);
        }
        if (cfgd.open(kLockPath) == client::Status::Ok && cfgd.lockLine().pid == daemonPid) return;
        if (secondsNow() > giveUp)
            fail("cfgd wrote no lock line to %s within %d s", kLockPath, kStartSeconds);
        const timespec pause{0, kStartPollNanoseconds};
        (void)nanosleep(&pause, nullptr);  // woken early only by a signal: polls sooner
    }
}

// A bare server: takes each request and sends back the same answer bytes the daemon sent.
void startEchoServer(int queue, const QueueMessage& answer, std::size_t answerLength) {
    const pid_t pid = fork();
    if (pid < 0) fail("fork: %s", std::strerror(errno));
    if (pid == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGTERM);  // never outlive the benchmark
        QueueMessage request;
        for (;;) {
            if (msgrcv(queue, &request, sizeof request.text, kRequestQueueType, 0) < 0) {
                if (errno == EINTR) continue;
                _exit(0);  // the queue was removed: the measurement is over
            }
            (void)msgsnd(queue, &answer, answerLength, 0);  // a lost answer times the client out
        }
    }
    echoPid = pid;
}

struct Exchange {
    client::RequestQueueMessage request;
    std::size_t requestLength;
    QueueMessage answer;
    std::size_t answerLength;
};

// At most kRequestsPerDeadline round trips under one time limit; seconds taken. Every answer
// must have the expected length (0: any).
double timedChunk(client::Connection& server, Exchange& e, long count, std::size_t expected,
                  const char* name) {
    client::Deadline deadline(server.timeoutSeconds());
    const double start = secondsNow();
    for (long i = 0; i < count; ++i) {
        if (server.send(e.request, e.requestLength) != client::Status::Ok ||
            server.receive(e.answer, e.answerLength) != client::Status::Ok)
            fail("no answer from %s within %d s", name, server.timeoutSeconds());
        if (expected != 0 && e.answerLength != expected)
            fail("%s answered %zu bytes instead of %zu", name, e.answerLength, expected);
    }
    return secondsNow() - start;
}

// `count` round trips; microseconds per request.
double roundTrips(client::Connection& server, Exchange& e, long count, std::size_t expected,
                  const char* name) {
    double seconds = 0;
    for (long done = 0; done < count; done += kRequestsPerDeadline) {
        const long chunk = std::min(kRequestsPerDeadline, count - done);
        seconds += timedChunk(server, e, chunk, expected, name);
    }
    return seconds * 1e6 / static_cast<double>(count);
}

struct PerRequest {
    double raw;
    double cfgd;
};

// `count` round trips on each server, in alternating chunks, so that changes in the load of
// the machine fall on both measurements alike; microseconds per request.
PerRequest alternatingRoundTrips(client::Connection& raw, client::Connection& cfgd, Exchange& e,
                                 long count, std::size_t expected) {
    double rawSeconds = 0, cfgdSeconds = 0;
    for (long done = 0; done < count; done += kRequestsPerDeadline) {
        const long chunk = std::min(kRequestsPerDeadline, count - done);
        rawSeconds += timedChunk(raw, e, chunk, expected, kEchoName);
        cfgdSeconds += timedChunk(cfgd, e, chunk, expected, kDaemonName);
    }
    const double n = static_cast<double>(count);
    return {rawSeconds * 1e6 / n, cfgdSeconds * 1e6 / n};
}

// The value of one field of /proc/<pid>/status ("VmRSS", "Cpus_allowed_list"), read through
// the sandbox's view of the real procfs. Fails the run when the field cannot be read.
std::string statusField(pid_t pid, const char* field) {
    char path[96];
    std::snprintf(path, sizeof path, "%s/%d/status", procfs(), pid);
    std::FILE* file = std::fopen(path, "r");
    if (file == nullptr) fail("cannot read %s: %s", path, std::strerror(errno));
    char line[256];
    std::string value;
    bool found = false;
    const std::size_t fieldLength = std::strlen(field);
    while (!found && std::fgets(line, sizeof line, file) != nullptr) {
        if (std::strncmp(line, field, fieldLength) != 0 || line[fieldLength] != ':') continue;
        const char* text = line + fieldLength + 1;
        text += std::strspn(text, " \t");
        value.assign(text, std::strcspn(text, "\n"));
        found = true;
    }
    (void)std::fclose(file);  // read-only
    if (!found) fail("no %s in %s", field, path);
    return value;
}

long residentKilobytes(pid_t pid) {
    return std::strtol(statusField(pid, "VmRSS").c_str(), nullptr, 10);  // "<n> kB"
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

void pinToCpu(int cpu) {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(cpu, &cpus);
    if (sched_setaffinity(0, sizeof cpus, &cpus) != 0)
        fail("cannot pin to the CPU: %s", std::strerror(errno));
}

// The echo server on a private queue, answering with `answer`; returns its client connection.
void startEcho(client::Connection& raw, const QueueMessage& answer, std::size_t answerLength) {
    echoQueue = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    if (echoQueue < 0) fail("cannot create the echo queue: %s", std::strerror(errno));
    startEchoServer(echoQueue, answer, answerLength);
    raw.attach(echoQueue, -1);
}

void printRequest(const Settings& s, const Exchange& e, const QueueMessage& answer,
                  std::size_t answerLength) {
    std::printf("request: READ_PARAM %u %u %u, %zu bytes; answer %zu bytes: \"%.*s\"\n", s.f1, s.f2,
                s.f3, e.requestLength, answerLength, static_cast<int>(answerLength), answer.text);
}

// Without a daemon: the bare loop alone, answered with an empty POS_ANSW.
int runEchoOnly(const Settings& s) {
    Exchange e{};
    client::Connection raw;
    QueueMessage answer{};
    answer.mtype = client::answerTypeFor(getpid());
    const std::size_t answerLength =
        formatMessageText(answer.text, sizeof answer.text, POS_ANSW, s.f1, s.f2, s.f3, "");
    startEcho(raw, answer, answerLength);
    e.requestLength = client::formatRequest(e.request, READ_PARAM, s.f1, s.f2, s.f3, nullptr);
    std::printf("machine: %ld CPUs online; client and echo server pinned to CPU %d\n",
                sysconf(_SC_NPROCESSORS_ONLN), s.cpu);
    printRequest(s, e, answer, answerLength);
    (void)roundTrips(raw, e, s.warmUp, answerLength, kEchoName);
    for (int round = 1; round <= s.rounds; ++round) {
        std::printf("round %d: raw echo %.2f us/request\n", round,
                    roundTrips(raw, e, s.requests, answerLength, kEchoName));
    }
    return 0;
}

// Connects to the started daemon and opens a session for READ_PARAM F1 F2 F3 of `s`.
void openReadSession(const Settings& s, client::Connection& cfgd, Exchange& e) {
    connectToDaemon(cfgd);
    RequestMessage parsed{};
    if (cfgd.startSession(0, parsed) != client::Status::Ok) fail("cfgd did not open a session");
    e.requestLength = client::formatRequest(e.request, READ_PARAM, s.f1, s.f2, s.f3, nullptr);
}

void finishSession(client::Connection& cfgd) {
    RequestMessage parsed{};
    if (cfgd.exchange(FINISH_SESSION, 0, 0, 0, nullptr, parsed) != client::Status::Ok)
        fail("cfgd did not finish the session");
    cfgd.endSession();
}

// The instructions the daemon executes in a run of `reads` READ_PARAM requests in one session,
// from its start to its end by SIGTERM; -1 when they cannot be counted.
long countedInstructions(const Settings& s, long reads) {
    (void)unlink(kCallgrindOutput);  // an earlier run's count must not be read
    startDaemon(s, true);
    client::Connection cfgd;
    Exchange e{};
    openReadSession(s, cfgd, e);
    (void)roundTrips(cfgd, e, reads, 0, kDaemonName);
    finishSession(cfgd);
    stopChild(daemonPid);  // callgrind writes its count as the daemon ends
    std::FILE* file = std::fopen(kCallgrindOutput, "r");
    if (file == nullptr) return -1;
    long total = -1;
    char line[256];
    while (total < 0 && std::fgets(line, sizeof line, file) != nullptr) {
        if (std::strncmp(line, "totals: ", 8) == 0) total = std::strtol(line + 8, nullptr, 10);
    }
    (void)std::fclose(file);  // read-only
    return total;
}

void reportInstructions(const Settings& s) {
    const long few = countedInstructions(s, kCountedReadsFew);
    const long many = few < 0 ? -1 : countedInstructions(s, kCountedReadsMany);
    if (many < 0) {
        std::printf("cfgd instructions per READ: not counted (%s with callgrind not found)\n",
                    kValgrind);
        return;
    }
    std::printf(
        "cfgd instructions per READ: %.1f (callgrind, the daemon alone: %ld instructions in a "
        "run of %ld READs, %ld in one of %ld)\n",
        static_cast<double>(many - few) / static_cast<double>(kCountedReadsMany - kCountedReadsFew),
        many, kCountedReadsMany, few, kCountedReadsFew);
}

int runAgainstDaemon(const Settings& s) {
    startDaemon(s);
    client::Connection cfgd;
    Exchange e{};
    openReadSession(s, cfgd, e);
    // The daemon's warm-up also gives the answer the echo server is to send.
    (void)roundTrips(cfgd, e, s.warmUp, 0, kDaemonName);
    RequestMessage parsed{};
    if (parseRequest(e.answer.text, e.answerLength, parsed) != 0 || parsed.mt != POS_ANSW)
        fail("cfgd refused READ_PARAM: %s", parsed.da);
    const std::size_t answerLength = e.answerLength;
    const QueueMessage answer = e.answer;
    const long rssWarm = residentKilobytes(daemonPid);

    client::Connection raw;
    startEcho(raw, answer, answerLength);
    if (raw.answerType() != cfgd.answerType()) fail("the two servers answer different types");
    (void)roundTrips(raw, e, s.warmUp, answerLength, kEchoName);

    const std::string daemonCpus = statusField(daemonPid, "Cpus_allowed_list");
    const std::string echoCpus = statusField(echoPid, "Cpus_allowed_list");
    std::printf(
        "machine: %ld CPUs online; client, echo server and cfgd pinned to CPU %d "
        "(cfgd allowed: %s, echo allowed: %s)\n",
        sysconf(_SC_NPROCESSORS_ONLN), s.cpu, daemonCpus.c_str(), echoCpus.c_str());
    printRequest(s, e, answer, answerLength);
    std::printf("warm-up: %ld requests on each server; cfgd VmRSS after warm-up: %ld kB\n",
                s.warmUp, rssWarm);

    std::vector<double> rawTimes, cfgdTimes;
    long rssFirst = 0;
    for (int round = 1; round <= s.rounds; ++round) {
        const PerRequest t = alternatingRoundTrips(raw, cfgd, e, s.requests, answerLength);
        rawTimes.push_back(t.raw);
        cfgdTimes.push_back(t.cfgd);
        const long rss = residentKilobytes(daemonPid);
        if (round == 1) rssFirst = rss;
        std::printf(
            "round %d: raw echo %.2f us/request, cfgd %.2f us/request, ratio %.3f; cfgd "
            "VmRSS after warm-up + %ld requests: %ld kB\n",
            round, rawTimes.back(), cfgdTimes.back(), cfgdTimes.back() / rawTimes.back(),
            s.requests * round, rss);
    }
    const double rawMedian = median(rawTimes);
    const double cfgdMedian = median(cfgdTimes);
    const double ratio = cfgdMedian / rawMedian;
    std::printf(
        "median of %d rounds: raw echo %.2f us/request, cfgd %.2f us/request, ratio %.3f "
        "(target %.2f: %s)\n",
        s.rounds, rawMedian, cfgdMedian, ratio, kTargetRatio,
        ratio <= kTargetRatio ? "met" : "missed");
    std::printf(
        "cfgd VmRSS: %ld kB after warm-up, %ld kB after warm-up + %ld requests "
        "(%+ld kB)\n",
        rssWarm, rssFirst, s.requests, rssFirst - rssWarm);

    finishSession(cfgd);
    stopChild(daemonPid);
    reportInstructions(s);
    return 0;
}

// Copies the file at `from` to `to`; fails the run when it cannot.
void copyFile(const char* from, const char* to) {
    std::FILE* in = std::fopen(from, "rb");
    if (in == nullptr) fail("cannot read %s: %s", from, std::strerror(errno));
    std::FILE* out = std::fopen(to, "wb");
    if (out == nullptr) fail("cannot write %s: %s", to, std::strerror(errno));
    char buffer[4096];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0)
        if (std::fwrite(buffer, 1, n, out) != n) fail("cannot write %s", to);
    (void)std::fclose(in);  // read-only
    if (std::fclose(out) != 0) fail("cannot write %s: %s", to, std::strerror(errno));
}

// One report line of the daemon's use; its change since the warm-up once there is one.
soak::Use reportUse(const char* when, long requests, long sessions, double seconds,
                    const soak::Use& warm) {
    const soak::Use now = soak::use(procfs(), daemonPid);
    if (now.descriptors < 0 || now.residentKilobytes < 0) fail("cannot read cfgd's use");
    std::printf("%-14s %8ld requests, %6ld sessions, %6.1f s: %d descriptors, VmRSS %ld kB", when,
                requests, sessions, seconds, now.descriptors, now.residentKilobytes);
    if (warm.descriptors >= 0)
        std::printf(" (%+d, %+ld kB)", now.descriptors - warm.descriptors,
                    now.residentKilobytes - warm.residentKilobytes);
    std::printf("\n");
    std::fflush(stdout);
    return now;
}

int runSoak(Settings s) {
    std::string source;
    if (s.configFile != nullptr) {
        source = s.configFile;
    } else {
        const char* repository = std::getenv(soak::kRepositoryVariable);
        if (repository == nullptr)
            fail("%s is not set; give the file with -f", soak::kRepositoryVariable);
        source = std::string(repository) + "/" + soak::kConfiguration;
    }
    copyFile(source.c_str(), kSoakConfigCopy);
    s.configFile = kSoakConfigCopy;
    startDaemon(s);
    client::Connection cfgd;
    connectToDaemon(cfgd);
    std::printf(
        "soak: %ld requests on a copy of %s; each session reads %u of the %zu readable "
        "parameters, the next session the next %u; 1 session in %ld writes (1 in %ld of those a "
        "route's FPP, the others a CAN bit rate or a filter's kind and term in turn), ending "
        "permanently, temporarily and aborted in turn\n",
        s.soakRequests, source.c_str(), soak::kReadsPerSession, soak::readable().size(),
        soak::kReadsPerSession, soak::kWriteEvery, soak::kRouteEvery);
    std::fflush(stdout);

    soak::Soak sessions;
    soak::Use warm;
    bool level = true, sameDescriptors = true;
    long growth = 0;  // the most VmRSS grew after the warm-up
    long requests = 0;
    long nextReport = kSoakReportEvery;
    const long warmUp = std::min(soak::kWarmUpRequests, s.soakRequests);
    const double start = secondsNow();
    while (requests < s.soakRequests) {
        const long made = sessions.session(cfgd);
        if (made < 0) fail("a request failed after %ld requests", requests);
        requests += made;
        const double seconds = secondsNow() - start;
        if (warm.descriptors < 0 && requests >= warmUp)
            warm = reportUse("after warm-up", requests, sessions.sessions(), seconds, warm);
        if (requests < nextReport && requests < s.soakRequests) continue;
        nextReport += kSoakReportEvery;
        const soak::Use now = reportUse(requests < s.soakRequests ? "" : "at the end", requests,
                                        sessions.sessions(), seconds, warm);
        if (warm.descriptors < 0) continue;  // a report within the warm-up
        level = level && soak::level(warm, now);
        sameDescriptors = sameDescriptors && now.descriptors == warm.descriptors;
        growth = std::max(growth, now.residentKilobytes - warm.residentKilobytes);
    }
    const double seconds = secondsNow() - start;
    std::printf("%ld requests in %ld sessions: %.1f s, %.1f us per request\n", requests,
                sessions.sessions(), seconds, seconds * 1e6 / static_cast<double>(requests));
    std::printf("sessions: %ld %s", sessions.count(soak::Kind::Read, soak::End::Permanent),
                soak::kKindNames[static_cast<int>(soak::Kind::Read)]);
    for (const soak::Kind kind : {soak::Kind::Can, soak::Kind::Filter, soak::Kind::Route}) {
        std::printf("; %s writes", soak::kKindNames[static_cast<int>(kind)]);
        for (const soak::End end : {soak::End::Permanent, soak::End::Temporary, soak::End::Aborted})
            std::printf(" %ld %s", sessions.count(kind, end),
                        soak::kEndNames[static_cast<int>(end)]);
    }
    std::printf(
        "\nafter warm-up: descriptors %s, VmRSS grew at most %+ld kB (bound +%ld kB%s): %s\n",
        sameDescriptors ? "level" : "CHANGED", growth, soak::kResidentSlackKilobytes,
        soak::kResidentMeasures ? "" : ", not judged under AddressSanitizer",
        level ? "level" : "NOT LEVEL");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const Settings s = parseSettings(argc, argv);
    if (!s.echoOnly && !insideSandbox())
        fail(
            "refusing to run outside the sandbox: cfgd changes the system it runs on (use "
            "sandbox/sandbox.sh test cfgd_bench)");
    // Client, echo server and daemon all inherit this: one CPU, so both measurements switch
    // between client and server the same way.
    pinToCpu(s.cpu);
    (void)signal(SIGPIPE, SIG_IGN);  // output to a closed pipe must not skip the clean-up
    std::atexit(cleanUp);
    if (s.soakRequests > 0) return runSoak(s);                 // cleanUp stops the daemon
    return s.echoOnly ? runEchoOnly(s) : runAgainstDaemon(s);  // cleanUp stops the servers
}
