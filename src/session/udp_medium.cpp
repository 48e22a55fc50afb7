#include "session/udp_medium.h"

#include <fmt/format.h>

#include "a2l/xcp_interface.h"
#include "core/log.h"
#include "session/session_config.h"
#include "storage/format/recording_source.h"
#include "xcp/transport_event.h"
#include "xcp/udp_transport.h"

namespace lm::session {
namespace {

constexpr std::uint16_t kDefaultPort = 5555;

/// This machine has many names.
std::string placeOf(const std::string& host) {
    const bool isHere = host == "localhost" || host == "::1" || host == "[::1]";
    return isHere ? "127.0.0.1" : host;
}

class UdpMedium final : public IMedium {
  public:
    explicit UdpMedium(const xcp::UdpTransportConfig& config) : transport_(config) {
        const std::string place = fmt::format("{}:{}", config.host, config.port);
        texts_ = {"udp:" + place, "XCP on UDP/IP, " + place, fmt::format("{} {}", storage::kUdpSource, place),
                  fmt::format("no one answers at host {}, port {}: the ECU is off, the host or port is "
                              "another one, a firewall drops the packets, or another master is connected",
                              config.host, config.port),
                  fmt::format("udp:{}:{}", placeOf(config.host), config.port)};
    }

    const MediumTexts& texts() const override { return texts_; }
    xcp::ITransport& transport() override { return transport_; }

    Result<double> claimLoad(const LoadInput& input, double /*limit*/) override {
        return estimateUdpLoad(input).fraction;
    }
    bool hasLoad() const override { return false; }

    std::vector<MediumCounter> counters() const override {
        const xcp::UdpStatistics udp = transport_.statistics();
        return {{"UDP counter gaps", udp.counterGaps, false},
                {"UDP packets missing", udp.missingPackets},
                {"malformed UDP datagrams", udp.malformedDatagrams},
                {"UDP datagrams dropped by the kernel", udp.kernelDrops}};
    }

    bool report(const xcp::TransportEvent& event) override {
        if (const auto* failed = std::get_if<xcp::ReceiveFailed>(&event.what)) {
            log::warn("receiving failed (error {})", failed->error);
        }
        return std::holds_alternative<xcp::PacketsLost>(event.what);
    }

  private:
    xcp::UdpTransport transport_;
    MediumTexts texts_;
};

}  // namespace

Result<std::unique_ptr<IMedium>> makeUdpMedium(const SessionConfig& config, const a2l::XcpInterface& ifData,
                                               ChannelPool& /*pool*/, const StopToken& /*stop*/) {
    const SessionConfig::Udp& udp = config.udp;
    if (udp.host.empty()) return std::unique_ptr<IMedium>();
    if (ifData.tcp && !ifData.udp) {
        return Error{ErrorCode::unsupported, "XCP on TCP/IP is not supported yet (use UDP)"};
    }
    const std::uint16_t described = ifData.udp ? ifData.udp->port.value_or(kDefaultPort) : kDefaultPort;
    return std::unique_ptr<IMedium>(std::make_unique<UdpMedium>(
        xcp::UdpTransportConfig{.host = udp.host, .port = udp.port.value_or(described)}));
}

}  // namespace lm::session
