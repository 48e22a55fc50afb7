#include "xcp/serial_transport.h"

#include <array>
#include <pthread.h>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/log.h"
#include "core/thread.h"
#include "xcp/serial_frame.h"
#include "xcp/text_lines.h"

namespace lm::xcp {
namespace {

constexpr std::size_t kReadSize = 4096;
constexpr int kReadLimitMs = 50;
// A stop waits for as much text at the most.
constexpr std::size_t kTextPiece = 256;
constexpr std::chrono::milliseconds kFrameSilence{200};

Error prefixed(Error error) {
    error.message = "XCP on serial: " + error.text();
    return error;
}

Error connectionLost(const std::string& reason) {
    return prefixed({.code = ErrorCode::closed, .message = "connection lost: " + reason});
}

/// Lets bytes gather when they wake the receive thread too often, as a UART does that hands over a few bytes
/// at a time; a millisecond of the fastest line fits into the terminal's buffer many times over. Rests only
/// in the window after a crowded one, so answers to single commands are never kept waiting.
class WakeUpPace {
  public:
    using Clock = std::chrono::steady_clock;

    void wokeUp(Clock::time_point now) {
        ++wakeUps_;
        if (now - windowBegin_ >= kWindow) {
            crowded_ = wakeUps_ > kCrowd;
            wakeUps_ = 0;
            windowBegin_ = now;
        }
        if (crowded_) std::this_thread::sleep_for(kRest);
    }

  private:
    static constexpr std::chrono::milliseconds kWindow{10};
    static constexpr std::chrono::milliseconds kRest{1};
    static constexpr int kCrowd = 50;

    Clock::time_point windowBegin_;
    int wakeUps_ = 0;
    bool crowded_ = false;
};

}  // namespace

/// What the receive thread knows of the stream.
class SerialTransport::Reception final : private ISerialFrameSink {
  public:
    using Clock = std::chrono::steady_clock;

    explicit Reception(SerialTransport& transport)
        : transport_(transport), lines_([&transport](std::string_view line) {
              if (ITextSink* const sink = transport.textSink_.load()) sink->onText(line);
          }) {}

    void take(const std::uint8_t* data, std::size_t length, Clock::time_point now) {
        now_ = now;
        if (length > 0) {
            lastByte_ = now;
            transport_.bytesReceived_.fetch_add(length, std::memory_order_relaxed);
            frames_.receive(data, length);
        } else if (now - lastByte_ > kFrameSilence) {
            frames_.giveUpFrame();
        }
        lines_.handOnWhenSilent(now);
    }

    void finish() { lines_.handOn(); }

  private:
    void onFrame(const std::uint8_t* packet, std::size_t length) override {
        transport_.packetsReceived_.fetch_add(1, std::memory_order_relaxed);
        const auto hostNs = std::chrono::nanoseconds(now_.time_since_epoch()).count();
        if (IPacketSink* const sink = transport_.sink_.load()) {
            sink->onPacket(packet, length, {.hostNs = hostNs, .hardwareNs = 0});
        }
    }
    void onPlainBytes(const std::uint8_t* data, std::size_t length) override {
        lines_.add(data, length, now_);
    }
    void onInvalidFrame() override { transport_.invalidFrames_.fetch_add(1, std::memory_order_relaxed); }

