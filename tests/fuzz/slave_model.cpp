#include "slave_model.h"

#include <algorithm>

namespace lm::fuzz {

SlaveModel::SlaveModel(Input& input, test::VirtualClock& clock) : input_(input), clock_(clock) {
    const auto shape = input.take<std::uint8_t>();
    slave_.order = (shape & 0x01U) != 0 ? ByteOrder::bigEndian : ByteOrder::littleEndian;
    slave_.granularity = std::size_t{1} << ((shape >> 1U & 0x03U) % 3U);
    slave_.synchClearsPointers = (shape & 0x06U) == 0x06U;
    slave_.maxCto = static_cast<std::uint8_t>(8 + 4 * (shape >> 3U));
    const auto dto = input.take<std::uint8_t>();
    slave_.maxDto = static_cast<std::uint16_t>(8 + 4 * dto);
    slave_.blocks = (dto & 0x01U) != 0;
}

Result<void> SlaveModel::send(const std::uint8_t* data, std::size_t length) {
    ++packets_;
    require(length >= 1 && length <= maxPacketSize(), "the length of a command");
    const auto kind = static_cast<std::uint8_t>(input_.take<std::uint8_t>() & 0x0FU);
    const bool synch = data[0] == static_cast<std::uint8_t>(xcp::Command::synch);
    const bool connect = data[0] == static_cast<std::uint8_t>(xcp::Command::connect);
    honest_ = honest_ && (!connect || clock_.idle() || clock_.nowNs() > connectAnsweredNs_);
    complete_ = complete_ && (!connect || clock_.idle());
    complete_ = complete_ && (kind < 6 || kind == 7 || (kind == 8 && !synch) || kind == 14);
    doubled_ = doubled_ || kind == 8;
    if (kind == 15) return Error{ErrorCode::ioError, "send fails"};
    if (kind == 5) answerIn(10 * input_.take<std::uint8_t>(), {});
    const Bytes answer = slave_.answer({data, length});
    const std::vector<Bytes> more = slave_.more;
    // A packet of a block that is not the last has none.
    if (!answer.empty()) disturb(kind, answer);
    for (const Bytes& part : more) {
        const auto partKind = static_cast<std::uint8_t>(input_.take<std::uint8_t>() & 0x0FU);
        complete_ = complete_ && (partKind < 6 || partKind == 7 || partKind == 8 || partKind == 14);
        doubled_ = doubled_ || partKind == 8;
        disturb(partKind, part);
    }
    if (connect && !clock_.idle()) connectAnsweredNs_ = clock_.lastNs();
    return {};
}

void SlaveModel::disturb(std::uint8_t kind, Bytes answer) {
    honest_ = honest_ && (kind < 8 || kind == 14);
    if (kind == 6) return;
    if (kind == 7) return answerIn(input_.take<std::uint8_t>(), answer);
    if (kind == 8) answerIn(input_.take<std::uint8_t>(), answer);
    if (kind == 9) answer.resize(input_.takeBelow(answer.size() + 1));
    if (kind == 10) answer[input_.takeBelow(answer.size())] = input_.take<std::uint8_t>();
    if (kind == 11) return sendRaw();
    if (kind == 12) sendRaw();
    if (kind == 13) answer = {xcp::kPidError, input_.take<std::uint8_t>()};
    if (kind == 14) deliver({xcp::kPidEvent, xcp::kEvCmdPending});
    answerIn(kind == 14 ? input_.take<std::uint8_t>() : 0, answer);
}

void SlaveModel::sendRaw() {
    complete_ = false;
    const auto bytes = input_.takeBytes(input_.take<std::uint8_t>());
    deliver(Bytes(bytes.begin(), bytes.end()));
}

void SlaveModel::deliver(const Bytes& packet) {
    ++packets_;
    if (sink_ != nullptr) sink_->onPacket(packet.data(), packet.size(), {.hostNs = clock_.nowNs()});
}

void SlaveModel::answerIn(std::int64_t milliseconds, const Bytes& packet) {
    if (milliseconds == 0 && clock_.idle()) return deliver(packet);
    const std::int64_t due = std::max(clock_.nowNs() + milliseconds * 1'000'000, clock_.lastNs());
    stoodStill_ = stoodStill_ || due - clock_.lastNs() > kT1 * 1'000'000;
    complete_ = complete_ && !(doubled_ && stoodStill_);
    clock_.at(due, [this, packet] { deliver(packet); });
}

}  // namespace lm::fuzz
