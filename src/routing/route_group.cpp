#include "routing/route_group.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "filters/route_filters.h"
#include "model/config_model.h"
#include "model/device_numbers.h"
#include "model/value_rules.h"
#include "routing/destination.h"
#include "routing/gateway.h"
#include "sys/system.h"

namespace {

constexpr const char* kRouteSlotsText = "8";
constexpr const char* kNoneText = "- none -";
constexpr const char* kNoFiltersText = "-1";
constexpr const char* kFppStatFormat = "%d; ";
constexpr const char* kDestinationFormat = "%s:%d";
constexpr const char* kOpenFailedFormat = "unable to open route (%s)";

constexpr std::size_t kInterfaceChars = 31;  // the field holds 15 of them
constexpr unsigned kWriteLimit = 37;         // f3 from here on names nothing

// Sub-index II of f2 = 0.
enum GroupParam : uint8_t { RouteSlots = 0, ActiveCount = 1 };

int answerNumber(AnswerMessage& answer, uint32_t value) {
    // Every route value has always been printed signed.
    answerText(answer, "%d", static_cast<int>(value));
    return 0;
}

int answerBit(AnswerMessage& answer, uint32_t word, uint32_t bit) {
    return answerNumber(answer, (word & bit) != 0 ? 1 : 0);
}

// --- reads of one route, indexed by f3 ---

using RouteReader = int (*)(AnswerMessage& answer, const ConfigModel& model, unsigned index);

const RouteRecord& routeAt(const ConfigModel& model, unsigned index) {
    return model.routes[index];
}

int readName(AnswerMessage& answer, const ConfigModel& model, unsigned index) {
    answerCopy(answer, routeAt(model, index).RtInfo);
    return 0;
}

int readState(AnswerMessage& answer, const ConfigModel& model, unsigned index) {
    const uint32_t flags = routeAt(model, index).RouteFlags;
    const uint32_t state = (flags & kRouteActive) == 0 ? 0 : (flags & kRouteRunning) != 0 ? 2 : 1;
    return answerNumber(answer, state);
}

int readType(AnswerMessage& answer, const ConfigModel& model, unsigned index) {
    return answerNumber(answer, (routeAt(model, index).image.info.flags & kDrvCan2Lan) ? 0 : 1);
}

int readInterface(AnswerMessage& answer, const ConfigModel& model, unsigned index) {
    const RouteInfo& info = routeAt(model, index).image.info;
    answerText(answer, "%.*s", static_cast<int>(sizeof info.interface1), info.interface1);
    return 0;
}

int readNone(AnswerMessage& answer, const ConfigModel&, unsigned) {
    answerCopy(answer, kNoneText);
    return 0;
}

int readDestination(AnswerMessage& answer, const ConfigModel& model, unsigned index) {
    const sockaddr_in& destination = routeAt(model, index).image.info.destination;
    answerText(answer, kDestinationFormat, inet_ntoa(destination.sin_addr),
               static_cast<int>(ntohs(destination.sin_port)));
    return 0;
}

template <auto Field>
int readInfo(AnswerMessage& answer, const ConfigModel& model, unsigned index) {
    return answerNumber(answer, routeAt(model, index).image.info.*Field);
}

template <uint32_t Bit>
int readDriverBit(AnswerMessage& answer, const ConfigModel& model, unsigned index) {
    return answerBit(answer, routeAt(model, index).image.info.flags, Bit);
}

template <uint32_t Bit>
int readRouteBit(AnswerMessage& answer, const ConfigModel& model, unsigned index) {
    return answerBit(answer, routeAt(model, index).RouteFlags, Bit);
}

int readDisplayIndex(AnswerMessage& answer, const ConfigModel& model, unsigned index) {
    return answerNumber(answer, routeAt(model, index).DispIdx);
}

int readWriteOnly(AnswerMessage& answer, const ConfigModel&, unsigned) {
    return failText(answer, kWriteOnlyText);
}

template <unsigned Counter>
int readStat(AnswerMessage& answer, const ConfigModel& model, unsigned index) {
    return answerNumber(answer, routeAt(model, index).image.stats[Counter]);
}

int readFppStats(AnswerMessage& answer, const ConfigModel& model, unsigned index) {
    const DriverRoute& image = routeAt(model, index).image;
    const unsigned shown = image.info.fpp < kFppStatCount ? image.info.fpp : kFppStatCount;
    std::size_t length = 0;
    for (unsigned i = 0; i < shown && length < sizeof answer.da; ++i) {
        const int n = std::snprintf(answer.da + length, sizeof answer.da - length, kFppStatFormat,
                                    static_cast<int>(image.fppStats[i]));
        if (n < 0) break;
        length += static_cast<std::size_t>(n);
    }
    return 0;
}

int readFilterList(AnswerMessage& answer, const ConfigModel& model, unsigned index) {
    // Requests number filters from 1, like the Filter group does.
    if (getRtFilters(model.filters, static_cast<int>(index), answer.da, sizeof answer.da, false) <
        0)
        answerCopy(answer, kNoFiltersText);
    return 0;
}

using namespace route_stat;

constexpr RouteReader kRouteReaders[] = {
    readName,                               // 0
    readState,                              // 1
    readType,                               // 2
    readInterface,                          // 3
    readNone,                               // 4
    readNone,                               // 5
    readInfo<&RouteInfo::protocol2>,        // 6
    readNone,                               // 7
    readDestination,                        // 8
    readNone,                               // 9
    readNone,                               // 10
    readInfo<&RouteInfo::fpp>,              // 11
    readDriverBit<kDrvTcpDelay>,            // 12
    readDisplayIndex,                       // 13
    readInfo<&RouteInfo::authorizedPeers>,  // 14
    readWriteOnly,                          // 15
    readStat<CanPackets>,                   // 16
    readStat<CanMsgs>,                      // 17
    readStat<CanErrors>,                    // 18
    readStat<CanDropped>,                   // 19
    readStat<CanRetryOk>,                   // 20
    readStat<LanPackets>,                   // 21
    readStat<LanMsgs>,                      // 22
    readStat<LanErrors>,                    // 23
    readStat<LanDiscarded>,                 // 24: crosswise, as clients have always read
    readStat<LanDropped>,                   // 25: them
    readStat<RxBufferLen>,                  // 26
    readStat<RxBufferSize>,                 // 27
    readFppStats,                           // 28
    readInfo<&RouteInfo::retryDelay>,       // 29
    readInfo<&RouteInfo::retryCount>,       // 30
    readDriverBit<kDrvTcpConnected>,        // 31
    readDriverBit<kDrvNoControl>,           // 32
    readFilterList,                         // 33
    readRouteBit<kRouteUnifyFilters>,       // 34
    readRouteBit<kRouteJoinFilters>,        // 35
};

// The live state of all routes, once per session.
void refreshRoutes(ConfigModel& model) {
    model.stamps.routesChanged = 1;
    if (model.stamps.routes == model.session.counter) return;
    for (unsigned i = 0; i < kMaxRoutes; ++i)
        (void)refreshRoute(model, i);  // a route without a node keeps what the model holds
    model.stamps.routes = model.session.counter;
    model.stamps.routesChanged = 0;
}

// --- writes of one route, indexed by f3 ---

using RouteWriter = int (*)(const char* value, AnswerMessage& answer, ConfigModel& model,
                            unsigned index);

int32_t number(const char* value) {
    return deviceStrtol(value, 10);
}

uint32_t clamped(const char* value, int32_t low, int32_t high) {
    const int32_t n = number(value);
    return static_cast<uint32_t>(n < low ? low : n > high ? high : n);
}

void setBit(uint32_t& word, uint32_t bit, bool on) {
    word = on ? word | bit : word & ~bit;
}

int writeName(const char* value, AnswerMessage& answer, ConfigModel& model, unsigned index) {
    if constexpr (kHardened) {
        if (const char* refusal = rules::checkStoredText(value)) return failText(answer, refusal);
    }
    copyText(model.routes[index].RtInfo, value, kRtInfoChars);
    return 0;
}

int writeState(const char* value, AnswerMessage&, ConfigModel& model, unsigned index) {
    RouteRecord& route = model.routes[index];
    const int32_t state = number(value);
    if (state == 0) route.RouteFlags &= ~kRouteActive;
    const bool run = state != 0 && state != 1;
    setBit(route.RouteFlags, kRouteRunning, run);
    setBit(route.image.info.flags, kDrvRunRequest, run);
    return 0;
}

int writeType(const char* value, AnswerMessage&, ConfigModel& model, unsigned index) {
    setBit(model.routes[index].image.info.flags, kDrvCan2Lan, number(value) != 1);
    return 0;
}

int writeInterface(const char* value, AnswerMessage& answer, ConfigModel& model, unsigned index) {
    if constexpr (kHardened) {
        if (const char* refusal = rules::checkInterfaceName(value))
            return failText(answer, refusal);
    }
    copyText(model.routes[index].image.info.interface1, value, kInterfaceChars);
    return 0;
}

int writeIgnored(const char*, AnswerMessage&, ConfigModel&, unsigned) {
    return 0;
}

int writeProtocol(const char* value, AnswerMessage&, ConfigModel& model, unsigned index) {
    model.routes[index].image.info.protocol2 =
        number(value) == static_cast<int32_t>(kProtocolUdp) ? kProtocolUdp : kProtocolTcp;
    return 0;
}

int writeDestination(const char* value, AnswerMessage&, ConfigModel& model, unsigned index) {
    parseDestination(value, model.routes[index].image.info.destination);
    return 0;
}

int writeFpp(const char* value, AnswerMessage&, ConfigModel& model, unsigned index) {
    model.routes[index].image.info.fpp = static_cast<uint16_t>(clamped(value, 0, 65535));
    return 0;
}

template <uint32_t Bit>
int writeDriverBit(const char* value, AnswerMessage&, ConfigModel& model, unsigned index) {
    setBit(model.routes[index].image.info.flags, Bit, number(value) != 0);
    return 0;
}

int writeDisplayIndex(const char* value, AnswerMessage&, ConfigModel& model, unsigned index) {
    // Compared unsigned: a negative number is a large one and becomes 255 as well.
    const uint32_t n = static_cast<uint32_t>(number(value));
    model.routes[index].DispIdx = static_cast<uint8_t>(n > 255 ? 255 : n);
    return 0;
}

int writeReadOnly(const char*, AnswerMessage& answer, ConfigModel&, unsigned) {
    return failText(answer, kReadOnlyText);
}

// Runs `request` on the route's node, which is closed again at once.
int withRouteNode(AnswerMessage& answer, ConfigModel& model, unsigned index,
                  int (*request)(ConfigModel& model, unsigned index, int fd)) {
    const int fd = openRouteNode(model.routes[index]);
    if (fd < 0) {
        answerText(answer, kOpenFailedFormat, std::strerror(errno));
        return -1;
    }
    const int result = request(model, index, fd);
    (void)sys::current().closeNode(fd);  // nothing was written through it that a close could lose
    return result;
}

int resetStats(ConfigModel& model, unsigned index, int fd) {
    return sys::current().ioctlNode(fd, gw::kResetRouteStats, &model.routes[index].image) < 0 ? -1
                                                                                              : 0;
}

int attachFilters(ConfigModel& model, unsigned index, int fd) {
    // A refused list is handed over again by the route's apply at the end of the session.
    (void)applyFilters2Route(model.routes[index], fd, static_cast<int>(index), model.filters);
    return 0;
}

int writeResetStats(const char*, AnswerMessage& answer, ConfigModel& model, unsigned index) {
    return withRouteNode(answer, model, index, resetStats);
}

int writeFilterList(const char* value, AnswerMessage& answer, ConfigModel& model, unsigned index) {
    (void)delRtFiltRealtions(model, index + 1);  // how many went does not matter
    // A full relation table keeps the relations that fitted; the list shows which.
    (void)parseFilterList(model.filters, value, static_cast<int>(index), false);
    return withRouteNode(answer, model, index, attachFilters);
}

template <uint32_t Bit>
int writeFilterOption(const char* value, AnswerMessage& answer, ConfigModel& model,
                      unsigned index) {
    setBit(model.routes[index].RouteFlags, Bit, number(value) >= 1);
    return withRouteNode(answer, model, index, attachFilters);
}

int writeCdm(const char* value, AnswerMessage&, ConfigModel& model, unsigned index) {
    model.routes[index].image.info.cdm = clamped(value, 10, 65535);
    return 0;
}

struct WriteRow {
    RouteWriter write;  // nullptr: names no parameter
    bool marks;         // sets the route's change flag
};

constexpr WriteRow kRouteWriters[kWriteLimit] = {
    {writeName, true},                              // 0
    {writeState, true},                             // 1
    {writeType, true},                              // 2
    {writeInterface, true},                         // 3
    {writeIgnored, false},                          // 4
    {writeIgnored, false},                          // 5
    {writeProtocol, true},                          // 6
    {writeIgnored, false},                          // 7
    {writeDestination, true},                       // 8
    {writeIgnored, false},                          // 9
    {writeIgnored, false},                          // 10
    {writeFpp, true},                               // 11
    {writeDriverBit<kDrvTcpDelay>, true},           // 12
    {writeDisplayIndex, true},                      // 13
    {writeReadOnly, false},                         // 14
    {writeResetStats, false},                       // 15
    {writeReadOnly, false},                         // 16
    {writeReadOnly, false},                         // 17
    {writeReadOnly, false},                         // 18
    {writeReadOnly, false},                         // 19
    {writeReadOnly, false},                         // 20
    {writeReadOnly, false},                         // 21
    {writeReadOnly, false},                         // 22
    {writeReadOnly, false},                         // 23
    {writeReadOnly, false},                         // 24
    {nullptr, false},                               // 25
    {nullptr, false},                               // 26
    {nullptr, false},                               // 27
    {nullptr, false},                               // 28
    {nullptr, false},                               // 29
    {nullptr, false},                               // 30
    {nullptr, false},                               // 31
    {writeDriverBit<kDrvNoControl>, true},          // 32
    {writeFilterList, true},                        // 33
    {writeFilterOption<kRouteUnifyFilters>, true},  // 34
    {writeFilterOption<kRouteJoinFilters>, true},   // 35
    {writeCdm, true},                               // 36
};

bool isRoute(uint8_t f2) {
    return f2 >= 1 && f2 <= kMaxRoutes;
}

}  // namespace

