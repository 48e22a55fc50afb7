#include "http/server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <map>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

#include "core/log.h"
#include "core/thread.h"
#include "http/connection.h"
#include "http/workers.h"

namespace lm::http {
namespace {

namespace asio = boost::asio;
using Failure = boost::system::error_code;

constexpr std::chrono::milliseconds kAnswerTimeAtStop{1000};
constexpr std::chrono::milliseconds kPauseWithoutDescriptors{100};

std::string addressText(const sockaddr_storage& storage) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (storage.ss_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(&storage);
        ::inet_ntop(AF_INET, &v4->sin_addr, text.data(), text.size());
        return fmt::format("{}:{}", text.data(), ntohs(v4->sin_port));
    }
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&storage);
    ::inet_ntop(AF_INET6, &v6->sin6_addr, text.data(), text.size());
    return fmt::format("[{}]:{}", text.data(), ntohs(v6->sin6_port));
}

/// None when the system does not tell, or it is another user.
std::optional<Peer> localPeer(int socket) {
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return std::nullopt;
    if (credentials.uid != ::geteuid() && credentials.uid != 0) return std::nullopt;
    return Peer{true, credentials.pid, credentials.uid, fmt::format("pid {}", credentials.pid)};
}

/// What a limit per peer counts: ports change with each connection.
std::string_view withoutPort(const Peer& peer) {
    return std::string_view(peer.address).substr(0, peer.local ? std::string::npos : peer.address.rfind(':'));
}

}  // namespace

class Server::Core final : public IConnectionOwner, public std::enable_shared_from_this<Core> {
  public:
    Core(Router router, Limits limits) : router_(std::move(router)), limits_(limits) {}

    Result<void> start(std::vector<Listener> listeners);
    void stop();
    ServerCounts counts() const;

    const Limits& limits() const override { return limits_; }
    std::variant<const Route*, Response> admit(Request& request, const Credentials& credentials,
                                               std::size_t listener) override;
    bool runOnWorker(std::function<void()> task) override { return workers_->post(std::move(task)); }
    void runHere(std::function<void()> task) override { asio::post(context_, std::move(task)); }
    bool takeStream(std::size_t listener) override;
    void giveStreamBack(std::size_t listener) override { --ports_[listener]->streams; }
    void countAnswer(bool refused) override;
    void closed(const Connection& connection) override;

  private:
    struct Port {
        Port(asio::io_context& context, Listener listener)
            : descriptor(context, listener.socket.get()),
              socket(std::move(listener.socket)),
              access(std::move(listener.access)) {}
        ~Port() { descriptor.release(); }
        Port(const Port&) = delete;
        Port& operator=(const Port&) = delete;

        asio::posix::stream_descriptor descriptor;  ///< borrows `socket`
        UniqueFd socket;
        const std::shared_ptr<Access> access;
        std::atomic<std::size_t> streams{0};
    };

    void waitForClient(std::size_t listener);
    void acceptAll(std::size_t listener);
    void pauseAccepting(std::size_t listener);
    void take(UniqueFd socket, const sockaddr_storage& address, std::size_t listener);
    bool makeRoom(std::size_t listener, const Peer& peer);
    bool displace(std::size_t listener, const Peer* onlyOf);
    void endAll();

    const Router router_;
    const Limits limits_;
    asio::io_context context_{1};
    asio::executor_work_guard<asio::io_context::executor_type> work_{context_.get_executor()};
    asio::steady_timer pause_{context_};
    std::vector<std::unique_ptr<Port>> ports_;
    std::unique_ptr<Workers> workers_;
    std::thread thread_;
    bool accepting_ = true;  ///< the thread's own
    std::map<std::uint64_t, std::shared_ptr<Connection>> connections_;
    std::uint64_t lastNumber_ = 0;
    std::atomic<std::uint64_t> open_{0};
    std::atomic<std::uint64_t> requests_{0};
    std::atomic<std::uint64_t> refused_{0};
    std::atomic<std::uint64_t> displaced_{0};
};

Result<void> Server::Core::start(std::vector<Listener> listeners) {
    Result<std::unique_ptr<Workers>> workers = Workers::create(limits_.workers);
    if (!workers) return workers.error();
    workers_ = std::move(workers).value();
    for (Listener& listener : listeners)
        ports_.push_back(std::make_unique<Port>(context_, std::move(listener)));
    for (std::size_t i = 0; i < ports_.size(); ++i)
        waitForClient(i);
    Result<std::thread> thread =
        startThread("cannot start the thread of the server", [this] { context_.run(); });
    if (!thread) return thread.error();
    thread_ = std::move(thread).value();
    return {};
}

void Server::Core::stop() {
    if (!thread_.joinable()) return;
    runHere([this] {
        accepting_ = false;
        pause_.cancel();
        for (const auto& port : ports_)
            port->descriptor.cancel();
    });
    workers_->stop();
    runHere([this] { endAll(); });
    thread_.join();
}

void Server::Core::endAll() {
    const auto connections = connections_;
    for (const auto& [number, connection] : connections)
        connection->endWithin(kAnswerTimeAtStop);
    work_.reset();
}

