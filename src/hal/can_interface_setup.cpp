#include "hal/can_interface_setup.h"

#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "core/log.h"
#include "core/platform.h"

namespace lm::hal {
namespace {

Error isDown(std::string message) {
    return {.code = ErrorCode::notOpen, .message = std::move(message)};
}

Error notCanFd(std::string message) {
    return {.code = ErrorCode::unsupported, .message = std::move(message)};
}

bool timingMatches(const CanBitTiming& actual, const CanBitTiming& wanted) {
    return actual.bitrate == wanted.bitrate &&
           (wanted.samplePoint == 0 || actual.samplePoint == wanted.samplePoint);
}

bool settingsMatch(const CanInterfaceState& state, const CanChannelConfig& config) {
    if (!state.up || !timingMatches(state.bitTiming, *config.bitrate)) return false;
    if (state.has(CanInterfaceState::kFd) != config.fd) return false;
    if (state.has(CanInterfaceState::kListenOnly) != config.listenOnly) return false;
    return !config.fd || !config.dataBitrate || timingMatches(state.dataBitTiming, *config.dataBitrate);
}

/// The kernel switches CAN FD on only together with a data timing: without a configured one the interface's
/// own stays, or the data phase runs at the nominal bit rate.
CanBitTiming dataTimingFor(const CanChannelConfig& config, const CanInterfaceState& state) {
    if (config.dataBitrate) return *config.dataBitrate;
    return state.dataBitTiming.bitrate >= config.bitrate->bitrate ? state.dataBitTiming : *config.bitrate;
}

Result<CanInterfaceState> reconfigure(const CanChannelConfig& config, const CanInterfaceState& before,
                                      ICanInterfaces& interfaces) {
    const std::string& name = config.interfaceName;
    CanInterfaceSettings settings{
        .bitTiming = *config.bitrate, .dataBitTiming = {}, .fd = config.fd, .listenOnly = config.listenOnly};
    if (config.fd) settings.dataBitTiming = dataTimingFor(config, before);
    const std::string dataPart = config.fd && config.dataBitrate
                                     ? fmt::format(", data bitrate {} bit/s", config.dataBitrate->bitrate)
                                     : "";
    log::info("{}: setting bitrate {} bit/s{}", name, config.bitrate->bitrate, dataPart);
    if (before.up) {
        if (const auto down = interfaces.switchDown(name); !down) return down.error();
    }
    if (const auto set = interfaces.configure(name, settings); !set) {
        // Best effort: the failure to tell is the first one.
        if (before.up) static_cast<void>(interfaces.switchUp(name));
        return set.error();
    }
    if (const auto up = interfaces.switchUp(name); !up) return up.error();
    return interfaces.query(name);
}

Error withPermissionHint(Error error) {
    if (error.sysErrno != EPERM) return error;
    error.message +=
        ". Setting the bitrate needs the right CAP_NET_ADMIN; grant it once in a terminal, then start the "
        "program again: `sudo setcap cap_net_admin+ep " +
        executablePath().string() + "`";
    return error;
}

Result<CanBusState> checkVirtual(const CanChannelConfig& config, const CanInterfaceState& state) {
    const std::string& name = config.interfaceName;
    if (config.bitrate) log::info("{}: virtual interface, bit timing ignored", name);
    if (!state.up) {
        return isDown(name + " is down. Switch it on in a terminal: `sudo ip link set " + name + " up`");
    }
    if (config.fd && state.mtu != CanInterfaceState::kFdMtu) {
        return notCanFd(name + " is not CAN FD capable. Change it in a terminal: `sudo ip link set " + name +
                        " down && sudo ip link set " + name + " mtu 72 up`");
    }
    return CanBusState::errorActive;
}

Result<CanBusState> setUpController(const CanChannelConfig& config, CanInterfaceState state,
                                    ICanInterfaces& interfaces) {
    const std::string& name = config.interfaceName;
    if (!config.bitrate && !state.up) {
        return isDown(name +
                      " is down and no bitrate is configured: set the bitrate in the settings, or switch it "
                      "on in a terminal: `sudo ip link set " +
                      name + " up type can bitrate 500000`");
    }
    if (config.bitrate && !settingsMatch(state, config)) {
        auto changed = reconfigure(config, state, interfaces);
        if (!changed) return withPermissionHint(changed.error());
        state = std::move(changed).value();
    }
    if (config.fd && !state.has(CanInterfaceState::kFd)) return notCanFd(name + " is not in CAN FD mode");
    return state.busState;
}

}  // namespace

Error missingCanInterface(const std::string& name) {
    std::string message;
    if (name.rfind("vcan", 0) == 0) {
        message = "virtual CAN interface '" + name +
                  "' does not exist. Create it in a terminal: `sudo modprobe vcan && sudo ip link add dev " +
                  name + " type vcan && sudo ip link set " + name + " mtu 72 up`";
    } else {
        message = "CAN interface '" + name +
                  "' not found: is the adapter connected? `ip -br link` lists the interfaces";
    }
    return {.code = ErrorCode::notFound, .message = std::move(message), .sysErrno = ENODEV};
}

Result<CanBusState> setUpCanInterface(const CanChannelConfig& config, ICanInterfaces& interfaces) {
    auto state = interfaces.query(config.interfaceName);
    if (!state) {
        return state.error().sysErrno == ENODEV ? missingCanInterface(config.interfaceName) : state.error();
    }
    if (!state.value().isController()) return checkVirtual(config, state.value());
    return setUpController(config, std::move(state).value(), interfaces);
}

}  // namespace lm::hal
