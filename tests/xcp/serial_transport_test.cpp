#include "xcp/serial_transport.h"

#include <array>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/pseudo_terminal.h"
#include "support/temp_dir.h"
#include "xcp/scripted_slave.h"
#include "xcp/serial_frame.h"

namespace lm::xcp {
namespace {

using lm::test::PseudoTerminal;
using test::Bytes;
using test::hexText;

/// Packets "[..]", lines "<..>" and notices "{..}" in the order of their arrival.
class Arrivals final : public IPacketSink, public ITextSink {
  public:
    void onPacket(const std::uint8_t* data, std::size_t length, ReceiveTime time) override {
        EXPECT_TRUE(time.hostNs > 0 && time.hardwareNs == 0);
        add("[" + hexText(data, length) + "]");
    }
    void onTransportEvent(const TransportEvent&) override { ADD_FAILURE(); }
    void onText(std::string_view line) override { add("<" + std::string(line) + ">"); }
    void onNotice(std::string_view text) override { add("{" + std::string(text) + "}"); }

    /// Waits until something has arrived and gives everything since the last call.
    std::string upTo(const std::string& awaited) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(60),
                          [&] { return log_.find(awaited) != std::string::npos; });
        return std::exchange(log_, {});
    }

  private:
    void add(const std::string& text) {
        const std::lock_guard lock(mutex_);
        log_ += text;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::string log_;
};

std::string frameText(const Bytes& packet) {
    Bytes frame;
    encodeSerialFrame(packet.data(), packet.size(), frame);
    return {frame.begin(), frame.end()};
}

std::string outcome(const Result<void>& result) {
    return result.ok() ? "" : result.error().text();
}

/// A link to a pseudo-terminal, which can be replaced like an adapter that is plugged in again.
class SerialTransportTest : public ::testing::Test {
  protected:
    SerialTransportTest() { plugIn(); }
    void plugIn() {
        terminal_ = std::make_unique<PseudoTerminal>();
        std::filesystem::remove(link_);
        std::filesystem::create_symlink(terminal_->path(), link_);
    }
    std::string send(const Bytes& packet) { return outcome(transport_.send(packet.data(), packet.size())); }

    const lm::test::TempDir directory_;
    const std::string link_ = directory_.path() / "port";
    const std::string lost_ = "connection lost: " + link_ + ": port gone";
    Arrivals arrivals_;
    std::unique_ptr<PseudoTerminal> terminal_;
    StopSource stop_ = StopSource::create().value();
    SerialTransport transport_{{.port = link_, .resetDelay = {}, .maxPacketSize = 8}, stop_.token()};
};

TEST_F(SerialTransportTest, ExchangesPacketsAndText) {
    transport_.setSink(&arrivals_);
    transport_.setTextSink(&arrivals_);
    EXPECT_EQ(send({1}), "XCP on serial: transport not started");
    EXPECT_EQ(outcome(transport_.open()) + outcome(transport_.open()), "");
    EXPECT_EQ(send({0xFF, 0x00}), "");
    EXPECT_EQ(outcome(transport_.sendText("led on")), "");
    EXPECT_EQ(terminal_->read(14), std::string("\0\2\xFF\3\xF0\x1E\0led on\n", 14));
    EXPECT_EQ(send({}) + send(Bytes(9)),
              "XCP packet too large for the transportXCP packet too large for the transport");
    EXPECT_EQ(outcome(transport_.sendText({"a\0b", 3})), "XCP on serial: text with a zero byte");
    std::string damaged = frameText({0xFD, 0x01});
    damaged[2] = 'd';
    // What stops in the middle, a line or a frame, is handed on when the line falls silent or is closed.
    const std::pair<std::string, std::string> rows[] = {
        {"hello\r\n" + frameText({0xFF, 0, 1}) + damaged + frameText({0xFE}) + "\n",
         "<hello>[FF 00 01][FE]<\\x05d\\x01\\xB3h>"},
        {"login: " + frameText({0xFF}), "[FF]<login: >"},
        {std::string("\0cut", 4), "<cut>"},
        {"last" + frameText({0xFE}), "[FE]"}};
    std::size_t bytes = 0;
    for (const auto& [stream, expected] : rows) {
        terminal_->write(stream);
        bytes += stream.size();
        EXPECT_EQ(arrivals_.upTo(expected.substr(expected.size() - 4)), expected);
    }
    transport_.close();
    EXPECT_EQ(arrivals_.upTo("last"), "<last>");
    const SerialStatistics seen = transport_.statistics();
    EXPECT_TRUE(seen.bytesReceived == bytes && seen.packetsReceived == 4 && seen.invalidFrames == 2);
    EXPECT_EQ(send({1}), "XCP on serial: transport not started");
}

TEST_F(SerialTransportTest, NeverPutsAFrameIntoText) {
    const std::string line(100'000, 't');  // more than a terminal takes at once
    const std::string frames = frameText({7}) + frameText({7});
    ASSERT_EQ(outcome(transport_.open()), "");
    auto talker = std::async(std::launch::async, [&] { return outcome(transport_.sendText(line)); });
    EXPECT_EQ(terminal_->read(1), "t");  // the line is being written
    auto reader =
        std::async(std::launch::async, [&] { return terminal_->read(line.size() + frames.size()); });
    EXPECT_EQ(send({7}), "");
    EXPECT_EQ(send({7}), "");
    EXPECT_EQ(talker.get(), "");
    EXPECT_TRUE(reader.get() == line.substr(1) + "\n" + frames);
    // A stop cuts the text, not what belongs to XCP.
    auto cut = std::async(std::launch::async, [&] { return outcome(transport_.sendText(line)); });
    EXPECT_EQ(terminal_->read(1), "t");
    stop_.request();
    pollfd more{.fd = terminal_->descriptor(), .events = POLLIN, .revents = 0};
    std::array<char, 4096> block;
    while (cut.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
        if (::poll(&more, 1, 0) <= 0) continue;
        ASSERT_GT(::read(more.fd, block.data(), block.size()), 0);
    }
    EXPECT_EQ(cut.get().substr(0, 29), "XCP on serial: stopped after ");
    EXPECT_EQ(send({7}), "");
}

TEST_F(SerialTransportTest, ReceivesDuringTheResetDelayUntilSomethingEndsIt) {
    SerialTransport slow({.port = link_, .resetDelay = std::chrono::hours(1)}, stop_.token());
    slow.setTextSink(&arrivals_);
    for (const bool pulled : {false, true}) {
        auto opened = std::async(std::launch::async, [&] { return outcome(slow.open()); });
        while (!slow.sendText("?").ok()) {
            std::this_thread::yield();  // opening discards what was there before
        }
        terminal_->write("boot\n");
        EXPECT_EQ(arrivals_.upTo("<boot>"), "<boot>");
        pulled ? terminal_->pull() : stop_.request();
        EXPECT_EQ(opened.get(), "XCP on serial: " + (pulled ? lost_ : "stopped"));
        EXPECT_EQ(slow.lost(), pulled);
        EXPECT_EQ(outcome(slow.sendText("x")), "XCP on serial: transport not started");
        EXPECT_TRUE(outcome(slow.open()).find(pulled ? "cannot open" : "stopped") != std::string::npos);
        stop_.reset();
    }
}

}  // namespace
}  // namespace lm::xcp
