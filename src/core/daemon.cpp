#include "core/daemon.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/config_path.h"
#include "config/loader.h"
#include "config/store.h"
#include "core/identity.h"
#include "core/message.h"
#include "core/options.h"
#include "core/session.h"
#include "model/config_model.h"
#include "model/handler.h"
#include "network/platform_config.h"
#include "network/wlan_group.h"
#include "sys/log.h"
#include "sys/profile.h"
#include "sys/system.h"

namespace {

constexpr int kExitAllocation = -3;
constexpr int kExitStart = -4;
constexpr int kExitIpc = -5;
constexpr int kExitSignal = -1;

constexpr int kSemaphoreCount = 3;
constexpr std::size_t kBaseNameChars = 31;
constexpr const char* kRebootCommand = "sleep 5 && sync && reboot";

// The legacy build opens the queue and semaphore set to every local user and makes the lock
// file executable; the hardened one lets only root and the front end's group reach the daemon.
constexpr int kIpcMode = kHardened ? 0660 : 0666;
constexpr mode_t kLockFileMode = kHardened ? 0644 : 0777;
#ifndef CFGD_HARDENED_GROUP
#define CFGD_HARDENED_GROUP "www-data"
#endif
constexpr const char* kFrontEndGroup = CFGD_HARDENED_GROUP;
constexpr const char* kNoGroupFormat =
    "cfgd: group %s not found: the queue and semaphore set keep root's group\n";
constexpr const char* kIpcSetFailedFormat = "cfgd: permissions of the %s not set: %s\n";

// Process-wide state that the clean-up needs; the clean-up may run twice (from a signal and at
// exit), so every step leaves its state in the "nothing to do" value.
char lockPath[kMaxPathLength + 1];
sys::FilePath placedLockPath{};  // placed once at start, so that the handler formats nothing
int queueId = -1;
int semaphoreSetId = -1;
ConfigModel* model = nullptr;

// Only system calls, so that it is safe inside a signal handler.
void removeLockAndIpc() {
    if (placedLockPath.text[0] != '\0') (void)unlink(placedLockPath.text);  // may be gone
    if (queueId >= 0) (void)msgctl(queueId, IPC_RMID, nullptr);
    queueId = -1;
    if (semaphoreSetId >= 0) (void)semctl(semaphoreSetId, 0, IPC_RMID);
    semaphoreSetId = -1;
}

void cleanUp() {
    removeLockAndIpc();
    releaseModel(model);
}

void onTerminate(int) {
    removeLockAndIpc();
    sys::flushPendingLog();     // a line cut short by this signal, as far as its output takes it
    _exit(kExitSignal & 0xFF);  // the model dies with the process; exit handlers are not safe here
}

void onChild(int) {
    const int saved = errno;
    (void)waitpid(-1, nullptr, WNOHANG);  // only reaps; the shell commands' statuses are not used
    errno = saved;
}

void installSignals() {
    struct sigaction terminate {};
    terminate.sa_handler = onTerminate;
    sigemptyset(&terminate.sa_mask);
    for (int signal : {SIGTERM, SIGHUP, SIGINT})
        sigaddset(&terminate.sa_mask, signal);  // one clean-up at a time
    terminate.sa_flags = SA_RESTART;
    for (int signal : {SIGTERM, SIGHUP, SIGINT})
        (void)sigaction(signal, &terminate, nullptr);
    struct sigaction child = terminate;
    sigemptyset(&child.sa_mask);
    child.sa_handler = onChild;
    (void)sigaction(SIGCHLD, &child, nullptr);
}

// Makes sure the configuration file exists; its first byte becomes a line feed, which only
// shortens the header's first comment line.
[[nodiscard]] bool touchConfigFile(const char* path) {
    int fd = open(sys::placeFile(path).c_str(), O_RDWR | O_CREAT, 0666);
    if (fd < 0) return false;
    // The byte has always replaced the file's first one, which a hand-written file or one of
    // the checking store needs; the hardened daemon only makes sure the file can be written.
    if constexpr (!kHardened)
        (void)write(fd, "\n", 1);  // a failed write leaves the file as it was, which is as good
    sys::current().syncDisks();
    (void)close(fd);
    return true;
}

union SemaphoreArgument {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

// Gives the queue and the semaphore set the front end's group and mode 0660; also a queue or
// set that an earlier daemon left open to everyone, which msgget and semget do not change.
void restrictIpc() {
    const group* frontEnd = getgrnam(kFrontEndGroup);
    if (frontEnd == nullptr) sys::logError(kNoGroupFormat, kFrontEndGroup);
    msqid_ds queue{};
    if (msgctl(queueId, IPC_STAT, &queue) == 0) {
        queue.msg_perm.mode = kIpcMode;
        if (frontEnd != nullptr) queue.msg_perm.gid = frontEnd->gr_gid;
        if (msgctl(queueId, IPC_SET, &queue) != 0)
            sys::logError(kIpcSetFailedFormat, "queue", std::strerror(errno));
    }
    semid_ds set{};
    SemaphoreArgument argument{};
    argument.buf = &set;
    if (semctl(semaphoreSetId, 0, IPC_STAT, argument) == 0) {
        set.sem_perm.mode = kIpcMode;
        if (frontEnd != nullptr) set.sem_perm.gid = frontEnd->gr_gid;
        if (semctl(semaphoreSetId, 0, IPC_SET, argument) != 0)
            sys::logError(kIpcSetFailedFormat, "semaphore set", std::strerror(errno));
    }
}

[[noreturn]] void serve(ConfigModel& m) {
    static QueueMessage received;
    static RequestMessage request;
    static AnswerMessage answer;
    static AnswerQueueMessage serialised;
    for (;;) {
        ssize_t length = msgrcv(queueId, &received, kQueueTextSize, kRequestQueueType, 0);
        if (length < 0) {
            const int error = errno;
            // Takes a too long message off the queue (cut and dropped); after another kind of
            // failure this waits for the next request and drops that one.
            (void)msgrcv(queueId, &received, kQueueTextSize, kRequestQueueType, MSG_NOERROR);
            errorAnswer(answer, error, m.session.answerAddress);
            (void)serialiseAnswer(answer, serialised);
            (void)msgsnd(queueId, &serialised, std::strlen(serialised.text), 0);  // best effort
        } else if (parseRequest(received.text, static_cast<std::size_t>(length), request) == 0) {
            (void)procMsg(request, answer, m);          // the answer tells the client either way
            (void)serialiseAnswer(answer, serialised);  // a cut answer still goes out
            // An answer of type 0 cannot be sent; the failure is the intended silence.
            (void)msgsnd(queueId, &serialised, std::strlen(serialised.text), 0);
            std::memset(&received, 0, sizeof received);
            std::memset(&serialised, 0, sizeof serialised);
            std::memset(&answer, 0, sizeof answer);
        }
        if (m.rebootRequested) (void)sys::current().runCommand(kRebootCommand);
    }
}

}  // namespace

int writeLockFile(const char* path, int semaphoreKey, int queueKey, int pid) {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
    // The lock file lies in /tmp: the hardened daemon never writes (or re-modes) through a link
    // or a file that a local user planted at its path.
    int fd = kHardened ? sys::current().openFile(path, kFlags, kLockFileMode)
                       : open(sys::placeFile(path).c_str(), kFlags, kLockFileMode);
    if (fd < 0) return -1;
    // A lock file left behind keeps its mode through the open; the umask may take bits away.
    if constexpr (kHardened) (void)fchmod(fd, kLockFileMode);
    char line[80];
    const int length =
        std::snprintf(line, sizeof line, kLockLineFormat, semaphoreKey, queueKey, pid);
    int written = 0;
    int budget = 5000;
    for (;;) {
        ssize_t n = write(fd, line + written, static_cast<std::size_t>(length - written));
        if (n > 0) written += static_cast<int>(n);
        if (written >= length) break;
        budget -= 10;
        if (budget <= 9) return -2;  // the descriptor is left as it is
        sys::current().sleepNanoseconds(10000000L);
    }
    (void)close(fd);
    return 0;
}

int runDaemon(int argc, char** argv) {
    installSignals();
    std::atexit(cleanUp);

    Options options;
    const int parsed = parseOptions(argc, argv, options, stdout);
    if (parsed != kContinue) return parsed;
    // A lock file left by another daemon does not stop this one: it is overwritten once the
    // queue is ready, and clients then find this daemon's keys in it.
    std::snprintf(lockPath, sizeof lockPath, "%s", options.lockPath);
    placedLockPath = sys::placeFile(lockPath);

    model = allocateModel();
    if (model == nullptr) return kExitAllocation;
    ConfigModel& m = *model;

    // A missing platform file leaves station mode, no AP address and no DHCP server file.
    (void)readPlatformConfig(m.platform);
    startWlanInterfaces(m);
    copyText(m.lan[0].BaseName, kLanBaseName, kBaseNameChars);
    copyText(m.can[0].BaseName, kCanBaseName, kBaseNameChars);
    copyText(m.can[1].BaseName, kCanBaseName, kBaseNameChars);

    if (readDeviceIdentity(m) < 0) return kExitStart;
    if (setConfigPath(options.configPath) < 0) return kExitStart;
    // A failure leaves the start-up as it would be without a backup: on an empty file.
    (void)restoreInterruptedStore();
    if (!touchConfigFile(configPath())) return kExitStart;
    if (loadConfiguration(m) < 0) return kExitStart;
    m.previousWlanMode = m.wlan.Mode;

    markForStartApply(m);
    AnswerMessage startAnswer{};
    (void)applyChangedGroups(m, startAnswer);  // the device starts even if some group failed

    int semaphoreKey = options.semaphoreKey;
    const sys::FilePath keyFile = sys::placeFile(configPath());
    if (semaphoreKey == kNoKey) semaphoreKey = ftok(keyFile.c_str(), 1);
    if (semaphoreKey < 0) return kExitIpc;
    semaphoreSetId = semget(semaphoreKey, kSemaphoreCount, IPC_CREAT | kIpcMode);
    if (semaphoreSetId < 0) return kExitIpc;
    SemaphoreArgument one{};
    one.val = 1;
    (void)semctl(semaphoreSetId, 0, SETVAL, one);  // clients find out soon enough if it failed

    int queueKey = options.queueKey;
    if (queueKey == kNoKey) queueKey = ftok(keyFile.c_str(), 2);
    if (queueKey < 0) return kExitStart;
    queueId = msgget(queueKey, IPC_CREAT | kIpcMode);
    if (queueId < 0) return kExitStart;
    if constexpr (kHardened) restrictIpc();

    static QueueMessage stale;
    while (msgrcv(queueId, &stale, kQueueTextSize, 0, IPC_NOWAIT) > 0) {
    }

    if (writeLockFile(lockPath, semaphoreKey, queueKey, getpid()) < 0) return kExitIpc;
    serve(m);
}
