#include "sim/ecu.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "sim/event_cycle.h"

namespace lm::sim {
namespace {

constexpr std::size_t kBatchBytes = 512 * 1024;
constexpr int kBatchEvents = 256;
constexpr std::int64_t kPauseUnitNs = 100'000;  // of MIN_ST
constexpr std::int64_t kForever = std::numeric_limits<std::int64_t>::max();
constexpr int kPendingEvents = 4;
constexpr std::array<std::uint8_t, 2> kPendingPacket{kEventPacket, kEvCmdPending};

}  // namespace

Ecu::Ecu(const Options& options, FaultPlan faults, std::int64_t nowNs)
    : options_(options),
      faults_(std::move(faults)),
      catalog_(options),
      world_(catalog_),
      slave_(options_, catalog_, world_, faults_),
      startNs_(nowNs),
      silentUntilNs_(nowNs),
      stalledUntilNs_(nowNs),
      drift_(options.clockPpm / 1e6),
      wanderNs_(options.clockWander * 1e9) {
    for (unsigned i = 0; i < options.tickExponent(); ++i)
        tickNs_ *= 10;
    restart(nowNs);
}

void Ecu::restart(std::int64_t nowNs) {
    world_.restart();
    slave_.reset();
    delayed_.clear();
    overtaken_.clear();
    backlog_.clear();
    haltedUntilNs_ = 0;
    pendingEveryNs_ = 0;
    ++starts_;
    startNs_ = nowNs;
    clockStart_ = options_.clockStart;
    for (std::uint8_t event = 0; event < kEventCount; ++event) {
        dueNs_[event] = eventIntervalNs(options_, event, 0);
    }
}

std::uint64_t Ecu::ticks(std::int64_t ecuNs) const {
    return clockStart_ + static_cast<std::uint64_t>(ecuNs / tickNs_);
}

std::int64_t Ecu::ecuTime(std::int64_t hostNs) const {
    const auto host = static_cast<double>(hostNs - startNs_);
    if (wanderNs_ == 0) return static_cast<std::int64_t>(host * (1.0 + drift_));
    const double phase = std::fmod(host, 2 * wanderNs_);
    return static_cast<std::int64_t>(host + drift_ * std::min(phase, 2 * wanderNs_ - phase));
}

std::int64_t Ecu::hostTime(std::int64_t ecuNs) const {
    const auto ecu = static_cast<double>(ecuNs);
    double host = ecu / (1.0 + drift_);
    if (wanderNs_ != 0) {
        const double phase = std::fmod(ecu, 2 * wanderNs_);
        const double gained =
            drift_ * std::min(phase / (1.0 + drift_), (2 * wanderNs_ - phase) / (1.0 - drift_));
        host = ecu - gained;
    }
    return startNs_ + static_cast<std::int64_t>(host + 1.0);  // rounded up: what is due then is due indeed
}

void Ecu::jump(std::uint32_t milliseconds, std::int64_t ecuNs) {
    const std::int64_t ns = std::int64_t{static_cast<std::int32_t>(milliseconds)} * kNsPerMs;
    clockStart_ = ns == 0 ? std::uint64_t{0} - static_cast<std::uint64_t>(ecuNs / tickNs_)
                          : clockStart_ + static_cast<std::uint64_t>(ns / tickNs_);
}

void Ecu::receive(std::span<const std::uint8_t> packet, std::int64_t nowNs, Outbox& out) {
    if (packet.empty() || silent(nowNs)) return;
    const std::int64_t sinceLastNs = nowNs - std::exchange(lastCommandNs_, nowNs);
    // Half of it: what left in time may come together.
    if (packet[0] == kDownloadNext && sinceLastNs < options_.blocks.pause * kPauseUnitNs / 2) return;
    ++commands_;
    ++commandsOfCode_[packet[0]];
    const Fault fault = faults_.onCommand(packet[0]);
    if (fault.haltMs != 0) {
        haltedUntilNs_ = std::max(haltedUntilNs_, nowNs + fault.haltMs * kNsPerMs);
        backlogDueNs_ = haltedUntilNs_;
        pauseNs_ = fault.pauseMs * kNsPerMs;
    }
    if (halted(nowNs) || !backlog_.empty()) {
        backlog_.push_back({{packet.begin(), packet.end()}, fault});
    } else {
        execute(packet, fault, nowNs, out);
    }
}

void Ecu::execute(std::span<const std::uint8_t> packet, const Fault& fault, std::int64_t nowNs, Outbox& out) {
    const auto refuse = [&](std::uint32_t code) {
        send(std::array<std::uint8_t, 2>{kErrorPacket, static_cast<std::uint8_t>(code)}, nowNs, out);
    };
    switch (fault.kind) {
        case FaultKind::ignore:
            return;
        case FaultKind::silence:
            silence(fault.argument, nowNs);
            return;
        case FaultKind::restart:
            restart(nowNs);
            return;
        case FaultKind::busy:
            refuse(static_cast<std::uint8_t>(Err::cmdBusy));
            return;
        case FaultKind::error:
            refuse(fault.argument);
            return;
        case FaultKind::positive:
            send(std::array<std::uint8_t, 1>{kResponse}, nowNs, out);
            return;
        case FaultKind::endless:
            pendingEveryNs_ = std::max<std::int64_t>(1, fault.argument) * kNsPerMs;
            pendingDueNs_ = nowNs;
            return;
        case FaultKind::terminate:
            terminate(out);
            return;
        case FaultKind::stall:
            stalledUntilNs_ = nowNs + fault.argument * kNsPerMs;
            break;
        case FaultKind::jump:
            jump(fault.argument, ecuTime(nowNs));
            break;
        default:
            break;
    }
    if (packet[0] == kConnect || packet[0] == kDisconnect) pendingEveryNs_ = 0;
    scratch_.clear();
    slave_.command(packet, ticks(ecuTime(nowNs)), scratch_);
    answerAll(fault, nowNs, out);
}

/// What else befalls an answer befalls the first packet of several.
void Ecu::answerAll(const Fault& fault, std::int64_t nowNs, Outbox& out) {
    const auto& packets = scratch_.packets();
    for (std::size_t i = 0; i < packets.size(); ++i) {
        const auto packet = scratch_.bytes(packets[i]);
        const bool isMeant = fault.argument == i + 1;
        if (fault.kind == FaultKind::losePart && isMeant) continue;
        if (fault.kind == FaultKind::extraPart && isMeant) send(packet, nowNs, out);
        if (i == 0) {
            answer(packet, fault, nowNs, out);
        } else if (fault.kind != FaultKind::lose) {
            send(packet, nowNs, out);
        }
    }
}

void Ecu::answer(std::span<const std::uint8_t> packet, const Fault& fault, std::int64_t nowNs, Outbox& out) {
    const std::int64_t laterNs = nowNs + static_cast<std::int64_t>(fault.argument) * kNsPerMs;
    switch (fault.kind) {
        case FaultKind::lose:
            return;
        case FaultKind::late:
            delay(packet, laterNs, true);
            return;
        case FaultKind::overtaken:
            if (fault.argument == 0) {
                overtaken_.emplace_back(packet.begin(), packet.end());
            } else {
                delay(packet, laterNs, false);
            }
            return;
        case FaultKind::twice:
            send(packet, nowNs, out);
            if (fault.argument == 0) break;
            delay(packet, laterNs, true);
            return;
        case FaultKind::cut:
            if (fault.argument != 0) {
                send(packet.first(std::min<std::size_t>(fault.argument, packet.size())), nowNs, out);
            }
            return;
        case FaultKind::wrong: {
            std::vector<std::uint8_t> copy(packet.begin(), packet.end());
            for (std::size_t i = 1; i < copy.size(); ++i)
                copy[i] = static_cast<std::uint8_t>(~copy[i]);
            send(copy, nowNs, out);
            return;
        }
        case FaultKind::stray:
            send(std::array<std::uint8_t, 1>{kResponse}, nowNs, out);
            break;
        case FaultKind::pending:
            out.append(kPendingPacket);
            for (int i = 1; i < kPendingEvents; ++i) {
                delay(kPendingPacket, nowNs + (laterNs - nowNs) * i / kPendingEvents, false);
            }
            delay(packet, laterNs, true);
            return;
        default:
            break;
    }
    send(packet, nowNs, out);
}

/// An answer waits for those before it that are late, and takes those along that it was to overtake.
void Ecu::send(std::span<const std::uint8_t> packet, std::int64_t nowNs, Outbox& out) {
    const auto waits = [](const Delayed& other) { return other.inOrder; };
    if (std::any_of(delayed_.begin(), delayed_.end(), waits)) {
        delay(packet, nowNs, true);
    } else {
        out.append(packet);
    }
    for (const std::vector<std::uint8_t>& before : std::exchange(overtaken_, {}))
        send(before, nowNs, out);
}

void Ecu::delay(std::span<const std::uint8_t> packet, std::int64_t dueNs, bool inOrder) {
    for (const Delayed& other : delayed_) {
        if (inOrder && other.inOrder) dueNs = std::max(dueNs, other.dueNs);
    }
    const auto later = [](std::int64_t due, const Delayed& other) { return due < other.dueNs; };
    const auto at = std::upper_bound(delayed_.begin(), delayed_.end(), dueNs, later);
    delayed_.insert(at, Delayed{dueNs, {packet.begin(), packet.end()}, inOrder});
}

void Ecu::sendDelayed(std::int64_t nowNs, Outbox& out) {
    while (!delayed_.empty() && delayed_.front().dueNs <= nowNs) {
        if (!silent(nowNs)) out.append(delayed_.front().packet);
        delayed_.erase(delayed_.begin());
    }
    for (; pendingEveryNs_ != 0 && pendingDueNs_ <= nowNs; pendingDueNs_ += pendingEveryNs_) {
        if (!silent(nowNs)) out.append(kPendingPacket);
    }
}

void Ecu::workOff(std::int64_t nowNs, Outbox& out) {
    while (!backlog_.empty()) {
        const Waiting next = std::move(backlog_.front());
        backlog_.pop_front();
        if (!silent(nowNs)) execute(next.packet, next.fault, nowNs, out);
        backlogDueNs_ = nowNs + pauseNs_;
        if (pauseNs_ != 0) return;
    }
}

bool Ecu::advance(std::int64_t nowNs, Outbox& out) {
    if (halted(nowNs)) return true;
    sendDelayed(nowNs, out);
    if (backlogDueNs_ <= nowNs) workOff(nowNs, out);
    if (nowNs < stalledUntilNs_) return true;
    for (int i = 0; i < kBatchEvents && out.size() < kBatchBytes; ++i) {
        const std::uint8_t event = nextEvent();
        if (dueNs_[event] > ecuTime(nowNs) || nowNs < stalledUntilNs_) return true;
        runEvent(event, nowNs, out);
    }
    return false;
}

std::uint8_t Ecu::nextEvent() const {
    return static_cast<std::uint8_t>(std::min_element(dueNs_.begin(), dueNs_.end()) - dueNs_.begin());
}

void Ecu::runEvent(std::uint8_t event, std::int64_t nowNs, Outbox& out) {
    const std::int64_t nominalNs = dueNs_[event];
    world_.step(event);
    dueNs_[event] += eventIntervalNs(options_, event, world_.counter(event));
    if (silent(nowNs)) return;
    const std::uint64_t before = slave_.daqCounters().samples;
    slave_.sample(event, ticks(nominalNs), out);
    for (std::uint64_t i = before; i < slave_.daqCounters().samples; ++i) {
        onSampleFault(faults_.onSample(), nominalNs, nowNs, out);
    }
}

void Ecu::onSampleFault(const Fault& fault, std::int64_t sampleNs, std::int64_t nowNs, Outbox& out) {
    switch (fault.kind) {
        case FaultKind::silence:
            silence(fault.argument, nowNs);
            return;
        case FaultKind::terminate:
            terminate(out);
            return;
        case FaultKind::restart:
            restart(nowNs);
            return;
        case FaultKind::stall:
            stalledUntilNs_ = nowNs + fault.argument * kNsPerMs;
            return;
        case FaultKind::jump:
            jump(fault.argument, sampleNs);
            return;
        default:
            return;
    }
}

std::int64_t Ecu::nextDueNs() const {
    const std::int64_t event = std::max(hostTime(dueNs_[nextEvent()]), stalledUntilNs_);
    const std::int64_t delayed = delayed_.empty() ? kForever : delayed_.front().dueNs;
    const std::int64_t pending = pendingEveryNs_ == 0 ? kForever : pendingDueNs_;
    const std::int64_t backlog = backlog_.empty() ? kForever : backlogDueNs_;
    return std::max(std::min({event, delayed, pending, backlog}), haltedUntilNs_);
}

void Ecu::terminate(Outbox& out) {
    slave_.reset();
    out.append(std::array<std::uint8_t, 2>{kEventPacket, kEvSessionTerminated});
}

void Ecu::silence(std::uint32_t milliseconds, std::int64_t nowNs) {
    silentUntilNs_ = milliseconds == 0 ? kForever : nowNs + milliseconds * kNsPerMs;
}

}  // namespace lm::sim
