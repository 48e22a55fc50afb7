// One connection of the server: requests and their answers one after the other, or a stream of events until
// its end.
//
// Threads: everything on the server's input and output thread. Lifetime: shared by what is under way for it;
// the owner outlives all of it. Included by connection.cpp and server.cpp alone.
#pragma once

#include <array>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "http/access.h"
#include "http/limits.h"
#include "http/message.h"
#include "http/reply.h"
#include "http/router.h"

namespace lm::http {

class Connection;

class IConnectionOwner {
  public:
    virtual ~IConnectionOwner() = default;
    virtual const Limits& limits() const = 0;
    /// The route, or why not.
    virtual std::variant<const Route*, Response> admit(Request& request, const Credentials& credentials,
                                                       std::size_t listener) = 0;
    /// False when the server is being stopped.
    virtual bool runOnWorker(std::function<void()> task) = 0;
    /// From any thread: on the server's input and output thread, unless that has ended.
    virtual void runHere(std::function<void()> task) = 0;
    /// From any thread. False: there are as many as the limits allow.
    virtual bool takeStream(std::size_t listener) = 0;
    virtual void giveStreamBack(std::size_t listener) = 0;
    virtual void countAnswer(bool refused) = 0;
    virtual void closed(const Connection& connection) = 0;
};

class Connection : public std::enable_shared_from_this<Connection> {
  public:
    using Socket = boost::asio::generic::stream_protocol::socket;
    using Clock = std::chrono::steady_clock;

    Connection(Socket socket, std::weak_ptr<IConnectionOwner> owner, std::uint64_t number,
               std::size_t listener, Peer peer);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void start() { readHead(); }
    /// At once.
    void close();
    /// An answer that is being sent gets so long.
    void endWithin(std::chrono::milliseconds time);

    std::uint64_t number() const { return number_; }
    std::size_t listener() const { return listener_; }
    const Peer& peer() const { return peer_; }
    /// Since when it has been without a whole request; none while it has one.
    std::optional<Clock::time_point> waitsSince() const;

    // What a reply asks for, once.
    void answer(Response response);
    void beginStream(std::shared_ptr<EventStream> stream);
    void flushStream();

  private:
    enum class State : std::uint8_t { head, body, handling, answering, streaming, lingering, closed };
    using Parser = boost::beast::http::request_parser<boost::beast::http::string_body>;
    using Failure = boost::system::error_code;

    void readHead();
    void onHead(Failure failure);
    Request requestOfHead() const;
    Credentials credentials() const;
    void readBody();
    void onBody(Failure failure);
    void handle();
    void watchPeer();
    void refuse(int status, ErrorCode code, const std::string& message);
    void refuse(const Response& response);
    void write(std::string bytes);
    void writeNext();
    void onWritten();
    void fetchMore();
    void onMore(Result<std::string> piece);
    void finishAnswer();
    void linger();
    void discard();
    void arm(std::chrono::milliseconds time);
    void disarm();
    void onDeadline();

    Socket socket_;
    boost::asio::steady_timer timer_;
    std::uint64_t deadline_ = 0;  ///< counts; an older one has been replaced
    const std::weak_ptr<IConnectionOwner> weakOwner_;
    IConnectionOwner& owner_;
    const Limits& limits_;
    const std::uint64_t number_;
    const std::size_t listener_;
    const Peer peer_;
    const std::shared_ptr<PeerWatch> watch_ = std::make_shared<PeerWatch>();

    State state_ = State::head;
    Clock::time_point since_ = Clock::now();
    bool served_ = false;  ///< had an answer before
    boost::beast::flat_buffer buffer_;
    std::optional<Parser> parser_;
    Request request_;
    const Route* route_ = nullptr;
    bool keepAlive_ = false;
    bool watching_ = false;

    std::string out_;
    std::size_t sent_ = 0;
    bool writing_ = false;
    Response response_;       ///< of which `more` is still wanted
    std::uint64_t left_ = 0;  ///< bytes of it
    std::shared_ptr<EventStream> stream_;
    std::array<char, 512> scratch_{};
};

}  // namespace lm::http
