#include "xcp/master.h"

#include <algorithm>
#include <array>
#include <utility>

#include <spdlog/fmt/fmt.h>
#include <spdlog/spdlog.h>

#include "xcp/daq_decoder.h"

namespace lm::xcp {

namespace {

constexpr unsigned kT7 = 6;
constexpr std::uint64_t kLongestTimeoutMs = 1'000'000'000;

std::string nameOf(const Packet& command) {
    return std::string(commandName(command.code()));
}

Error noResponse(const Packet& command, unsigned timeoutIndex) {
    return {.code = ErrorCode::timeout,
            .message = fmt::format("{}: no response from slave (t{})", nameOf(command), timeoutIndex + 1)};
}

}  // namespace

Master::Master(ITransport& transport, const MasterOptions& options)
    : transport_(transport), options_(options) {
    transport_.setSink(this);
}

Master::~Master() {
    transport_.close();
    transport_.setSink(nullptr);
}

Error Master::stopped(const Packet& command) {
    return {.code = ErrorCode::closed, .message = nameOf(command) + ": stopped"};
}

/// Whether `error` is ours rather than one of a transport that was closed.
bool Master::isStop(const Error& error, const Packet& command) {
    return error.code == ErrorCode::closed && error.message == stopped(command).message;
}

Result<void> Master::requireConnected() const {
    if (connected_) return {};
    return Error{.code = ErrorCode::notOpen, .message = "XCP slave not connected"};
}

Master::Clock::duration Master::timeout(unsigned index) const {
    const std::array<std::uint64_t, 7> timeouts = {options_.t1, options_.t2, options_.t3, options_.t4,
                                                   options_.t5, options_.t6, options_.t7};
    return std::chrono::milliseconds(std::min(timeouts.at(index), kLongestTimeoutMs));
}

// Commands with recovery

Result<Packet> Master::transactLocked(const Packet& command, const Exchange& rules) {
    drainLocked();
    std::int32_t synchRepeats = 0;
    std::int32_t busyRepeats = 0;
    for (;;) {
        auto answer = exchange(command, rules.timeoutIndex, Taking::any, rules.minimumLength);
        if (!answer) return answer.error();
        if (!answer.value()) {
            ++timeouts_;
            if (synchRepeats >= options_.synchRepeatLimit) return noResponse(command, rules.timeoutIndex);
            spdlog::warn("{}: timeout, SYNCH and repeat", nameOf(command));
            if (auto recovered = recoverLocked(command, rules); !recovered) return recovered.error();
            ++synchRepeats;
            continue;
        }
        const Packet& reply = *answer.value();
        if (reply.code() != kPidError) return reply;
        Error error = errorOf(command, reply);
        // ERR_CMD_BUSY and ERR_PGM_ACTIVE pass, ERR_DAQ_ACTIVE between them stays.
        const bool busy = (static_cast<unsigned>(error.detail) & 0xFDU) == 0x10U;
        if (!busy || busyRepeats >= options_.busyRepeatLimit) return error;
        if (auto paused = pauseBusy(command); !paused) return paused.error();
        ++busyRepeats;
    }
}

Error Master::errorOf(const Packet& command, const Packet& reply) {
    ++errorResponses_;
    return errorReply(command.code(), reply.length > 1 ? reply.bytes[1] : kErrGeneric);
}

Result<void> Master::recoverLocked(const Packet& command, const Exchange& rules) {
    if (auto synched = synchLocked(); !synched) {
        Error error = synched.error();
        if (isStop(error, buildPlain(Command::synch))) return stopped(command);
        error.message = nameOf(command) + ": " + error.text();
        return error;
    }
    if (!rules.beforeRepeat) return {};
    const bool outer = std::exchange(recovering_, true);
    auto prepared = rules.beforeRepeat();
    recovering_ = outer;
    return prepared;
}

Result<void> Master::synchLocked() {
    const std::int64_t sends = std::int64_t{options_.synchRepeatLimit} + 1;
    for (std::int64_t i = 0; i < sends; ++i) {
        const auto answer = exchange(buildPlain(Command::synch), kT1, Taking::synch, 2);
        if (!answer) return answer.error();
        if (answer.value()) return {};
        ++timeouts_;
    }
    return Error{.code = ErrorCode::timeout, .message = "SYNCH: no response from slave"};
}

Result<void> Master::pauseBusy(const Packet& command) {
    std::unique_lock lock(responseMutex_);
    if (wakeUp_.wait_for(lock, timeout(kT7), [this] { return stopRequested_; })) return stopped(command);
    return {};
}

Result<void> Master::commandLocked(const Packet& command) {
    if (auto reply = transactLocked(command, {}); !reply) return reply.error();
    return {};
}

Result<Packet> Master::command(const Packet& command, std::size_t minimumLength) {
    Exchange rules;
    rules.minimumLength = minimumLength;
    return transact(command, rules);
}

Result<Packet> Master::transact(const Packet& command, const Exchange& rules) {
    const std::lock_guard lock(commandMutex_);
    if (auto ready = requireConnected(); !ready) return ready.error();
    return transactLocked(command, rules);
}

Result<void> Master::onceLocked(const Packet& command) {
    const auto answer = exchange(command, kT1, Taking::once, 1);
    if (!answer) return answer.error();
    if (!answer.value()) {
        ++timeouts_;
        return noResponse(command, kT1);
    }
    if (answer.value()->code() == kPidError) return errorOf(command, *answer.value());
    return {};
}

Result<void> Master::sendOnlyLocked(const Packet& command) {
    ++commands_;
    auto sent = transport_.send(command.data(), command.size());
    const std::lock_guard lock(responseMutex_);
    if (sent) noteOwed(Taking::any);
    return sent;
}

// Connection

Result<void> Master::connect(ConnectMode mode, std::optional<std::int32_t> attempts) {
    const std::lock_guard lock(commandMutex_);
    if (auto opened = transport_.open(); !opened) return opened;
    const Packet command = buildConnect(static_cast<std::uint8_t>(mode));
    const std::int32_t limit = attempts.value_or(options_.connectAttempts);
    for (std::int32_t attempt = 1;; attempt = limit < 1 ? 1 : attempt + 1) {
        const auto answer = exchange(command, kT1, Taking::connect, kConnectLength);
        if (!answer) {
            Error error = answer.error();
            if (!isStop(error, command)) error.message = "CONNECT: " + error.text();
            return error;
        }
        if (answer.value()) return acceptConnect(*answer.value());
        ++timeouts_;
        if (limit >= 1 && attempt >= limit) {
            return Error{
                .code = ErrorCode::timeout,
                .message = fmt::format("CONNECT: no response from slave after {} attempt(s)", limit)};
        }
    }
}

Result<void> Master::acceptConnect(const Packet& response) {
    if (response.code() == kPidError) return errorOf(buildConnect(0), response);
    const auto parsed = parseConnect(response.view());
    if (!parsed) return parsed.error();
    const ConnectInfo& info = parsed.value();
    if (info.maxCto > transport_.maxPacketSize()) {
        return Error{.code = ErrorCode::protocolError,
                     .message = fmt::format("CONNECT: MAX_CTO {} exceeds transport packet size {}",
                                            info.maxCto, transport_.maxPacketSize())};
    }
    {
        const std::lock_guard lock(responseMutex_);
        connection_ = info;
        connectAnswer_ = response;
        owed_.connectsUntil = Clock::now() + 2 * timeout(kT1);
        owed_.unlikeConnectDropped = false;
        owed_.surplus = false;
        steps_ = {};
        connected_ = !wait_.terminated;
    }
    shortUploadMissing_ = false;
    spdlog::info("XCP connected: MAX_CTO={} MAX_DTO={} AG={} {}", info.maxCto, info.maxDto,
                 info.granularity(), info.byteOrder() == ByteOrder::bigEndian ? "Motorola" : "Intel");
    return {};
}

Result<void> Master::disconnect() {
    const std::lock_guard lock(commandMutex_);
    if (!connected_) return {};
    if (auto done = commandLocked(buildPlain(Command::disconnect)); !done) return done;
    connected_ = false;
    return {};
}

Result<void> Master::disconnectOnce() {
    const std::lock_guard lock(commandMutex_);
    if (!connected_.exchange(false)) return {};
    return onceLocked(buildPlain(Command::disconnect));
}

Result<void> Master::disconnectWithoutWaiting() {
    const std::lock_guard lock(commandMutex_);
    if (!connected_.exchange(false)) return {};
    return sendOnlyLocked(buildPlain(Command::disconnect));
}

Result<SlaveStatus> Master::getStatus() {
    auto reply = command(buildPlain(Command::getStatus), 6);
    if (!reply) return reply.error();
    return parseStatus(reply.value().view(), connectInfo().byteOrder());
}

Result<CommModeInfo> Master::getCommModeInfo() {
    auto reply = command(buildPlain(Command::getCommModeInfo), 8);
    if (!reply) return reply.error();
    return parseCommModeInfo(reply.value().view());
}

Result<void> Master::synch() {
    const std::lock_guard lock(commandMutex_);
    if (auto ready = requireConnected(); !ready) return ready;
    return synchLocked();
}

void Master::requestStop() {
    const std::lock_guard lock(responseMutex_);
    stopRequested_ = true;
    wakeUp_.notify_all();
}

void Master::refuseExtensions() {
    const std::lock_guard lock(responseMutex_);
    extensionsRefused_ = true;
}

void Master::clearStop() {
    const std::lock_guard lock(responseMutex_);
    stopRequested_ = false;
    extensionsRefused_ = false;
}

bool Master::stopRequested() const {
    const std::lock_guard lock(responseMutex_);
    return stopRequested_;
}

ConnectInfo Master::connectInfo() const {
    const std::lock_guard lock(responseMutex_);
    return connection_;
}

MasterStatistics Master::statistics() const {
    return {.commands = commands_.load(),
            .timeouts = timeouts_.load(),
            .errorResponses = errorResponses_.load(),
            .unexpectedResponses = unexpectedResponses_.load(),
            .events = events_.load(),
            .dtos = dtos_.get()};
}

void Master::setDtoSink(IDtoSink* sink) {
    dtoSink_.set(sink);
}

void Master::setListener(IMasterListener* listener) {
    listener_.set(listener);
}

// Receive thread

void Master::onPacket(const std::uint8_t* data, std::size_t length, ReceiveTime time) {
    if (length == 0) return;
    if (data[0] < kPidService) {
        dtos_.add(1);
        dtoSink_.deliver([=](IDtoSink& sink) { sink.onDto(data, length, time); });
    } else if (data[0] == kPidEvent) {
        onEvent(data, length, time);
    } else if (data[0] == kPidService) {
        const std::uint8_t code = length > 1 ? data[1] : std::uint8_t{0};
        listener_.deliver([=](IMasterListener& listener) { listener.onServiceRequest(code, data, length); });
    } else {
        onAnswer(data, length, time);
    }
}

void Master::onEvent(const std::uint8_t* data, std::size_t length, ReceiveTime time) {
    ++events_;
    const std::uint8_t code = length > 1 ? data[1] : kEvUser;
    if (code == kEvSessionTerminated) {
        const std::lock_guard lock(responseMutex_);
        connected_ = false;
        wait_.terminated = wait_.response.has_value();
    }
    if (code == kEvCmdPending) {
        const std::lock_guard lock(responseMutex_);
        ++pendingExtensions_;
        wakeUp_.notify_all();
    }
    listener_.deliver([=](IMasterListener& listener) { listener.onEvent(code, data, length, time); });
}

void Master::onTransportEvent(const hal::CanChannelEvent& event) {
    listener_.deliver([&event](IMasterListener& listener) { listener.onTransportEvent(event); });
}

}  // namespace lm::xcp
