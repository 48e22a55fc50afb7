// One packet out, its answer in: the wait of the connection, and what the receive thread tells it.
#include <algorithm>
#include <array>

#include "xcp/connection.h"

namespace lm::xcp {
namespace {

constexpr std::uint64_t kLongestTimeoutMs = 1'000'000'000;

class SteadyClock final : public IMasterClock {
  public:
    TimePoint now() override { return std::chrono::steady_clock::now(); }
    void wait(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeUp, TimePoint until) override {
        wakeUp.wait_until(lock, until);
    }
};

}  // namespace

IMasterClock& steadyMasterClock() {
    static SteadyClock clock;
    return clock;
}

Connection::Clock::duration Connection::timeout(unsigned index) const {
    const std::array<std::uint64_t, 7> timeouts = {options_.t1, options_.t2, options_.t3, options_.t4,
                                                   options_.t5, options_.t6, options_.t7};
    return std::chrono::milliseconds(std::min(timeouts.at(index), kLongestTimeoutMs));
}

std::int64_t Connection::nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(clock_.now().time_since_epoch()).count();
}

/// Whether a stop is requested; from when on it counts is settled at the first look.
bool Connection::stopping() {
    if (!stop_.requested()) {
        stopAt_.reset();
        silence_ = {};
        return false;
    }
    if (!stopAt_) stopAt_ = clock_.now();
    return true;
}

/// An exchange without a value timed out.
Result<std::optional<Packet>> Connection::exchange(const Packet& command, Clock::duration limit, Kind kind,
                                                   std::size_t minimumLength) {
    return exchange(std::span(&command, 1), limit, kind, {.length = minimumLength});
}

/// The packets belong to one command, and what they are answered with may be several packets too.
Result<std::optional<Packet>> Connection::exchange(std::span<const Packet> packets, Clock::duration limit,
                                                   Kind kind, const AnswerParts& parts,
                                                   Clock::duration pause) {
    const Packet& command = packets.front();
    std::unique_lock lock(answerMutex_);
    if (!mayGoOn() || (patienceEnded() && kind != Kind::last)) return stopped(command);
    if (kind == Kind::command) {
        matcher_.sentForParts(parts, nowNs());
    } else {
        matcher_.sent(kind, parts.length, nowNs());
    }
    terminated_ = false;
    const std::uint64_t pendings = pendings_;

    if (kind == Kind::synch) ++synchsSent_;
    const auto sent = sendAll(lock, packets, pause);
    const bool interrupted = sent && !await(lock, limit, kind, pendings);
    auto answer = matcher_.endWait();
    if (!sent) return sent.error();
    if (answer) {
        silence_ = {};
        return answer;
    }
    if (interrupted) return stopped(command);
    if (limit > Clock::duration::zero()) ++timeouts_;
    return answer;
}

/// Until one of them is answered before its turn.
Result<void> Connection::sendAll(std::unique_lock<std::mutex>& lock, std::span<const Packet> packets,
                                 Clock::duration pause) {
    for (const Packet& packet : packets) {
        if (&packet != &packets.front()) {
            const auto until = clock_.now() + pause;
            while (!matcher_.answered() && clock_.now() < until)
                clock_.wait(lock, wakeUp_, until);
            if (matcher_.answered()) return {};
        }
        lock.unlock();
        ++commands_;
        auto sent = transport_.send(packet.data(), packet.size());
        lock.lock();
        if (!sent) return sent;
    }
    return {};
}

/// False when a stop ended the wait.
bool Connection::await(std::unique_lock<std::mutex>& lock, Clock::duration limit, Kind kind,
                       std::uint64_t pendings) {
    const auto begin = clock_.now();
    auto deadline = begin + limit;
    std::size_t came = 0;
    while (!matcher_.answered()) {
        if (!mayGoOn()) return false;
        const auto now = clock_.now();
        const bool isStopping = stopping();
        if (pendings != pendings_ && !isStopping && kind != Kind::last) deadline = now + limit;
        pendings = pendings_;
        if (came != matcher_.parts().size()) deadline = now + limit;
        came = matcher_.parts().size();
        const auto patience = std::max(begin, stopAt_.value_or(begin)) + (timeout(0) - silence_);
        const auto until = isStopping ? std::min(deadline, patience) : deadline;
        if (now >= until) break;
        clock_.wait(lock, wakeUp_, until);
    }
    if (stopping() && !matcher_.answered()) silence_ += clock_.now() - std::max(begin, *stopAt_);
    return true;
}

// Receive thread

void Connection::onAnswer(const std::uint8_t* data, std::size_t length, ReceiveTime time) {
    {
        const std::lock_guard lock(answerMutex_);
        lastCame_ = clock_.now();
        const auto verdict = matcher_.came({data, length}, time.hostNs);
        if (verdict == AnswerMatcher::Verdict::dropped) ++unexpectedResponses_;
    }
    // Behind the lock: whoever is woken while it is held goes back to sleep at once.
    wakeUp_.notify_all();
}

void Connection::onPending() {
    const std::lock_guard lock(answerMutex_);
    ++pendings_;
    wakeUp_.notify_all();
}

void Connection::onTerminated() {
    const std::lock_guard lock(answerMutex_);
    connected_ = false;
    terminated_ = matcher_.answered();
}

}  // namespace lm::xcp
