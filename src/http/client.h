// A client of a server on a Unix socket, for commands of this program: one connection, one request at a time.
//
// Threads: one at a time; a stop may be requested from any. Lifetime: owns its socket. After an error other
// than an answer of the server the connection is of no more use.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "core/result.h"
#include "core/stop_token.h"
#include "core/unique_fd.h"
#include "http/message.h"

namespace lm::http {

class Client {
  public:
    /// Errors: by errno "cannot connect to PATH: REASON" (ECONNREFUSED: a socket that no one listens on).
    static Result<Client> connect(const std::filesystem::path& path);

    struct Answer {
        int status = 0;
        std::string body;
    };
    /// Sends and waits for the whole answer for `limit` at most. Errors: timeout "no answer within N ms",
    /// closed "the server ended the connection" (ECONNRESET), Error::stopped(), protocolError.
    Result<Answer> ask(std::string_view method, std::string_view target, std::string_view body,
                       std::chrono::milliseconds limit, const StopToken& stop = {});

    /// The same with JSON both ways; what the server refuses is the error it gave.
    Result<nlohmann::json> askJson(std::string_view method, std::string_view target,
                                   const nlohmann::json& body, std::chrono::milliseconds limit,
                                   const StopToken& stop = {});

    /// The server's process, as the system tells it.
    const Peer& server() const { return server_; }
    /// Readable when the server sent something unasked, or ended.
    int descriptor() const { return socket_.get(); }

  private:
    using Deadline = std::chrono::steady_clock::time_point;

    Client(UniqueFd socket, Peer server) : socket_(std::move(socket)), server_(std::move(server)) {}

    Result<void> wait(short events, Deadline deadline, const StopToken& stop);
    Result<void> sendAll(std::string_view bytes, Deadline deadline, const StopToken& stop);
    Result<void> receive(Deadline deadline, const StopToken& stop);
    Result<Answer> readAnswer(Deadline deadline, const StopToken& stop);

    UniqueFd socket_;
    Peer server_;
    std::string received_;  ///< and not yet taken
};

}  // namespace lm::http
