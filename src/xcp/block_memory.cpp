// Block transfer of the slave's memory: one UPLOAD answered by several packets (slave block mode), DOWNLOAD
// and DOWNLOAD_NEXT of which only the last is answered (master block mode).
#include <algorithm>
#include <utility>

#include "core/log.h"
#include "xcp/memory.h"

namespace lm::xcp {
namespace {

/// Blocks of which packets were lost until blocks are no longer asked for.
constexpr int kMostLosses = 3;
/// Packets that are cheaper to read one by one than to point at and to read as a block.
constexpr std::size_t kTooFew = 2;
constexpr std::size_t kCommModeInfoLength = 8;
constexpr std::uint8_t kMasterBlocks = 0x01;  // of COMM_MODE_OPTIONAL
constexpr auto kPauseUnit = std::chrono::microseconds(100);

/// Of a slave that may take blocks another time.
bool isPassing(const Error& refusal) {
    return refusal.code == ErrorCode::wouldBlock || refusal.detail == kErrAccessLocked;
}

}  // namespace

/// Whole packets; 0: none that would save commands.
std::size_t Memory::elementsPerBlock(const ConnectInfo& slave) const {
    if (!slave.sendsBlocks() || withoutReadBlocks_ == connection_.number()) return 0;
    const std::size_t packets = kMostElements / elementsPerResponse(slave);
    return packets > kTooFew ? packets * elementsPerResponse(slave) : 0;
}

bool Memory::readsBlocks() const {
    const ConnectInfo slave = connection_.info();
    return slave.maxCto != 0 && elementsPerBlock(slave) != 0;
}

Result<std::vector<std::uint8_t>> Memory::uploadBlocks(Address address, std::size_t size) {
    auto held = connection_.turn();
    if (!held) return held.error();
    Connection::Turn& turn = held.value();
    const ConnectInfo& slave = turn.slave();
    const std::size_t unit = slave.granularity();
    if (size == 0 || size % unit != 0) {
        return Error{.code = ErrorCode::invalidArgument,
                     .message = "upload size must be a non-zero multiple of AG"};
    }
    std::vector<std::uint8_t> bytes;
    for (bool isPointed = false; bytes.size() < size;) {
        const Address here = advanced(address, bytes.size());
        const std::size_t left = (size - bytes.size()) / unit;
        const std::size_t most = turn.isCareful() ? 0 : elementsPerBlock(slave);
        const std::size_t count = std::min(left, most);
        const bool isWorthIt = count > (isPointed ? 1 : kTooFew) * elementsPerResponse(slave);
        if (!isWorthIt) {
            const std::size_t few = usesShortUpload() ? std::min(left, elementsPerResponse(slave)) : left;
            auto plain = readPlain(turn, here, few);
            if (!plain) return plain;
            bytes.insert(bytes.end(), plain.value().begin(), plain.value().end());
            isPointed = false;
            continue;
        }
        if (!isPointed) {
            if (auto set = point(turn, here); !set) return set.error();
        }
        auto whole = readParts(turn, here, count, bytes);
        if (!whole) return whole.error();
        isPointed = whole.value();
    }
    return bytes;
}

/// False when the block was read packet by packet, so that the slave may point anywhere.
Result<bool> Memory::readParts(Connection::Turn& turn, Address address, std::size_t elements,
                               std::vector<std::uint8_t>& bytes) {
    const ConnectInfo& slave = turn.slave();
    const std::size_t each = elementsPerResponse(slave);
    const std::size_t last = (elements - 1) % each + 1;
    const AnswerParts parts{.count = (elements + each - 1) / each,
                            .length = answerLength(each, slave),
                            .lastLength = answerLength(last, slave)};
    const Packet command = buildUpload(static_cast<std::uint8_t>(elements));
    auto block = turn.exchangeBlock(std::span(&command, 1), parts);
    if (!block) return block.error();
    if (block.value().isWhole) {
        for (std::size_t i = 0; i < parts.count; ++i) {
            const std::size_t count = i + 1 < parts.count ? each : last;
            if (auto added = append(block.value().parts[i], count, slave, bytes); !added)
                return added.error();
        }
        return true;
    }
    auto plain = readPlain(turn, address, elements);
    if (!plain) return plain.error();
    bytes.insert(bytes.end(), plain.value().begin(), plain.value().end());
    judgeReadBlock(turn, block.value(), parts.count);
    return false;
}

/// What could be read packet by packet and not as a block.
void Memory::judgeReadBlock(const Connection::Turn& turn, const TransferAnswer& block, std::size_t wanted) {
    if (block.refusal && isPassing(*block.refusal)) return;
    bool isLast = true;
    if (block.refusal) {
        log::warn("{} as a block of {} packets: read packet by packet from now on", block.refusal->text(),
                  wanted);
    } else {
        if (std::exchange(lossesOn_, turn.connectionNumber()) != turn.connectionNumber()) losses_ = 0;
        ++losses_;
        isLast = block.parts.empty() || losses_ >= kMostLosses;
        log::warn("UPLOAD: {} of the {} packets of a block came: read again packet by packet{}",
                  block.parts.size(), wanted, isLast ? ", and all else too" : "");
    }
    if (isLast) withoutReadBlocks_ = turn.connectionNumber();
}

/// Once per connection.
Result<void> Memory::learnWriteBlocks(Connection::Turn& turn) {
    if (writeBlocks_.connection == turn.connectionNumber()) return {};
    writeBlocks_ = {turn.connectionNumber()};
    const ConnectInfo& slave = turn.slave();
    auto [packets, pause] = connection_.options().writeBlocks;
    if (slave.hasCommModeInfo()) {
        const auto answer = turn.askOnce(buildPlain(Command::getCommModeInfo), kCommModeInfoLength);
        if (!answer && answer.error().detail == Error::kNoDetail) return answer.error();
        if (!answer || !answer.value()) return {};
        const auto info = parseCommModeInfo(answer.value()->view());
        if (!info || (info.value().commModeOptional & kMasterBlocks) == 0) return {};
        packets = info.value().maxBs;
        pause = info.value().minSt;
    }
    const std::size_t each = bytesPerDownload(slave);
    const std::size_t most = std::min<std::size_t>(packets, kMostElements * slave.granularity() / each);
    if (most < 2) return {};
    writeBlocks_.bytes = most * each;
    writeBlocks_.pause = pause * kPauseUnit;
    return {};
}

Result<void> Memory::downloadBlocks(Address address, std::span<const std::uint8_t> bytes) {
    auto held = connection_.turn();
    if (!held) return held.error();
    Connection::Turn& turn = held.value();
    const std::size_t unit = turn.slave().granularity();
    if (bytes.empty() || bytes.size() % unit != 0) {
        return Error{.code = ErrorCode::invalidArgument,
                     .message = "download size must be a non-zero multiple of AG"};
    }
    if (auto open = turn.unlockBefore(Resource::calPag); !open) return open;
    const std::size_t each = bytesPerDownload(turn.slave());
    if (bytes.size() > each) {
        if (auto learned = learnWriteBlocks(turn); !learned) return learned;
    }
    bool isPointed = false;
    for (std::size_t at = 0; at < bytes.size();) {
        const Address here = advanced(address, at);
        const std::size_t size = std::min(bytes.size() - at, writeBlocks_.bytes);
        if (size <= each || turn.isCareful()) return writePlain(turn, here, bytes.subspan(at));
        if (!isPointed) {
            if (auto set = point(turn, here); !set) return set;
        }
        auto whole = writeParts(turn, here, bytes.subspan(at, size));
        if (!whole) return whole.error();
        isPointed = whole.value();
        at += size;
    }
    return {};
}

/// False when the block was written packet by packet.
Result<bool> Memory::writeParts(Connection::Turn& turn, Address address,
                                std::span<const std::uint8_t> bytes) {
    const std::uint8_t unit = turn.slave().granularity();
    const std::size_t each = bytesPerDownload(turn.slave());
    std::vector<Packet> packets;
    for (std::size_t at = 0; at < bytes.size(); at += each) {
        auto packet =
            buildDownload(bytes.subspan(at, std::min(each, bytes.size() - at)), unit, turn.slave().maxCto);
        if (!packet) return packet.error();
        // The elements that are still to come, those of the packet included.
        packet.value().bytes[1] = static_cast<std::uint8_t>((bytes.size() - at) / unit);
        if (at != 0) packet.value().bytes[0] = static_cast<std::uint8_t>(Command::downloadNext);
        packets.push_back(packet.value());
    }
    const auto block = turn.exchangeBlock(packets, {.refusals = packets.size() - 1}, writeBlocks_.pause);
    if (!block) return block.error();
    if (block.value().isWhole) return true;
    if (auto plain = writePlain(turn, address, bytes); !plain) return plain.error();
    const auto& refusal = block.value().refusal;
    if (refusal && isPassing(*refusal)) return false;
    log::warn("{} in a block of {} packets: written packet by packet from now on",
              refusal ? refusal->text() : "DOWNLOAD_NEXT: no response from slave", packets.size());
    writeBlocks_.bytes = 0;
    return false;
}

}  // namespace lm::xcp
