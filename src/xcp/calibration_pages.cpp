#include "xcp/calibration_pages.h"

#include <algorithm>
#include <initializer_list>

#include "xcp/memory.h"

namespace lm::xcp {
namespace {

constexpr std::uint8_t kStoreCal = 0x01;
constexpr std::uint8_t kFreeze = 0x01;
constexpr std::uint8_t kAllSegments = 0x80;
constexpr std::size_t kIdHead = 8;
constexpr std::uint8_t kIdInline = 0x01;
constexpr std::uint8_t kIdPacked = 0x02;
constexpr std::size_t kLongestId = std::size_t{1} << 16U;
constexpr unsigned kT2 = 1;

Packet build(Command command, std::initializer_list<std::uint8_t> fields) {
    Packet packet;
    packet.bytes[0] = static_cast<std::uint8_t>(command);
    std::copy(fields.begin(), fields.end(), packet.bytes.begin() + 1);
    packet.length = static_cast<std::uint8_t>(1 + fields.size());
    return packet;
}

Packet buildBlockSum(std::uint32_t elements, ByteOrder order) {
    Packet packet = build(Command::buildChecksum, {0, 0, 0, 0, 0, 0, 0});
    writeBytes(packet.bytes.data() + 4, elements, order);
    return packet;
}

/// Upwards from the second bit of a mask of three pairs.
std::uint8_t pair(std::uint8_t properties, unsigned shift) {
    return static_cast<std::uint8_t>(properties >> shift & 0x03U);
}

}  // namespace

Result<Packet> CalibrationPages::ask(const Packet& command, std::size_t minimumLength) {
    auto turn = connection_.turn();
    if (!turn) return turn.error();
    auto answer = turn.value().transact(command, {.minimumLength = minimumLength});
    if (answer && answer.value().size() < minimumLength) return shortResponse(commandName(command.code()));
    return answer;
}

Result<PagInfo> CalibrationPages::processorInfo() {
    const auto answer = ask(build(Command::getPagProcessorInfo, {}), 3);
    if (!answer) return answer.error();
    return PagInfo{answer.value().bytes[1], (answer.value().bytes[2] & 0x01U) != 0};
}

Result<SegmentInfo> CalibrationPages::segmentInfo(std::uint8_t segment) {
    SegmentInfo info;
    const ByteOrder order = connection_.info().byteOrder();
    const std::pair<std::uint8_t, std::uint32_t*> places[] = {{0, &info.address}, {1, &info.length}};
    for (const auto& [what, field] : places) {
        const auto answer = ask(build(Command::getSegmentInfo, {0, segment, what, 0}), 8);
        if (!answer) return answer.error();
        *field = readBytes<std::uint32_t>(answer.value().data() + 4, order);
    }
    const auto answer = ask(build(Command::getSegmentInfo, {1, segment, 0, 0}), 6);
    if (!answer) return answer.error();
    info.pages = answer.value().bytes[1];
    info.addressExtension = answer.value().bytes[2];
    return info;
}

Result<PageInfo> CalibrationPages::pageInfo(PagePlace place) {
    const auto answer = ask(build(Command::getPageInfo, {0, place.segment, place.page}), 3);
    if (!answer) return answer.error();
    const std::uint8_t properties = answer.value().bytes[1];
    return PageInfo{pair(properties, 0), pair(properties, 2), pair(properties, 4), answer.value().bytes[2]};
}

Result<std::uint8_t> CalibrationPages::page(PageUser user, std::uint8_t segment) {
    const auto answer = ask(build(Command::getCalPage, {static_cast<std::uint8_t>(user), segment}), 4);
    if (!answer) return answer.error();
    return answer.value().bytes[3];
}

Result<void> CalibrationPages::setPage(PageUser user, PagePlace place) {
    const auto done =
        ask(build(Command::setCalPage, {static_cast<std::uint8_t>(user), place.segment, place.page}), 1);
    return done ? Result<void>() : done.error();
}

Result<void> CalibrationPages::setAllPages(PageUser user, std::uint8_t page) {
    const auto mode = static_cast<std::uint8_t>(kAllSegments | static_cast<std::uint8_t>(user));
    const auto done = ask(build(Command::setCalPage, {mode, 0, page}), 1);
    return done ? Result<void>() : done.error();
}

Result<void> CalibrationPages::copy(PagePlace from, PagePlace to) {
    const auto done = ask(build(Command::copyCalPage, {from.segment, from.page, to.segment, to.page}), 1);
    return done ? Result<void>() : done.error();
}

Result<bool> CalibrationPages::takesPart(std::uint8_t segment) {
    const auto answer = ask(build(Command::getSegmentMode, {0, segment}), 3);
    if (!answer) return answer.error();
    return (answer.value().bytes[2] & kFreeze) != 0;
}

Result<void> CalibrationPages::setTakesPart(std::uint8_t segment, bool takesPart) {
    const std::uint8_t mode = takesPart ? kFreeze : std::uint8_t{0};
    const auto done = ask(build(Command::setSegmentMode, {mode, segment}), 1);
    return done ? Result<void>() : done.error();
}

Result<void> CalibrationPages::requestStore() {
    auto held = connection_.turn();
    if (!held) return held.error();
    Connection::Turn& turn = held.value();
    Repeats repeats;
    const auto done = turn.attempt(build(Command::setRequest, {kStoreCal, 0, 0}), 1, repeats);
    if (!done) return done.error();
    if (done.value()) return {};
    // A slave that is at it has heard the order.
    const auto status = turn.transact(buildPlain(Command::getStatus), {.minimumLength = 6});
    if (!status) return status.error();
    if ((status.value().bytes[1] & kStatusStoringPages) != 0) return {};
    return Error{.code = ErrorCode::timeout,
                 .message = "the answer to SET_REQUEST was lost: whether the ECU has stored is not known"};
}

Result<std::string> CalibrationPages::identification(IdType type) {
    auto held = connection_.turn();
    if (!held) return held.error();
    for (Repeats repeats;;) {
        auto text = tryIdentification(held.value(), type, repeats);
        if (!text) return text.error();
        if (text.value()) return std::move(*text.value());
    }
}

/// The text in the answer, or at the MTA that GET_ID has set: after an answer that was lost all begins again,
/// nothing then.
Result<std::optional<std::string>> CalibrationPages::tryIdentification(Connection::Turn& turn, IdType type,
                                                                       Repeats& repeats) {
    const ConnectInfo& slave = turn.slave();
    const auto answer =
        turn.attempt(build(Command::getId, {static_cast<std::uint8_t>(type)}), kIdHead, repeats);
    if (!answer) return answer.error();
    if (!answer.value()) return std::optional<std::string>{};
    const Packet& packet = *answer.value();
    if (packet.size() < kIdHead) return shortResponse("GET_ID");
    const std::size_t length = readBytes<std::uint32_t>(packet.data() + 4, slave.byteOrder());
    if (length == 0) return std::optional(std::string());
    const bool isPacked = (packet.bytes[1] & kIdPacked) != 0;
    if (isPacked || length > kLongestId)
        return Error{.code = ErrorCode::unsupported, .message = "GET_ID: the ECU tells no plain text"};
    if ((packet.bytes[1] & kIdInline) != 0) {
        if (packet.size() < kIdHead + length) return shortResponse("GET_ID");
        return std::optional(std::string(packet.data() + kIdHead, packet.data() + kIdHead + length));
    }
    std::vector<std::uint8_t> bytes;
    const std::size_t elements = (length + slave.granularity() - 1) / slave.granularity();
    for (std::size_t at = 0; at < elements;) {
        const std::size_t count = std::min(elements - at, Memory::elementsPerResponse(slave));
        const auto block = turn.attempt(buildUpload(static_cast<std::uint8_t>(count)),
                                        Memory::answerLength(count, slave), repeats);
        if (!block) return block.error();
        if (!block.value()) return std::optional<std::string>{};
        if (auto read = Memory::append(*block.value(), count, slave, bytes); !read) return read.error();
        at += count;
    }
    return std::optional(std::string(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length)));
}

