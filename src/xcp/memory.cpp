#include "xcp/memory.h"

#include <algorithm>
#include <bit>

namespace lm::xcp {
namespace {}  // namespace

Result<void> Memory::point(Connection::Turn& turn, Address address) {
    return turn.perform(buildSetMta(address, turn.slave().byteOrder()));
}

std::size_t Memory::elementsPerResponse(const ConnectInfo& slave) {
    const std::size_t unit = slave.granularity();
    return std::min((slave.maxCto - unit) / unit, kMostElements);
}

std::size_t Memory::answerLength(std::size_t elements, const ConnectInfo& slave) {
    return (elements + 1) * slave.granularity();
}

Result<void> Memory::append(const Packet& answer, std::size_t elements, const ConnectInfo& slave,
                            std::vector<std::uint8_t>& bytes) {
    const std::size_t unit = slave.granularity();
    if (answer.size() < answerLength(elements, slave)) {
        return Error{.code = ErrorCode::protocolError, .message = "UPLOAD response shorter than requested"};
    }
    const std::uint8_t* const data = answer.data() + unit;
    bytes.insert(bytes.end(), data, data + elements * unit);
    return {};
}

Result<void> Memory::setMta(Address address) {
    auto turn = connection_.turn();
    if (!turn) return turn.error();
    return point(turn.value(), address);
}

Result<std::vector<std::uint8_t>> Memory::upload(Address address, std::size_t size) {
    auto held = connection_.turn();
    if (!held) return held.error();
    Connection::Turn& turn = held.value();
    const std::size_t unit = turn.slave().granularity();
    if (size == 0 || size % unit != 0)
        return invalidArgument("upload size must be a non-zero multiple of AG");

    return readPlain(turn, address, size / unit);
}

Result<std::vector<std::uint8_t>> Memory::readPlain(Connection::Turn& turn, Address address,
                                                    std::size_t elements) {
    const bool fits = elements <= elementsPerResponse(turn.slave());
    if (fits && usesShortUpload()) {
        std::vector<std::uint8_t> bytes;
        const Packet command =
            buildShortUpload(static_cast<std::uint8_t>(elements), address, turn.slave().byteOrder());
        auto read = readPacket(turn, command, {}, bytes);
        if (read) return bytes;
        if (read.error().detail != kErrCmdUnknown) return read.error();
        withoutShortUpload_ = turn.connectionNumber();
    }
    return readPackets(turn, address, elements);
}

Result<std::vector<std::uint8_t>> Memory::readPackets(Connection::Turn& turn, Address address,
                                                      std::size_t elements) {
    const std::size_t most = elementsPerResponse(turn.slave());
    std::vector<Packet> commands{buildSetMta(address, turn.slave().byteOrder())};
    for (std::size_t left = elements; left > 0; left -= std::min(left, most))
        commands.push_back(buildUpload(static_cast<std::uint8_t>(std::min(left, most))));
    connection_.foresee(commands);
    if (auto set = point(turn, address); !set) return set.error();
    std::vector<std::uint8_t> bytes;
    while (elements > 0) {
        const std::size_t count = std::min(elements, elementsPerResponse(turn.slave()));
        const Address block = advanced(address, bytes.size());
        const auto beforeRepeat = [&turn, block] { return point(turn, block); };
        auto read = readPacket(turn, buildUpload(static_cast<std::uint8_t>(count)), beforeRepeat, bytes);
        if (!read) return read.error();
        elements -= count;
    }
    return bytes;
}

Result<void> Memory::readPacket(Connection::Turn& turn, const Packet& command,
                                const std::function<Result<void>()>& beforeRepeat,
                                std::vector<std::uint8_t>& bytes) {
    const std::size_t elements = command.bytes[1];
    const auto answer = turn.transact(
        command, {.minimumLength = answerLength(elements, turn.slave()), .beforeRepeat = beforeRepeat});
    if (!answer) return answer.error();
    return append(answer.value(), elements, turn.slave(), bytes);
}

Result<void> Memory::download(Address address, std::span<const std::uint8_t> bytes) {
    auto held = connection_.turn();
    if (!held) return held.error();
    Connection::Turn& turn = held.value();
    const std::uint8_t unit = turn.slave().granularity();
    if (bytes.empty() || bytes.size() % unit != 0) {
        return invalidArgument("download size must be a non-zero multiple of AG");
    }
    if (auto open = turn.unlockBefore(Resource::calPag); !open) return open;
    return writePlain(turn, address, bytes);
}

std::size_t Memory::bytesPerDownload(const ConnectInfo& slave) {
    const std::size_t unit = slave.granularity();
    const std::size_t header = unit == 4 ? 4 : 2;
    return std::min((slave.maxCto - header) / unit, kMostElements) * unit;
}

Result<void> Memory::writePlain(Connection::Turn& turn, Address address,
                                std::span<const std::uint8_t> bytes) {
    const std::uint8_t unit = turn.slave().granularity();
    const std::uint16_t maxCto = turn.slave().maxCto;
    const std::size_t perCommand = bytesPerDownload(turn.slave());
    if (auto set = point(turn, address); !set) return set;
    for (std::size_t at = 0; at < bytes.size(); at += perCommand) {
        const auto chunk = bytes.subspan(at, std::min(perCommand, bytes.size() - at));
        const auto command = buildDownload(chunk, unit, maxCto);
        if (!command) return command.error();
        const Address here = advanced(address, at);
        const Exchange rules{.beforeRepeat = [&turn, here] { return point(turn, here); }};
        if (auto written = turn.transact(command.value(), rules); !written) return written.error();
    }
    return {};
}

Result<void> Memory::modifyBits(Address address, std::uint32_t mask, std::uint32_t bits) {
    auto held = connection_.turn();
    if (!held) return held.error();
    Connection::Turn& turn = held.value();
    if (auto open = turn.unlockBefore(Resource::calPag); !open) return open;
    if (auto set = point(turn, address); !set) return set;
    const Exchange rules{.beforeRepeat = [&turn, address] { return point(turn, address); }};
    while (mask != 0) {
        const auto shift = static_cast<unsigned>(std::countr_zero(mask));
        const auto part = static_cast<std::uint16_t>(mask >> shift);
        const auto keep = static_cast<std::uint16_t>(~part);
        const auto wanted = static_cast<std::uint16_t>(bits >> shift & part);
        // The MTA stays, and to set the same bits twice does no harm.
        const Packet command =
            buildModifyBits(static_cast<std::uint8_t>(shift), keep, wanted, turn.slave().byteOrder());
        if (auto done = turn.transact(command, rules); !done) return done.error();
        mask &= ~(std::uint32_t{part} << shift);
    }
    return {};
}

}  // namespace lm::xcp
