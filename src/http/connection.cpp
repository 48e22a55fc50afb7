#include "http/connection.h"

#include <algorithm>
#include <boost/asio/write.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <sys/socket.h>
#include <utility>

#include <fmt/format.h>

#include "core/log.h"
#include "http/target.h"

namespace lm::http {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;

constexpr std::size_t kPiece = 64U << 10U;

std::string_view reasonOf(int status) {
    return beast::http::obsolete_reason(beast::http::int_to_status(static_cast<unsigned>(status))).data();
}

std::string headOf(const Response& response, std::uint64_t length, bool keepAlive) {
    std::string head = fmt::format(
        "HTTP/1.1 {} {}\r\nContent-Type: {}\r\nContent-Length: {}\r\nCache-Control: {}\r\n"
        "X-Content-Type-Options: nosniff\r\n",
        response.status, reasonOf(response.status), response.contentType, length, response.cacheControl);
    for (const auto& [name, value] : response.headers)
        head += fmt::format("{}: {}\r\n", name, value);
    return head + (keepAlive ? "\r\n" : "Connection: close\r\n\r\n");
}

/// "gzip, deflate, br": yes; "gzip;q=0": no.
bool acceptsGzip(std::string_view encodings) {
    const std::size_t at = encodings.find("gzip");
    if (at == std::string_view::npos) return false;
    const std::string_view weight = encodings.substr(at + 4, encodings.substr(at + 4).find(','));
    return weight.find("q=0") == std::string_view::npos || weight.find("q=0.") != std::string_view::npos;
}

/// How a handler's answer, from whatever thread and however late, finds the connection, or that there is
/// none.
class ReplyTarget final : public IReplyTarget {
  public:
    ReplyTarget(std::weak_ptr<IConnectionOwner> owner, std::weak_ptr<Connection> connection,
                std::size_t listener, std::size_t streamBytes)
        : owner_(std::move(owner)),
          connection_(std::move(connection)),
          listener_(listener),
          streamBytes_(streamBytes) {}

    void send(Response response) override {
        run([response = std::move(response)](Connection& connection) mutable {
            connection.answer(std::move(response));
        });
    }

    std::shared_ptr<EventStream> stream(StreamForm form) override {
        const std::shared_ptr<IConnectionOwner> owner = owner_.lock();
        if (!owner) return nullptr;
        if (!owner->takeStream(listener_)) {
            send(errorResponse(
                503, Error{ErrorCode::wouldBlock, "there are as many open streams as the server allows"}));
            return nullptr;
        }
        auto stream =
            std::make_shared<EventStream>(form, streamBytes_, [owner = owner_, connection = connection_] {
                runAt(owner, connection, [](Connection& own) { own.flushStream(); });
            });
        // Without a connection there is no one to give it back later.
        owner->runHere([owner = owner_, connection = connection_, stream, listener = listener_] {
            const std::shared_ptr<IConnectionOwner> at = owner.lock();
            if (const std::shared_ptr<Connection> own = connection.lock()) {
                own->beginStream(stream);
            } else if (at) {
                stream->close();
                at->giveStreamBack(listener);
            }
        });
        return stream;
    }

  private:
    template <typename Task>
    static void runAt(const std::weak_ptr<IConnectionOwner>& owner, std::weak_ptr<Connection> connection,
                      Task task) {
        const std::shared_ptr<IConnectionOwner> at = owner.lock();
        if (!at) return;
        at->runHere([connection = std::move(connection), task = std::move(task)]() mutable {
            if (const std::shared_ptr<Connection> own = connection.lock()) task(*own);
        });
    }
    template <typename Task>
    void run(Task task) {
        runAt(owner_, connection_, std::move(task));
    }

