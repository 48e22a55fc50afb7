#include "support/model_slave.h"

#include <algorithm>

namespace lm::test {
namespace {

constexpr std::uint8_t kOk = xcp::kPidResponse;
constexpr std::uint8_t kSequence = 0x29;

ModelSlave::Bytes refuse(std::uint8_t code) {
    return {xcp::kPidError, code};
}

}  // namespace

ModelSlave::Bytes ModelSlave::read(std::size_t elements) {
    Bytes bytes(granularity, 0);
    bytes[0] = kOk;
    for (std::size_t i = 0; i < elements * granularity; ++i, ++mta_) {
        const char letter = mta_ < kEventName.size() ? kEventName[mta_] : '\0';
        bytes.push_back(mtaIsName_ ? static_cast<std::uint8_t>(letter) : memory(mta_));
    }
    return bytes;
}

ModelSlave::Bytes ModelSlave::readBlock(std::size_t elements) {
    const std::size_t each = maxCto / granularity - 1;
    Bytes first = read(std::min(elements, each));
    for (std::size_t done = each; done < elements; done += each)
        more.push_back(read(std::min(elements - done, each)));
    return first;
}

ModelSlave::Bytes ModelSlave::write(std::span<const std::uint8_t> command) {
    const std::size_t head = granularity == 4 ? 4 : 2;
    const bool isNext = command[0] == static_cast<std::uint8_t>(xcp::Command::downloadNext);
    const std::size_t elements = command.size() > 1 ? command[1] : 0;
    if (isNext && elements != toCome_) return {xcp::kPidError, kSequence, static_cast<std::uint8_t>(toCome_)};
    for (const std::uint8_t byte : command.subspan(std::min(head, command.size())))
        written[mta_++] = byte;
    const std::size_t here = (maxCto - head) / granularity;
    toCome_ = blocks && elements > here ? elements - here : 0;
    return toCome_ == 0 ? Bytes{kOk} : Bytes{};
}

/// Eight bytes, of which `value` takes the two at `place`.
ModelSlave::Bytes ModelSlave::packet(Bytes bytes, std::size_t place, std::uint16_t value) const {
    bytes.resize(8);
    writeBytes(&bytes[place], value, order);
    return bytes;
}

ModelSlave::Bytes ModelSlave::allocate(std::span<const std::uint8_t> command) {
    const unsigned list = word(command, 2);
    switch (static_cast<xcp::Command>(command[0])) {
        case xcp::Command::allocDaq:
            if (!freed_) return refuse(kSequence);
            freed_ = false;
            lists_.resize(list);
            return {kOk};
        case xcp::Command::allocOdt:
            if (list >= lists_.size() || !lists_[list].empty()) return refuse(kSequence);
            lists_[list].resize(command[4]);
            return {kOk};
        default:
            if (list >= lists_.size() || command[4] >= lists_[list].size() || lists_[list][command[4]] != 0) {
                return refuse(kSequence);
            }
            lists_[list][command[4]] = command[5];
            return {kOk};
    }
}

ModelSlave::Bytes ModelSlave::answer(std::span<const std::uint8_t> command) {
    const auto at = [&](std::size_t i) { return i < command.size() ? command[i] : std::uint8_t{0}; };
    const auto addressAt = [&](std::size_t i) {
        const std::array<std::uint8_t, 4> bytes = {at(i), at(i + 1), at(i + 2), at(i + 3)};
        return readBytes<std::uint32_t>(bytes.data(), order);
    };
    more.clear();
    switch (static_cast<xcp::Command>(command[0])) {
        case xcp::Command::connect: {
            const auto mode = static_cast<std::uint8_t>((order == ByteOrder::bigEndian ? 1U : 0U) |
                                                        (granularity / 2) << 1U | (blocks ? 0xC0U : 0U));
            return packet({kOk, 0x05, mode, maxCto}, 4, maxDto);
        }
        case xcp::Command::synch:
            if (synchClearsPointers) {
                mta_ = 0;
                mtaIsName_ = false;
                pointer_ = {};
            }
            return synchAnswer;
        case xcp::Command::setMta:
        case xcp::Command::shortUpload:
            mta_ = addressAt(4);
            mtaIsName_ = false;
            if (command[0] == static_cast<std::uint8_t>(xcp::Command::setMta)) return {kOk};
            return read(at(1));
        case xcp::Command::upload:
            return blocks ? readBlock(at(1)) : read(at(1));
        case xcp::Command::download:
        case xcp::Command::downloadNext:
            return write(command);
        case xcp::Command::getCommModeInfo:
            return {kOk, 0, static_cast<std::uint8_t>(blocks), 0, kMostPackets, 1, 0, 0};
        case xcp::Command::getStatus:
            return {kOk, static_cast<std::uint8_t>(running ? xcp::kStatusDaqRunning : 0), 0, 0, 0, 0};
        case xcp::Command::getDaqProcessorInfo:
            return packet({kOk, 0x11, 0, 0, 0, 0, 0, 0x40}, 4, kEvents);
        case xcp::Command::getDaqResolutionInfo:
            return packet({kOk, 1, 248, 0, 0, 0x34}, 6, 1);
        case xcp::Command::getDaqEventInfo:
            if (word(command, 2) >= kEvents) return refuse(0x22);
            mta_ = 0;
            mtaIsName_ = true;
            return {kOk, 0, 0, kEventName.size(), 10, 6, 0, 0};
        case xcp::Command::freeDaq:
            lists_.clear();
            entries.clear();
            running = false;
            freed_ = true;
            return {kOk};
        case xcp::Command::allocDaq:
        case xcp::Command::allocOdt:
        case xcp::Command::allocOdtEntry:
            return allocate(command);
        case xcp::Command::setDaqPtr:
            pointer_ = {word(command, 2), at(4), at(5)};
            return {kOk};
        case xcp::Command::writeDaq:
            entries[pointer_] = addressAt(4);
            ++std::get<2>(pointer_);
            return {kOk};
        case xcp::Command::startStopSynch:
            running = at(1) == 1;
            return {kOk};
        default:
            return {kOk, 0, 0, 0, 0, 0, 0, 0};
    }
}

}  // namespace lm::test
