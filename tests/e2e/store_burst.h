#pragma once
// The stores that the kill and power-cut tests make in bursts: store n writes three values, in
// the file's first section, a middle one and its last, so that a file cut short shows.

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client.h"
#include "harness.h"

namespace e2e {

using Clock = std::chrono::steady_clock;

constexpr long kAnswerType = 70;
constexpr const char* kRouteName = "kept by every store";  // in the file, never written

struct Values {
    std::string description, bitRate, gui;
};
inline Values valuesOf(long n) {
    static const char* const rates[] = {"125000", "250000", "500000", "1000000"};
    return {"store " + std::to_string(n), rates[n % 4], n % 2 ? "1" : "0"};
}

// A configuration file as the daemon writes it, holding store 0 and a route no store touches.
inline std::string firstFile() {
    return std::string(kFileHead) +
           "[general]\ndescription = store 0\n[can_0]\nbaudrate = 125000\n[fwd_gen]\ncount = 1\n"
           "[rt_0]\nrtinfo = " +
           kRouteName +
           "\nactive = FALSE\ninterface1 = can0\ndestination2 = 198.51.100.40:5000\n"
           "[gui]\nshow_filter_info = 0\n";
}

// Sends a request and waits for its answer until `deadline`; nullopt when none came.
inline std::optional<std::string> exchange(
    int queue, const std::string& request,
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kAnswerMs)) {
    if (!send(queue, request)) return "(not sent)";
    using std::chrono::milliseconds;
    return receive(queue, kAnswerType,
                   std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count());
}

// The permanent session that stores n: each request with its answer.
inline std::vector<std::pair<std::string, std::string>> storing(long n) {
    const Values v = valuesOf(n);
    return {{text(START_SESSION, kAnswerType, 0, 3), ok(1, 0, 3)},
            {text(SET_PARAM, 0, 4, 0, v.description + '\0'), ok(0, 4, 0)},
            {text(SET_PARAM, 4, 1, 2, v.bitRate + '\0'), ok(4, 1, 2)},
            {text(SET_PARAM, 8, 1, 8, v.gui + '\0'), ok(8, 1, 8)},
            {text(FINISH_SESSION, 0, 0, 0), ok(0, 0, 0)}};
}

// Stores acked + 1, acked + 2, ... until no answer comes by `deadline`, counting each
// acknowledged store in `acked`; `finishSent` tells whether the unanswered store's
// FINISH_SESSION went out. A store whose FINISH_SESSION is refused is made again under its
// number; the result counts those.
inline long storeUntil(int queue, Clock::time_point deadline, long& acked, bool& finishSent) {
    for (long refused = 0;; ++acked) {
        for (const auto& [request, expected] : storing(acked + 1)) {
            finishSent = request == text(FINISH_SESSION, 0, 0, 0);
            const std::optional<std::string> answer = exchange(queue, request, deadline);
            if (!answer) return refused;
            RequestMessage parsed{};
            if (finishSent && parseRequest(answer->data(), answer->size(), parsed) == 0 &&
                parsed.mt == NEG_ANSW) {
                ++refused;
                --acked;
            } else if (*answer != expected) {
                ADD_FAILURE() << "store " << acked + 1 << ": " << *answer;
                return refused;
            }
        }
    }
}

// The time two stores take, measured on five (counted in `acked`): the span over which the
// tests spread their random moments.
inline Clock::duration twoStores(int queue, long& acked) {
    const auto started = Clock::now();
    for (int i = 0; i < 5; ++i, ++acked)
        for (const auto& [request, answer] : storing(acked + 1))
            EXPECT_EQ(exchange(queue, request), answer);
    return (Clock::now() - started) * 2 / 5;
}

}  // namespace e2e