    SerialTransport& transport_;
    TextLines lines_;
    SerialFrameReceiver frames_{*this};
    Clock::time_point now_;
    Clock::time_point lastByte_ = Clock::now();
};

SerialTransport::SerialTransport(SerialTransportConfig config, StopToken stop)
    : config_(std::move(config)), stop_(std::move(stop)), wakeOnStop_(stop_, [this] { wakeUp(); }) {}

SerialTransport::~SerialTransport() {
    close();
}

Result<void> SerialTransport::open() {
    if (running_ && !lost_) return {};
    close();
    auto opened = openPort();
    if (opened.ok()) opened = waitForReset();
    if (!opened.ok()) close();
    return opened;
}

Result<void> SerialTransport::openPort() {
    const std::lock_guard lock(sendMutex_);
    if (auto opened = port_.open(config_.port, config_.baudrate); !opened.ok()) {
        return prefixed(opened.error());
    }
    constexpr const char* kContext = "XCP on serial: cannot start the receive thread";
    auto reception = allocateFor<Reception>(kContext, *this);
    if (!reception.ok()) return reception.error();
    lossReason_.clear();
    lost_ = false;
    running_ = true;
    auto thread = startThread(kContext, [this, memory = std::move(reception).value()]() mutable {
        receiveLoop(std::move(memory));
    });
    if (!thread.ok()) return thread.error();
    thread_ = std::move(thread).value();
    return {};
}

Result<void> SerialTransport::waitForReset() {
    {
        std::unique_lock lock(wakeUpMutex_);
        wakeUp_.wait_for(lock, config_.resetDelay, [this] { return stop_.requested() || lost_; });
        if (stop_.requested()) return Error::stopped("XCP on serial: stopped");
    }
    const std::lock_guard lock(sendMutex_);
    if (lost_) return connectionLost(lossReason_);
    return {};
}

void SerialTransport::close() {
    running_ = false;
    if (thread_.joinable()) thread_.join();
    const std::lock_guard lock(sendMutex_);
    port_.close();
}

Result<void> SerialTransport::send(const std::uint8_t* data, std::size_t length) {
    const std::lock_guard lock(sendMutex_);
    if (auto ready = requireOpenLocked(); !ready.ok()) return ready;
    if (length == 0 || length > config_.maxPacketSize) {
        return Error{.code = ErrorCode::invalidArgument, .message = "XCP packet too large for the transport"};
    }
    encodeSerialFrame(data, length, frame_);
    return writeLocked(frame_.data(), frame_.size());
}

Result<void> SerialTransport::sendText(std::string_view line) {
    const std::lock_guard lock(sendMutex_);
    if (auto ready = requireOpenLocked(); !ready.ok()) return ready;
    if (line.find('\0') != std::string_view::npos) {
        return Error{.code = ErrorCode::invalidArgument, .message = "XCP on serial: text with a zero byte"};
    }
    const std::string text = std::string(line) + '\n';
    for (std::size_t at = 0; at < text.size(); at += kTextPiece) {
        if (stop_.requested()) {
            return Error::stopped(
                fmt::format("XCP on serial: stopped after {} of {} bytes", at, text.size()));
        }
        const std::string_view piece = std::string_view(text).substr(at, kTextPiece);
        auto written = writeLocked(reinterpret_cast<const std::uint8_t*>(piece.data()), piece.size());
        if (!written.ok()) return written;
    }
    return {};
}

Result<void> SerialTransport::requireOpenLocked() const {
    if (!running_) {
        return Error{.code = ErrorCode::notOpen, .message = "XCP on serial: transport not started"};
    }
    if (lost_) return connectionLost(lossReason_);
    return {};
}

Result<void> SerialTransport::writeLocked(const std::uint8_t* data, std::size_t length) {
    auto written = port_.write(data, length);
    if (!written.ok()) return prefixed(written.error());
    return written;
}

void SerialTransport::wakeUp() {
    const std::lock_guard lock(wakeUpMutex_);
    wakeUp_.notify_all();
}

void SerialTransport::receiveLoop(std::unique_ptr<Reception> reception) {
    ::pthread_setname_np(::pthread_self(), "xcp-serial-rx");
    std::array<std::uint8_t, kReadSize> buffer;
    WakeUpPace pace;
    while (running_) {
        const auto count = port_.read(buffer.data(), buffer.size(), kReadLimitMs);
        if (!count.ok()) {
            reception->finish();
            loseConnection(count.error().text());
            return;
        }
        const auto now = Reception::Clock::now();
        reception->take(buffer.data(), count.value(), now);
        if (count.value() > 0) pace.wokeUp(now);
    }
    reception->finish();
}

/// Gives the device up at once: as long as it is held, a pulled adapter comes back under another name.
void SerialTransport::loseConnection(const std::string& reason) {
    log::info("XCP on serial: {}", "connection lost: " + reason);
    {
        const std::lock_guard lock(sendMutex_);
        lossReason_ = reason;
        lost_ = true;
        port_.close();
    }
    if (ITextSink* const sink = textSink_.load()) sink->onNotice("connection lost: " + reason);
    wakeUp();
}

SerialStatistics SerialTransport::statistics() const {
    return {.bytesReceived = bytesReceived_.load(),
            .packetsReceived = packetsReceived_.load(),
            .invalidFrames = invalidFrames_.load()};
}

}  // namespace lm::xcp
