// Which answer belongs to which command: one exchange, the answers that come for it and those that are owed
// for others, and whether all that were taken were their commands' own. master.h tells the rules.
#include <algorithm>
#include <utility>

#include "xcp/master.h"

namespace lm::xcp {

namespace {

std::int64_t nanoseconds(std::chrono::steady_clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

bool isSynchAnswer(const std::uint8_t* data, std::size_t length) {
    return length >= 2 && data[0] == kPidError && data[1] == kErrCmdSynch;
}

Packet copyOf(const std::uint8_t* data, std::size_t length) {
    Packet packet;
    packet.length = static_cast<std::uint8_t>(std::min(length, Packet::kCapacity));
    std::copy_n(data, packet.length, packet.bytes.begin());
    return packet;
}

}  // namespace

// One exchange

bool Master::wantsSynch(Taking taking) {
    return taking == Taking::synch || taking == Taking::confirm;
}

bool Master::unstoppable(Taking taking) {
    return taking == Taking::once || taking == Taking::confirm;
}

Result<std::optional<Packet>> Master::exchange(const Packet& command, unsigned timeoutIndex, Taking taking,
                                               std::size_t minimumLength) {
    std::unique_lock lock(responseMutex_);
    if (stopRequested_ && !unstoppable(taking)) return stopped(command);
    beginStep(taking);
    wait_ = {};
    wait_.taking = taking;
    wait_.minimumLength = minimumLength;
    wait_.sentNs = nanoseconds(Clock::now());
    wait_.extensions = pendingExtensions_;
    wait_.active = true;
    lock.unlock();

    ++commands_;
    auto sent = transport_.send(command.data(), command.size());
    lock.lock();
    if (!sent) {
        wait_.active = false;
        return sent.error();
    }
    const bool interrupted = !awaitResponse(lock, timeout(timeoutIndex));
    wait_.active = false;
    if (!wait_.response && !interrupted) wait_.response = wait_.aside;
    const bool synch = wantsSynch(taking);
    steps_.synched = synch && wait_.response;
    steps_.taken = steps_.taken || (!synch && wait_.response);
    if (wait_.response) return wait_.response;
    noteOwed(taking);
    if (interrupted) return stopped(command);
    return std::optional<Packet>{};
}

/// Before the wait of the exchange before is forgotten.
void Master::beginStep(Taking taking) {
    if (!wantsSynch(taking)) {
        steps_.alone = steps_.synched;
        return;
    }
    steps_.synchSent = true;
    if (wantsSynch(wait_.taking)) return;
    steps_.answer = wait_.response;
    steps_.minimumLength = wait_.minimumLength;
}

/// False when a stop ended the wait.
bool Master::awaitResponse(std::unique_lock<std::mutex>& lock, Clock::duration limit) {
    // The last words to a slave are not drawn out by it.
    const auto extended = [this] {
        return pendingExtensions_ != wait_.extensions && wait_.taking != Taking::once && !extensionsRefused_;
    };
    const auto stopping = [this] { return stopRequested_ && !unstoppable(wait_.taking); };
    const auto wakes = [this, &extended, &stopping] { return wait_.response || stopping() || extended(); };
    Clock::time_point deadline = Clock::now() + limit;
    while (wakeUp_.wait_until(lock, deadline, wakes)) {
        if (wait_.response) return true;
        if (stopping()) return false;
        wait_.extensions = pendingExtensions_;
        deadline = Clock::now() + limit;
    }
    return true;
}

// Answers as they come

void Master::onAnswer(const std::uint8_t* data, std::size_t length, ReceiveTime time) {
    if (!takeAnswer(data, length, time)) return;
    // Behind the lock: whoever is woken while it is held goes back to sleep at once.
    wakeUp_.notify_all();
}

/// True when a command got its response.
bool Master::takeAnswer(const std::uint8_t* data, std::size_t length, ReceiveTime time) {
    const std::lock_guard lock(responseMutex_);
    const Verdict verdict = judge(data, length, time);
    if (verdict == Verdict::take) {
        if (owed_.answers > 0) expectOwed();
        if (wait_.aside && !wait_.asideOwed) noteAsideLeftOver();
        wait_.response = copyOf(data, length);
        return true;
    }
    const bool owed = settleOwed(data, length);
    if (verdict == Verdict::setAside && !std::exchange(wait_.aside, copyOf(data, length))) {
        wait_.asideOwed = owed;
        return false;
    }
    ++unexpectedResponses_;
    if (!owed) noteSurplus(data, length);
    return false;
}

Master::Verdict Master::judge(const std::uint8_t* data, std::size_t length, ReceiveTime time) {
    if (!wait_.active || wait_.response) return Verdict::drop;
    if (time.hostNs != 0 && time.hostNs < wait_.sentNs) return Verdict::drop;
    const bool synchAnswer = isSynchAnswer(data, length);
    if (wantsSynch(wait_.taking)) return synchAnswer ? Verdict::take : Verdict::drop;
    if (synchAnswer && (owed_.synchs > 0 || steps_.synchSent)) return Verdict::drop;
    if (wait_.taking == Taking::connect) return synchAnswer ? Verdict::drop : judgeConnect(data, length);
    if (repeatsConnect(data, length)) return Verdict::drop;
    if (data[0] == kPidResponse && length < wait_.minimumLength) return Verdict::setAside;
    const bool owed = owed_.answers > 0 && Clock::now() <= owed_.answersUntil;
    if (wait_.taking == Taking::once && owed) return Verdict::setAside;
    return Verdict::take;
}

Master::Verdict Master::judgeConnect(const std::uint8_t* data, std::size_t length) {
    const bool valid = data[0] == kPidResponse && parseConnect({data, length}).ok();
    if (!valid && owed_.answers > 0) return Verdict::drop;
    if (data[0] == kPidResponse && length < kConnectLength) return Verdict::setAside;
    if (valid && owed_.possible && connectAnswer_ && !owed_.unlikeConnectDropped) {
        const auto known = connectAnswer_->view();
        owed_.unlikeConnectDropped = !std::equal(known.begin(), known.end(), data, data + length);
        if (owed_.unlikeConnectDropped) return Verdict::drop;
    }
    return Verdict::take;
}

// Answers that are owed

void Master::noteOwed(Taking taking) {
    if (taking == Taking::connect) {
        ++owed_.connects;
        owed_.connectsUntil = Clock::now() + 2 * timeout(kT1);
        return;
    }
    ++(wantsSynch(taking) ? owed_.synchs : owed_.answers);
    owed_.possible = true;
    owed_.answersUntil = Clock::now() + timeout(kT1);
}

bool Master::repeatsConnect(const std::uint8_t* data, std::size_t length) const {
    if (owed_.connects == 0 || !connectAnswer_ || Clock::now() > owed_.connectsUntil) return false;
    const auto known = connectAnswer_->view();
    return std::equal(known.begin(), known.end(), data, data + length);
}

/// Another owed answer may follow one that has just come.
void Master::expectOwed() {
    owed_.answersUntil = std::max(owed_.answersUntil, Clock::now() + timeout(kT1) * 3 / 2);
}

/// False when no such answer was owed.
bool Master::settleOwed(const std::uint8_t* data, std::size_t length) {
    const bool synchAnswer = isSynchAnswer(data, length);
    if (synchAnswer && owed_.synchs > 0) {
        --owed_.synchs;
    } else if (repeatsConnect(data, length)) {
        --owed_.connects;
    } else if (owed_.answers > 0 && !(synchAnswer && steps_.synchSent)) {
        --owed_.answers;
        expectOwed();
        wakeUp_.notify_all();  // a drain may wait for it
    } else {
        return false;
    }
    return true;
}

void Master::drainLocked() {
    if (recovering_) return;
    {
        const std::lock_guard lock(responseMutex_);
        if (!(owed_.possible || owed_.surplus) || stopRequested_) return;
    }
    const auto answer = exchange(buildPlain(Command::synch), kT1, Taking::synch, 2);
    if (answer && !answer.value()) ++timeouts_;
    std::unique_lock lock(responseMutex_);
    if (answer && !answer.value()) owed_.surplus = false;
    while (owed_.answers > 0 && !stopRequested_ && Clock::now() < owed_.answersUntil) {
        wakeUp_.wait_until(lock, owed_.answersUntil);
    }
    if (stopRequested_) return;
    owed_.possible = false;
    owed_.answers = 0;
}

// Answers in step

Result<bool> Master::confirm() {
    const std::lock_guard lock(commandMutex_);
    if (auto ready = requireConnected(); !ready) return ready.error();
    {
        const std::lock_guard response(responseMutex_);
        if (!steps_.taken || steps_.withoutSynch) return true;
    }
    bool answered = false;
    for (int tries = 2; tries > 0 && !answered; --tries) {
        const Packet command = buildPlain(Command::synch);
        const auto answer = exchange(command, kT1, Taking::confirm, 2);
        if (!answer) return answer.error();
        answered = answer.value().has_value();
        if (answered) break;
        ++timeouts_;
        if (stopRequested()) return stopped(command);
    }
    const std::lock_guard response(responseMutex_);
    steps_.withoutSynch = !answered;
    steps_.taken = false;
    return !std::exchange(steps_.lost, false);
}

/// An answer that nobody asked for. When nothing was taken since the last confirm(), or one command alone
/// between two SYNCHs, it does no harm if it cannot be that command's, or says the same as the one taken.
void Master::noteSurplus(const std::uint8_t* data, std::size_t length) {
    owed_.surplus = true;
    if (isSynchAnswer(data, length) && steps_.synchSent) return;
    const bool behindSynch = wantsSynch(wait_.taking);
    if (!steps_.taken && (behindSynch || !wait_.response)) return;
    const auto& taken = behindSynch ? steps_.answer : wait_.response;
    const auto known = taken ? taken->view() : std::span<const std::uint8_t>();
    const bool copy = std::equal(known.begin(), known.end(), data, data + length);
    const std::size_t least = behindSynch ? steps_.minimumLength : wait_.minimumLength;
    const bool stray = data[0] == kPidResponse && length < least;
    if (!steps_.alone || !(copy || stray)) steps_.lost = true;
}

/// What was set aside for this command was another's: of one before it, then, which may have got a copy.
void Master::noteAsideLeftOver() {
    if (!steps_.taken || steps_.alone) return;
    owed_.surplus = true;
    steps_.lost = true;
}

}  // namespace lm::xcp
