// The matcher alone, through every schedule of a short group: three commands and a SYNCH, of which one answer
// may be lost or come twice, and each answer comes during any of the waits, in order.
#include "xcp/answer_matcher.h"

#include <array>

#include <gtest/gtest.h>

namespace lm::xcp {
namespace {

using Kind = AnswerMatcher::Kind;

constexpr std::array kSent = {Kind::command, Kind::command, Kind::command, Kind::synch};

struct Schedules {
    std::size_t lost;     ///< index of the answer, or none
    std::size_t doubled;  ///< likewise
    std::uint64_t run = 0;
    std::uint64_t believed = 0;
    std::uint64_t wrong = 0;

    /// `right`: each command so far has its own answer. `ready`: answers on their way, oldest first.
    void from(const AnswerMatcher& matcher, std::size_t next, std::vector<std::size_t> ready, bool right) {
        if (next == kSent.size()) {
            AnswerMatcher end = matcher;
            ++run;
            if (!end.clear() || !end.inStep()) return;
            ++believed;
            if (!right) ++wrong;
            return;
        }
        AnswerMatcher sending = matcher;
        sending.sent(kSent[next], kSent[next] == Kind::synch ? 2 : 3, 0);
        if (next != lost) ready.push_back(next);
        if (next == doubled) ready.push_back(next);
        // One more answer comes in this wait each time round.
        std::size_t counted = kSent.size();
        for (std::size_t came = 0;; ++came) {
            AnswerMatcher waited = sending;
            if (waited.endWait()) {
                const bool own = kSent[next] == Kind::synch || counted == next;
                from(waited, next + 1, {ready.begin() + static_cast<std::ptrdiff_t>(came), ready.end()},
                     right && own);
            } else {
                ++run;  // timed out: nothing is decided
            }
            if (came == ready.size()) return;
            const auto of = static_cast<std::uint8_t>(ready[came]);
            const bool synch = kSent[of] == Kind::synch;
            const std::array<std::uint8_t, 3> answer = {synch ? kPidError : kPidResponse,
                                                        synch ? kErrCmdSynch : of, of};
            if (sending.came(answer, 0) == AnswerMatcher::Verdict::taken) counted = of;
        }
    }
};

TEST(AnswerMatcher, NoScheduleOfOneFaultIsBelievedWrongly) {
    constexpr std::size_t kNone = kSent.size();
    std::uint64_t run = 0;
    for (std::size_t fault = 0; fault <= kNone; ++fault) {
        for (const bool doubles : {false, true}) {
            Schedules all{.lost = doubles ? kNone : fault, .doubled = doubles ? fault : kNone};
            all.from(AnswerMatcher(), 0, {}, true);
            EXPECT_EQ(all.wrong, 0U) << fault << doubles;
            const bool harmless = fault == kNone || (doubles && kSent[fault] == Kind::synch);
            EXPECT_EQ(all.believed > 0, harmless) << fault << doubles;
            run += all.run;
        }
    }
    EXPECT_GT(run, 50U);
}

}  // namespace
}  // namespace lm::xcp
