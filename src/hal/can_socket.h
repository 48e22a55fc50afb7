// A raw CAN socket, set up for receiving with error frames, drop counter and time stamps, and the kernel's
// form of a frame.
//
// Threads: pure functions but for the system calls. Lifetime: the caller owns the descriptor.
#pragma once

#include <cstddef>
#include <linux/can.h>
#include <string>

#include "core/result.h"
#include "core/unique_fd.h"
#include "hal/can_frame.h"

namespace lm::hal {

/// A socket bound to the interface. Errors: by errno "CAN socket", "enable CAN FD frames" (only with `fd`),
/// "set error filter", "enable overflow counter", "enable timestamping", "bind to NAME", each with the
/// reason; notFound as of missingCanInterface.
Result<UniqueFd> openCanSocket(const std::string& interfaceName, bool fd);

/// A frame as the kernel takes it: 72 bytes for CAN FD, 16 for classic CAN.
struct KernelFrame {
    canfd_frame frame{};
    std::size_t size = CAN_MTU;
};

KernelFrame toKernelFrame(const CanFrame& frame);

}  // namespace lm::hal
