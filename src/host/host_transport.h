// Carries XCP commands through the connection of the program that holds the ECU. What belongs to the session
// (CONNECT, SYNCH, DISCONNECT) is answered here: the other program's answers are certain when they come.
//
// Threads: one at a time; the sink is called within send(). Lifetime: the link is borrowed.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "core/stop_token.h"
#include "host/host_link.h"
#include "xcp/packet.h"
#include "xcp/transport.h"

namespace lm::host {

class HostTransport final : public xcp::ITransport {
  public:
    struct Limits {
        std::chrono::milliseconds turn{0};  ///< how long it waits until others are done
        std::size_t maxPacketSize = 255;
    };

    /// `onWrite` is called once, before the first command that writes.
    HostTransport(HostLink& link, Limits limits, std::function<void()> onWrite, StopToken stop)
        : link_(link), limits_(limits), onWrite_(std::move(onWrite)), stop_(std::move(stop)) {}

    void setSink(xcp::IPacketSink* sink) override { sink_ = sink; }
    Result<void> open() override { return {}; }
    void close() override {}
    /// Errors: the link's; those with which the other program's own tries ended.
    Result<void> send(const std::uint8_t* data, std::size_t length) override;
    std::size_t maxPacketSize() const override { return limits_.maxPacketSize; }
    void foresee(std::span<const xcp::Packet> commands) override;
    void operationEnded() override;

    /// No one else's commands come between, until endWhole(); calls nest.
    void beginWhole() { ++wholes_; }
    void endWhole();
    /// Before a write; holds until the operation ends.
    void announce(const std::vector<session::ObjectBytes>& changes);

  private:
    Result<void> lease();
    void endLease();
    std::optional<xcp::Packet> answerHere(const xcp::Packet& command) const;
    bool isFetched(const xcp::Packet& command) const;
    Result<void> fetch(const xcp::Packet& command);
    void deliver(const xcp::Packet& answer);

    HostLink& link_;
    const Limits limits_;
    const std::function<void()> onWrite_;
    const StopToken stop_;
    xcp::IPacketSink* sink_ = nullptr;
    int wholes_ = 0;
    bool leased_ = false;
    bool writes_ = false;  ///< in this operation, which then is not cut short
    bool writeTold_ = false;
    std::optional<Error> refusal_;      ///< of an announcement: the next command has it
    std::deque<xcp::Packet> foreseen_;  ///< not sent yet
    std::deque<std::pair<xcp::Packet, xcp::Packet>>
        fetched_;                                           ///< commands and their answers, not asked for yet
    std::optional<std::pair<std::size_t, Error>> failure_;  ///< behind so many of the fetched
};

}  // namespace lm::host
