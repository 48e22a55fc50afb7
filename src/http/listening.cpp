#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <fmt/format.h>

#include "http/server.h"

namespace lm::http {
namespace {

constexpr int kBacklog = 128;

union SocketAddress {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

struct Address {
    SocketAddress address = {};
    socklen_t size = 0;
};

Result<Address> numericAddress(const std::string& host, std::uint16_t port) {
    Address address;
    const std::string text = host == "localhost" ? "127.0.0.1" : host;
    if (::inet_pton(AF_INET, text.c_str(), &address.address.v4.sin_addr) == 1) {
        address.address.v4.sin_family = AF_INET;
        address.address.v4.sin_port = htons(port);
        address.size = sizeof(sockaddr_in);
        return address;
    }
    if (::inet_pton(AF_INET6, text.c_str(), &address.address.v6.sin6_addr) == 1) {
        address.address.v6.sin6_family = AF_INET6;
        address.address.v6.sin6_port = htons(port);
        address.size = sizeof(sockaddr_in6);
        return address;
    }
    return Error{ErrorCode::invalidArgument, fmt::format("'{}' is no numeric address", host)};
}

bool isLoopback(const SocketAddress& address) {
    if (address.any.sa_family == AF_INET) return ntohl(address.v4.sin_addr.s_addr) >> 24U == 127;
    return IN6_IS_ADDR_LOOPBACK(&address.v6.sin6_addr) != 0;
}

bool isAnyAddress(const SocketAddress& address) {
    if (address.any.sa_family == AF_INET) return address.v4.sin_addr.s_addr == htonl(INADDR_ANY);
    return IN6_IS_ADDR_UNSPECIFIED(&address.v6.sin6_addr) != 0;
}

}  // namespace

Result<UniqueFd> listenAtPath(const std::filesystem::path& path) {
    const std::string context = fmt::format("cannot listen at {}", path.string());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string text = path.string();
    if (text.size() >= sizeof(address.sun_path)) return Error::fromErrno(ENAMETOOLONG, context);
    std::memcpy(address.sun_path, text.c_str(), text.size());
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.valid()) return Error::fromErrno(errno, context);
    // The folder keeps others out between bind() and chmod().
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::chmod(text.c_str(), S_IRUSR | S_IWUSR) != 0 || ::listen(socket.get(), kBacklog) != 0) {
        return Error::fromErrno(errno, context);
    }
    return socket;
}

Result<BoundPort> listenAtPort(const std::string& host, std::uint16_t port) {
    Result<Address> parsed = numericAddress(host, port);
    if (!parsed) return parsed.error();
    Address address = parsed.value();
    const std::string context = fmt::format("cannot listen at {}:{}", host, port);
    BoundPort bound;
    bound.loopback = isLoopback(address.address);
    bound.anyAddress = isAnyAddress(address.address);
    bound.socket =
        UniqueFd(::socket(address.address.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    if (!bound.socket.valid() ||
        ::setsockopt(bound.socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        ::bind(bound.socket.get(), &address.address.any, address.size) != 0 ||
        ::listen(bound.socket.get(), kBacklog) != 0 ||
        ::getsockname(bound.socket.get(), &address.address.any, &address.size) != 0) {
        return Error::fromErrno(errno, context);
    }
    const bool isV4 = address.address.any.sa_family == AF_INET;
    bound.port = ntohs(isV4 ? address.address.v4.sin_port : address.address.v6.sin6_port);
    return bound;
}

}  // namespace lm::http
