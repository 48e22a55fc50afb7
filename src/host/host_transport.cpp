#include "host/host_transport.h"

#include <algorithm>

#include "host/command_filter.h"

namespace lm::host {

using xcp::Command;
using xcp::Packet;

namespace {

constexpr std::size_t kMostAtOnce = 512;

bool same(const Packet& a, const Packet& b) {
    return std::ranges::equal(a.view(), b.view());
}

Packet packetOf(std::initializer_list<std::uint8_t> bytes) {
    Packet packet;
    std::copy(bytes.begin(), bytes.end(), packet.bytes.begin());
    packet.length = static_cast<std::uint8_t>(bytes.size());
    return packet;
}

/// Blocks of packets do not go through: each command has one answer.
void takeBlocksAway(const Packet& command, Packet& answer) {
    constexpr std::uint8_t kMasterBlocks = 0x01;
    const bool tells = command.code() == static_cast<std::uint8_t>(Command::getCommModeInfo);
    if (tells && answer.code() == xcp::kPidResponse && answer.length > 2)
        answer.bytes[2] &= static_cast<std::uint8_t>(~kMasterBlocks);
}

}  // namespace

std::optional<Packet> HostTransport::answerHere(const Packet& command) const {
    constexpr std::uint8_t kSlaveBlocks = 0x40;
    switch (static_cast<Command>(command.code())) {
        case Command::connect: {
            Packet answer = link_.host().connect;
            answer.bytes[2] &= static_cast<std::uint8_t>(~kSlaveBlocks);
            return answer;
        }
        case Command::disconnect:
            return packetOf({xcp::kPidResponse});
        case Command::synch:
            return packetOf({xcp::kPidError, xcp::kErrCmdSynch});
        default:
            return std::nullopt;
    }
}

Result<void> HostTransport::send(const std::uint8_t* data, std::size_t length) {
    Packet command;
    command.length = static_cast<std::uint8_t>(std::min(length, Packet::kCapacity));
    std::copy(data, data + command.length, command.bytes.begin());
    if (const auto answer = answerHere(command)) {
        if (answer->length == 0)
            return Error{ErrorCode::notOpen,
                         link_.host().holder.text() + " holds the ECU, and is not connected to it"};
        deliver(*answer);
        return {};
    }
    if (refusal_) return *std::exchange(refusal_, {});
    if (!isFetched(command)) {
        if (auto fetched = fetch(command); !fetched) return fetched;
    }
    Packet answer = fetched_.front().second;
    fetched_.pop_front();
    takeBlocksAway(command, answer);
    deliver(answer);
    return {};
}

bool HostTransport::isFetched(const Packet& command) const {
    return !fetched_.empty() && same(fetched_.front().first, command);
}

/// With what is foreseen behind it.
Result<void> HostTransport::fetch(const Packet& command) {
    fetched_.clear();
    const bool isForeseen = !foreseen_.empty() && same(foreseen_.front(), command);
    if (!isForeseen) foreseen_.assign(1, command);
    const std::size_t count = std::min(foreseen_.size(), kMostAtOnce);
    const std::vector<Packet> commands(foreseen_.begin(),
                                       foreseen_.begin() + static_cast<std::ptrdiff_t>(count));
    const bool writes = kindOf(command) == CommandKind::writes;
    if (writes && onWrite_ && !std::exchange(writeTold_, true)) onWrite_();
    writes_ = writes_ || writes;
    if (auto leased = lease(); !leased) return leased;
    // What has begun to be written is not left for a stop.
    auto answers = link_.send(commands, writes_ ? StopToken() : stop_);
    if (!answers) {
        foreseen_.clear();
        leased_ = false;
        return answers.error();
    }
    const std::vector<Packet>& packets = answers.value().packets;
    for (std::size_t i = 0; i < std::min(packets.size(), commands.size()); ++i)
        fetched_.emplace_back(commands[i], packets[i]);
    foreseen_.erase(foreseen_.begin(), foreseen_.begin() + static_cast<std::ptrdiff_t>(fetched_.size()));
    if (!fetched_.empty()) return {};
    foreseen_.clear();
    return answers.value().error.value_or(Error{ErrorCode::protocolError, "no answer came"});
}

void HostTransport::deliver(const Packet& answer) {
    if (sink_ == nullptr) return;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    sink_->onPacket(answer.data(), answer.size(), {std::chrono::nanoseconds(now).count(), 0});
}

/// What was fetched for the same commands is still good: nothing else was sent since.
void HostTransport::foresee(std::span<const Packet> commands) {
    std::size_t known = 0;
    while (known < fetched_.size() && known < commands.size() && same(fetched_[known].first, commands[known]))
        ++known;
    if (known < fetched_.size()) {
        fetched_.clear();
        known = 0;
    }
    foreseen_.assign(commands.begin() + static_cast<std::ptrdiff_t>(known), commands.end());
}

Result<void> HostTransport::lease() {
    if (leased_) return {};
    auto begun = link_.begin(limits_.turn, stop_);
    leased_ = begun.ok();
    return begun;
}

void HostTransport::endLease() {
    writes_ = false;
    refusal_.reset();
    if (!std::exchange(leased_, false)) return;
    link_.end();
}

void HostTransport::operationEnded() {
    if (wholes_ == 0) endLease();
}

void HostTransport::endWhole() {
    if (--wholes_ == 0) endLease();
}

void HostTransport::announce(const std::vector<session::ObjectBytes>& changes) {
    auto told = lease();
    if (told) told = link_.announce(changes);
    if (!told) refusal_ = told.error();
    writes_ = true;
}

}  // namespace lm::host
