#pragma once
// One session of the soak, shared by the benchmark's soak mode and the end-to-end suite: it
// reads the CAN, LAN and route parameters the web front end shows, and every tenth session
// also writes the first route's frames per packet, so that the finish applies it to the
// gateway driver. Over many sessions the daemon's descriptors and memory must stay level.

#include <dirent.h>

#include <cstdio>

#include "client.h"

namespace soak {

struct Address {
    unsigned f1, f2, f3;
};

inline constexpr unsigned kCan = 4, kLan = 2, kRoute = 5;
inline constexpr Address kReads[] = {
    {kCan, 1, 0},    {kCan, 1, 2},    {kCan, 1, 11},  {kCan, 2, 2},   {kCan, 2, 13},
    {kLan, 1, 1},    {kLan, 1, 2},    {kLan, 1, 3},   {kLan, 1, 5},   {kLan, 1, 8},
    {kRoute, 0, 1},  {kRoute, 1, 1},  {kRoute, 2, 1}, {kRoute, 3, 1}, {kRoute, 4, 1},
    {kRoute, 5, 1},  {kRoute, 6, 1},  {kRoute, 7, 1}, {kRoute, 8, 1}, {kRoute, 1, 8},
    {kRoute, 1, 11}, {kRoute, 1, 16},
};
inline constexpr unsigned kWriteEvery = 10;
inline constexpr Address kWrite = {kRoute, 1, 11};  // frames per packet of route 1
// Alternated, so that every write changes the route and the driver's route is replaced.
inline constexpr const char* kWrittenValues[] = {"8", "15"};

// Session `number` (from 1); false, with a line on standard error, when a request failed or
// was refused.
inline bool session(client::Connection& cfgd, long number) {
    const bool writes = number % kWriteEvery == 0;
    RequestMessage answer{};
    auto refused = [&](const char* what, const Address& a, client::Status status) {
        std::fprintf(stderr, "session %ld: %s %u %u %u: %s\n", number, what, a.f1, a.f2, a.f3,
                     status != client::Status::Ok ? "no answer" : answer.da);
        cfgd.endSession();
        return false;
    };
    if (client::Status s = cfgd.startSession(writes ? 1 : 0, answer); s != client::Status::Ok)
        return refused("START_SESSION", {}, s);
    for (const Address& a : kReads) {
        const client::Status s = cfgd.exchange(READ_PARAM, a.f1, a.f2, a.f3, nullptr, answer);
        if (s != client::Status::Ok || answer.mt != POS_ANSW) return refused("READ_PARAM", a, s);
    }
    if (writes) {
        const char* value = kWrittenValues[(number / kWriteEvery) % 2];
        const client::Status s =
            cfgd.exchange(SET_PARAM, kWrite.f1, kWrite.f2, kWrite.f3, value, answer);
        if (s != client::Status::Ok || answer.mt != POS_ANSW)
            return refused("SET_PARAM", kWrite, s);
    }
    const client::Status s = cfgd.exchange(FINISH_SESSION, 0, 0, 0, nullptr, answer);
    if (s != client::Status::Ok || answer.mt != POS_ANSW) return refused("FINISH_SESSION", {}, s);
    cfgd.endSession();
    return true;
}

// The number of descriptors process `pid` holds open, from <procfs>/<pid>/fd; -1 when it
// cannot be read.
inline int openDescriptors(const char* procfs, int pid) {
    char path[96];
    std::snprintf(path, sizeof path, "%s/%d/fd", procfs, pid);
    DIR* directory = opendir(path);
    if (directory == nullptr) return -1;
    int count = 0;
    while (const dirent* entry = readdir(directory))
        if (entry->d_name[0] != '.') ++count;
    (void)closedir(directory);  // read-only
    return count;
}

}  // namespace soak
