// Seed & key of the connection: which resource is locked, the round that unlocks it, what a refused key does.
#include <algorithm>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/log.h"
#include "xcp/connection.h"
#include "xcp/daq_setup.h"

namespace lm::xcp {
namespace {

constexpr std::int32_t kMostUnlocks = 2;  ///< for one command: some slaves lock again after each
constexpr std::int32_t kMostRounds = 3;
constexpr std::size_t kHeader = 2;  ///< of the answer to GET_SEED, and of UNLOCK
constexpr std::size_t kLongestKey = 255;
constexpr const char* kForeignKey =
    "the library or program under \"security\" in the configuration belongs to another ECU or software; no "
    "second key is given for it, since many ECUs count wrong ones";

std::uint8_t bitOf(Resource resource) {
    return static_cast<std::uint8_t>(resource);
}

Error unfit(std::string message) {
    return {.code = ErrorCode::protocolError, .message = std::move(message)};
}

/// What one answer to GET_SEED adds to the seed; `total` is 0 at the first one.
Result<void> addSeed(const Packet& answer, std::size_t maxCto, std::size_t& total,
                     std::vector<std::uint8_t>& seed) {
    if (answer.size() < kHeader) return shortResponse("GET_SEED");
    const std::size_t left = answer.bytes[1];
    if (total == 0) total = left;
    if (left != total - seed.size()) {
        return unfit(fmt::format("GET_SEED: the ECU announces {} byte(s) of the seed where {} are missing",
                                 left, total - seed.size()));
    }
    const std::size_t count = std::min(left, maxCto - kHeader);
    if (answer.size() < kHeader + count) return unfit("GET_SEED: less of the seed came than was announced");
    seed.insert(seed.end(), answer.data() + kHeader, answer.data() + kHeader + count);
    return {};
}

}  // namespace

Result<Unlocking> Connection::unlock(Resource resource) {
    auto own = turn();
    if (!own) return own.error();
    return unlockHeld(resource);
}

/// A slave that does not tell it is unlocked when it refuses a command.
void Connection::askWhatIsLocked() {
    locked_ = 0;
    if (!options_.keys) return;
    const auto reply = transact(buildPlain(Command::getStatus), {.minimumLength = kStatusLength});
    if (reply) {
        locked_ = reply.value().bytes[2];
    } else if (!reply.error().isStop()) {
        log::warn("what is locked is not known: {}", reply.error().text());
    }
}

Result<void> Connection::unlockBefore(Resource resource) {
    if (!options_.keys || (locked_ & bitOf(resource)) == 0) return {};
    const auto done = unlockHeld(resource);
    if (done) return {};
    // A slave without seed & key, or without it for this resource, protects nothing by it.
    const std::int32_t code = done.error().detail;
    if (code != kErrCmdUnknown && code != kErrOutOfRange) return done.error();
    locked_ = static_cast<std::uint8_t>(locked_ & ~bitOf(resource));
    return {};
}

/// After a command was refused as locked: true when it can be sent again, false when a SYNCH went out
/// meanwhile, which may have cost what the command relies on.
Result<bool> Connection::unlockFor(const Packet& command, Error locked, Repeats& repeats) {
    const auto resource = protectedBy(command.code());
    // What comes before or after a failed start stops lists that may run, and does not depend on it; once()
    // unlocks for the end of a measurement.
    const bool stopsAll = std::ranges::equal(command.view(), buildStopAll().view());
    if (!resource || stopsAll) return locked;
    if (!options_.keys) {
        locked.hint = fmt::format("{} is locked (seed and key){}", resourceName(*resource), options_.keyHint);
        return locked;
    }
    if (repeats.unlocked >= kMostUnlocks) {
        locked.hint = fmt::format("the ECU took the key for {} and refuses the command all the same",
                                  resourceName(*resource));
        return locked;
    }
    ++repeats.unlocked;
    const std::uint64_t before = synchsSent_;
    if (const auto done = unlockHeld(*resource); !done) return done.error();
    repeats.inStep = synchsSent_ != before;
    return !repeats.inStep;
}

/// A round that other commands' answers came into, as the lengths or ERR_SEQUENCE show, begins again.
Result<Unlocking> Connection::unlockHeld(Resource resource) {
    const auto name = resourceName(resource);
    if (!options_.keys) {
        return Error{.code = ErrorCode::unsupported,
                     .message = fmt::format("there is no key for {}", name),
                     .hint = fmt::format("{} is locked (seed and key){}", name, options_.keyHint)};
    }
    if ((refused_ & bitOf(resource)) != 0) {
        return Error{.code = ErrorCode::permissionDenied,
                     .message = fmt::format("the ECU refused the key for {} before", name),
                     .hint = kForeignKey};
    }
    std::int32_t rounds = 1;
    for (Repeats repeats;;) {
        const auto done = tryUnlock(resource, repeats);
        if (!done) {
            const Error& error = done.error();
            const bool mixedUp = error.code == ErrorCode::protocolError &&
                                 (error.detail == Error::kNoDetail || error.detail == kErrSequence);
            if (!mixedUp || ++rounds > kMostRounds) return error;
            care_ = std::max(care_, 1);  // the next round is behind a fence
        } else if (done.value()) {
            locked_ = static_cast<std::uint8_t>(locked_ & ~bitOf(resource));
            if (*done.value() == Unlocking::opened) {
                opened_ = static_cast<std::uint8_t>(opened_ | bitOf(resource));
                log::info("XCP unlocked: {}", name);
            }
            return *done.value();
        }
    }
}

/// Nothing when the round has to begin again after a timeout.
Result<std::optional<Unlocking>> Connection::tryUnlock(Resource resource, Repeats& repeats) {
    const auto seed = fetchSeed(resource, repeats);
    if (!seed) return seed.error();
    if (!seed.value()) return std::optional<Unlocking>{};
    if (seed.value()->empty()) return std::optional(Unlocking::wasOpen);
    const auto key = options_.keys(resource, *seed.value());
    if (!key) return key.error();
    const std::size_t length = key.value().size();
    if (length == 0 || length > kLongestKey) {
        return Error{
            .code = ErrorCode::invalidArgument,
            .message = fmt::format("UNLOCK: a key of {} bytes, 1 to {} are possible", length, kLongestKey)};
    }
    const auto taken = presentKey(resource, key.value(), repeats);
    if (!taken) return taken.error();
    return taken.value() ? std::optional(Unlocking::opened) : std::nullopt;
}

/// Empty for a resource that is not locked, nothing after a timeout.
Result<std::optional<std::vector<std::uint8_t>>> Connection::fetchSeed(Resource resource, Repeats& repeats) {
    std::vector<std::uint8_t> seed;
    std::size_t total = 0;
    do {
        const auto answer = attemptInGroup(buildGetSeed(total == 0, resource), kHeader, repeats);
        if (!answer) return answer.error();
        if (!answer.value()) return std::optional<std::vector<std::uint8_t>>{};
        if (auto added = addSeed(*answer.value(), info_.maxCto, total, seed); !added) return added.error();
    } while (seed.size() < total);
    return std::optional(std::move(seed));
}

/// False after a timeout.
Result<bool> Connection::presentKey(Resource resource, std::span<const std::uint8_t> key, Repeats& repeats) {
    const std::size_t most = std::size_t{info_.maxCto} - kHeader;
    while (!key.empty()) {
        const auto part = key.first(std::min(key.size(), most));
        const auto answer = attemptInGroup(buildUnlock(key.size(), part), kHeader, repeats);
        if (!answer && answer.error().detail == kErrAccessLocked) return keyRefused(resource);
        if (!answer) return answer.error();
        if (!answer.value()) return false;
        key = key.subspan(part.size());
    }
    return true;
}

/// The slave has disconnected. What comes after finds the session open again, the first time.
Error Connection::keyRefused(Resource resource) {
    refused_ = static_cast<std::uint8_t>(refused_ | bitOf(resource));
    connected_ = false;
    Error error{.code = ErrorCode::permissionDenied,
                .message = fmt::format("UNLOCK: the ECU refused the key for {} and ended the session",
                                       resourceName(resource)),
                .hint = kForeignKey};
    if (std::exchange(reopened_, true)) return error;
    log::warn("the ECU refused the key for {}: the session is opened again", resourceName(resource));
    const auto opened = open(ConnectMode::normal, std::max(options_.connectAttempts, 1));
    if (!opened) log::warn("{}", opened.error().text());
    return error;
}

}  // namespace lm::xcp
