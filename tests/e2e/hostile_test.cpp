// Careless and hostile clients against the real daemon: a client that dies inside its session,
// an answer address the daemon cannot answer to, malformed and oversized texts, and a client
// that floods requests without reading its answers. After each, a client that plays by the rules
// must be served as usual and find the stored configuration.

#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/syscall.h>

#include "client.h"
#include "harness.h"

namespace e2e {
namespace {

constexpr unsigned kGeneral = 0, kDescription = 4;  // the free text that every case writes
constexpr long kFirst = 90, kClean = 91;            // answer addresses of the raw clients
const char* const kKept = "kept";                   // in each daemon's file
// Each daemon's own file: a missing one would be restored from the backup of an earlier store.
std::string file() {
    return Daemon::freshFile(kFileHead + std::string("[general]\ndescription = kept\n"));
}

const std::string readDescription = text(READ_PARAM, kGeneral, kDescription, 0);
const auto description = [](const std::string& v) { return ok(kGeneral, kDescription, 0, v); };
const auto setDescription = [](const std::string& value) {
    return text(SET_PARAM, kGeneral, kDescription, 0, value + '\0');
};

msqid_ds queueState(const Daemon& d) {
    msqid_ds state{};
    EXPECT_EQ(msgctl(d.queue, IPC_STAT, &state), 0);
    return state;
}

// A client that plays by the rules is then answered `stored` to its read, stores `next` for
// good, and finds nothing else left on the queue.
void expectCleanSession(Daemon& d, const std::string& stored, const std::string& next) {
    EXPECT_TRUE(d.start(kClean, 0, 1));
    EXPECT_TRUE(d.answers(readDescription, stored));
    EXPECT_TRUE(d.answers(setDescription(next), description("")));
    EXPECT_TRUE(d.end());
    EXPECT_NE(readFile(d.file).find("\ndescription                    = " + next + "\n"),
              std::string::npos)
        << readFile(d.file);
    EXPECT_EQ(queueState(d).msg_qnum, 0u);
}

// One daemon meets each client in turn; a client that plays by the rules follows each.
TEST(Hostile, ClientsThatDieMisaddressMalformOrFloodLeaveTheDaemonServing) {
    Daemon d(71, 72, file());

    // A session with answer address 0 is served but its answers cannot be sent; its write is
    // stored all the same.
    for (const std::string& request : {text(START_SESSION, 0, 0, 1), setDescription("via type 0"),
                                       text(FINISH_SESSION, 0, 0, 0)})
        ASSERT_TRUE(send(d.queue, request));
    EXPECT_TRUE(poll([&] { return queueState(d).msg_qnum == 0; }, kAnswerMs));
    expectCleanSession(d, description("via type 0"), "after type 0");

    // The session lock gives a killed client's hold back (its semaphore operations are undone),
    // and the next START_SESSION finds the dead session open and reloads the file over its
    // write. The answer that the dead client did not read stays on the queue under its address.
    const int semaphores = semget(71, 0, 0);
    ASSERT_GE(semaphores, 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {  // no destructors: they would end the test's daemon
        client::Connection c;
        RequestMessage answer{};
        if (c.open(d.lock.c_str()) == client::Status::Ok &&
            c.startSession(1, answer) == client::Status::Ok &&
            send(c.queueId(), setDescription("by the dead")))
            (void)raise(SIGKILL);
        _exit(1);
    }
    int status = 0;
    ASSERT_TRUE(poll([&] { return waitpid(child, &status, WNOHANG) == child; }, kStartMs));
    EXPECT_EQ(status, SIGKILL);  // wait status
    EXPECT_EQ(semctl(semaphores, 0, GETVAL), 1) << "session lock";
    EXPECT_EQ(semctl(semaphores, 1, GETVAL), 0) << "users";
    EXPECT_EQ(receive(d.queue, client::answerTypeFor(child), kAnswerMs), description(""));
    expectCleanSession(d, description("after type 0"), kKept);

    // A text the parser refuses is dropped without answer, one without its closing brace is
    // served; a message that fills the receive buffer is taken, and a longer one is answered
    // with the receive's error. Each is followed by a read, whose answer must be the next one.
    ASSERT_TRUE(d.start(kFirst, 0, 5));
    const std::string write = text(SET_PARAM, kGeneral, kDescription, 0, "");
    const std::string open = write.substr(0, write.find("s:0:")) + "s:999:\"";  // no end
    const auto filled = [&](std::size_t size) {
        return open + std::string(size - open.size(), 'x');
    };
    // Stored whole, but read back only as far as the answer holds it.
    const std::string whole = description(filled(kQueueTextSize).substr(open.size()));
    const std::string tooLong = text(NEG_ANSW, 0, 0, 0, "ERROR: Argument list too long!");
    const std::tuple<std::string, std::string, std::string> cases[] = {
        // request, its answer ("": none), the answer to the read then
        {"b" + readDescription.substr(1), "", description(kKept)},
        {readDescription.substr(0, readDescription.size() - 1), description(kKept),
         description(kKept)},
        {filled(kQueueTextSize), description(""), whole.substr(0, kQueueTextSize - 1)},
        {filled(kQueueTextSize + 1), tooLong, whole.substr(0, kQueueTextSize - 1)},
    };
    for (const auto& [request, answer, read] : cases) {
        ASSERT_TRUE(send(d.queue, request)) << request.size();
        if (!answer.empty()) {
            EXPECT_EQ(receive(d.queue, kFirst, kAnswerMs), answer);
        }
        EXPECT_TRUE(d.answers(readDescription, read));
    }
    ASSERT_TRUE(d.end());
    expectCleanSession(d, whole.substr(0, kQueueTextSize - 1), "after the malformed");

    // A client that sends requests one by one without reading answers fills the queue with them,
    // and the daemon waits in its send of an answer that does not fit; reading the answers lets it
    // go on, in order and with the state kept.
    const std::string value(100, 'a'), answer = description(value);
    // Asleep in a send (the kernel shows the call of a task that is not running).
    const std::string syscall =
        sandbox("CFGD_SANDBOX_PROC") + "/" + std::to_string(d.process.pid()) + "/syscall";
    const auto sending = [&] {
        return readFile(syscall).starts_with(std::to_string(SYS_msgsnd) + " ");
    };
    // Room for kHeld answers and one request.
    constexpr std::size_t kHeld = 64;
    msqid_ds limits = queueState(d);
    limits.msg_qbytes = kHeld * answer.size() + readDescription.size();
    ASSERT_EQ(msgctl(d.queue, IPC_SET, &limits), 0);
    ASSERT_TRUE(d.start(kFirst, 0, 1));
    ASSERT_TRUE(d.answers(setDescription(value), description("")));
    std::size_t sent = 0;
    for (; sent < 10 * kHeld && send(d.queue, readDescription); ++sent) {
        // Taken and answered, or held in the daemon's send.
        ASSERT_TRUE(poll(
            [&] { return queueState(d).msg_cbytes == (sent + 1) * answer.size() || sending(); },
            kAnswerMs));
    }
    ASSERT_EQ(errno, EAGAIN);
    EXPECT_EQ(sent, kHeld + 2);  // the last two came once the daemon was held
    EXPECT_TRUE(poll(sending, kAnswerMs)) << readFile(syscall);
    EXPECT_EQ(queueState(d).msg_qnum, sent - 1);  // all answers but the one being sent
    for (std::size_t i = 0; i < sent; ++i)
        ASSERT_EQ(receive(d.queue, kFirst, kAnswerMs), answer) << i << " of " << sent;
    ASSERT_TRUE(d.end());
    expectCleanSession(d, answer, "after the flood");
}

}  // namespace
}  // namespace e2e
