#include "client.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <ctime>
#include <iterator>

namespace client {

namespace {

constexpr long kLowestAnswerType = 2;  // 0 cannot be sent, 1 is the daemon's own
constexpr long kAnswerTypes = 254;     // 2..255: the answer address is one byte
constexpr long kRefireMicroseconds = 100000;
constexpr uint8_t kStartAnswerF1 = 1;              // FINISH and ABORT answers, left over, have 0
constexpr std::size_t kLockFileSize = 80;          // the daemon formats its line into 80 bytes
constexpr std::size_t kTerminatorCloseLength = 4;  // the value's last byte, then "\";}"

volatile std::sig_atomic_t timeIsUp = 0;

void onAlarm(int) {
    timeIsUp = 1;
}

// Without SA_RESTART, so that the alarm ends a blocking msgrcv/msgsnd/semop with EINTR.
void installAlarmHandler() {
    static bool installed = false;
    if (installed) return;
    struct sigaction action {};
    action.sa_handler = onAlarm;
    sigemptyset(&action.sa_mask);
    (void)sigaction(SIGALRM, &action, nullptr);  // cannot fail for SIGALRM with a valid handler
    installed = true;
}

std::size_t decimalDigits(std::size_t n) {
    std::size_t digits = 1;
    while (n >= 10) {
        n /= 10;
        ++digits;
    }
    return digits;
}

// One number of the lock line; moves `at` behind it.
bool readNumber(const char*& at, const char* end, int& value) {
    auto [next, error] = std::from_chars(at, end, value);
    if (error != std::errc{}) return false;
    at = next;
    return true;
}

bool skip(const char*& at, const char* end, std::string_view expected) {
    if (static_cast<std::size_t>(end - at) < expected.size()) return false;
    if (std::string_view(at, expected.size()) != expected) return false;
    at += expected.size();
    return true;
}

}  // namespace

bool parseLockLine(std::string_view text, LockLine& line) {
    const char* at = text.data();
    const char* end = text.data() + text.size();
    LockLine read{};
    if (!readNumber(at, end, read.semaphoreKey) || !skip(at, end, ", ") ||
        !readNumber(at, end, read.queueKey) || !skip(at, end, ", ") ||
        !readNumber(at, end, read.pid))
        return false;
    if (at != end && !skip(at, end, "\n")) return false;
    if (at != end) return false;
    line = read;
    return true;
}

std::size_t requestTextLength(unsigned mt, unsigned f1, unsigned f2, unsigned f3,
                              const char* value) {
    char text[kQueueTextSize];
    // The empty value declares a length of one digit; the real one has its own digits.
    const std::size_t base = formatMessageText(text, sizeof text, mt, f1, f2, f3, "") - 1;
    const std::size_t declared = value != nullptr ? std::strlen(value) + 1 : 0;
    return base + decimalDigits(declared) + declared;
}

long answerTypeFor(pid_t pid) {
    return kLowestAnswerType + static_cast<long>(pid) % kAnswerTypes;
}

Deadline::Deadline(int seconds) {
    installAlarmHandler();
    timeIsUp = 0;
    itimerval timer{};
    timer.it_value.tv_sec = seconds;
    timer.it_interval.tv_usec = kRefireMicroseconds;
    (void)setitimer(ITIMER_REAL, &timer, nullptr);  // only fails for invalid values
}

Deadline::~Deadline() {
    itimerval off{};
    (void)setitimer(ITIMER_REAL, &off, nullptr);  // as above
}

bool Deadline::expired() {
    return timeIsUp != 0;
}

Connection::~Connection() {
    endSession();
}

Status readLockFile(const char* lockPath, LockLine& line) {
    // The lock file lies in /tmp, and root's cfgctl (a trial's guard above all) reads it: a
    // FIFO planted at its path must not hang the reader, nor a link lead it to another file.
    const int fd = ::open(lockPath, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return Status::NoLockFile;
    char text[kLockFileSize + 1];
    const ssize_t n = read(fd, text, sizeof text);
    const int readError = errno;
    (void)close(fd);  // read-only: nothing to lose
    if (n < 0) {
        errno = readError;
        return Status::NoLockFile;
    }
    if (!parseLockLine(std::string_view(text, static_cast<std::size_t>(n)), line))
        return Status::BadLockFile;
    return Status::Ok;
}

Status Connection::open(const char* lockPath) {
    if (Status status = readLockFile(lockPath, lock_); status != Status::Ok) return status;
    const int queue = msgget(lock_.queueKey, 0);
    if (queue < 0) return errno == ENOENT ? Status::NoQueue : Status::SystemError;
    const int semaphores = semget(lock_.semaphoreKey, 0, 0);
    if (semaphores < 0) return errno == ENOENT ? Status::NoQueue : Status::SystemError;
    attach(queue, semaphores);
    return Status::Ok;
}

void Connection::attach(int queueId, int semaphoreSetId) {
    queueId_ = queueId;
    semaphoreSetId_ = semaphoreSetId;
    answerType_ = answerTypeFor(getpid());
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
    sessionMark_ = static_cast<uint8_t>(now.tv_nsec ^ getpid());
}

namespace {

// The set's three semaphores as PHP's sysvsem (the web front end's) uses them: 0 is the
// session lock, 1 counts the processes using the set, 2 guards that count. A PHP process that
// finds itself the only user resets the lock to 1, even while another client holds it; so this
// client counts itself as a user, under the guard, for as long as it holds the lock.
enum SemaphoreIndex : unsigned short { kSessionLock = 0, kUsers = 1, kUsersGuard = 2 };

Status semaphoreFailure() {
    if (errno == EAGAIN) return Status::Busy;
    if (errno == EIDRM || errno == EINVAL) return Status::NoQueue;
    return Status::SystemError;
}

}  // namespace

Status Connection::lockSemaphore() {
    if (semaphoreSetId_ < 0 || holdsSemaphore_) return Status::Ok;
    const timespec wait{timeoutSeconds_, 0};
    sembuf join[] = {{kUsersGuard, 0, 0}, {kUsersGuard, 1, SEM_UNDO}, {kUsers, 1, SEM_UNDO}};
    while (semtimedop(semaphoreSetId_, join, std::size(join), &wait) < 0)
        if (errno != EINTR) return semaphoreFailure();
    sembuf unguard{kUsersGuard, -1, SEM_UNDO};
    (void)semop(semaphoreSetId_, &unguard, 1);  // this process raised it: it cannot block
    sembuf take{kSessionLock, -1, SEM_UNDO};
    while (semtimedop(semaphoreSetId_, &take, 1, &wait) < 0) {
        if (errno == EINTR) continue;
        const Status failure = semaphoreFailure();
        leaveUsers();
        return failure;
    }
    holdsSemaphore_ = true;
    return Status::Ok;
}

void Connection::leaveUsers() {
    sembuf leave{kUsers, -1, SEM_UNDO | IPC_NOWAIT};
    (void)semop(semaphoreSetId_, &leave, 1);  // if the set is gone there is nothing to leave
}

void Connection::endSession() {
    if (!holdsSemaphore_) return;
    sembuf give{kSessionLock, 1, SEM_UNDO};
    (void)semop(semaphoreSetId_, &give, 1);  // if the set is gone there is nothing to give back
    leaveUsers();
    holdsSemaphore_ = false;
}

void Connection::dropStaleAnswers() {
    QueueMessage stale;
    while (msgrcv(queueId_, &stale, sizeof stale.text, answerType_, IPC_NOWAIT | MSG_NOERROR) >=
           0) {
    }
}

std::size_t formatRequest(RequestQueueMessage& message, unsigned mt, unsigned f1, unsigned f2,
                          unsigned f3, const char* value) {
    message.mtype = kRequestQueueType;
    if (value == nullptr)
        return formatMessageText(message.text, sizeof message.text, mt, f1, f2, f3, "");
    if (!fitsInRequest(mt, f1, f2, f3, value)) return 0;
    // The daemon copies a value over the previous one without terminating it, so a shorter
    // value would keep the tail of a longer one; the value therefore carries its terminator.
    // A stand-in byte makes room for it in the formatted text and is then replaced.
    char marked[kDataSize];
    const std::size_t length = std::strlen(value);
    std::memcpy(marked, value, length);
    marked[length] = '#';
    marked[length + 1] = '\0';
    const std::size_t textLength =
        formatMessageText(message.text, sizeof message.text, mt, f1, f2, f3, marked);
    message.text[textLength - kTerminatorCloseLength] = '\0';
    return textLength;
}

Status Connection::send(const RequestQueueMessage& message, std::size_t length) {
    while (msgsnd(queueId_, &message, length, 0) < 0) {
        if (errno == EINTR && Deadline::expired()) return Status::Timeout;
        if (errno == EINTR) continue;
        if (errno == EIDRM || errno == EINVAL) return Status::NoQueue;
        return Status::SystemError;
    }
    return Status::Ok;
}

Status Connection::receive(QueueMessage& message, std::size_t& length) {
    for (;;) {
        if (Deadline::expired()) return Status::Timeout;
        const ssize_t n = msgrcv(queueId_, &message, sizeof message.text, answerType_, MSG_NOERROR);
        if (n >= 0) {
            length = static_cast<std::size_t>(n);
            return Status::Ok;
        }
        if (errno == EINTR) continue;
        if (errno == EIDRM || errno == EINVAL) return Status::NoQueue;
        return Status::SystemError;
    }
}

Status Connection::exchange(unsigned mt, unsigned f1, unsigned f2, unsigned f3, const char* value,
                            RequestMessage& answer) {
    RequestQueueMessage request;
    const std::size_t length = formatRequest(request, mt, f1, f2, f3, value);
    if (length == 0 || length > kQueueTextSize) return Status::TooLong;
    Deadline deadline(timeoutSeconds_);
    if (Status s = send(request, length); s != Status::Ok) return s;
    QueueMessage received;
    std::size_t receivedLength = 0;
    if (Status s = receive(received, receivedLength); s != Status::Ok) return s;
    answer = RequestMessage{};  // the parser copies the value without terminating it
    return parseRequest(received.text, receivedLength, answer) == 0 ? Status::Ok
                                                                    : Status::BadAnswer;
}

Status Connection::startSession(unsigned writes, RequestMessage& answer) {
    if (Status s = lockSemaphore(); s != Status::Ok) return s;
    dropStaleAnswers();
    RequestQueueMessage request;
    const std::size_t length = formatRequest(
        request, START_SESSION, static_cast<unsigned>(answerType_), sessionMark_, writes, nullptr);
    Deadline deadline(timeoutSeconds_);
    if (Status s = send(request, length); s != Status::Ok) return s;
    for (;;) {
        QueueMessage received;
        std::size_t receivedLength = 0;
        if (Status s = receive(received, receivedLength); s != Status::Ok) return s;
        answer = RequestMessage{};
        if (parseRequest(received.text, receivedLength, answer) != 0) continue;
        if (answer.mt == POS_ANSW && answer.f1 == kStartAnswerF1 && answer.f2 == sessionMark_ &&
            answer.f3 == writes)
            return Status::Ok;
    }
}

void Connection::sendWithoutWaiting(unsigned mt) {
    RequestQueueMessage request;
    const std::size_t length = formatRequest(request, mt, 0, 0, 0, nullptr);
    (void)msgsnd(queueId_, &request, length, IPC_NOWAIT);  // best effort: the caller gave up
}

}  // namespace client
