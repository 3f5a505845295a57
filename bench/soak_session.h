#pragma once
// The soak, shared by the benchmark's soak mode and the end-to-end suite: sessions of the web
// front end's kind, mixed. Every session reads a slice of the parameter table that `cfgctl
// dump` reads, the next session the next slice, so that every readable parameter of every
// group and instance is read over the run. Some sessions also write: a CAN interface's bit
// rate, the kind and term of a filter that a route uses, or (rarely: a route replacement waits
// 100 ms for the driver) a route's frames per packet. Each value written
// differs from the one the device last applied, so that every apply changes something. The
// writing sessions end in turn permanently (FINISH_SESSION applies and stores), temporarily
// (written with SET_TEMP_PARAM: applied, not stored) or aborted (the file is reloaded).
// Over many sessions the daemon's descriptors and resident memory must stay level.

#include <dirent.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "client.h"
#include "model/param_names.h"

namespace soak {

// The configuration the soak needs: all eight routes, each with four of the 32 filters, so
// that every route and filter parameter reads positively. Inside the sandbox the repository
// is at the path this variable names.
inline constexpr const char* kRepositoryVariable = "CFGD_SANDBOX_REPO";
inline constexpr const char* kConfiguration = "bench/full_config.ini";

// A page of the web front end reads a few dozen parameters; every second session also
// writes, one writing session in ten a route. A route write that is applied replaces the route
// and so waits 100 ms for the driver: at one session in twenty the route writes take about
// half of the run's time, and a million requests finish in a few minutes.
inline constexpr unsigned kReadsPerSession = 40;
inline constexpr long kWriteEvery = 2;   // sessions; the others only read
inline constexpr long kRouteEvery = 10;  // writing sessions; the others write CAN, filter in turn
// Requests before the daemon's use is taken as the level to keep: over 200 sessions, in which
// every kind of write ends in every way several times (the first writing session writes a
// route) and every readable parameter is read; the daemon is level after about 2,000.
inline constexpr long kWarmUpRequests = 10000;
// Resident memory may grow by this much after the warm-up: four pages, for a heap that
// happens to lay out a reload's or a store's blocks differently and touches a page it had not
// needed before. A leak of 16 bytes per writing session would exceed it within a million
// requests, and a leak of a file's or a dictionary's size within a few writing sessions.
inline constexpr long kResidentSlackKilobytes = 16;

enum class Kind { Read, Can, Filter, Route };
enum class End { Permanent, Temporary, Aborted };
inline constexpr const char* kKindNames[] = {"read-only", "CAN", "filter", "route"};
inline constexpr const char* kEndNames[] = {"permanent", "temporary", "aborted"};

struct Change {
    unsigned f3;
    const char* values[2];  // the two that alternate
};

// What a writing session of a kind writes: to one of `targets` instances (f2 1..targets),
// each in turn.
struct Writes {
    unsigned f1;
    unsigned targets;
    std::array<Change, 2> changes;
    unsigned count;
};

// The first value of each differs from full_config.ini's, so that the first write changes too.
inline constexpr Writes kWrites[] = {
    {},                                                                    // Kind::Read
    {4, 2, {{{2, {"500000", "250000"}}}}, 1},                              // bit rate
    {9, 32, {{{0, {"3", "1"}}, {2, {"0x100/0x700", "0x100-0x1FF"}}}}, 2},  // kind, then term
    {5, 8, {{{11, {"8", "15"}}}}, 1},                                      // frames per packet
};
inline constexpr unsigned kMaxTargets = 32;

struct Address {
    unsigned f1, f2, f3;
};

// Every parameter a dump reads, in its order.
inline const std::vector<Address>& readable() {
    static const std::vector<Address> table = [] {
        std::vector<Address> addresses;
        for (std::size_t i = 0; i < paramCount(); ++i)
            if (const Param p = paramAt(i); p.access != ParamAccess::WriteOnly)
                addresses.push_back({p.f1, p.f2, p.f3});
        return addresses;
    }();
    return table;
}

class Soak {
  public:
    // The next session over `cfgd`: the number of requests it made, or -1, with a line on
    // standard error, when a request failed or was refused.
    long session(client::Connection& cfgd) {
        const long number = ++sessions_;
        Kind kind = Kind::Read;
        if (number % kWriteEvery == 0) {
            const long writer = number / kWriteEvery - 1;
            const long notRoutes = writer - writer / kRouteEvery - 1;  // before this one
            kind = writer % kRouteEvery == 0 ? Kind::Route
                                             : (notRoutes % 2 == 0 ? Kind::Can : Kind::Filter);
        }
        const Writes& writes = kWrites[static_cast<int>(kind)];
        const long index = kind == Kind::Read ? 0 : done_[static_cast<int>(kind)]++;
        // Every target sees every end in turn: 3 shares no factor with the numbers of targets.
        const End end = kind == Kind::Read ? End::Permanent : static_cast<End>(index % 3);
        const unsigned target =
            kind == Kind::Read ? 0 : static_cast<unsigned>(index) % writes.targets;
        // The other value than the one the device holds: at first the file's, the second.
        bool& firstHeld = firstHeld_[static_cast<int>(kind)][target];
        const unsigned value = firstHeld ? 1 : 0;
        ++counts_[static_cast<int>(kind)][static_cast<int>(end)];

        long requests = 0;
        RequestMessage answer{};
        auto refused = [&](const char* what, unsigned f1, unsigned f2, unsigned f3,
                           client::Status status) {
            std::fprintf(stderr, "soak session %ld: %s %u %u %u: %s\n", number, what, f1, f2, f3,
                         status != client::Status::Ok ? "no answer" : answer.da);
            cfgd.endSession();
            return -1L;
        };
        // Ok only for a positive answer; a refusal leaves its text in `answer`.
        auto ask = [&](unsigned mt, unsigned f1, unsigned f2, unsigned f3, const char* text,
                       client::Status& s) {
            ++requests;
            s = cfgd.exchange(mt, f1, f2, f3, text, answer);
            return s == client::Status::Ok && answer.mt == POS_ANSW;
        };

        ++requests;
        client::Status s = cfgd.startSession(writes.count, answer);
        if (s != client::Status::Ok) return refused("START_SESSION", 0, 0, 0, s);
        const std::vector<Address>& table = readable();
        for (unsigned i = 0; i < kReadsPerSession; ++i) {
            const Address& a =
                table[(static_cast<std::size_t>(number - 1) * kReadsPerSession + i) % table.size()];
            if (!ask(READ_PARAM, a.f1, a.f2, a.f3, nullptr, s))
                return refused("READ_PARAM", a.f1, a.f2, a.f3, s);
        }
        const unsigned setType = end == End::Temporary ? SET_TEMP_PARAM : SET_PARAM;
        for (unsigned i = 0; i < writes.count; ++i) {
            const Change& c = writes.changes[i];
            if (!ask(setType, writes.f1, target + 1, c.f3, c.values[value], s))
                return refused("write", writes.f1, target + 1, c.f3, s);
        }
        const unsigned endType = end == End::Aborted ? ABORT_SESSION : FINISH_SESSION;
        if (!ask(endType, 0, 0, 0, nullptr, s))
            return refused(end == End::Aborted ? "ABORT_SESSION" : "FINISH_SESSION", 0, 0, 0, s);
        cfgd.endSession();
        if (kind != Kind::Read && end != End::Aborted) firstHeld = value == 0;
        return requests;
    }