Result<BlockAnswer> CalibrationPages::blockSum(Address address, std::uint32_t size) {
    auto held = connection_.turn();
    if (!held) return held.error();
    Connection::Turn& turn = held.value();
    const ByteOrder order = turn.slave().byteOrder();
    const auto point = [&] { return turn.perform(buildSetMta(address, order)); };
    if (auto set = point(); !set) return set.error();
    const auto answer = turn.transact(buildBlockSum(size / turn.slave().granularity(), order),
                                      {.timeoutIndex = kT2, .minimumLength = 8, .beforeRepeat = point});
    if (!answer) {
        const Packet& refusal = turn.refusal();
        if (answer.error().detail != kErrOutOfRange || refusal.size() < 8) return answer.error();
        const std::uint64_t most =
            std::uint64_t{readBytes<std::uint32_t>(refusal.data() + 4, order)} * turn.slave().granularity();
        if (most == 0 || most >= size) return answer.error();
        return BlockAnswer{{}, static_cast<std::uint32_t>(most)};
    }
    if (answer.value().size() < 8) return shortResponse("BUILD_CHECKSUM");
    const auto type = static_cast<ChecksumType>(answer.value().bytes[1]);
    const auto sum = readBytes<std::uint32_t>(answer.value().data() + 4, order);
    const unsigned width = checksumWidth(type);
    return BlockAnswer{BlockSum{type, width == 4 ? sum : sum & ((1U << 8U * width) - 1)}, size};
}

}  // namespace lm::xcp
