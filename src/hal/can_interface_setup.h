// Brings a CAN interface into the state that a channel's configuration asks for.
//
// Threads: pure decisions over the interfaces given; one at a time per interface. Lifetime: nothing is kept.
#pragma once

#include <string>

#include "core/result.h"
#include "hal/can_channel.h"
#include "hal/can_interfaces.h"

namespace lm::hal {

/// notFound with the shell command that creates (vcan) or lists interfaces.
Error missingCanInterface(const std::string& name);

/// Checks the interface and, for a controller with a configured bit rate that does not match, switches it
/// off, sets timing and mode, and switches it on. Returns the initial bus state. Errors carry the shell
/// command that mends them: notFound, notOpen (down), unsupported (no CAN FD), those of ICanInterfaces,
/// EPERM with the setcap command.
Result<CanBusState> setUpCanInterface(const CanChannelConfig& config, ICanInterfaces& interfaces);

}  // namespace lm::hal
