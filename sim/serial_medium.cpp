#include "sim/serial_medium.h"

#include <algorithm>
#include <chrono>
#include <limits>

#include <fmt/format.h>

namespace lm::sim {
namespace {

constexpr std::int64_t kLookForPeerNs = 10 * kNsPerMs;
constexpr std::int64_t kTextPieceNs = kNsPerMs;
constexpr std::size_t kTextPiece = 16;
constexpr std::size_t kMostText = 64 * 1024;
constexpr std::size_t kMostQueued = 256 * 1024;

}  // namespace

Result<std::unique_ptr<SerialMedium>> SerialMedium::open(const Options& options, Ecu& ecu) {
    Result<std::unique_ptr<SerialLine>> line = SerialLine::open(options);
    if (!line.ok()) return line.error();
    return std::unique_ptr<SerialMedium>(new SerialMedium(options, ecu, std::move(line).value()));
}

SerialMedium::SerialMedium(const Options& options, Ecu& ecu, std::unique_ptr<SerialLine> line)
    : options_(options),
      ecu_(ecu),
      line_(std::move(line)),
      readyNs_(kNever),
      chatNs_(options.chatterMs == 0 ? kNever : 0) {}

std::vector<pollfd> SerialMedium::descriptors() const {
    // A line that no one has open hangs up all the time: it is looked at by the clock instead.
    if (!peer_) return {};
    const bool waits = !out_.empty();
    return {{line_->descriptor(), static_cast<short>(waits ? POLLIN | POLLOUT : POLLIN), 0}};
}

Result<void> SerialMedium::receive(int /*descriptor*/, const Handler& handler) {
    transmit();
    for (;;) {
        const Result<std::size_t> count = line_->read(in_);
        if (!count.ok()) {
            forgetPeer();
            return {};
        }
        if (count.value() == 0) return {};
        reader_.feed(std::span(in_).first(count.value()), handler,
                     [this](std::string_view line) { onTypedLine(line); });
    }
}

void SerialMedium::send(const Outbox& packets, std::int64_t nowNs) {
    watchEcu(nowNs);
    for (const Outbox::Packet& packet : packets.packets())
        sendPacket(packets, packet);
    transmit();
}

void SerialMedium::sendPacket(const Outbox& packets, const Outbox::Packet& packet) {
    sendText();
    if (packet.dto && ecu_.faults().due(StreamFault::loseDatagram)) {
        ++counters_.packetsLost;
        return;
    }
    if (!peer_ || out_.size() > kMostQueued) {
        ++counters_.sendFailures;
        return;
    }
    appendFrame(packets.bytes(packet), out_);
    if (packet.dto && ecu_.faults().due(StreamFault::malformed)) {
        // Another last byte of the body, and no delimiter in its place.
        std::uint8_t& last = out_[out_.size() - 2];
        last = last == 1 ? 2 : 1;
        ++counters_.packetsMalformed;
    }
    ++counters_.packetsSent;
    ++counters_.datagramsSent;
}

std::int64_t SerialMedium::dueNs() const {
    if (!peer_ || !text_.empty()) return lookNs_;
    return std::min(readyNs_, chatNs_);
}

Result<void> SerialMedium::onDue(std::int64_t nowNs) {
    if (!peer_) watchPeer(nowNs);
    watchEcu(nowNs);
    chat(nowNs);
    sendText();
    transmit();
    lookNs_ = nowNs + (peer_ ? kTextPieceNs : kLookForPeerNs);
    return {};
}

Result<void> SerialMedium::togglePlug() {
    if (!line_->plugged()) return line_->plug();
    line_->pull();
    forgetPeer();
    return {};
}

void SerialMedium::watchPeer(std::int64_t nowNs) {
    if (!line_->isOpenedByPeer()) return;
    peer_ = true;
    reader_.reset();
    if (options_.bootMs < 0) return;
    ecu_.restart(nowNs);
    ecu_.silenceUntil(nowNs + options_.bootMs * kNsPerMs);
}

void SerialMedium::forgetPeer() {
    peer_ = false;
    lookNs_ = 0;
    text_.clear();
    out_.clear();
}

/// Tells that the ECU has started since the last look.
void SerialMedium::watchEcu(std::int64_t nowNs) {
    if (ecu_.starts() == startsSeen_) return;
    startsSeen_ = ecu_.starts();
    say(fmt::format("boot {}: simulated ECU, {} events, XCP on this line", startsSeen_, kEventCount));
    readyNs_ = nowNs + std::max(options_.bootMs, 0) * kNsPerMs;
}

void SerialMedium::chat(std::int64_t nowNs) {
    if (nowNs >= readyNs_) {
        readyNs_ = kNever;
        say("ready");
    }
    if (nowNs < chatNs_ || readyNs_ != kNever) return;
    chatNs_ = nowNs + options_.chatterMs * kNsPerMs;
    const Slave& slave = ecu_.slave();
    if (ecu_.silent(nowNs)) return;
    say(fmt::format("diag {}: {}, {} samples, {} writes", ++chats_,
                    slave.daqRunning()  ? "measuring"
                    : slave.connected() ? "connected"
                                        : "idle",
                    slave.daqCounters().samples, slave.writes()));
}

void SerialMedium::say(std::string_view line) {
    if (!peer_ || text_.size() > kMostText) return;
    text_.append(line).append("\r\n");
}

void SerialMedium::onTypedLine(std::string_view line) {
    const std::int64_t nowNs =
        std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
    if (ecu_.silent(nowNs)) return;
    if (line == "reset") {
        ecu_.restart(nowNs);
    } else {
        say(fmt::format("you said: {}", line));
    }
}

/// One piece of the text that waits.
void SerialMedium::sendText() {
    if (text_.empty() || out_.size() > kMostQueued) return;
    const std::size_t size = std::min(text_.size(), kTextPiece);
    out_.insert(out_.end(), text_.begin(), text_.begin() + static_cast<std::ptrdiff_t>(size));
    text_.erase(0, size);
}

void SerialMedium::transmit() {
    while (!out_.empty()) {
        const Result<std::size_t> count = line_->write(out_);
        if (!count.ok()) return forgetPeer();
        if (count.value() == 0) return;
        out_.erase(out_.begin(), out_.begin() + static_cast<std::ptrdiff_t>(count.value()));
    }
}

}  // namespace lm::sim
