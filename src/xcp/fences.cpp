// Fences of the connection: what shows that nothing is under way any more, for slaves that answer SYNCH and
// for others.
#include <algorithm>

#include "core/log.h"
#include "xcp/connection.h"

namespace lm::xcp {
namespace {

constexpr int kMostCare = 2;
constexpr int kMostSilences = 20;  ///< times t1: a slave that works off a queue has so long
/// A slave that answers all twice does so at once.
constexpr auto kCopyComesWithin = std::chrono::milliseconds(10);

Error noSynch() {
    return {.code = ErrorCode::timeout, .message = "SYNCH: no response from slave"};
}

}  // namespace

Result<void> Connection::synch() {
    auto own = turn();
    if (!own) return own.error();
    return sendSynchs();
}

bool Connection::isClear() {
    const std::lock_guard lock(answerMutex_);
    return matcher_.clear();
}

bool Connection::isAtFence() {
    const std::lock_guard lock(answerMutex_);
    return matcher_.atFence();
}

bool Connection::isInStep() {
    const std::lock_guard lock(answerMutex_);
    return matcher_.inStep();
}

std::uint64_t Connection::pendingsSoFar() {
    const std::lock_guard lock(answerMutex_);
    return pendings_;
}

/// Until the fence is closed.
Result<void> Connection::sendSynchs() {
    const std::int64_t sends = std::int64_t{options_.synchRepeatLimit} + 1;
    for (std::int64_t i = 0; i < sends; ++i) {
        const auto answer = exchange(buildPlain(Command::synch), timeout(kT1), Kind::synch, 2);
        if (!answer) return answer.error();
        if (!answer.value()) continue;
        synchs_ = Synchs::answered;
        if (isClear()) return {};
        i = -1;  // it takes another
    }
    return noSynch();
}

/// What was taken for a slave without SYNCH answered one after all: what its status showed meanwhile says
/// nothing.
bool Connection::provedLate() {
    const std::lock_guard lock(answerMutex_);
    return synchs_ == Synchs::never && matcher_.synchSeen();
}

Result<void> Connection::fence() {
    if (provedLate()) {
        synchs_ = Synchs::answered;
        return sendSynchs();
    }
    bool untouched = false;
    {
        const std::lock_guard lock(answerMutex_);
        if (matcher_.atFence()) return {};
        if (matcher_.synchSeen()) synchs_ = Synchs::answered;
        untouched = matcher_.untouched();
    }
    if (synchs_ == Synchs::never) return calmDown();
    return synchs_ == Synchs::unknown && untouched ? meet() : sendSynchs();
}

/// Commands that work on what the one before set up: the pointers that a SYNCH may clear, an allocation or a
/// seed under way.
bool Connection::needsWhatWasBefore(const Packet& command) {
    switch (static_cast<Command>(command.code())) {
        case Command::upload:
        case Command::download:
        case Command::modifyBits:
        case Command::buildChecksum:
        case Command::writeDaq:
        case Command::writeDaqMultiple:
        case Command::allocDaq:
        case Command::allocOdt:
        case Command::allocOdtEntry:
        case Command::unlock:
            return true;
        case Command::getSeed:
            return command.bytes[1] != 0;
        default:
            return false;
    }
}

Result<void> Connection::fenceBefore(const Packet& command) {
    if (needsWhatWasBefore(command)) return {};
    {
        const std::lock_guard lock(answerMutex_);
        const bool late = synchs_ == Synchs::never && matcher_.synchSeen();
        if (matcher_.clear() && !late && (care_ == 0 || synchs_ != Synchs::answered)) return {};
    }
    auto closed = fence();
    if (closed) return closed;
    Error error = closed.error();
    if (error.isStop()) return stopped(command);
    error.message = std::string(commandName(command.code())) + ": " + error.text();
    return error;
}

/// The first fence, when nothing is owed: SYNCH; when that stays unanswered for a quarter of t1 the status,
/// which every slave answers, and SYNCH again for the rest of t1. A slave that hears the status and neither
/// SYNCH beside it does not know SYNCH, unless it puts one off.
Result<void> Connection::meet() {
    const auto quarter = timeout(kT1) / 4;
    const Packet synch = buildPlain(Command::synch);
    const std::uint64_t pendings = pendingsSoFar();
    const auto first = exchange(synch, quarter, Kind::synch, 2);
    if (!first) return first.error();
    if (first.value()) return isClear() ? Result<void>() : sendSynchs();
    if (pendingsSoFar() != pendings) return sendSynchs();
    const auto status = exchange(buildPlain(Command::getStatus), timeout(kT1), Kind::probe, kStatusLength);
    if (!status) return status.error();
    const bool hears = status.value() && status.value()->code() == kPidResponse;
    const std::uint64_t pendingsBefore = pendingsSoFar();
    const auto second = hears ? exchange(synch, 3 * quarter, Kind::synch, 2) : std::optional<Packet>{};
    if (!second) return second.error();
    {
        const std::lock_guard lock(answerMutex_);
        if (stop_.requested()) return noSynch();
        if (hears && pendings_ == pendingsBefore && !matcher_.synchSeen() && !matcher_.leavesOver()) {
            matcher_.settle();
            synchs_ = Synchs::never;
        }
    }
    if (synchs_ != Synchs::never) return isClear() ? Result<void>() : sendSynchs();
    log::warn(
        "the ECU does not answer SYNCH and is asked for its status instead: an answer that comes twice can "
        "be taken for another command's unnoticed where it reads like the status");
    return {};
}

/// Of a slave without SYNCH: the status is asked for. Its answer comes after all others; when one of those
/// was lost, no one can tell which came, but that no more follow.
Result<void> Connection::calmDown() {
    const auto begin = clock_.now();
    const auto status = exchange(buildPlain(Command::getStatus), timeout(kT1), Kind::probe, kStatusLength);
    if (!status) return status.error();
    if (!status.value() && !staysSilent(begin)) return noSynch();
    return {};
}

/// Waits until nothing has come for t1 after the first sign of life since `since`. False when nothing came
/// at all, a SYNCH was answered, or it never ends; true settles what was owed.
bool Connection::staysSilent(Clock::time_point since) {
    std::unique_lock lock(answerMutex_);
    const auto latest = since + kMostSilences * timeout(kT1);
    while (lastCame_ >= since && !matcher_.synchSeen() && !stop_.requested()) {
        const auto now = clock_.now();
        const auto until = lastCame_ + timeout(kT1);
        if (now >= until) {
            matcher_.settle();
            return true;
        }
        if (now >= latest) return false;
        clock_.wait(lock, wakeUp_, std::min(until, latest));
    }
    return false;
}

// Confirming

Result<bool> Connection::confirm() {
    auto own = turn();
    if (!own) return own.error();
    const Finishing finishing(*this);
    {
        const std::lock_guard lock(answerMutex_);
        matcher_.beCertain();
    }
    if (provedLate() || synchs_ != Synchs::never) {
        if (auto closed = fence(); !closed) return closed.error();
    } else if (isAtFence()) {
        return isInStep();
    }
    // One that just failed to answer SYNCH may be late: its status has to show it as well.
    return synchs_ == Synchs::never ? confirmByStatus() : Result<bool>(isInStep());
}

/// Of a slave without SYNCH: what is left over comes before the status, and passes for it; then the next one
/// differs.
Result<bool> Connection::confirmByStatus() {
    const auto ask = [this] {
        return exchange(buildPlain(Command::getStatus), timeout(kT1), Kind::probe, kStatusLength);
    };
    const auto begin = clock_.now();
    const auto first = ask();
    if (!first) return first.error();
    const auto second = ask();
    if (!second) return second.error();
    const bool answered = first.value() && second.value();
    const bool equal = answered && std::ranges::equal(first.value()->view(), second.value()->view());
    if (!equal && !staysSilent(begin)) return noSynch();
    const std::lock_guard lock(answerMutex_);
    const bool shown = equal && !matcher_.synchSeen();
    if (shown) matcher_.settle();
    return matcher_.inStep() && shown;
}

void Connection::beMoreCareful() {
    const std::lock_guard lock(commandMutex_);
    care_ = std::min(care_ + 1, kMostCare);
}

void Connection::awaitCopy() {
    std::unique_lock lock(answerMutex_);
    const auto until = clock_.now() + kCopyComesWithin;
    while (matcher_.awaitsCopy() && !stop_.requested() && clock_.now() < until)
        clock_.wait(lock, wakeUp_, until);
}

}  // namespace lm::xcp