    long sessions() const { return sessions_; }
    // Sessions so far of a kind that ended a way (read-only sessions count as permanent).
    long count(Kind kind, End end) const {
        return counts_[static_cast<int>(kind)][static_cast<int>(end)];
    }

  private:
    long sessions_ = 0;
    std::array<long, 4> done_{};  // writing sessions per kind
    std::array<std::array<bool, kMaxTargets>, 4> firstHeld_{};
    std::array<std::array<long, 3>, 4> counts_{};
};

// What the daemon holds: its open descriptors and resident memory, read from the procfs at
// `procfs` (the sandbox's view of the real one); -1 where it cannot be read.
struct Use {
    int descriptors = -1;
    long residentKilobytes = -1;
};

inline Use use(const char* procfs, int pid) {
    Use u;
    char path[96];
    std::snprintf(path, sizeof path, "%s/%d/fd", procfs, pid);
    if (DIR* directory = opendir(path)) {
        u.descriptors = 0;
        while (const dirent* entry = readdir(directory))
            if (entry->d_name[0] != '.') ++u.descriptors;
        (void)closedir(directory);  // read-only
    }
    std::snprintf(path, sizeof path, "%s/%d/status", procfs, pid);
    if (std::FILE* status = std::fopen(path, "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, status) != nullptr)
            if (std::strncmp(line, "VmRSS:", 6) == 0) u.residentKilobytes = std::atol(line + 6);
        (void)std::fclose(status);  // read-only
    }
    return u;
}

// AddressSanitizer keeps freed blocks in a quarantine of many megabytes before it hands them
// out again, so there resident memory grows with every allocation, leak or not (LeakSanitizer
// reports the leaks at exit). The daemon is built as whatever includes this.
#ifdef __SANITIZE_ADDRESS__
inline constexpr bool kResidentMeasures = false;
#else
inline constexpr bool kResidentMeasures = true;
#endif

// Level after the warm-up: the same descriptors, resident memory within the slack.
inline bool level(const Use& warm, const Use& now) {
    return warm.descriptors > 0 && now.descriptors == warm.descriptors &&
           warm.residentKilobytes > 0 &&
           (!kResidentMeasures ||
            now.residentKilobytes <= warm.residentKilobytes + kResidentSlackKilobytes);
}

}  // namespace soak
