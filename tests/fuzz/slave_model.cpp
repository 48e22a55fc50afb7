#include "slave_model.h"

#include <array>
#include <limits>
#include <utility>

#include "virtual_clock.h"

namespace lm::fuzz {
namespace {

constexpr std::string_view kEventName = "10 ms raster";
constexpr std::uint16_t kEvents = 2;
constexpr std::uint8_t kOk = xcp::kPidResponse;

}  // namespace

SlaveModel::SlaveModel(Input& input) : input_(input) {
    const auto shape = input.take<std::uint8_t>();
    order_ = (shape & 0x01U) != 0 ? ByteOrder::bigEndian : ByteOrder::littleEndian;
    granularity_ = std::size_t{1} << ((shape >> 1U & 0x03U) % 3U);
    maxCto_ = static_cast<std::uint8_t>(8 + 4 * (shape >> 3U));
    maxDto_ = static_cast<std::uint16_t>(8 + 4 * input.take<std::uint8_t>());
    VirtualClock::nextNs = [this] {
        return coming_.empty() ? std::numeric_limits<std::int64_t>::max() : coming_.begin()->first;
    };
    VirtualClock::happen = [this] {
        const Bytes packet = std::move(coming_.begin()->second);
        coming_.erase(coming_.begin());
        deliver(packet);
    };
}

SlaveModel::~SlaveModel() {
    VirtualClock::nextNs = [] { return std::numeric_limits<std::int64_t>::max(); };
}

std::uint8_t SlaveModel::memory(std::uint32_t address) const {
    const auto found = written_.find(address);
    return found != written_.end() ? found->second : static_cast<std::uint8_t>(address * 31 ^ address >> 8U);
}

Bytes SlaveModel::read(std::size_t elements) {
    Bytes bytes(granularity_, 0);
    bytes[0] = kOk;
    for (std::size_t i = 0; i < elements * granularity_; ++i, ++mta_) {
        const char letter = mta_ < kEventName.size() ? kEventName[mta_] : '\0';
        bytes.push_back(mtaIsName_ ? static_cast<std::uint8_t>(letter) : memory(mta_));
    }
    return bytes;
}

Bytes SlaveModel::answer(std::span<const std::uint8_t> command) {
    const auto at = [&](std::size_t i) { return i < command.size() ? command[i] : std::uint8_t{0}; };
    const auto setAddress = [&] {
        const std::array<std::uint8_t, 4> bytes = {at(4), at(5), at(6), at(7)};
        mta_ = readBytes<std::uint32_t>(bytes.data(), order_);
        mtaIsName_ = false;
    };
    // Eight bytes, of which `value` takes the two at `place`.
    const auto packet = [&](Bytes bytes, std::size_t place, std::uint16_t value) {
        bytes.resize(8);
        writeBytes(&bytes[place], value, order_);
        return bytes;
    };
    switch (static_cast<xcp::Command>(command[0])) {
        case xcp::Command::connect: {
            const auto mode = static_cast<std::uint8_t>((order_ == ByteOrder::bigEndian ? 1U : 0U) |
                                                        (granularity_ / 2) << 1U);
            return packet({kOk, 0x05, mode, maxCto_}, 4, maxDto_);
        }
        case xcp::Command::synch:
            return {xcp::kPidError, xcp::kErrCmdSynch};
        case xcp::Command::setMta:
            setAddress();
            return {kOk};
        case xcp::Command::shortUpload:
            setAddress();
            return read(at(1));
        case xcp::Command::upload:
            return read(at(1));
        case xcp::Command::download: {
            const std::size_t header = granularity_ == 4 ? 4 : 2;
            const bool whole = command.size() == header + at(1) * granularity_;
            require(!honest_ || whole, "the length of DOWNLOAD");
            for (const std::uint8_t byte : command.subspan(std::min(header, command.size())))
                written_[mta_++] = byte;
            return {kOk};
        }
        case xcp::Command::getDaqProcessorInfo:
            return packet({kOk, 0x11, 0, 0, 0, 0, 0, 0x40}, 4, kEvents);
        case xcp::Command::getDaqResolutionInfo:
            return packet({kOk, 1, 248, 0, 0, 0x34}, 6, 1);
        case xcp::Command::getDaqEventInfo: {
            const std::array<std::uint8_t, 2> number = {at(2), at(3)};
            if (readBytes<std::uint16_t>(number.data(), order_) >= kEvents) return {xcp::kPidError, 0x22};
            mta_ = 0;
            mtaIsName_ = true;
            return {kOk, 0, 0, kEventName.size(), 10, 6, 0, 0};
        }
        default:
            return {kOk, 0, 0, 0, 0, 0, 0, 0};
    }
}

Result<void> SlaveModel::send(const std::uint8_t* data, std::size_t length) {
    ++packets_;
    require(length >= 1 && length <= maxPacketSize(), "the length of a command");
    const auto kind = static_cast<std::uint8_t>(input_.take<std::uint8_t>() & 0x0FU);
    const bool synch = data[0] == static_cast<std::uint8_t>(xcp::Command::synch);
    const bool connect = data[0] == static_cast<std::uint8_t>(xcp::Command::connect);
    complete_ = complete_ && (!connect || coming_.empty());
    complete_ = complete_ && (kind < 6 || kind == 7 || (kind == 8 && !synch) || kind == 14);
    if (kind == 15) return Error{ErrorCode::ioError, "send fails"};
    const Bytes command(data, data + length);
    disturb(kind, answer(command));
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
    if (sink_ != nullptr) sink_->onPacket(packet.data(), packet.size(), {.hostNs = VirtualClock::nowNs});
}

void SlaveModel::answerIn(std::int64_t milliseconds, const Bytes& packet) {
    if (milliseconds == 0 && coming_.empty()) return deliver(packet);
    const std::int64_t last = coming_.empty() ? 0 : coming_.rbegin()->first;
    const std::int64_t due = std::max(VirtualClock::nowNs + milliseconds * 1'000'000, last);
    const bool inTime = due - VirtualClock::nowNs <= kLatestNs;
    honest_ = honest_ && inTime;
    complete_ = complete_ && inTime;
    coming_.emplace(due, packet);
}

}  // namespace lm::fuzz
