#pragma once
// The client side of cfgd's queue protocol, shared by cfgctl and the benchmark: the lock file
// that publishes the daemon's keys, the semaphore that keeps two clients' sessions apart, and
// request/answer exchanges that give up after a time limit instead of blocking for ever.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/message.h"

namespace client {

inline constexpr int kDefaultTimeoutSeconds = 5;

// The lock file's line "<semaphore key>, <queue key>, <daemon pid>\n".
struct LockLine {
    int semaphoreKey;
    int queueKey;
    int pid;
};

[[nodiscard]] bool parseLockLine(std::string_view text, LockLine& line);

enum class Status {
    Ok,
    NoLockFile,   // the lock file cannot be read: errno tells why
    BadLockFile,  // it does not hold a lock line
    NoQueue,      // no queue or semaphore set for the keys: the daemon is gone
    Busy,         // another client holds the session semaphore
    Timeout,      // no answer in time
    TooLong,      // the request does not fit in a queue message
    BadAnswer,    // an answer that does not parse
    SystemError,  // another failing call: errno tells why
};

// Reads the daemon's lock line from `lockPath`: Ok, NoLockFile (errno tells why) or BadLockFile.
[[nodiscard]] Status readLockFile(const char* lockPath, LockLine& line);

// The length of the request text that carries `value` (nullptr: a request without value). A
// value travels with its terminator (see formatRequest), so it counts one byte more.
std::size_t requestTextLength(unsigned mt, unsigned f1, unsigned f2, unsigned f3,
                              const char* value);
[[nodiscard]] inline bool fitsInRequest(unsigned mt, unsigned f1, unsigned f2, unsigned f3,
                                        const char* value) {
    return requestTextLength(mt, f1, f2, f3, value) <= kQueueTextSize;
}

// An interval timer that interrupts blocking queue calls once the time is up; one at a time
// per process. It keeps firing every 100 ms after expiry, so that an expiry just before a
// blocking call still ends that call.
class Deadline {
  public:
    explicit Deadline(int seconds);
    ~Deadline();
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;
    static bool expired();
};

// Outgoing request: the text is formatted into a larger area than a queue message can carry,
// so that a request that is too long is detected rather than cut.
struct RequestQueueMessage {
    long mtype;
    char text[1024];
};
static_assert(offsetof(RequestQueueMessage, text) == sizeof(long));  // the kernel's msgbuf

// Formats a request (queue type 1) into `message`: its text's length, or 0 when it does not
// fit in a queue message. `value` nullptr: a request without value.
std::size_t formatRequest(RequestQueueMessage& message, unsigned mt, unsigned f1, unsigned f2,
                          unsigned f3, const char* value);

class Connection {
  public:
    Connection() = default;
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Reads the lock file and opens the daemon's queue and semaphore set (never creates them).
    [[nodiscard]] Status open(const char* lockPath);
    // Uses a queue directly (the benchmark's echo server); semaphoreSetId -1: no semaphore.
    void attach(int queueId, int semaphoreSetId);

    void setTimeout(int seconds) { timeoutSeconds_ = seconds; }
    int timeoutSeconds() const { return timeoutSeconds_; }
    const LockLine& lockLine() const { return lock_; }
    long answerType() const { return answerType_; }
    int queueId() const { return queueId_; }

    // Takes the session semaphore, drops stale answers of this client's type, sends
    // START_SESSION announcing `writes` and waits for its answer. Answers left over from an
    // earlier client of the same type (one that gave up waiting) are skipped: they do not echo
    // this session's mark in f2, or they answer another request than START_SESSION.
    [[nodiscard]] Status startSession(unsigned writes, RequestMessage& answer);

    // One request and its answer (parsed into `answer`, which has the same form), within the
    // time limit. `value` is sent only for writes.
    [[nodiscard]] Status exchange(unsigned mt, unsigned f1, unsigned f2, unsigned f3,
                                  const char* value, RequestMessage& answer);

    // Sends a request without waiting for its answer: the abort after a time-out, so that a
    // daemon that catches up later does not keep the session open.
    void sendWithoutWaiting(unsigned mt);

    // Gives the semaphore back (also done by the destructor and, failing that, by SEM_UNDO).
    void endSession();

    // The raw halves of an exchange, for loops that keep one Deadline over many requests.
    [[nodiscard]] Status send(const RequestQueueMessage& message, std::size_t length);
    [[nodiscard]] Status receive(QueueMessage& message, std::size_t& length);

    void dropStaleAnswers();

  private:
    [[nodiscard]] Status lockSemaphore();
    void leaveUsers();

    LockLine lock_{-1, -1, -1};
    int queueId_ = -1;
    int semaphoreSetId_ = -1;
    bool holdsSemaphore_ = false;
    long answerType_ = 2;
    uint8_t sessionMark_ = 0;
    int timeoutSeconds_ = kDefaultTimeoutSeconds;
};

// The answer address a client uses: never 0 (cannot be sent) nor 1 (the daemon's requests).
long answerTypeFor(pid_t pid);

}  // namespace client
