#include "routing/canoipd.h"

#include <cstring>

#include "model/config_model.h"
#include "routing/routing_command.h"
#include "sys/gateway_driver.h"
#include "sys/profile.h"

namespace {

constexpr const char* kStartFormat = "%s -P %s -p %u -N %s ";
constexpr const char* kInterfaceFormat = "-I %s%d ";
constexpr const char* kBackground = "& ";  // the shell returns at once, the helper runs on
constexpr const char* kStopFormat = "killall %s";

// The line of the last start, which a reset compares so that it restarts the helper only for
// a change (hardened profile only).
RoutingCommand lastStart;

void composeStart(const ConfigModel& model, RoutingCommand& command) {
    // Device names with blanks go unquoted: the helper has always been started this way.
    command.append(kStartFormat, kCanoipdPath, gw::kRouteNodePrefix, model.general.CANoIPdPort,
                   model.general.hostName);
    command.append(kInterfaceFormat, kLanBaseName, static_cast<int>(model.lan[0].Index));
    command.append("%s", kBackground);
}

void start(const ConfigModel& model) {
    RoutingCommand command;
    composeStart(model, command);
    command.run();
    if constexpr (kHardened) lastStart = command;
}

void stop() {
    RoutingCommand command;
    command.append(kStopFormat, kCanoipdPath);
    command.run();
}

}  // namespace

int controlCanoipd(int mode, const ConfigModel& model) {
    switch (static_cast<CanoipdMode>(mode)) {
        case CanoipdMode::Start:
            start(model);
            return 0;
        case CanoipdMode::Stop:
            stop();
            return 0;
        case CanoipdMode::Restart:
            // A stop when no helper runs is harmless, so a restart always issues both.
            stop();
            start(model);
            return 0;
    }
    return -1;
}

bool canoipdStartedWith(const ConfigModel& model) {
    if constexpr (!kHardened) return false;
    RoutingCommand command;
    composeStart(model, command);
    return std::strcmp(command.text(), lastStart.text()) == 0;
}
