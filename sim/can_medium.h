// XCP on CAN from the slave's side: one packet per frame, commands on one identifier, answers and DTOs on
// another (DTOs on one of their own when asked for), on a SocketCAN interface that somebody else has set up.
//
// An interface that goes down or away is waited for: what would be sent meanwhile counts as failed.
//
// Threads: the loop's thread alone. Lifetime: options and fault plan must live as long as the medium.
#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <vector>

#include "core/unique_fd.h"
#include "sim/faults.h"
#include "sim/medium.h"
#include "sim/options.h"

namespace lm::sim {

/// A frame's payload: the packet, and fill bytes up to a length that a frame can have (CAN FD) or must have
/// (MAX_DLC_REQUIRED).
std::vector<std::uint8_t> canPayload(std::span<const std::uint8_t> packet, const Options& options);

class CanMedium : public IMedium {
  public:
    /// Errors: the system's, with "CAN interface NAME".
    static Result<std::unique_ptr<CanMedium>> open(const Options& options, FaultPlan& faults);

    std::vector<pollfd> descriptors() const override;
    Result<void> receive(int descriptor, const Handler& handler) override;
    void send(const Outbox& packets, std::int64_t nowNs) override;
    std::int64_t dueNs() const override { return retryNs_; }
    Result<void> onDue(std::int64_t nowNs) override;
    Result<void> togglePlug() override { return {}; }
    const MediumCounters& counters() const override { return counters_; }

  private:
    CanMedium(const Options& options, FaultPlan& faults);
    Result<void> attach();
    void detach();
    void keepDistance();
    void transmit(std::uint32_t id, std::span<const std::uint8_t> packet);

    const Options& options_;
    FaultPlan& faults_;
    UniqueFd socket_;  ///< none: the interface is gone
    std::int64_t retryNs_;
    std::chrono::steady_clock::time_point nextFrame_{};  ///< not before
    MediumCounters counters_;
};

}  // namespace lm::sim
