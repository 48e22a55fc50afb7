#include "http/client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

#include <fmt/format.h>

#include "core/text.h"

namespace lm::http {
namespace {

constexpr std::size_t kMaxHead = 64U << 10U;
constexpr std::size_t kMaxBody = 256U << 20U;

struct Head {
    int status = 0;
    std::size_t length = 0;
};

Error notUnderstood(std::string_view what) {
    return {ErrorCode::protocolError, fmt::format("the answer of the server is not understood: {}", what)};
}

/// Of an answer that our own server gave: status and length are all that matters.
Result<Head> parseHead(std::string_view text) {
    constexpr std::string_view kBegin = "HTTP/1.1 ";
    constexpr std::string_view kLength = "\r\nContent-Length: ";
    if (!text.starts_with(kBegin) || text.size() < kBegin.size() + 3) return notUnderstood("its first line");
    const Result<std::uint64_t> status =
        parseUnsigned(text.substr(kBegin.size(), 3), NumberBase::decimal, 599);
    const std::size_t at = text.find(kLength);
    if (!status || at == std::string_view::npos) return notUnderstood("its status or length");
    std::string_view length = text.substr(at + kLength.size());
    length = length.substr(0, length.find('\r'));
    const Result<std::uint64_t> bytes = parseUnsigned(length, NumberBase::decimal, kMaxBody);
    if (!bytes) return notUnderstood("its length");
    return Head{static_cast<int>(status.value()), bytes.value()};
}

/// What errorJson() told.
Error errorOf(const nlohmann::json& body, int status) {
    Error error{ErrorCode::protocolError, fmt::format("the server answered with status {}", status)};
    const auto told = body.find("error");
    if (told == body.end() || !told->is_object()) return error;
    for (int code = 0; code <= static_cast<int>(ErrorCode::closed); ++code) {
        const Error candidate{static_cast<ErrorCode>(code)};
        if (errorJson(candidate)["code"] == told->value("code", "")) error.code = candidate.code;
    }
    error.message = told->value("message", error.message);
    error.hint = told->value("hint", "");
    return error;
}

}  // namespace

Result<Client> Client::connect(const std::filesystem::path& path) {
    const std::string context = fmt::format("cannot connect to {}", path.string());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string text = path.string();
    if (text.size() >= sizeof(address.sun_path)) return Error::fromErrno(ENAMETOOLONG, context);
    std::memcpy(address.sun_path, text.c_str(), text.size());
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.valid()) return Error::fromErrno(errno, context);
    // A Unix socket is connected at once, or refuses with EAGAIN when too many wait for its server.
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return Error::fromErrno(errno, context);
    }
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return Error::fromErrno(errno, context);
    }
    return Client(std::move(socket),
                  Peer{true, credentials.pid, credentials.uid, fmt::format("pid {}", credentials.pid)});
}

Result<void> Client::wait(short events, Deadline deadline, const StopToken& stop) {
    for (;;) {
        if (stop.requested()) return Error::stopped("stopped while waiting for the server");
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return Error{ErrorCode::timeout, "no answer of the server in time"};
        std::array<pollfd, 2> polled{{{socket_.get(), events, 0}, {stop.descriptor(), POLLIN, 0}}};
        const int ready = ::poll(polled.data(), polled.size(),
                                 static_cast<int>(std::min<std::int64_t>(left.count(), 60000)));
        if (ready < 0 && errno != EINTR) return Error::fromErrno(errno, "cannot wait for the server");
        if (ready > 0 && polled[0].revents != 0) return {};
    }
}

Result<void> Client::sendAll(std::string_view bytes, Deadline deadline, const StopToken& stop) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (Result<void> ready = wait(POLLOUT, deadline, stop); !ready) return ready;
        } else if (errno != EINTR) {
            return Error::withReasonAsHint(ErrorCode::closed, errno, "the server ended the connection");
        }
    }
    return {};
}

Result<void> Client::receive(Deadline deadline, const StopToken& stop) {
    std::array<char, 65536> bytes;
    for (;;) {
        const ssize_t count = ::recv(socket_.get(), bytes.data(), bytes.size(), 0);
        if (count > 0) {
            received_.append(bytes.data(), static_cast<std::size_t>(count));
            return {};
        }
        if (count == 0) {
            return Error::withReasonAsHint(ErrorCode::closed, ECONNRESET, "the server ended the connection");
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (Result<void> ready = wait(POLLIN, deadline, stop); !ready) return ready;
        } else if (errno != EINTR) {
            return Error::withReasonAsHint(ErrorCode::closed, errno, "the server ended the connection");
        }
    }
}

Result<Client::Answer> Client::readAnswer(Deadline deadline, const StopToken& stop) {
    std::size_t end = 0;
    while ((end = received_.find("\r\n\r\n")) == std::string::npos) {
        if (received_.size() > kMaxHead) return notUnderstood("its head has no end");
        if (Result<void> more = receive(deadline, stop); !more) return more.error();
    }
    const Result<Head> head = parseHead(std::string_view(received_).substr(0, end + 2));
    if (!head) return head.error();
    const std::size_t begin = end + 4;
    const std::size_t length = head.value().length;
    while (received_.size() < begin + length) {
        if (Result<void> more = receive(deadline, stop); !more) return more.error();
    }
    Answer answer{head.value().status, received_.substr(begin, length)};
    received_.erase(0, begin + length);
    return answer;
}

Result<Client::Answer> Client::ask(std::string_view method, std::string_view target, std::string_view body,
                                   std::chrono::milliseconds limit, const StopToken& stop) {
    const Deadline deadline = std::chrono::steady_clock::now() + limit;
    const std::string request = fmt::format(
        "{} {} HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\nContent-Length: {}\r\n\r\n{}",
        method, target, body.size(), body);
    if (Result<void> sent = sendAll(request, deadline, stop); !sent) return sent.error();
    return readAnswer(deadline, stop);
}

Result<nlohmann::json> Client::askJson(std::string_view method, std::string_view target,
                                       const nlohmann::json& body, std::chrono::milliseconds limit,
                                       const StopToken& stop) {
    Result<Answer> answer =
        ask(method, target, body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace), limit, stop);
    if (!answer) return answer.error();
    nlohmann::json told = nlohmann::json::parse(answer.value().body, nullptr, false);
    if (told.is_discarded() || !told.is_object()) return notUnderstood("its body");
    if (answer.value().status >= 400) return errorOf(told, answer.value().status);
    return told;
}

}  // namespace lm::http
