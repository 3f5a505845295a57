#pragma once
#include <cstddef>

#include "sys/shell_command.h"

// The driver module's and the CAN-over-IP helper's command lines: at most 255 characters.
inline constexpr std::size_t kRoutingCommandChars = 255;
using RoutingCommand = ShellCommand<kRoutingCommandChars>;