    const std::weak_ptr<IConnectionOwner> owner_;
    const std::weak_ptr<Connection> connection_;
    const std::size_t listener_;
    const std::size_t streamBytes_;
};

void callHandler(const Handler& handler, Request& request, const Reply& reply) {
    try {
        handler(request, reply);
    } catch (const nlohmann::json::exception& failure) {
        reply.fail(
            Error{ErrorCode::invalidArgument, fmt::format("the body does not fit: {}", failure.what())});
    } catch (const std::exception& failure) {
        log::error("a request could not be answered: {}", failure.what());
        reply.send(errorResponse(500, Error{ErrorCode::ioError, "the request could not be answered"}));
    }
}

}  // namespace

Connection::Connection(Socket socket, std::weak_ptr<IConnectionOwner> owner, std::uint64_t number,
                       std::size_t listener, Peer peer)
    : socket_(std::move(socket)),
      timer_(socket_.get_executor()),
      weakOwner_(std::move(owner)),
      owner_(*weakOwner_.lock()),
      limits_(owner_.limits()),
      number_(number),
      listener_(listener),
      peer_(std::move(peer)),
      buffer_(limits_.headBytes + 2 * kPiece) {}

Connection::~Connection() = default;

std::optional<Connection::Clock::time_point> Connection::waitsSince() const {
    if (state_ != State::head && state_ != State::lingering) return std::nullopt;
    return since_;
}

void Connection::close() {
    if (std::exchange(state_, State::closed) == State::closed) return;
    const std::shared_ptr<Connection> self = shared_from_this();
    Failure ignored;
    socket_.close(ignored);
    disarm();
    if (stream_) {
        stream_->close();
        owner_.giveStreamBack(listener_);
    }
    watch_->tellGone();
    owner_.closed(*this);
}

void Connection::endWithin(std::chrono::milliseconds time) {
    if (state_ != State::answering) return close();
    keepAlive_ = false;
    arm(time);
}

void Connection::arm(std::chrono::milliseconds time) {
    const std::uint64_t deadline = ++deadline_;
    timer_.expires_after(time);
    timer_.async_wait([weak = weak_from_this(), deadline](Failure failure) {
        const std::shared_ptr<Connection> self = weak.lock();
        if (self && !failure && self->deadline_ == deadline) self->onDeadline();
    });
}

void Connection::disarm() {
    ++deadline_;
    timer_.cancel();
}

void Connection::onDeadline() {
    if (state_ == State::streaming && !writing_) return write(stream_->alive());
    const bool partOfHead = state_ == State::head && parser_->got_some();
    if (partOfHead || state_ == State::body)
        return refuse(408, ErrorCode::timeout, "the request took too long");
    close();
}

// Reading

void Connection::readHead() {
    state_ = State::head;
    since_ = Clock::now();
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(limits_.headBytes));
    parser_->body_limit(limits_.bodyBytes);
    arm(served_ ? limits_.idleTime : limits_.headTime);
    beast::http::async_read_header(
        socket_, buffer_, *parser_,
        [self = shared_from_this()](Failure failure, std::size_t) { self->onHead(failure); });
}

void Connection::onHead(Failure failure) {
    if (state_ != State::head) return;
    if (failure == beast::http::error::header_limit || failure == beast::http::error::buffer_overflow) {
        return refuse(431, ErrorCode::invalidArgument, "the head of the request is too large");
    }
    if (failure == beast::http::error::body_limit) {
        return refuse(413, ErrorCode::invalidArgument, "the body of the request is too large");
    }
    if (failure == beast::http::error::end_of_stream || failure == beast::http::error::partial_message ||
        failure.category() != make_error_code(beast::http::error::end_of_stream).category()) {
        if (failure) return close();
    }
    if (failure)
        return refuse(400, ErrorCode::invalidArgument, "the request is not HTTP: " + failure.message());
    request_ = requestOfHead();
    const auto& head = parser_->get();
    Result<Target> target = parseTarget({head.target().data(), head.target().size()});
    if (!target) return refuse(errorResponse(400, target.error()));
    request_.path = std::move(target.value().path);
    request_.query = std::move(target.value().query);
    std::variant<const Route*, Response> admitted = owner_.admit(request_, credentials(), listener_);
    if (auto* refusal = std::get_if<Response>(&admitted)) return refuse(*refusal);
    route_ = std::get<const Route*>(admitted);
    readBody();
}

