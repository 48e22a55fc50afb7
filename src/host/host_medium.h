// The medium of a session whose ECU another program of the user holds: in the words of the medium that leads
// there, but for the way.
//
// Threads: as of IMedium. Lifetime: owns link and transport.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "host/host_link.h"
#include "host/host_transport.h"
#include "session/medium.h"
#include "session/sharing.h"

namespace lm::host {

class HostMedium final : public session::IMedium, private session::ISharing {
  public:
    /// `direct` is not opened. `onWrite`: as of HostTransport, with the facts of the host.
    HostMedium(std::unique_ptr<session::IMedium> direct, std::unique_ptr<HostLink> link,
               std::chrono::milliseconds turn, std::function<void(const HostFacts&)> onWrite,
               const StopToken& stop)
        : direct_(std::move(direct)),
          link_(std::move(link)),
          transport_(
              *link_, {turn, direct_->transport().maxPacketSize()},
              [this, onWrite = std::move(onWrite)] { onWrite(link_->host()); }, stop) {}

    const session::MediumTexts& texts() const override { return direct_->texts(); }
    xcp::ITransport& transport() override { return transport_; }
    std::uint16_t largestDto(std::uint16_t told) const override { return direct_->largestDto(told); }
    Result<double> claimLoad(const session::LoadInput& /*input*/, double /*limit*/) override { return 0.0; }
    bool hasLoad() const override { return direct_->hasLoad(); }
    std::vector<session::MediumCounter> counters() const override { return direct_->counters(); }
    Result<std::vector<session::DaqListId>> listIds(xcp::Master& master,
                                                    std::span<const std::uint16_t> lists) override {
        return direct_->listIds(master, lists);
    }
    session::ISharing* sharing() override { return this; }

  private:
    void begin() override { transport_.beginWhole(); }
    void end() override { transport_.endWhole(); }
    void announce(const std::vector<session::ObjectBytes>& changes) override { transport_.announce(changes); }
    void tellWritten(const std::vector<session::ObjectBytes>& changes) override;
    void tellParameter(const storage::ParameterWrite& write) override;

    const std::unique_ptr<session::IMedium> direct_;
    const std::unique_ptr<HostLink> link_;
    HostTransport transport_;
};

}  // namespace lm::host
