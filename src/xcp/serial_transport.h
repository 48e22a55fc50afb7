// XCP on a serial line that the ECU shares with its plain text: frames of serial_frame.h go to the packet
// sink, everything else goes to the text sink line by line. A receive thread "xcp-serial-rx" reads the port.
//
// Threads: open, close, setSink and setTextSink belong to the owner and must not run at the same time; send,
// sendText, lost and statistics may be called from any thread at any time. Both sinks are called on the
// receive thread. Lifetime: the sinks are borrowed, set while the transport is closed, and must outlive it or
// be replaced first.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/stop_token.h"
#include "hal/serial_port.h"
#include "xcp/text_sink.h"
#include "xcp/transport.h"

namespace lm::xcp {

struct SerialTransportConfig {
    std::string port = {};  ///< device path
    std::uint32_t baudrate = 115200;
    std::chrono::milliseconds resetDelay{2000};  ///< opening the port resets many an ECU
    std::size_t maxPacketSize = 65535;           ///< bytes without frame
};

/// Totals since construction.
struct SerialStatistics {
    std::uint64_t bytesReceived = 0;
    std::uint64_t packetsReceived = 0;
    std::uint64_t invalidFrames = 0;
};

class SerialTransport final : public ITransport {
  public:
    /// A stop ends the reset delay of an open() and a sendText(), under way or to come; send and receiving go
    /// on.
    explicit SerialTransport(SerialTransportConfig config, StopToken stop = {});
    ~SerialTransport() override;
    SerialTransport(const SerialTransport&) = delete;
    SerialTransport& operator=(const SerialTransport&) = delete;

    void setSink(IPacketSink* sink) override { sink_.store(sink); }
    void setTextSink(ITextSink* sink) { textSink_.store(sink); }

    /// Opens the port and waits for the reset delay, during which text and packets are received already and
    /// text can be sent. A transport whose port is lost is closed and opened again, with the reset delay
    /// again. Errors, after which the transport is closed: those of hal::SerialPort::open, and "connection
    /// lost: ..." when the port goes during the delay, both after "XCP on serial: "; Error::stopped "XCP
    /// on serial: stopped".
    Result<void> open() override;

    /// From any state and any number of times. A part line of text is handed on first.
    void close() override;

    /// One frame with one packet. Errors: notOpen "XCP on serial: transport not started", invalidArgument
    /// "XCP packet too large for the transport", closed "XCP on serial: connection lost: REASON" when the
    /// port is lost, those of hal::SerialPort::write after "XCP on serial: ".
    Result<void> send(const std::uint8_t* data, std::size_t length) override;

    /// The line and a LF, never inside a frame. Errors: those of send; invalidArgument "XCP on serial: text
    /// with a zero byte" (it would open a frame), Error::stopped "XCP on serial: stopped after N of M bytes".
    Result<void> sendText(std::string_view line);

    std::size_t maxPacketSize() const override { return config_.maxPacketSize; }

    /// True from the failure of the open port (pulled, hung up) until an open() has got hold of it again.
    bool lost() const { return lost_.load(); }

    SerialStatistics statistics() const;

  private:
    class Reception;

    Result<void> openPort();
    Result<void> waitForReset();
    Result<void> requireOpenLocked() const;
    Result<void> writeLocked(const std::uint8_t* data, std::size_t length);
    void receiveLoop(std::unique_ptr<Reception> reception);
    void loseConnection(const std::string& reason);
    void wakeUp();

    const SerialTransportConfig config_;
    const StopToken stop_;
    std::atomic<IPacketSink*> sink_{nullptr};
    std::atomic<ITextSink*> textSink_{nullptr};

    // Set by open and close.
    std::thread thread_;

    std::atomic<bool> running_{false};
    std::atomic<bool> lost_{false};

    // Opened and closed under sendMutex_; read without it by the receive thread, which runs only in between.
    hal::SerialPort port_;

    std::mutex sendMutex_;
    std::vector<std::uint8_t> frame_;  ///< under sendMutex_
    std::string lossReason_;           ///< under sendMutex_

    std::mutex wakeUpMutex_;
    std::condition_variable wakeUp_;

    std::atomic<std::uint64_t> bytesReceived_{0};
    std::atomic<std::uint64_t> packetsReceived_{0};
    std::atomic<std::uint64_t> invalidFrames_{0};

    const StopCallback wakeOnStop_;  ///< last: it uses the others
};

}  // namespace lm::xcp
