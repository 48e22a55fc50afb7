// Memory access of the master: any length, split into the commands that fit the slave's MAX_CTO.
#include <algorithm>

#include "xcp/master.h"

namespace lm::xcp {

namespace {

constexpr std::size_t kMostElements = 255;

Error invalid(const char* message) {
    return {.code = ErrorCode::invalidArgument, .message = message};
}

Address advanced(Address address, std::size_t bytes) {
    return {address.address + static_cast<std::uint32_t>(bytes), address.extension};
}

}  // namespace

Result<void> Master::setMta(Address address) {
    const std::lock_guard lock(commandMutex_);
    if (auto ready = requireConnected(); !ready) return ready;
    return setMtaLocked(address);
}

Result<void> Master::setMtaLocked(Address address) {
    return commandLocked(buildSetMta(address, connection_.byteOrder()));
}

std::size_t Master::elementsPerResponse() const {
    const std::size_t unit = connection_.granularity();
    return std::min((connection_.maxCto - unit) / unit, kMostElements);
}

Result<std::vector<std::uint8_t>> Master::upload(Address address, std::size_t size) {
    const std::lock_guard lock(commandMutex_);
    if (auto ready = requireConnected(); !ready) return ready.error();
    const std::size_t unit = connection_.granularity();
    if (size == 0 || size % unit != 0) return invalid("upload size must be a non-zero multiple of AG");

    const std::size_t elements = size / unit;
    if (elements <= elementsPerResponse() && options_.useShortUpload && !shortUploadMissing_) {
        std::vector<std::uint8_t> bytes;
        const Packet command =
            buildShortUpload(static_cast<std::uint8_t>(elements), address, connection_.byteOrder());
        auto read = uploadBlockLocked(command, {}, bytes);
        if (read) return bytes;
        if (read.error().detail != kErrCmdUnknown) return read.error();
        shortUploadMissing_ = true;
    }
    return uploadBlocksLocked(address, elements);
}

Result<std::vector<std::uint8_t>> Master::uploadBlocksLocked(Address address, std::size_t elements) {
    if (auto set = setMtaLocked(address); !set) return set.error();
    std::vector<std::uint8_t> bytes;
    while (elements > 0) {
        const std::size_t count = std::min(elements, elementsPerResponse());
        const Address block = advanced(address, bytes.size());
        const auto beforeRepeat = [this, block] { return setMtaLocked(block); };
        auto read = uploadBlockLocked(buildUpload(static_cast<std::uint8_t>(count)), beforeRepeat, bytes);
        if (!read) return read.error();
        elements -= count;
    }
    return bytes;
}

Result<void> Master::uploadBlockLocked(const Packet& command,
                                       const std::function<Result<void>()>& beforeRepeat,
                                       std::vector<std::uint8_t>& bytes) {
    const std::size_t unit = connection_.granularity();
    const std::size_t size = command.bytes[1] * unit;
    Exchange rules;
    rules.minimumLength = unit + size;
    rules.beforeRepeat = beforeRepeat;
    const auto reply = transactLocked(command, rules);
    if (!reply) return reply.error();
    if (reply.value().size() < unit + size) {
        return Error{.code = ErrorCode::protocolError, .message = "UPLOAD response shorter than requested"};
    }
    const std::uint8_t* const data = reply.value().data() + unit;
    bytes.insert(bytes.end(), data, data + size);
    return {};
}

Result<void> Master::download(Address address, std::span<const std::uint8_t> bytes) {
    const std::lock_guard lock(commandMutex_);
    if (auto ready = requireConnected(); !ready) return ready;
    const std::uint8_t unit = connection_.granularity();
    if (bytes.empty() || bytes.size() % unit != 0) {
        return invalid("download size must be a non-zero multiple of AG");
    }
    const std::size_t header = unit == 4 ? 4 : 2;
    const std::size_t perCommand = std::min((connection_.maxCto - header) / unit, kMostElements) * unit;
    if (auto set = setMtaLocked(address); !set) return set;
    for (std::size_t at = 0; at < bytes.size(); at += perCommand) {
        const auto chunk = bytes.subspan(at, std::min(perCommand, bytes.size() - at));
        const auto command = buildDownload(chunk, unit, connection_.maxCto);
        if (!command) return command.error();
        Exchange rules;
        rules.beforeRepeat = [this, here = advanced(address, at)] { return setMtaLocked(here); };
        if (auto written = transactLocked(command.value(), rules); !written) return written.error();
    }
    return {};
}

}  // namespace lm::xcp
