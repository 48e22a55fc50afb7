// Whose answer is it? Answers of XCP carry no command number; this says, packet by packet, which command each
// belongs to.
//
// It holds for a slave that answers in the order of its commands, however late, and for answers that get lost
// or come twice:
//  1. A RES or ERR belongs to the oldest command that is still owed one. It counts only when that is the
//     command waited for.
//  2. ERR_CMD_SYNCH (FE 00) belongs to the oldest SYNCH that is still owed one, never to another command.
//     What was sent before that SYNCH is settled: an answer that had not come by then is lost. A RES or ERR
//     that counts settles the SYNCHs before it likewise, but for what a probe was answered with.
//  3. A fence is closed when a SYNCH was answered after which no command had been sent: nothing can be under
//     way but answers of SYNCHs. When one of its SYNCHs went out while an earlier one was still owed, it
//     takes two answers: one FE 00 may have come twice, and each then seems to belong to the SYNCH after its
//     own. So does a fence that confirms (beCertain()) when an answer was lost since the one before. After an
//     answer that did not come in time the next command waits for a closed fence (clear()).
//  4. An answer that no command is owed is left over. One before it came twice then, and since the last
//     closed fence each command may have been given the answer of the command before. So nothing that was
//     decided since counts (inStep()), unless every command since then was followed by just one copy of its
//     own answer: that slave answers all twice.
//  5. An answer shorter than its command's layout waits for a better one. It counts when none has come until
//     the timeout; when one comes it is left over.
//  6. A command that several packets answer is owed each of them, and has its answer with the last. One that
//     is shorter than its place demands shows that one before it was lost, and ends it; so does an ERR.
//  7. While answers of earlier commands may come, CONNECT takes only what reads as a CONNECT answer; one
//     unlike the last connection's, or a refusal, only the second time.
// It cannot see an answer lost and another doubled between the same two fences, a doubled FE 00 beside
// another doubled answer, a copy that comes more than t1 after what was before it, of a slave that stood
// still besides, or answers that overtake each other.
//
// Threads: none of its own, one caller at a time. No clock, no lock, no packet sent: times are given.
// Lifetime: owns all it holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "xcp/packet.h"

namespace lm::xcp {

/// The positive responses that answer one command; all but the last have the same least length.
struct AnswerParts {
    std::size_t count = 1;
    std::size_t length = 1;
    std::size_t lastLength = 1;
    std::size_t refusals = 0;  ///< ERR that may follow the first: each packet of a block may have its own
};

class AnswerMatcher {
  public:
    enum class Kind : std::uint8_t {
        command,
        probe,  ///< sent without a closed fence: what comes for it may be left over, and settles no SYNCH
        synch,
        connect,
        last,  ///< sent without a fence when all ends: an older command's answer serves when no other comes
    };
    enum class Verdict : std::uint8_t { taken, setAside, dropped };

    /// A packet goes out now, on the host's steady clock; its answer is waited for. `minimumLength`: bytes of
    /// the shortest positive response that fits it.
    void sent(Kind kind, std::size_t minimumLength, std::int64_t nowNs);
    /// Likewise a command of several packets, or one that several answer.
    void sentForParts(const AnswerParts& parts, std::int64_t nowNs);

    /// A RES or ERR came; `receivedNs` on the same clock, 0 when not known.
    Verdict came(std::span<const std::uint8_t> packet, std::int64_t receivedNs);

    /// Whether the packet waited for has its answer; of a SYNCH: whether the fence is closed.
    bool answered() const { return answer_.has_value(); }

    /// What came so far of the parts waited for, in their order.
    const std::vector<Packet>& parts() const { return parts_; }

    /// Ends the wait: the answer, or the short one that was set aside, or nothing.
    std::optional<Packet> endWait();

    /// Nothing is owed but answers of SYNCHs that a closed fence has made harmless.
    bool clear() const { return owed_ == 0 && synchsAfter_ == 0 && closers_ == 0; }
    /// Clear, and no command was sent since the last closed fence.
    bool atFence() const { return clear() && commands_ == 0; }
    /// Nothing is owed at all.
    bool untouched() const { return owed_ == 0 && synchsBefore_ + synchsAfter_ == 0; }
    /// The next fence is to confirm: after an answer that was lost, or seemed so, it takes two answers.
    void beCertain() { doubt_ = std::exchange(lost_, false) || doubt_; }
    /// Whether an answer is left over, or more copies came than commands were sent, since the last closed
    /// fence.
    bool leavesOver() const { return leftOver_ || (copies_ != 0 && copies_ != commands_); }
    /// Whether all that counted was certainly its command's, asked at a closed fence. Forgets.
    bool inStep();
    /// Whether the last command was not followed by a copy of its answer yet.
    bool awaitsCopy() const { return last_.has_value(); }
    /// Whether the slave ever answered a SYNCH.
    bool synchSeen() const { return synchSeen_; }

    /// The answer just taken opened a connection: what was before is past.
    void connected();
    /// Something other than SYNCH has shown that nothing more will come.
    void settle();

  private:
    Verdict cameSynch(bool stale);
    bool fitsConnect(std::span<const std::uint8_t> packet);
    Verdict dropOlder(std::span<const std::uint8_t> packet, std::uint32_t own);
    Verdict camePart(std::span<const std::uint8_t> packet);
    void take(const Packet& packet);
    void settleSynchsBefore();
    void closeFence();

    // What is owed.
    std::uint32_t owed_ = 0;          ///< answers of commands
    std::uint32_t synchsBefore_ = 0;  ///< FE 00 of SYNCHs sent before the last command or closed fence
    std::uint32_t synchsAfter_ = 0;   ///< FE 00 of SYNCHs sent since
    std::uint32_t closers_ = 0;       ///< FE 00 that came of those
    bool doubt_ = false;              ///< a fence takes two of them
    bool lost_ = false;               ///< an answer had not come when a fence closed
    bool synchSeen_ = false;
    bool oddAnswers_ = false;  ///< what came for the first SYNCHs says nothing: their answers, perhaps

    // Since the last closed fence.
    std::uint32_t commands_ = 0;
    std::uint32_t copies_ = 0;
    std::optional<Packet> last_ = {};  ///< the answer that counted last, until a copy of it comes
    bool leftOver_ = false;            ///< until inStep() tells

    // The packet waited for.
    Kind kind_ = Kind::command;
    bool waiting_ = false;
    std::size_t minimumLength_ = 1;
    std::int64_t sentNs_ = 0;
    std::optional<Packet> answer_ = {};
    std::optional<Packet> aside_ = {};
    AnswerParts wanted_ = {};
    std::vector<Packet> parts_ = {};  ///< when it is more than one

    // CONNECT.
    std::optional<Packet> known_ = {};     ///< what opened the last connection
    bool strangers_ = false;               ///< answers of earlier commands may come
    std::optional<Packet> stranger_ = {};  ///< the last one that was taken for such
};

}  // namespace lm::xcp