ServerCounts Server::Core::counts() const {
    ServerCounts counts;
    counts.connections = open_;
    for (const auto& port : ports_)
        counts.streams += port->streams;
    counts.requests = requests_;
    counts.refused = refused_;
    counts.displaced = displaced_;
    return counts;
}

std::variant<const Route*, Response> Server::Core::admit(Request& request, const Credentials& credentials,
                                                         std::size_t listener) {
    const Access& access = *ports_[listener]->access;
    std::variant<const Route*, Response> found = router_.find(request);
    const auto* route = std::get_if<const Route*>(&found);
    // Who has no access does not learn which addresses there are.
    std::optional<Response> refusal =
        access.judge(credentials, route != nullptr ? (*route)->demand : Demand{});
    if (refusal) return std::move(*refusal);
    return found;
}

bool Server::Core::takeStream(std::size_t listener) {
    std::atomic<std::size_t>& streams = ports_[listener]->streams;
    if (++streams <= limits_.streams) return true;
    --streams;
    return false;
}

void Server::Core::countAnswer(bool refused) {
    ++requests_;
    if (refused) ++refused_;
}

void Server::Core::closed(const Connection& connection) {
    connections_.erase(connection.number());
    open_ = connections_.size();
}

void Server::Core::waitForClient(std::size_t listener) {
    if (!accepting_) return;
    ports_[listener]->descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                                            [this, listener](Failure failure) {
                                                if (!failure) acceptAll(listener);
                                            });
}

void Server::Core::acceptAll(std::size_t listener) {
    // Some, so that a flood of connections leaves time for the others.
    for (int i = 0; i < 16; ++i) {
        sockaddr_storage address{};
        socklen_t size = sizeof(address);
        UniqueFd socket(::accept4(ports_[listener]->socket.get(), reinterpret_cast<sockaddr*>(&address),
                                  &size, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket.valid()) {
            const bool lacks = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
            if (!lacks) break;
            if (!displace(listener, nullptr)) return pauseAccepting(listener);
            continue;
        }
        take(std::move(socket), address, listener);
    }
    waitForClient(listener);
}

void Server::Core::pauseAccepting(std::size_t listener) {
    pause_.expires_after(kPauseWithoutDescriptors);
    pause_.async_wait([this](Failure) {
        for (std::size_t i = 0; i < ports_.size(); ++i) {
            ports_[i]->descriptor.cancel();
            waitForClient(i);
        }
    });
    log::debug("no descriptor for a client of listener {}", listener);
}

void Server::Core::take(UniqueFd socket, const sockaddr_storage& address, std::size_t listener) {
    const bool local = ports_[listener]->access->local();
    std::optional<Peer> peer = local ? localPeer(socket.get()) : Peer{false, 0, 0, addressText(address)};
    if (!peer) return;
    if (!makeRoom(listener, *peer)) {
        ++displaced_;
        return;
    }
    const int on = 1;
    // Without it answers on a kept connection wait for the client's acknowledgement.
    if (!local) static_cast<void>(::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)));
    Connection::Socket stream(context_);
    Failure failure;
    const int family = local ? AF_UNIX : address.ss_family;
    stream.assign(asio::generic::stream_protocol(family, 0), socket.get(), failure);
    if (failure) return;
    // From here on the socket of Asio closes it.
    static_cast<void>(socket.release());
    const std::uint64_t number = ++lastNumber_;
    auto connection =
        std::make_shared<Connection>(std::move(stream), weak_from_this(), number, listener, std::move(*peer));
    connections_.emplace(number, connection);
    open_ = connections_.size();
    connection->start();
}

bool Server::Core::makeRoom(std::size_t listener, const Peer& peer) {
    std::size_t ofListener = 0;
    std::size_t ofPeer = 0;
    for (const auto& [number, other] : connections_) {
        if (other->listener() != listener) continue;
        ++ofListener;
        if (withoutPort(other->peer()) == withoutPort(peer)) ++ofPeer;
    }
    if (ofPeer >= limits_.connectionsPerPeer) return displace(listener, &peer);
    return ofListener < limits_.connections || displace(listener, nullptr);
}

/// Closes the one that has been waiting for a request the longest.
bool Server::Core::displace(std::size_t listener, const Peer* onlyOf) {
    std::shared_ptr<Connection> longest;
    for (const auto& [number, other] : connections_) {
        if (other->listener() != listener || !other->waitsSince()) continue;
        if (onlyOf != nullptr && withoutPort(other->peer()) != withoutPort(*onlyOf)) continue;
        if (!longest || *other->waitsSince() < *longest->waitsSince()) longest = other;
    }
    if (!longest) return false;
    ++displaced_;
    longest->close();
    return true;
}

Server::Server(std::shared_ptr<Core> core) : core_(std::move(core)) {}

Server::~Server() {
    stop();
}

Result<std::unique_ptr<Server>> Server::start(Router router, Limits limits, std::vector<Listener> listeners) {
    auto core = std::make_shared<Core>(std::move(router), limits);
    if (Result<void> started = core->start(std::move(listeners)); !started) return started.error();
    return std::unique_ptr<Server>(new Server(std::move(core)));
}

void Server::stop() {
    core_->stop();
}

ServerCounts Server::counts() const {
    return core_->counts();
}

}  // namespace lm::http
