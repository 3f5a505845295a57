#pragma once
// The gateway kernel driver: its module, its forwarding defaults and the eight routes in it.
// Every node, file and descriptor opened here is closed before the operation returns.

#include <cstdint>

#include "model/handler.h"

struct ConfigModel;
struct RouteRecord;

inline constexpr unsigned kMaxRoutes = 8;
inline constexpr const char* kProcDevicesPath = "/proc/devices";
inline constexpr const char* kProcModulesPath = "/proc/modules";

// The module control modes of controlModule.
enum class ModuleMode : int { Load = 0, Unload = 1, Reload = 2 };

// The driver's major number from "/proc/devices" (0..255), or -1 when it is not listed.
int findDriverMajor();
// 0 when "/proc/modules" names the module, else -1.
int isModuleLoaded();
// Loads, unloads or reloads the module through the shell. 0, or -1 for an unknown mode.
int controlModule(int mode);

// Copies the driver's forwarding defaults into a route's image and sets the flag bits they
// imply.
void applyForwardDefaults(RouteRecord& route, const ConfigModel& model);

// Number of routes configured on (RouteFlags bit 0), stored as the forwarding Count too.
unsigned recountActiveRoutes(ConfigModel& model);

// Opens the route's node "/dev/canoip<DrvIndex>" read-write; when the driver is missing
// (ENODEV) the module is loaded and the open still counts as failed. The descriptor, or -1
// with errno set. Descriptor 0 is a valid result.
[[nodiscard]] int openRouteNode(const RouteRecord& route);

// Start-up: loads the module when needed, reads the defaults, gives every route its node and
// defaults, takes over or deletes the routes the driver holds, adds the active ones and
// restarts the CAN-over-IP helper. 0, -1 when a route failed, -2 when the driver is missing.
int startGatewayDriver(ConfigModel& model);

// Gives every route its node and the driver's defaults, without touching the driver (no node
// when the driver is missing); the start of the driver begins with it. Whether the driver is
// there.
bool assignRouteNodes(ConfigModel& model);

// Names route `index` (0..7) in its image as every add does.
void nameRoute(RouteRecord& route, unsigned index);

// The Route group's apply handler: brings route `n` (1..8) of the driver in line with its
// record; 0 only recounts.
int applyRoute(unsigned n, ConfigModel& model, AnswerMessage& answer);

// Reads route `i`'s (0..7) state and statistics from the driver into its record; -1 when its
// node cannot be opened.
int refreshRoute(ConfigModel& model, unsigned i);