int readRoute(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if (request.f2 == 0) {
        if (request.f3 == RouteSlots) {
            answerCopy(answer, kRouteSlotsText);
            return 0;
        }
        if (request.f3 == ActiveCount) return answerNumber(answer, recountActiveRoutes(model));
        return failUnknownSubidxII(request, answer);
    }
    if (!isRoute(request.f2)) return failUnknownSubidxI(request, answer);
    refreshRoutes(model);
    if (request.f3 >= std::size(kRouteReaders)) return failUnknownSubidxII(request, answer);
    return kRouteReaders[request.f3](answer, model, request.f2 - 1u);
}

int setRoute(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if (request.f2 == 0) {
        if (request.f3 == RouteSlots || request.f3 == ActiveCount)
            return failText(answer, kReadOnlyText);
        return failUnknownSubidxII(request, answer);
    }
    if (!isRoute(request.f2)) return failUnknownSubidxI(request, answer);
    const unsigned index = request.f2 - 1u;
    model.stamps.routesChanged = 1;
    // Any write switches the route on: the web front end relies on it when it creates a route
    // by naming it. The legacy profile does so even for a write that then fails, which an abort
    // then pushes into the driver; the hardened one only for a write that is done.
    uint32_t& flags = model.routes[index].RouteFlags;
    const uint32_t wasActive = flags & kRouteActive;
    flags |= kRouteActive;
    int result = -1;
    if (request.f3 >= kWriteLimit || kRouteWriters[request.f3].write == nullptr) {
        result = failUnknownSubidxII(request, answer);
    } else {
        const WriteRow& row = kRouteWriters[request.f3];
        if (row.marks) model.changed.mark(flag::Route, request.f2);
        result = row.write(request.da, answer, model, index);
    }
    if constexpr (kHardened) {
        if (result < 0 && wasActive == 0) flags &= ~kRouteActive;
    }
    return result;
}
