#include "slave_model.h"

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

template <typename T>
void SlaveModel::put(Bytes& bytes, std::size_t at, T value) const {
    writeBytes(bytes.data() + at, value, order_);
}

template <typename T>
T SlaveModel::get(std::span<const std::uint8_t> bytes, std::size_t at) const {
    return at + sizeof(T) <= bytes.size() ? readBytes<T>(bytes.data() + at, order_) : T{0};
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

void SlaveModel::write(std::span<const std::uint8_t> bytes) {
    for (const std::uint8_t byte : bytes)
        written_[mta_++] = byte;
}

Bytes SlaveModel::answerToMemory(std::span<const std::uint8_t> command) {
    const std::size_t elements = command.size() > 1 ? command[1] : 0;
    switch (static_cast<xcp::Command>(command[0])) {
        case xcp::Command::setMta:
            mta_ = get<std::uint32_t>(command, 4);
            mtaIsName_ = false;
            return {kOk};
        case xcp::Command::shortUpload:
            mta_ = get<std::uint32_t>(command, 4);
            mtaIsName_ = false;
            return read(elements);
        case xcp::Command::upload:
            return read(elements);
        default: {
            const std::size_t header = granularity_ == 4 ? 4 : 2;
            require(!honest_ || command.size() == header + elements * granularity_, "the length of DOWNLOAD");
            write(command.subspan(std::min(header, command.size())));
            return {kOk};
        }
    }
}

Bytes SlaveModel::answer(std::span<const std::uint8_t> command) {
    Bytes bytes(8, 0);
    bytes[0] = kOk;
    switch (static_cast<xcp::Command>(command[0])) {
        case xcp::Command::connect:
            bytes[1] = 0x05;
            bytes[2] = static_cast<std::uint8_t>((order_ == ByteOrder::bigEndian ? 1U : 0U) |
                                                 (granularity_ / 2) << 1U);
            bytes[3] = maxCto_;
            put(bytes, 4, maxDto_);
            return bytes;
        case xcp::Command::synch:
            return {xcp::kPidError, xcp::kErrCmdSynch};
        case xcp::Command::setMta:
        case xcp::Command::shortUpload:
        case xcp::Command::upload:
        case xcp::Command::download:
            return answerToMemory(command);
        case xcp::Command::getDaqProcessorInfo:
            bytes[1] = 0x11;
            put(bytes, 4, kEvents);
            bytes[7] = 0x40;
            return bytes;
        case xcp::Command::getDaqResolutionInfo:
            bytes[1] = 1;
            bytes[2] = 248;
            bytes[5] = 0x34;
            put(bytes, 6, std::uint16_t{1});
            return bytes;
        case xcp::Command::getDaqEventInfo:
            if (get<std::uint16_t>(command, 2) >= kEvents) return {xcp::kPidError, 0x22};
            bytes[3] = static_cast<std::uint8_t>(kEventName.size());
            bytes[4] = 10;
            bytes[5] = 6;
            mta_ = 0;
            mtaIsName_ = true;
            return bytes;
        default:
            return bytes;
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
    switch (kind) {
        case 6:
            return;
        case 7:
            return answerIn(input_.take<std::uint8_t>(), answer);
        case 8:
            answerIn(input_.take<std::uint8_t>(), answer);
            break;
        case 9:
            answer.resize(input_.takeBelow(answer.size() + 1));
            break;
        case 10:
            answer[input_.takeBelow(answer.size())] = input_.take<std::uint8_t>();
            break;
        case 11:
            return sendRaw();
        case 12:
            sendRaw();
            break;
        case 13:
            answer = {xcp::kPidError, input_.take<std::uint8_t>()};
            break;
        case 14:
            deliver({xcp::kPidEvent, xcp::kEvCmdPending});
            return answerIn(input_.take<std::uint8_t>(), answer);
        default:
            break;
    }
    answerIn(0, answer);
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
