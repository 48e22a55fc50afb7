#include "xcp/serial_transport.h"

#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>

#include <gtest/gtest.h>

#include "support/pseudo_terminal.h"
#include "support/temp_dir.h"
#include "xcp/scripted_slave.h"
#include "xcp/serial_frame.h"

namespace lm::xcp {
namespace {

using lm::test::PseudoTerminal;
using std::chrono::milliseconds;
using test::Bytes;
using test::hexText;

/// Packets "[..]", lines "<..>" and notices "{..}" in the order of their arrival.
class Arrivals final : public IPacketSink, public ITextSink {
  public:
    void onPacket(const std::uint8_t* data, std::size_t length, ReceiveTime time) override {
        EXPECT_GT(time.hostNs, 0);
        EXPECT_EQ(time.hardwareNs, 0);
        add("[" + hexText(data, length) + "]");
    }
    void onTransportEvent(const hal::CanChannelEvent&) override { ADD_FAILURE(); }
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

/// A transport on a link to a pseudo-terminal, which can be replaced like an adapter that is plugged in
/// again.
class SerialTransportTest : public ::testing::Test {
  protected:
    explicit SerialTransportTest(milliseconds delay = milliseconds(0)) : delay_(delay) {
        plugIn();
        transport_.setSink(&arrivals_);
        transport_.setTextSink(&arrivals_);
    }
    void plugIn() {
        terminal_ = std::make_unique<PseudoTerminal>();
        std::filesystem::remove(link_);
        std::filesystem::create_symlink(terminal_->path(), link_);
    }
    Result<void> send(const Bytes& packet) { return transport_.send(packet.data(), packet.size()); }

