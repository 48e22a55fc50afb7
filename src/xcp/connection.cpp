// Commands with recovery, CONNECT and DISCONNECT, the stop.
#include "xcp/connection.h"

#include <algorithm>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/log.h"
#include "xcp/connect_overrides.h"

namespace lm::xcp {
namespace {

constexpr unsigned kT7 = 6;

std::string nameOf(const Packet& command) {
    return std::string(commandName(command.code()));
}

Error noResponse(const Packet& command, unsigned timeoutIndex) {
    return {.code = ErrorCode::timeout,
            .message = fmt::format("{}: no response from slave (t{})", nameOf(command), timeoutIndex + 1)};
}

}  // namespace

Connection::Connection(ITransport& transport, const MasterOptions& options, StopToken stop,
                       IMasterClock& clock)
    : transport_(transport),
      options_(options),
      stop_(std::move(stop)),
      clock_(clock),
      wakeOnStop_(stop_, [this] {
          const std::lock_guard lock(answerMutex_);
          wakeUp_.notify_all();
      }) {}

Result<Connection::Turn> Connection::turn() {
    std::unique_lock lock(commandMutex_);
    if (!connected_) return Error{.code = ErrorCode::notOpen, .message = "XCP slave not connected"};
    return Turn(*this, std::move(lock));
}

Error Connection::stopped(const Packet& command) {
    return Error::stopped(nameOf(command) + ": stopped");
}

// Commands with recovery

Result<Packet> Connection::transact(const Packet& command, const Exchange& rules) {
    for (Repeats repeats;;) {
        auto answer = attempt(command, rules, repeats);
        if (!answer) return answer.error();
        if (answer.value()) return *answer.value();
        if (auto recovered = recover(command, rules, repeats); !recovered) return recovered.error();
        if (!rules.beforeRepeat) continue;
        if (auto prepared = rules.beforeRepeat(); !prepared) return prepared.error();
    }
}

Result<std::optional<Packet>> Connection::Turn::attempt(const Packet& command, std::size_t minimumLength,
                                                        Repeats& repeats) {
    return connection_->attemptInGroup(command, minimumLength, repeats);
}

Result<std::optional<Packet>> Connection::Turn::askOnce(const Packet& command, std::size_t minimumLength) {
    Repeats repeats;
    auto answer = connection_->attempt(command, {.minimumLength = minimumLength}, repeats);
    if (!answer || answer.value() || repeats.inStep) return answer;
    if (auto synched = connection_->sendSynchs(); !synched) return synched.error();
    return answer;
}

Result<std::optional<Packet>> Connection::attemptInGroup(const Packet& command, std::size_t minimumLength,
                                                         Repeats& repeats) {
    const Exchange rules{.minimumLength = minimumLength};
    auto answer = attempt(command, rules, repeats);
    if (!answer || answer.value()) return answer;
    if (auto recovered = recover(command, rules, repeats); !recovered) return recovered.error();
    return answer;
}

/// Until the command is answered by anything but busy or locked; nothing after a timeout, or when a SYNCH
/// went out on the way.
Result<std::optional<Packet>> Connection::attempt(const Packet& command, const Exchange& rules,
                                                  Repeats& repeats) {
    for (;;) {
        if (auto fenced = fenceBefore(command); !fenced) return fenced.error();
        auto answer = exchange(command, timeout(rules.timeoutIndex), Kind::command, rules.minimumLength);
        if (!answer || !answer.value()) return answer;
        if (care_ > 1) awaitCopy();
        const Packet& reply = *answer.value();
        if (reply.code() != kPidError) return answer;
        Error error = errorOf(command, reply);
        if (error.detail == kErrAccessLocked) {
            const auto unlocked = unlockFor(command, std::move(error), repeats);
            if (!unlocked) return unlocked.error();
            if (unlocked.value()) continue;
            return std::optional<Packet>{};
        }
        // ERR_CMD_BUSY and ERR_PGM_ACTIVE pass, ERR_DAQ_ACTIVE between them stays.
        const bool busy = (static_cast<unsigned>(error.detail) & 0xFDU) == 0x10U;
        if (!busy || repeats.busy >= options_.busyRepeatLimit) return error;
        if (auto paused = pauseBusy(command); !paused) return paused.error();
        ++repeats.busy;
    }
}

Error Connection::errorOf(const Packet& command, const Packet& reply) {
    ++errorResponses_;
    refusal_ = reply;
    return errorReply(command.code(), reply.length > 1 ? reply.bytes[1] : kErrGeneric);
}

/// After a timeout: SYNCH, unless there were repeats enough.
Result<void> Connection::recover(const Packet& command, const Exchange& rules, Repeats& repeats) {
    if (std::exchange(repeats.inStep, false)) return {};
    if (repeats.synch >= options_.synchRepeatLimit) return noResponse(command, rules.timeoutIndex);
    log::warn("{}: timeout, SYNCH and repeat", nameOf(command));
    if (auto synched = sendSynchs(); !synched) {
        Error error = synched.error();
        if (error.isStop()) return stopped(command);
        error.message = nameOf(command) + ": " + error.text();
        return error;
    }
    ++repeats.synch;
    return {};
}

Result<void> Connection::pauseBusy(const Packet& command) {
    std::unique_lock lock(answerMutex_);
    const auto until = clock_.now() + timeout(kT7);
    while (mayGoOn() && clock_.now() < until)
        clock_.wait(lock, wakeUp_, until);
    if (!mayGoOn()) return stopped(command);
    return {};
}

// Connection

Result<void> Connection::connect(ConnectMode mode, std::int32_t attempts,
                                 const std::optional<std::chrono::milliseconds>& longest) {
    const std::lock_guard lock(commandMutex_);
    reopened_ = false;
    return open(mode, attempts, longest);
}

Result<void> Connection::open(ConnectMode mode, std::int32_t attempts,
                              const std::optional<std::chrono::milliseconds>& longest) {
    if (auto opened = transport_.open(); !opened) return opened;
    const Packet command = buildConnect(static_cast<std::uint8_t>(mode));
    for (std::int32_t attempt = 1;; attempt = attempts < 1 ? 1 : attempt + 1) {
        const auto limit = longest ? std::min<Clock::duration>(timeout(kT1), *longest) : timeout(kT1);
        const auto answer = exchange(command, limit, Kind::connect, kConnectLength);
        if (!answer) {
            Error error = answer.error();
            if (!error.isStop()) error.message = "CONNECT: " + error.text();
            return error;
        }
        if (answer.value()) return accept(*answer.value());
        if (attempts >= 1 && attempt >= attempts) {
            return Error{
                .code = ErrorCode::timeout,
                .message = fmt::format("CONNECT: no response from slave after {} attempt(s)", attempts)};
        }
    }
}

Result<void> Connection::accept(const Packet& response) {
    if (response.code() == kPidError) return errorOf(buildConnect(0), response);
    const auto parsed = parseConnect(overruled(response, options_.overrides).view());
    if (!parsed) return parsed.error();
    const ConnectInfo& info = parsed.value();
    if (info.maxCto > transport_.maxPacketSize()) {
        return Error{.code = ErrorCode::protocolError,
                     .message = fmt::format("CONNECT: MAX_CTO {} exceeds transport packet size {}",
                                            info.maxCto, transport_.maxPacketSize())};
    }
    {
        const std::lock_guard lock(answerMutex_);
        info_ = info;
        connectAnswer_ = response;
        matcher_.connected();
        connected_ = !terminated_;
    }
    ++number_;
    care_ = 0;
    opened_ = 0;
    log::info("XCP connected: MAX_CTO={} MAX_DTO={} AG={} {}", info.maxCto, info.maxDto, info.granularity(),
              info.byteOrder() == ByteOrder::bigEndian ? "Motorola" : "Intel");
    askWhatIsLocked();
    return {};
}

Result<void> Connection::disconnect() {
    const std::lock_guard lock(commandMutex_);
    if (!connected_) return {};
    if (auto reply = transact(buildPlain(Command::disconnect), {}); !reply) return reply.error();
    connected_ = false;
    return {};
}

// Last words

/// Nothing when no answer came; whether it refuses is for the caller.
Result<std::optional<Packet>> Connection::lastWords(const Packet& command, Clock::duration limit) {
    const Finishing finishing(*this);
    return exchange(command, limit, Kind::last, 1);
}

Result<void> Connection::judgeLast(const Packet& command, const Result<std::optional<Packet>>& answer) {
    if (!answer) return answer.error();
    if (answer.value() && answer.value()->code() == kPidError) return errorOf(command, *answer.value());
    if (answer.value()) return {};
    return noResponse(command, kT1);
}

Result<void> Connection::once(const Packet& command) {
    auto own = turn();
    if (!own) return own.error();
    auto answer = lastWords(command, timeout(kT1));
    const bool refused = answer && answer.value() && answer.value()->code() == kPidError;
    const auto resource = protectedBy(command.code());
    if (refused && resource && options_.keys && (refused_ & static_cast<std::uint8_t>(*resource)) == 0 &&
        errorOf(command, *answer.value()).detail == kErrAccessLocked) {
        const Finishing finishing(*this);
        if (const auto opened = unlockHeld(*resource); !opened) return opened.error();
        answer = lastWords(command, timeout(kT1));
    }
    return judgeLast(command, answer);
}

Result<void> Connection::disconnectOnce() {
    const std::lock_guard lock(commandMutex_);
    if (!connected_.exchange(false)) return {};
    // A slave that heard the first one does nothing at a second.
    const Packet command = buildPlain(Command::disconnect);
    auto answer = lastWords(command, timeout(kT1) / 2);
    if (answer && !answer.value()) answer = lastWords(command, timeout(kT1) / 2);
    return judgeLast(command, answer);
}

Result<void> Connection::onceMore(const Packet& command) {
    const std::lock_guard lock(commandMutex_);
    const auto end = clock_.now() + timeout(kT1);
    const auto left = [&] { return std::max(end - clock_.now(), Clock::duration::zero()); };
    const Packet hello = buildConnect(0);
    {
        const Finishing finishing(*this);
        const auto opened = exchange(hello, left(), Kind::connect, kConnectLength);
        if (!opened || !opened.value()) return judgeLast(hello, opened);
    }
    auto done = judgeLast(command, lastWords(command, left()));
    const auto parted = lastWords(buildPlain(Command::disconnect), left());
    if (!parted && done) return parted.error();
    return done;
}

Result<void> Connection::withoutWaiting(const Packet& command) {
    auto own = turn();
    if (!own) return own.error();
    const auto said = lastWords(command, Clock::duration::zero());
    if (!said) return said.error();
    return {};
}

Result<void> Connection::disconnectWithoutWaiting() {
    const std::lock_guard lock(commandMutex_);
    if (!connected_.exchange(false)) return {};
    const auto said = lastWords(buildPlain(Command::disconnect), Clock::duration::zero());
    if (!said) return said.error();
    return {};
}

ConnectInfo Connection::info() const {
    const std::lock_guard lock(answerMutex_);
    return info_;
}

Packet Connection::connectAnswer() const {
    const std::lock_guard lock(answerMutex_);
    return connectAnswer_;
}

MasterStatistics Connection::statistics() const {
    return {.commands = commands_.load(),
            .timeouts = timeouts_.load(),
            .errorResponses = errorResponses_.load(),
            .unexpectedResponses = unexpectedResponses_.load()};
}

}  // namespace lm::xcp