Request Connection::requestOfHead() const {
    Request request;
    const auto method = parser_->get().method_string();
    request.method.assign(method.data(), method.size());
    const auto textOf = [&](beast::http::field field) {
        const auto text = parser_->get()[field];
        return std::string(text.data(), text.size());
    };
    request.acceptsGzip = acceptsGzip(textOf(beast::http::field::accept_encoding));
    request.ifNoneMatch = textOf(beast::http::field::if_none_match);
    request.peer = peer_;
    request.connection = number_;
    request.watch = watch_;
    return request;
}

Credentials Connection::credentials() const {
    Credentials credentials;
    const auto& head = parser_->get();
    const auto get = [&](beast::http::field field) {
        if (head.count(field) > 1) credentials.repeated = true;
        const auto text = head[field];
        return std::string(text.data(), text.size());
    };
    credentials.host = get(beast::http::field::host);
    credentials.origin = get(beast::http::field::origin);
    credentials.authorization = get(beast::http::field::authorization);
    credentials.cookie = get(beast::http::field::cookie);
    return credentials;
}

void Connection::readBody() {
    state_ = State::body;
    if (parser_->is_done()) return onBody({});
    arm(limits_.bodyTime);
    const auto read = [self = shared_from_this()] {
        beast::http::async_read(self->socket_, self->buffer_, *self->parser_,
                                [self](Failure failure, std::size_t) { self->onBody(failure); });
    };
    if (!beast::iequals(parser_->get()[beast::http::field::expect], "100-continue")) return read();
    out_ = "HTTP/1.1 100 Continue\r\n\r\n";
    asio::async_write(socket_, asio::buffer(out_),
                      [self = shared_from_this(), read](Failure failure, std::size_t) {
                          if (failure) return self->close();
                          if (self->state_ == State::body) read();
                      });
}

void Connection::onBody(Failure failure) {
    if (state_ != State::body) return;
    if (failure == beast::http::error::body_limit) {
        return refuse(413, ErrorCode::invalidArgument, "the body of the request is too large");
    }
    if (failure) return close();
    keepAlive_ = parser_->keep_alive();
    request_.body = std::move(parser_->get().body());
    handle();
}

void Connection::handle() {
    state_ = State::handling;
    disarm();
    const Reply reply(
        std::make_unique<ReplyTarget>(weakOwner_, weak_from_this(), listener_, limits_.streamBytes));
    auto request = std::make_shared<Request>(std::move(request_));
    const bool posted = owner_.runOnWorker(
        [handler = route_->handler, request, reply] { callHandler(handler, *request, reply); });
    if (!posted) return close();
    watchPeer();
}