    const lm::test::TempDir directory_;
    const std::string link_ = directory_.path() / "port";
    const milliseconds delay_;
    Arrivals arrivals_;
    std::unique_ptr<PseudoTerminal> terminal_;
    SerialTransport transport_{
        {.port = link_, .baudrate = 1'000'000, .resetDelay = delay_, .maxPacketSize = 8}};
};

/// The delay is longer than any test: something has to end it.
class SerialResetTest : public SerialTransportTest {
  protected:
    SerialResetTest() : SerialTransportTest(std::chrono::hours(1)) {}
    std::future<std::string> openBeside() {
        return std::async(std::launch::async, [this] {
            auto opened = transport_.open();
            return opened.ok() ? "" : opened.error().text();
        });
    }
    /// Writes until the port is open and the text comes through (opening discards what was there before).
    void awaitOpen() {
        while (!transport_.sendText("?").ok()) {
            std::this_thread::yield();
        }
        terminal_->write("boot\n");
        EXPECT_EQ(arrivals_.upTo("<boot>"), "<boot>");
    }
};

TEST_F(SerialTransportTest, ExchangesPacketsAndText) {
    EXPECT_EQ(send({1}).error().text(), "XCP on serial: transport not started");
    ASSERT_TRUE(transport_.open().ok());
    ASSERT_TRUE(transport_.open().ok());
    ASSERT_TRUE(send({0xFF, 0x00}).ok());
    ASSERT_TRUE(transport_.sendText("led on").ok());
    EXPECT_EQ(terminal_->read(14), std::string("\0\2\xFF\3\xF0\x1E\0led on\n", 14));
    for (const std::size_t length : {0U, 9U}) {
        EXPECT_EQ(send(Bytes(length)).error().text(), "XCP packet too large for the transport");
    }
    EXPECT_EQ(transport_.sendText(std::string_view("a\0b", 3)).error().text(),
              "XCP on serial: text with a zero byte");

    std::string damaged = frameText({0xFD, 0x01});
    damaged[2] = 'd';
    const std::string stream = "hello\r\n" + frameText({0xFF, 0, 1}) + damaged + frameText({0xFE}) + "\n";
    terminal_->write(stream);
    EXPECT_EQ(arrivals_.upTo("<\\x05"), "<hello>[FF 00 01][FE]<\\x05d\\x01\\xB3h>");
    EXPECT_EQ(transport_.statistics().bytesReceived, stream.size());
    EXPECT_EQ(transport_.statistics().packetsReceived, 2U);
    EXPECT_EQ(transport_.statistics().invalidFrames, 1U);
    transport_.close();
    EXPECT_EQ(send({1}).error().text(), "XCP on serial: transport not started");
}

TEST_F(SerialTransportTest, HandsOnWhatStopsInTheMiddle) {
    ASSERT_TRUE(transport_.open().ok());
    terminal_->write("login: " + frameText({0xFF}));
    EXPECT_EQ(arrivals_.upTo("login"), "[FF]<login: >");
    terminal_->write(std::string("\0cut", 4));
    EXPECT_EQ(arrivals_.upTo("cut"), "<cut>");
    EXPECT_EQ(transport_.statistics().invalidFrames, 1U);
    ASSERT_TRUE(transport_.sendText("").ok());
    terminal_->write("last" + frameText({0xFE}));
    EXPECT_EQ(arrivals_.upTo("[FE]"), "[FE]");
    transport_.close();
    EXPECT_EQ(arrivals_.upTo("last"), "<last>");
}

TEST_F(SerialTransportTest, NeverPutsTextIntoAFrame) {
    constexpr std::size_t kCount = 2000;
    ASSERT_TRUE(transport_.open().ok());
    const std::string line(60, 't');
    const std::size_t total = kCount * (frameText(Bytes(8, 7)).size() + line.size() + 1);
    auto reader = std::async(std::launch::async, [&] { return terminal_->read(total); });
    auto talker = std::async(std::launch::async, [&] {
        bool sent = true;
        for (std::size_t i = 0; i < kCount; ++i) {
            sent = transport_.sendText(line).ok() && sent;
        }
        return sent;
    });
    for (std::size_t i = 0; i < kCount; ++i) {
        ASSERT_TRUE(send(Bytes(8, 7)).ok());
    }
    ASSERT_TRUE(talker.get());
    std::string stream = reader.get();
    for (const std::string& part : {frameText(Bytes(8, 7)), line + "\n"}) {
        std::size_t count = 0;
        for (std::size_t at = 0; (at = stream.find(part, at)) != std::string::npos; ++count) {
            stream.replace(at, part.size(), "");
        }
        EXPECT_EQ(count, kCount);
    }
    EXPECT_EQ(stream, "");
}

TEST_F(SerialTransportTest, ComesBackAfterThePortWasPulled) {
    ASSERT_TRUE(transport_.open().ok());
    terminal_->write("bye" + frameText({1}));
    EXPECT_EQ(arrivals_.upTo("[01]"), "[01]");
    const std::string loss = "connection lost: " + link_ + ": port gone";
    EXPECT_FALSE(transport_.lost());
    terminal_->pull();
    EXPECT_EQ(arrivals_.upTo("{"), "<bye>{" + loss + "}");
    EXPECT_TRUE(transport_.lost());
    EXPECT_EQ(send({1}).error().text(), "XCP on serial: " + loss);
    EXPECT_EQ(transport_.open().error().text(),
              "XCP on serial: cannot open " + link_ + ": No such file or directory");
    EXPECT_TRUE(transport_.lost());
    plugIn();
    ASSERT_TRUE(transport_.open().ok());
    EXPECT_FALSE(transport_.lost());
    ASSERT_TRUE(transport_.sendText("x").ok());
    EXPECT_EQ(terminal_->read(2), "x\n");
    terminal_->write(frameText({2}));
    EXPECT_EQ(arrivals_.upTo("[02]"), "[02]");
}

TEST_F(SerialResetTest, ReceivesDuringTheDelayAndEndsItForAStop) {
    auto opened = openBeside();
    awaitOpen();
    transport_.requestStop();
    EXPECT_EQ(opened.get(), "XCP on serial: stopped");
    EXPECT_EQ(transport_.open().error().text(), "XCP on serial: stopped");
    transport_.clearStop();
    opened = openBeside();
    awaitOpen();
    transport_.requestStop();
    EXPECT_EQ(opened.get(), "XCP on serial: stopped");
}

TEST_F(SerialResetTest, EndsTheDelayWhenThePortGoes) {
    auto opened = openBeside();
    awaitOpen();
    terminal_->pull();
    EXPECT_EQ(opened.get(), "XCP on serial: connection lost: " + link_ + ": port gone");
    EXPECT_TRUE(transport_.lost());
    EXPECT_EQ(send({1}).error().text(), "XCP on serial: transport not started");
}

}  // namespace
}  // namespace lm::xcp
