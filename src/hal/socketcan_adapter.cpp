#include "hal/socketcan_adapter.h"

#include <algorithm>
#include <fstream>
#include <net/if_arp.h>
#include <system_error>
#include <utility>

#include "hal/can_interfaces.h"
#include "hal/socketcan_channel.h"

namespace lm::hal {
namespace {

namespace fs = std::filesystem;

/// An interface that vanishes while it is looked at counts as none.
bool isCanInterface(const fs::path& directory) {
    std::ifstream file(directory / "type");
    int type = 0;
    return (file >> type) && type == ARPHRD_CAN;
}

std::string driverOf(const fs::path& directory) {
    std::error_code failure;
    const fs::path target = fs::read_symlink(directory / "device" / "driver", failure);
    return failure ? std::string() : target.filename().string();
}

Error cannotList(const std::error_code& failure) {
    return Error::fromErrno(failure.value(), "cannot list /sys/class/net");
}

}  // namespace

Result<std::vector<CanInterfaceInfo>> SocketCanAdapter::listInterfaces() {
    std::vector<CanInterfaceInfo> found;
    NetlinkCanInterfaces interfaces;
    std::error_code failure;
    for (fs::directory_iterator entry("/sys/class/net", failure), end; !failure && entry != end;
         entry.increment(failure)) {
        if (!isCanInterface(entry->path())) continue;
        std::string name = entry->path().filename().string();
        auto state = interfaces.query(name);
        if (!state && state.error().code == ErrorCode::notFound) continue;
        if (!state) return state.error();
        found.push_back(
            {.name = std::move(name), .driver = driverOf(entry->path()), .state = std::move(state).value()});
    }
    if (failure) return cannotList(failure);
    std::sort(found.begin(), found.end(),
              [](const CanInterfaceInfo& a, const CanInterfaceInfo& b) { return a.name < b.name; });
    return found;
}

Result<std::unique_ptr<ICanChannel>> SocketCanAdapter::openChannel(CanChannelConfig config) {
    if (config.interfaceName.empty()) {
        return Error{.code = ErrorCode::invalidArgument, .message = "no CAN interface given"};
    }
    if (config.dataBitrate && !config.fd) {
        return Error{.code = ErrorCode::invalidArgument, .message = "data bitrate requires CAN FD"};
    }
    return std::unique_ptr<ICanChannel>(
        std::make_unique<SocketCanChannel>(std::move(config), std::make_unique<NetlinkCanInterfaces>()));
}

}  // namespace lm::hal
