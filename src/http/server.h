// An HTTP/1.1 server for the people and programs that share a session: on Unix sockets, TCP ports or both.
//
// One thread does all input and output; handlers run on a few workers. So the number of clients and open
// streams costs memory alone, and within the limits. Who is slow, vanishes or sends what it should not is
// answered, cut off or told what it missed, and nobody else notices. Where a listener is full, the connection
// that waits longest for a request gives way, so that idle ones lock no one out.
//
// Threads: start() and stop() belong to one thread; the rest is documented with the handlers. Lifetime: what
// the handlers borrow must outlive the server. Replies and streams may outlive it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "core/result.h"
#include "core/unique_fd.h"
#include "http/access.h"
#include "http/limits.h"
#include "http/router.h"

namespace lm::http {

/// A socket that listens, bound by its owner, and who may use it.
struct Listener {
    UniqueFd socket;
    std::shared_ptr<Access> access;
};

/// A socket file of mode 0600 in a folder that is the user's alone; the path must be free. Errors: by errno
/// "cannot listen at PATH: REASON".
Result<UniqueFd> listenAtPath(const std::filesystem::path& path);

struct BoundPort {
    UniqueFd socket;
    std::uint16_t port = 0;
    bool loopback = false;  ///< no other machine reaches it
    bool anyAddress = false;
};
/// `host` is a numeric address, or "localhost"; port 0: the system chooses. Errors: invalidArgument "'HOST'
/// is no numeric address", by errno "cannot listen at HOST:PORT: REASON".
Result<BoundPort> listenAtPort(const std::string& host, std::uint16_t port);

/// What a server has done, for those who watch over it.
struct ServerCounts {
    std::uint64_t connections = 0;  ///< now
    std::uint64_t streams = 0;      ///< now
    std::uint64_t requests = 0;     ///< answered, the refused ones included
    std::uint64_t refused = 0;      ///< of them by the limits, the access or the form of the request
    std::uint64_t displaced = 0;    ///< connections that gave way to others, or were refused one
};

class Server {
  public:
    /// Errors: those of threads, event descriptors and of the sockets.
    static Result<std::unique_ptr<Server>> start(Router router, Limits limits,
                                                 std::vector<Listener> listeners);
    /// stop().
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Waits for handlers that run, gives answers that are on their way a second, and closes all connections.
    void stop();

    ServerCounts counts() const;

  private:
    class Core;
    explicit Server(std::shared_ptr<Core> core);

    std::shared_ptr<Core> core_;
};

}  // namespace lm::http