/// Finds that the client has gone while its request is worked on. Bytes of a next request end the watching:
/// until they are read no one could tell the end behind them.
void Connection::watchPeer() {
    if (std::exchange(watching_, true)) return;
    socket_.async_wait(Socket::wait_read, [self = shared_from_this()](Failure failure) {
        self->watching_ = false;
        if (failure || self->state_ != State::handling) return;
        char byte = 0;
        if (::recv(self->socket_.native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0)
            self->watch_->tellGone();
    });
}

// Answering

void Connection::refuse(int status, ErrorCode code, const std::string& message) {
    refuse(errorResponse(status, Error{code, message}));
}

void Connection::refuse(const Response& response) {
    keepAlive_ = parser_->is_header_done() && parser_->is_done() && parser_->keep_alive();
    owner_.countAnswer(true);
    state_ = State::answering;
    write(headOf(response, response.body.size(), keepAlive_) + response.body);
}

void Connection::answer(Response response) {
    if (state_ != State::handling) return;
    owner_.countAnswer(false);
    state_ = State::answering;
    left_ = response.more ? response.length : 0;
    const std::uint64_t length = response.body.size() + left_;
    std::string bytes = headOf(response, length, keepAlive_) + response.body;
    response_ = std::move(response);
    write(std::move(bytes));
}

void Connection::write(std::string bytes) {
    out_ = std::move(bytes);
    sent_ = 0;
    writing_ = true;
    writeNext();
}

void Connection::writeNext() {
    arm(limits_.writeTime);
    const std::size_t size = std::min(kPiece, out_.size() - sent_);
    asio::async_write(socket_, asio::buffer(out_.data() + sent_, size),
                      [self = shared_from_this()](Failure failure, std::size_t written) {
                          if (self->state_ == State::closed) return;
                          if (failure) return self->close();
                          self->sent_ += written;
                          if (self->sent_ < self->out_.size()) return self->writeNext();
                          self->writing_ = false;
                          self->onWritten();
                      });
}

void Connection::onWritten() {
    if (state_ == State::streaming) return flushStream();
    if (left_ > 0) return fetchMore();
    finishAnswer();
}

void Connection::fetchMore() {
    disarm();
    const bool posted =
        owner_.runOnWorker([more = response_.more, owner = weakOwner_, weak = weak_from_this()]() mutable {
            auto piece = std::make_shared<Result<std::string>>(more());
            const std::shared_ptr<IConnectionOwner> at = owner.lock();
            if (!at) return;
            at->runHere([piece, weak = std::move(weak)] {
                if (const std::shared_ptr<Connection> self = weak.lock()) self->onMore(std::move(*piece));
            });
        });
    if (!posted) close();
}

void Connection::onMore(Result<std::string> piece) {
    if (state_ != State::answering) return;
    if (!piece) log::warn("an answer was cut off: {}", piece.error().text());
    if (!piece || piece.value().empty() || piece.value().size() > left_) return close();
    left_ -= piece.value().size();
    write(std::move(piece).value());
}

void Connection::finishAnswer() {
    served_ = true;
    response_ = {};
    std::string().swap(out_);
    if (keepAlive_) return readHead();
    linger();
}

/// Closing with unread bytes resets the connection, and the client may lose the answer: it gets some time to
/// end it.
void Connection::linger() {
    state_ = State::lingering;
    since_ = Clock::now();
    Failure ignored;
    socket_.shutdown(Socket::shutdown_send, ignored);
    arm(limits_.lingerTime);
    discard();
}

void Connection::discard() {
    socket_.async_read_some(asio::buffer(scratch_),
                            [self = shared_from_this()](Failure failure, std::size_t) {
                                if (self->state_ == State::closed) return;
                                if (failure) return self->close();
                                self->discard();
                            });
}

// Streams

void Connection::beginStream(std::shared_ptr<EventStream> stream) {
    if (state_ != State::handling) {
        stream->close();
        owner_.giveStreamBack(listener_);
        return;
    }
    owner_.countAnswer(false);
    state_ = State::streaming;
    stream_ = std::move(stream);
    const bool isEvents = stream_->form() == StreamForm::events;
    write(
        fmt::format("HTTP/1.1 200 OK\r\nContent-Type: {}\r\nCache-Control: no-store\r\n"
                    "X-Content-Type-Options: nosniff\r\nConnection: close\r\n\r\n",
                    isEvents ? "text/event-stream" : "application/octet-stream"));
    discard();
}

void Connection::flushStream() {
    if (state_ != State::streaming || writing_) return;
    std::string bytes = stream_->take();
    if (!bytes.empty()) return write(std::move(bytes));
    if (!stream_->finished())
        return arm(stream_->form() == StreamForm::events ? limits_.heartbeat : limits_.frameHeartbeat);
    stream_->close();
    owner_.giveStreamBack(listener_);
    stream_.reset();
    linger();
}

}  // namespace lm::http
