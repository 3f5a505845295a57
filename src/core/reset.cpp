#include "core/reset.h"

#include "config/loader.h"
#include "sys/profile.h"

#if CFGD_HARDENED
#include <cstring>

#include "core/session.h"
#include "filters/filter_store.h"
#include "filters/route_filters.h"
#include "model/config_model.h"
#include "network/wlan_count.h"
#include "network/wlan_group.h"
#include "routing/canoipd.h"
#include "routing/gateway.h"
#include "sys/system.h"

namespace {

// Records are compared as bytes, without the parts that `clear` empties: the model is
// zero-filled when allocated and only ever copied whole, so the padding compares equal too.
template <typename T, typename Clear>
bool sameExcept(const T& a, const T& b, Clear clear) {
    T x;
    T y;
    std::memcpy(&x, &a, sizeof x);
    std::memcpy(&y, &b, sizeof y);
    clear(x);
    clear(y);
    return std::memcmp(&x, &y, sizeof x) == 0;
}

template <std::size_t N>
void keep(char (&to)[N], const char (&from)[N]) {
    std::memcpy(to, from, N);
}

// The model as the start-up holds it before its load: the platform file, the device identity,
// the interface base names and the driver's defaults, nothing of the configuration file.
void toStartState(ConfigModel& model, const ConfigModel& before) {
    resetModel(model);
    model.session = before.session;
    model.platform = before.platform;
    model.forwardDefaults = before.forwardDefaults;
    GeneralRecord& general = model.general;
    const GeneralRecord& was = before.general;
    keep(general.orderNumber, was.orderNumber);
    keep(general.serialNumber, was.serialNumber);
    keep(general.hwVersion, was.hwVersion);
    keep(general.bspVersion, was.bspVersion);
    keep(general.swVersion, was.swVersion);
    keep(general.buildDate, was.buildDate);
    keep(general.buildTime, was.buildTime);
    for (unsigned i = 0; i < kLanRecords; ++i)
        keep(model.lan[i].BaseName, before.lan[i].BaseName);
    for (unsigned i = 0; i < kCanRecords; ++i)
        keep(model.can[i].BaseName, before.can[i].BaseName);
    startWlanInterfaces(model);
}

// What the start-up's apply leaves in the model beside the system: each active route with a
// node is named for the driver, its mask filters carry their inversion, and Count holds the
// number of active routes.
void asStartApplied(ConfigModel& model) {
    FilterTable& filters = model.filters;
    for (unsigned i = 0; i < kMaxRoutes; ++i) {
        RouteRecord& route = model.routes[i];
        if ((route.RouteFlags & kRouteActive) == 0 || route.DrvIndex >= kNoDriverNode) continue;
        nameRoute(route, i);
        for (unsigned r = 0; r < filters.relationCount; ++r) {
            const FilterRelation& relation = filters.relations[r];
            if (relation.route != i + 1 || relation.filter == 0) continue;
            if (Filter* filter = findFilter(filters, relation.filter - 1u)) keepInversion(*filter);
        }
    }
    (void)recountActiveRoutes(model);
}

// A route as the file and the apply see it: without what the driver reports back.
bool sameRoute(const RouteRecord& a, const RouteRecord& b) {
    return sameExcept(a, b, [](RouteRecord& r) {
        RouteInfo& info = r.image.info;
        std::memset(info.name, 0, sizeof info.name);
        info.authorizedPeers = 0;
        info.flags &= ~(kDrvTcpConnected | kDrvRunRequest);  // the run state is RouteFlags'
        std::memset(r.image.stats, 0, sizeof r.image.stats);
        std::memset(r.image.fppStats, 0, sizeof r.image.fppStats);
    });
}

// A filter without the inversion bit that lists put into a mask filter's identifier.
bool sameFilter(const FilterTable& a, const FilterTable& b, unsigned index) {
    return a.defined[index] == b.defined[index] &&
           sameExcept(a.slots[index], b.slots[index],
                      [](Filter& f) { f.FilterFrom &= ~gw::kInvertedFilter; });
}

// The filters route `index` hands to the driver: its filter numbers in order, and the filters.
bool sameRouteFilters(const FilterTable& a, const FilterTable& b, unsigned index) {
    char listA[4 * kMaxRelations] = {};
    char listB[4 * kMaxRelations] = {};
    const int haveA = getRtFilters(a, static_cast<int>(index), listA, sizeof listA, false);
    const int haveB = getRtFilters(b, static_cast<int>(index), listB, sizeof listB, false);
    if (haveA != haveB || std::strcmp(listA, listB) != 0) return false;
    for (unsigned r = 0; r < a.relationCount; ++r) {
        const FilterRelation& relation = a.relations[r];
        if (relation.route != index + 1 || relation.filter == 0) continue;
        if (relation.filter <= kMaxFilters && !sameFilter(a, b, relation.filter - 1u)) return false;
    }
    return true;
}

// An interface's addressing as its apply uses it: the MAC is only read, and under DHCP the
// address read back from the kernel stands where a configured one would.
template <typename Interface>
bool sameAddressing(const Interface& a, const Interface& b) {
    if (a.UseDHCP != b.UseDHCP) return false;
    const bool dhcp = a.UseDHCP != 0;
    return sameExcept(a, b, [dhcp](Interface& i) {
        std::memset(i.MAC, 0, sizeof i.MAC);
        if (dhcp) i.IPv4 = in_addr{};
    });
}

// An interface as its apply uses it. A read puts the driver's link state into the record; the
// timing the driver reports for a bit rate is no register timing of the file's.
bool sameCan(const CanInterface& a, const CanInterface& b) {
    const bool rate = a.ManBr == 0 && b.ManBr == 0;
    return sameExcept(a, b, [rate](CanInterface& can) {
        can.RealBaudrate = 0;
        can.RealSamplepoint = 0;
        can.CanState = 0;
        if (rate) can.timing = {};
    });
}

bool sameTimeService(const GeneralRecord& a, const GeneralRecord& b) {
    return a.UseNTP == b.UseNTP && std::strcmp(a.NTPServer, b.NTPServer) == 0;
}

// Marks the groups whose apply would change the system: those that differ between the model
// before the reset and after it, and the host name where the system holds another.
void markDiffering(ConfigModel& model, const ConfigModel& before) {
    ChangeFlags& changed = model.changed;
    changed.clearAll();
    if (model.general.KL15pwdn != before.general.KL15pwdn) changed.mark(flag::General);
    char running[kHostTextChars + 1] = {};
    if (sys::current().getHostName(running, sizeof running - 1) != 0 ||
        std::strcmp(running, model.general.hostName) != 0)
        changed.mark(flag::Host);
    if (!sameAddressing(model.lan[0], before.lan[0]) ||
        !sameTimeService(model.general, before.general))
        changed.mark(flag::Lan, 1);
    if constexpr (WLAN_IF_COUNT > 0) {
        if (!sameAddressing(model.wlan, before.wlan)) changed.mark(flag::Wlan, 1);
    }
    for (unsigned i = 0; i < kCanServed; ++i) {
        if (!sameCan(model.can[i], before.can[i])) changed.mark(flag::Can, i + 1);
    }
    for (unsigned i = 0; i < kRoutesServed; ++i) {
        if (!sameRoute(model.routes[i], before.routes[i]) ||
            !sameRouteFilters(model.filters, before.filters, i))
            changed.mark(flag::Route, i + 1);
    }
}

}  // namespace

int reloadConfiguration(ConfigModel& model, AnswerMessage& answer) {
    // Too large for the stack; kept only in this profile's build.
    static ConfigModel before;
    std::memcpy(&before, &model, sizeof before);
    toStartState(model, before);
    (void)loadConfiguration(model, LoadEffects::None);  // never fails
    model.previousWlanMode = model.wlan.Mode;
    asStartApplied(model);
    markDiffering(model, before);
    // The start-up runs the helper when the driver is there, which gave route 1 its node.
    if (model.routes[0].DrvIndex != kNoDriverNode && !canoipdStartedWith(model))
        (void)controlCanoipd(static_cast<int>(CanoipdMode::Restart), model);  // known mode: 0
    const int result = applyChangedGroups(model, answer);
    model.changed.clearAll();
    return result;
}

#else

int reloadConfiguration(ConfigModel& model, AnswerMessage&) {
    return loadConfiguration(model);
}

#endif
