// The CAN interfaces of Linux SocketCAN: controllers (kind "can") and virtual ones (vcan).
//
// Threads: stateless; any thread. Lifetime: channels live on without their adapter.
#pragma once

#include <filesystem>

#include "hal/can_channel.h"

namespace lm::hal {

class SocketCanAdapter final : public ICanAdapter {
  public:
    std::string name() const override { return "SocketCAN"; }

    /// Errors: "cannot list /sys/class/net: ..." by errno, and those of ICanInterfaces::query ("NAME: netlink
    /// ...").
    Result<std::vector<CanInterfaceInfo>> listInterfaces() override;

    Result<std::unique_ptr<ICanChannel>> openChannel(CanChannelConfig config) override;
};

}  // namespace lm::hal
