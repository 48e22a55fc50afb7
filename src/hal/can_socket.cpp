#include "hal/can_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <linux/can/raw.h>
#include <linux/net_tstamp.h>
#include <net/if.h>
#include <sys/socket.h>

#include "hal/can_interface_setup.h"

namespace lm::hal {
namespace {

constexpr int kReceiveBufferBytes = 8 * 1024 * 1024;

struct SocketOption {
    int level;
    int name;
    std::uint32_t value;
    const char* failure;
};

Result<void> setOption(int socket, const SocketOption& option) {
    if (::setsockopt(socket, option.level, option.name, &option.value, sizeof option.value) == 0) return {};
    return Error::fromErrno(errno, option.failure);
}

Result<void> setOptions(int socket, bool fd) {
    constexpr std::uint32_t kStamps = SOF_TIMESTAMPING_RX_HARDWARE | SOF_TIMESTAMPING_RX_SOFTWARE |
                                      SOF_TIMESTAMPING_SOFTWARE | SOF_TIMESTAMPING_RAW_HARDWARE;
    if (fd) {
        auto set = setOption(socket, {SOL_CAN_RAW, CAN_RAW_FD_FRAMES, 1, "enable CAN FD frames"});
        if (!set) return set;
    }
    for (const SocketOption& option :
         {SocketOption{SOL_CAN_RAW, CAN_RAW_ERR_FILTER, CAN_ERR_MASK, "set error filter"},
          SocketOption{SOL_SOCKET, SO_RXQ_OVFL, 1, "enable overflow counter"},
          SocketOption{SOL_SOCKET, SO_TIMESTAMPING, kStamps, "enable timestamping"}}) {
        if (auto set = setOption(socket, option); !set) return set;
    }
    // Beyond the system's limit only with CAP_NET_ADMIN; a smaller buffer shows in the counted losses.
    const int size = kReceiveBufferBytes;
    if (::setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
        static_cast<void>(::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof size));
    }
    return {};
}

Result<void> bindTo(int socket, const std::string& interfaceName) {
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(::if_nametoindex(interfaceName.c_str()));
    if (address.can_ifindex == 0 && errno == ENODEV) return missingCanInterface(interfaceName);
    // Index 0 would bind to every CAN interface.
    if (address.can_ifindex == 0 ||
        ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return Error::fromErrno(errno, "bind to " + interfaceName);
    }
    return {};
}

}  // namespace

Result<UniqueFd> openCanSocket(const std::string& interfaceName, bool fd) {
    UniqueFd socket(::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW));
    if (!socket.valid()) return Error::fromErrno(errno, "CAN socket");
    if (const auto set = setOptions(socket.get(), fd); !set) return set.error();
    if (const auto bound = bindTo(socket.get(), interfaceName); !bound) return bound.error();
    return socket;
}

KernelFrame toKernelFrame(const CanFrame& frame) {
    KernelFrame kernel;
    kernel.frame.can_id = frame.id;
    if (frame.has(CanFrame::extended)) kernel.frame.can_id |= CAN_EFF_FLAG;
    if (frame.has(CanFrame::remote)) kernel.frame.can_id |= CAN_RTR_FLAG;
    std::size_t room = CAN_MAX_DLEN;
    if (frame.has(CanFrame::fd)) {
        room = CANFD_MAX_DLEN;
        kernel.size = CANFD_MTU;
        if (frame.has(CanFrame::brs)) kernel.frame.flags |= CANFD_BRS;
        if (frame.has(CanFrame::esi)) kernel.frame.flags |= CANFD_ESI;
    }
    kernel.frame.len = frame.length;
    std::copy_n(frame.data.begin(), std::min<std::size_t>(frame.length, room), kernel.frame.data);
    return kernel;
}

}  // namespace lm::hal
