// The speed of a terminal line. Apart from the serial port because the kernel's structure for arbitrary
// speeds and the C library's termios cannot be used in one file.
//
// Threads: a pure function of the descriptor, which is borrowed during the call.
#pragma once

#include <cstdint>

#include "core/result.h"

namespace lm::hal {

/// Sets both directions of an open terminal to `baud` bit/s. Errors: invalidArgument "baud rate 0"; by errno
/// "cannot read the line settings: ..." and "cannot set N baud: ...".
Result<void> setLineSpeed(int descriptor, std::uint32_t baud);

}  // namespace lm::hal
