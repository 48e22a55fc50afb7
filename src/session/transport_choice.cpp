#include "session/transport_choice.h"

namespace lm::session {
namespace {

constexpr std::uint16_t kDefaultUdpPort = 5555;
constexpr std::uint32_t kDefaultBaudrate = 115200;

Result<TransportSetup> chooseCan(const SessionConfig::Can& can, const a2l::XcpInterface& interface,
                                 ChannelPool& pool) {
    auto access = CanAccess::obtain(can, interface, pool);
    if (!access.ok()) return access.error();
    TransportSetup setup;
    setup.can = std::move(access).value();
    setup.address.kind = TransportKind::can;
    setup.address.name = "can:" + can.interface;
    setup.address.cmdId = setup.can->cmdId();
    setup.address.resId = setup.can->resId();
    setup.transport =
        std::make_unique<xcp::CanTransport>(setup.can->transportConfig(), setup.can->channel().broker());
    return setup;
}

Result<TransportSetup> chooseUdp(const SessionConfig::Udp& udp, const a2l::XcpInterface& interface) {
    if (interface.tcp && !interface.udp) {
        return Error{ErrorCode::unsupported, "XCP on TCP/IP is not supported yet (use UDP)"};
    }
    const std::uint16_t described =
        interface.udp && interface.udp->port ? *interface.udp->port : kDefaultUdpPort;
    xcp::UdpTransportConfig config;
    config.host = udp.host;
    config.port = udp.port.value_or(described);

    TransportSetup setup;
    setup.address.kind = TransportKind::udp;
    setup.address.name = "udp:" + config.host + ":" + std::to_string(config.port);
    auto transport = std::make_unique<xcp::UdpTransport>(std::move(config));
    setup.udp = transport.get();
    setup.transport = std::move(transport);
    return setup;
}

TransportSetup chooseSerial(const SessionConfig::Serial& serial, const a2l::XcpInterface& interface) {
    const std::uint32_t described =
        interface.serial ? interface.serial->baudrate.value_or(kDefaultBaudrate) : kDefaultBaudrate;
    xcp::SerialTransportConfig config;
    config.port = serial.port;
    config.baudrate = serial.baudrate.value_or(described);
    config.resetDelay = serial.resetDelay;

    TransportSetup setup;
    setup.address.kind = TransportKind::serial;
    setup.address.name = "serial:" + config.port;
    setup.address.baudrate = config.baudrate;
    auto transport = std::make_unique<xcp::SerialTransport>(std::move(config));
    setup.serial = transport.get();
    setup.transport = std::move(transport);
    return setup;
}

}  // namespace

Result<TransportSetup> chooseTransport(const SessionConfig& config, const a2l::XcpInterface& interface,
                                       ChannelPool& pool) {
    if (!config.can.interface.empty()) return chooseCan(config.can, interface, pool);
    if (!config.udp.host.empty()) return chooseUdp(config.udp, interface);
    if (!config.serial.port.empty()) return chooseSerial(config.serial, interface);
    return Error{ErrorCode::invalidArgument,
                 "neither a CAN interface, a serial port nor a UDP host is configured"};
}

}  // namespace lm::session
