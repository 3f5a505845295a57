#include "routing/canoipd.h"

#include "model/config_model.h"
#include "routing/routing_command.h"
#include "sys/gateway_driver.h"

namespace {

constexpr const char* kStartFormat = "%s -P %s -p %u -N %s ";
constexpr const char* kInterfaceFormat = "-I %s%d ";
constexpr const char* kBackground = "& ";  // the shell returns at once, the helper runs on
constexpr const char* kStopFormat = "killall %s";

void start(const ConfigModel& model) {
    RoutingCommand command;
    // Device names with blanks go unquoted: the helper has always been started this way.
    command.append(kStartFormat, kCanoipdPath, gw::kRouteNodePrefix, model.general.CANoIPdPort,
                   model.general.hostName);
    command.append(kInterfaceFormat, kLanBaseName, static_cast<int>(model.lan[0].Index));
    command.append("%s", kBackground);
    command.run();
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
