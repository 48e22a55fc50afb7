// The server against clients that behave, and against those that do not.
#include "http/server.h"

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "core/platform.h"
#include "http/client.h"
#include "http/target.h"
#include "support/temp_dir.h"

namespace lm::http {
namespace {

using namespace std::chrono_literals;

/// Frees what one of its own handlers waits for.
class Gate {
  public:
    void open() {
        const std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    bool wait() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 60s, [this] { return open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

/// A socket of TCP that sends and receives what the test says.
class RawClient {
  public:
    explicit RawClient(std::uint16_t port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = ::connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }
    bool connected() const { return connected_; }
    bool send(std::string_view bytes) {
        return ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    void endSending() { ::shutdown(socket_.get(), SHUT_WR); }
    int descriptor() const { return socket_.get(); }
    /// Until the text came, or the server closed.
    std::string receiveUntil(std::string_view text) {
        std::string all;
        char bytes[4096];
        while (all.find(text) == std::string::npos) {
            pollfd polled{socket_.get(), POLLIN, 0};
            if (::poll(&polled, 1, 60000) != 1) return all + " (timeout)";
            const ssize_t count = ::recv(socket_.get(), bytes, sizeof(bytes), 0);
            if (count <= 0) return all;
            all.append(bytes, static_cast<std::size_t>(count));
        }
        return all;
    }
    std::string receiveAll() { return receiveUntil("\x01"); }

  private:
    UniqueFd socket_;
    bool connected_ = false;
};

class ServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        limits_.headTime = 300ms;
        limits_.bodyTime = 300ms;
        limits_.writeTime = 1000ms;
        limits_.lingerTime = 100ms;
        limits_.bodyBytes = 10000;
        limits_.streamBytes = 1000;
        limits_.streams = 2;
        router_.add("GET", "/open", {false, true, false}, [](Request&, const Reply& reply) {
            reply.send(nlohmann::json{{"ok", 1}});
        });
        router_.add("POST", "/echo", {}, [](Request& request, const Reply& reply) {
            Result<nlohmann::json> body = parseBody(request.body, 8);
            body ? reply.send(body.value()) : reply.fail(body.error());
        });
        router_.add("GET", "/lost", {}, [](Request&, const Reply&) {});
        router_.add("GET", "/throws", {}, [](Request&, const Reply&) { nlohmann::json(1).at("x"); });
        router_.add("GET", "/wait", {}, [this](Request& request, const Reply& reply) {
            request.watch->onGone([this] { gone_.open(); });
            waiting_.push_back(reply);
            asked_.open();
        });
        router_.add("GET", "/stream", {}, [this](Request& request, const Reply& reply) {
            request.watch->onGone([this] { gone_.open(); });
            const std::shared_ptr<EventStream> stream = reply.stream();
            const std::lock_guard lock(mutex_);
            stream_ = stream;
            asked_.open();
        });
    }
    void start() {
        BoundPort bound = std::move(listenAtPort("127.0.0.1", 0)).value();
        port_ = bound.port;
        EXPECT_TRUE(bound.loopback);
        AccessSetup setup;
        setup.port = port_;
        auto access = std::move(Access::create(setup)).value();
        own_ = "Host: 127.0.0.1:" + std::to_string(port_) + "\r\n";
        bearer_ = own_ + "Authorization: Bearer " + access->token() + "\r\n";
        setup.local = true;
        std::vector<Listener> listeners;
        listeners.push_back(
            {std::move(listenAtPath(path())).value(), std::move(Access::create(setup)).value()});
        listeners.push_back({std::move(bound.socket), access});
        server_ = std::move(Server::start(std::move(router_), limits_, std::move(listeners))).value();
    }
    std::filesystem::path path() const { return folder_.path() / "socket"; }
    Client client() { return std::move(Client::connect(path())).value(); }
    int status(std::string_view request) {
        RawClient raw(port_);
        EXPECT_TRUE(raw.send(request));
        const std::string answer = raw.receiveUntil("\r\n\r\n");
        return answer.starts_with("HTTP/1.1 ") ? std::stoi(answer.substr(9, 3)) : 0;
    }

    test::TempDir folder_;
    Limits limits_;
    Router router_;
    std::vector<Reply> waiting_;
    std::mutex mutex_;
    std::shared_ptr<EventStream> stream_;
    Gate asked_;
    Gate gone_;
    std::uint16_t port_ = 0;
    std::string own_;
    std::string bearer_;
    std::unique_ptr<Server> server_;
};

TEST_F(ServerTest, AnswersOneRequestAfterTheOther) {
    router_.add("GET", "/large", {}, [](Request&, const Reply& reply) {
        Response response;
        response.body = "[";
        response.length = 3U << 20U;
        auto left = std::make_shared<std::size_t>(3);
        response.more = [left]() -> Result<std::string> {
            return std::string(1U << 20U, --*left == 0 ? ']' : ' ');
        };
        reply.send(std::move(response));
    });
    start();
    Client own = client();
    EXPECT_EQ(own.server().pid, ::getpid());
    for (int i = 0; i < 3; ++i) {
        const auto answer = own.askJson("POST", "/echo", {{"number", i}}, 60s);
        ASSERT_TRUE(answer.ok()) << answer.error().text();
        EXPECT_EQ(answer.value()["number"], i);
    }
    EXPECT_EQ(own.ask("GET", "/large", "", 60s).value().body.size(), (3U << 20U) + 1);
    const auto lost = own.askJson("GET", "/lost", {}, 60s);
    EXPECT_EQ(lost.error().message, "the request was left without an answer");
    EXPECT_EQ(own.askJson("GET", "/throws", {}, 60s).error().code, ErrorCode::invalidArgument);
    EXPECT_EQ(own.askJson("GET", "/nothing", {}, 60s).error().code, ErrorCode::notFound);
    // Several at once in one piece.
    const std::string two = "GET /open HTTP/1.1\r\n" + bearer_ + "\r\nGET /open HTTP/1.1\r\n" + bearer_ +
                            "Connection: close\r\n\r\n";
    RawClient raw(port_);
    ASSERT_TRUE(raw.send(two));
    const std::string answers = raw.receiveAll();
    EXPECT_NE(answers.find("{\"ok\":1}", answers.find("{\"ok\":1}") + 1), std::string::npos) << answers;
}

TEST_F(ServerTest, AnswersLaterAndAfterItsEnd) {
    start();
    auto asked = std::async(std::launch::async,
                            [this] { return client().ask("GET", "/wait", "", 60s).value().status; });
    ASSERT_TRUE(asked_.wait());
    Client other = client();
    EXPECT_TRUE(other.askJson("GET", "/open", {}, 60s).ok());
    waiting_.at(0).send(jsonResponse({}, 202));
    waiting_.at(0).send(jsonResponse({}, 203));
    EXPECT_EQ(asked.get(), 202);
    const auto late = other.ask("GET", "/wait", "", 200ms);
    EXPECT_EQ(late.error().code, ErrorCode::timeout);
    server_.reset();
    waiting_.at(1).send(jsonResponse({}));
    waiting_.clear();
}

TEST_F(ServerTest, RefusesWhatItShouldNotTake) {
    start();
    const std::string end = "\r\n\r\n";
    const auto post = [&](const std::string& fields, const std::string& body) {
        return "POST /echo HTTP/1.1\r\n" + bearer_ + fields + "\r\n" + body;
    };
    const auto sized = [&](const std::string& body) {
        return post("Content-Length: " + std::to_string(body.size()) + "\r\n", body);
    };
    const std::string deep(9, '[');
    const std::vector<std::pair<std::string, int>> cases{
        {"GET /open HTTP/1.1\r\n" + own_ + end, 200},
        {"GET /open HTTP/1.0\r\n" + own_ + end, 200},
        {sized("{\"a\":1}"), 200},
        {post("Transfer-Encoding: chunked\r\n", "2\r\n{}\r\n0\r\n\r\n"), 200},
        {sized("{\"a\":" + deep + "}"), 400},
        {sized("{\"a\":"), 400},
        {"nonsense" + end, 400},
        {"GET /../x HTTP/1.1\r\n" + bearer_ + end, 400},
        {"GET http://evil/open HTTP/1.1\r\n" + bearer_ + end, 400},
        {"GET /open HTTP/1.1\r\n" + own_ + own_ + end, 400},
        {post("Content-Length: 2\r\nTransfer-Encoding: chunked\r\n", "0\r\n\r\n"), 400},
        {post("Content-Length: 2\r\nContent-Length: 3\r\n", "{}"), 400},
        {post("Content-Length: -1\r\n", ""), 400},
        {"GET /lost HTTP/1.1\r\n" + own_ + end, 401},
        {"GET /nothing HTTP/1.1\r\n" + own_ + end, 401},
        {"GET /open HTTP/1.1\r\n" + own_ + "Origin: http://evil.example\r\n" + end, 403},
        {"DELETE /echo HTTP/1.1\r\n" + bearer_ + end, 405},
        {post("Content-Length: 10001\r\n", ""), 413},
        {post("Transfer-Encoding: chunked\r\n", "3000\r\n" + std::string(0x3000, ' ') + "\r\n0\r\n\r\n"),
         413},
        {"GET /open HTTP/1.1\r\nHost: evil.example\r\n" + end, 421},
        {"GET /open HTTP/1.1\r\n" + end, 421},
        {"GET /open HTTP/1.1\r\n" + own_ + "X: " + std::string(20000, 'x') + end, 431},
    };
    for (const auto& [request, expected] : cases)
        EXPECT_EQ(status(request), expected) << request.substr(0, 200);
}

TEST_F(ServerTest, EndsRequestsThatTakeTooLong) {
    start();
    const std::vector<std::string> begins{
        "GET /open HTTP/1.1\r\n" + own_,
        "POST /echo HTTP/1.1\r\n" + bearer_ + "Content-Length: 5000\r\n\r\n"};
    for (const std::string& begin : begins) {
        RawClient slow(port_);
        ASSERT_TRUE(slow.send(begin));
        // A byte now and then does not keep it open.
        const auto started = std::chrono::steady_clock::now();
        pollfd polled{slow.descriptor(), POLLIN, 0};
        while (::poll(&polled, 1, 20) == 0 && std::chrono::steady_clock::now() - started < 60s) {
            if (!slow.send("x")) break;
        }
        EXPECT_EQ(slow.receiveUntil("408").substr(9, 3), "408") << begin;
    }
    RawClient silent(port_);
    EXPECT_EQ(silent.receiveAll(), "");
}

TEST_F(ServerTest, LetsOthersInWhenManyConnectAndStay) {
    raiseOpenFileLimit();
    limits_.headTime = 60s;
    start();
    std::vector<std::unique_ptr<RawClient>> idle;
    for (int i = 0; i < 1000; ++i) {
        idle.push_back(std::make_unique<RawClient>(port_));
        ASSERT_TRUE(idle.back()->connected()) << i;
        if (i % 2 == 0) idle.back()->send("GET ");
    }
    EXPECT_EQ(status("GET /open HTTP/1.1\r\n" + own_ + "\r\n"), 200);
    EXPECT_TRUE(client().askJson("GET", "/open", {}, 60s).ok());
    const ServerCounts counts = server_->counts();
    EXPECT_LE(counts.connections, limits_.connectionsPerPeer + 1);
    EXPECT_GE(counts.displaced, 1000 - limits_.connectionsPerPeer);
}

TEST_F(ServerTest, AnswersAHalfClosedClientAndTellsThatItHasGone) {
    start();
    RawClient half(port_);
    ASSERT_TRUE(half.send("GET /wait HTTP/1.1\r\n" + bearer_ + "\r\n"));
    ASSERT_TRUE(asked_.wait());
    half.endSending();
    ASSERT_TRUE(gone_.wait());
    waiting_.at(0).send(jsonResponse({}, 202));
    EXPECT_EQ(half.receiveAll().substr(9, 3), "202");
}

TEST_F(ServerTest, TellsASlowReaderWhatItMissed) {
    limits_.writeTime = 60s;
    start();
    RawClient slow(port_);
    const int small = 1024;
    ASSERT_EQ(::setsockopt(slow.descriptor(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)), 0);
    ASSERT_TRUE(slow.send("GET /stream HTTP/1.1\r\n" + bearer_ + "\r\n"));
    ASSERT_TRUE(asked_.wait());
    const std::string data(500, 'd');
    std::uint64_t sent = 0;
    std::uint64_t dropped = 0;
    while (dropped < 10 && sent < 1000000)
        stream_->push("record", data) ? ++sent : ++dropped;
    ASSERT_EQ(dropped, 10U);
    std::string all = slow.receiveUntil("{\"missed\": ");
    EXPECT_NE(all.find("{\"missed\": "), std::string::npos);
    stream_->finish();
    all += slow.receiveAll();
    EXPECT_TRUE(stream_->closed());
    std::uint64_t got = 0;
    for (std::size_t at = 0; (at = all.find(data, at)) != std::string::npos; at += data.size())
        ++got;
    EXPECT_EQ(got, sent);
    EXPECT_EQ(stream_->missed(), 10U);
    EXPECT_TRUE(gone_.wait());
}

TEST_F(ServerTest, EndsStreamsOfClientsThatVanish) {
    start();
    for (std::size_t i = 0; i < 2 * limits_.streams; ++i) {
        RawClient watching(port_);
        ASSERT_TRUE(watching.send("GET /stream HTTP/1.1\r\n" + bearer_ + "\r\n"));
        EXPECT_EQ(watching.receiveUntil("\r\n\r\n").substr(9, 3), "200") << i;
        ::shutdown(watching.descriptor(), SHUT_RDWR);
        const auto started = std::chrono::steady_clock::now();
        while (server_->counts().streams > 0 && std::chrono::steady_clock::now() - started < 60s)
            std::this_thread::yield();
        EXPECT_EQ(server_->counts().streams, 0U);
    }
    RawClient first(port_);
    RawClient second(port_);
    for (RawClient* one : {&first, &second}) {
        one->send("GET /stream HTTP/1.1\r\n" + bearer_ + "\r\n");
        EXPECT_EQ(one->receiveUntil("\r\n\r\n").substr(9, 3), "200");
    }
    EXPECT_EQ(status("GET /stream HTTP/1.1\r\n" + bearer_ + "\r\n"), 503);
}

}  // namespace
}  // namespace lm::http
