#include "xcp/answer_matcher.h"

#include <algorithm>
#include <array>
#include <utility>

namespace lm::xcp {
namespace {

bool isSynchAnswer(std::span<const std::uint8_t> packet) {
    return packet.size() >= 2 && packet[0] == kPidError && packet[1] == kErrCmdSynch;
}

Packet copyOf(std::span<const std::uint8_t> bytes) {
    Packet packet;
    packet.length = static_cast<std::uint8_t>(std::min(bytes.size(), Packet::kCapacity));
    std::copy_n(bytes.begin(), packet.length, packet.bytes.begin());
    return packet;
}

/// An error, or a positive response without data, which may be padded.
bool saysNothing(std::span<const std::uint8_t> packet) {
    return packet[0] == kPidError ||
           std::ranges::all_of(packet.subspan(1), [](auto byte) { return byte == 0; });
}

bool same(const std::optional<Packet>& known, std::span<const std::uint8_t> packet) {
    return known && std::ranges::equal(known->view(), packet);
}

}  // namespace

void AnswerMatcher::sent(Kind kind, std::size_t minimumLength, std::int64_t nowNs) {
    const bool repeatedConnect = kind_ == Kind::connect && !answer_;
    if (kind == Kind::connect && !repeatedConnect) {
        strangers_ = !clear();
        stranger_.reset();
    }
    kind_ = kind;
    minimumLength_ = minimumLength;
    sentNs_ = nowNs;
    waiting_ = true;
    answer_.reset();
    aside_.reset();
    wanted_ = {};
    parts_.clear();
    if (kind == Kind::synch) {
        doubt_ = doubt_ || synchsBefore_ + synchsAfter_ > 0;
        ++synchsAfter_;
        return;
    }
    synchsBefore_ += std::exchange(synchsAfter_, 0);
    ++owed_;
    ++commands_;
    closers_ = 0;
    last_.reset();
}

void AnswerMatcher::sentForParts(const AnswerParts& parts, std::int64_t nowNs) {
    sent(Kind::command, parts.length, nowNs);
    wanted_ = parts;
    owed_ += static_cast<std::uint32_t>(parts.count - 1 + parts.refusals);
}

AnswerMatcher::Verdict AnswerMatcher::came(std::span<const std::uint8_t> packet, std::int64_t receivedNs) {
    const bool stale = waiting_ && receivedNs != 0 && receivedNs < sentNs_;
    if (isSynchAnswer(packet)) return cameSynch(stale);
    const bool wanted = waiting_ && kind_ != Kind::synch && !answer_;
    if (!wanted) return dropOlder(packet, 0);
    const auto own = static_cast<std::uint32_t>(wanted_.count - parts_.size() + wanted_.refusals);
    if (stale) return dropOlder(packet, own);
    if (kind_ == Kind::connect) {
        if (!fitsConnect(packet)) return dropOlder(packet, 1);
    } else if (owed_ > own) {
        if (kind_ == Kind::last) aside_ = copyOf(packet);
        return dropOlder(packet, own);
    }
    if (wanted_.count > 1 && packet[0] == kPidResponse) return camePart(packet);
    if (packet[0] == kPidResponse && packet.size() < minimumLength_) {
        leftOver_ = leftOver_ || aside_;
        aside_ = copyOf(packet);
        return Verdict::setAside;
    }
    leftOver_ = leftOver_ || aside_;
    take(copyOf(packet));
    return Verdict::taken;
}

AnswerMatcher::Verdict AnswerMatcher::camePart(std::span<const std::uint8_t> packet) {
    const bool isLast = parts_.size() + 1 == wanted_.count;
    if (packet.size() < (isLast ? wanted_.lastLength : wanted_.length)) {
        settleSynchsBefore();
        --owed_;
        answer_ = copyOf(packet);
        return Verdict::taken;
    }
    parts_.push_back(copyOf(packet));
    if (isLast) {
        take(parts_.back());
    } else {
        settleSynchsBefore();
        --owed_;
    }
    return Verdict::taken;
}

AnswerMatcher::Verdict AnswerMatcher::cameSynch(bool stale) {
    synchSeen_ = true;
    // What looked like a strange answer to a SYNCH was none.
    leftOver_ = std::exchange(oddAnswers_, false) || leftOver_;
    const std::uint32_t own = stale && kind_ == Kind::synch ? 1 : 0;
    if (synchsBefore_ > 0) {
        --synchsBefore_;
    } else if (synchsAfter_ > own) {
        --synchsAfter_;
        if (++closers_ > 1 || !doubt_) closeFence();
        if (!waiting_ || kind_ != Kind::synch) return Verdict::dropped;
        answer_ = copyOf(std::array{kPidError, kErrCmdSynch});
        return Verdict::taken;
    }
    return Verdict::dropped;
}

/// `own`: 1 when the command waited for is among those owed, and this is not its answer.
AnswerMatcher::Verdict AnswerMatcher::dropOlder(std::span<const std::uint8_t> packet, std::uint32_t own) {
    if (owed_ > own) {
        --owed_;
    } else if (same(last_, packet)) {
        ++copies_;
        last_.reset();
    } else if (!synchSeen_ && waiting_ && kind_ == Kind::synch && saysNothing(packet)) {
        oddAnswers_ = true;
    } else {
        leftOver_ = true;
    }
    return Verdict::dropped;
}

bool AnswerMatcher::fitsConnect(std::span<const std::uint8_t> packet) {
    if (!strangers_ || same(stranger_, packet)) return true;
    const bool fits = packet[0] == kPidResponse && parseConnect(packet).ok();
    if (fits && (!known_ || same(known_, packet))) return true;
    strangers_ = !fits;
    stranger_ = copyOf(packet);
    return false;
}

void AnswerMatcher::take(const Packet& packet) {
    owed_ = kind_ == Kind::connect ? owed_ - 1 : 0;
    if (packet.code() == kPidError) owed_ += static_cast<std::uint32_t>(wanted_.refusals);
    settleSynchsBefore();
    answer_ = packet;
    last_ = packet;
}

void AnswerMatcher::settleSynchsBefore() {
    if (kind_ == Kind::probe) return;
    synchsBefore_ = 0;
    doubt_ = false;
}

std::optional<Packet> AnswerMatcher::endWait() {
    if (waiting_ && !answer_ && aside_) take(*aside_);
    waiting_ = false;
    return answer_;
}

void AnswerMatcher::closeFence() {
    doubt_ = doubt_ && synchsAfter_ > 0;
    lost_ = lost_ || owed_ > 0;
    owed_ = 0;
    closers_ = 0;
    // Those sent meanwhile are answered before whatever comes next.
    synchsBefore_ = std::exchange(synchsAfter_, 0);
    leftOver_ = leavesOver();
    commands_ = 0;
    copies_ = 0;
    last_.reset();
}

bool AnswerMatcher::inStep() {
    return !std::exchange(leftOver_, false);
}

void AnswerMatcher::connected() {
    known_ = answer_;
    last_.reset();
    commands_ = 0;
    copies_ = 0;
    leftOver_ = false;
}

void AnswerMatcher::settle() {
    closeFence();
    synchsBefore_ = 0;
    oddAnswers_ = false;
    lost_ = false;
}

}  // namespace lm::xcp
