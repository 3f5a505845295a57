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
constexpr long kFirst = 90;                         // the answer address of the raw clients

// The description's line as the store writes it.
std::string storedLine(const std::string& description) {
    return "\ndescription                    = " + description + "\n";
}

std::string fileWith(const std::string& description) {
    return Daemon::freshFile(
        "#########################################\n# KIV configuration file\n"
        "# Format version 1.3.1\n#########################################\n[general]" +
        storedLine(description));
}

const std::string readDescription = text(READ_PARAM, kGeneral, kDescription, 0);
std::string description(const std::string& value) {
    return ok(kGeneral, kDescription, 0, value.c_str());
}
std::string setDescription(const std::string& value) {
    return text(SET_PARAM, kGeneral, kDescription, 0, value.c_str());
}

msqid_ds queueState(const Daemon& d) {
    msqid_ds state{};
    EXPECT_EQ(msgctl(d.queue, IPC_STAT, &state), 0);
    return state;
}

// A client as cfgctl is one: it takes the session lock, finds `stored`, writes `next` for good,
// and the file then holds `next`. Nothing else is left on the queue.
void expectCleanSession(const Daemon& d, const std::string& stored, const std::string& next) {
    client::Connection c;
    c.setTimeout(2);
    RequestMessage answer{};
    ASSERT_EQ(c.open(d.lock.c_str()), client::Status::Ok);
    ASSERT_EQ(c.startSession(1, answer), client::Status::Ok) << "the session lock is held";
    const std::tuple<unsigned, unsigned, const char*, std::string> steps[] = {
        {READ_PARAM, kDescription, nullptr, stored},
        {SET_PARAM, kDescription, next.c_str(), ""},
        {FINISH_SESSION, 0, nullptr, ""}};
    for (const auto& [mt, f2, value, answered] : steps) {
        ASSERT_EQ(c.exchange(mt, kGeneral, f2, 0, value, answer), client::Status::Ok);
        EXPECT_EQ(answer.mt, POS_ANSW) << answer.da;
        EXPECT_EQ(std::string(answer.da), answered);
    }
    EXPECT_NE(readFile(d.file).find(storedLine(next)), std::string::npos) << readFile(d.file);
    EXPECT_EQ(queueState(d).msg_qnum, 0u);
}

// The session lock gives a killed client's hold back (its semaphore operations are undone),
// and the next START_SESSION finds the dead session open and reloads the file over its write.
// The answer that the dead client did not read stays on the queue under its address.
TEST(Hostile, ClientDyingInItsSessionFreesTheLockAndLosesItsWrites) {
    Daemon d(71, 72, fileWith("kept"));
    ASSERT_NE(d.up(), "") << d.process.output();
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
    EXPECT_EQ(receive(d.queue, client::answerTypeFor(child), kAnswerMs),
              ok(kGeneral, kDescription, 0));
    expectCleanSession(d, "kept", "after death");
}

// A session with answer address 0 is served but its answers cannot be sent; its write is
// stored all the same.
TEST(Hostile, SessionAnsweredToTypeZeroIsServedUnheard) {
    Daemon d(75, 76, fileWith("kept"));
    ASSERT_NE(d.up(), "") << d.process.output();
    for (const std::string& request : {text(START_SESSION, 0, 0, 1), setDescription("via type 0"),
                                       text(FINISH_SESSION, 0, 0, 0)})
        ASSERT_TRUE(send(d.queue, request));
    EXPECT_TRUE(poll([&] { return queueState(d).msg_qnum == 0; }, kAnswerMs));
    expectCleanSession(d, "via type 0", "after type 0");
}

// A text the parser refuses is dropped without answer, one without its closing brace is
// served; a message that fills the receive buffer is taken, and a longer one is answered with
// the receive's error. Each is followed by a read, whose answer must be the next one.
TEST(Hostile, MalformedAndOversizedTextsAreDroppedOrRefused) {
    Daemon d(77, 78, fileWith("kept"));
    ASSERT_NE(d.up(), "") << d.process.output();
    ASSERT_TRUE(d.start(kFirst, 0, 5));
    const std::string write = setDescription("");
    const std::string open = write.substr(0, write.find("s:0:")) + "s:999:\"";  // no end
    const auto filled = [&](std::size_t size) {
        return open + std::string(size - open.size(), 'x');
    };
    const std::string whole = filled(kQueueTextSize).substr(open.size());
    const std::string tooLong = text(NEG_ANSW, 0, 0, 0, "ERROR: Argument list too long!");
    const std::tuple<std::string, std::string, std::string> cases[] = {
        // request, its answer ("": none), the description then
        {"b" + readDescription.substr(1), "", "kept"},
        {readDescription.substr(0, readDescription.size() - 1), description("kept"), "kept"},
        {filled(kQueueTextSize), description(""), whole},
        {filled(kQueueTextSize + 1), tooLong, whole},
    };
    for (const auto& [request, answer, after] : cases) {
        ASSERT_TRUE(send(d.queue, request)) << request.size();
        if (!answer.empty()) {
            EXPECT_EQ(receive(d.queue, kFirst, kAnswerMs), answer);
        }
        EXPECT_TRUE(d.answers(readDescription, description(after).substr(0, kQueueTextSize - 1)));
    }
    ASSERT_TRUE(d.end());
    // Stored whole, but read back only as far as the answer holds it.
    const std::string answered = description(whole).substr(0, kQueueTextSize - 1);
    expectCleanSession(d, answered.substr(answered.find('x')), "after the malformed");
}

// A client that sends requests one by one without reading answers fills the queue with them,
// and the daemon waits in its send of an answer that does not fit; reading the answers lets it
// go on, in order and with the state kept.
TEST(Hostile, FloodWithoutReadingAnswersHoldsTheDaemonInItsSend) {
    const std::string value(100, 'a'), answer = description(value);
    Daemon d(79, 80, fileWith(value));
    ASSERT_NE(d.up(), "") << d.process.output();
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
    ASSERT_TRUE(d.start(kFirst));
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
    expectCleanSession(d, value, "after the flood");
}

}  // namespace
}  // namespace e2e
