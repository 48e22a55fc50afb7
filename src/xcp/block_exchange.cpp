// Block transfer: one command of several packets, or answered by several.
#include "xcp/connection.h"

namespace lm::xcp {

Result<TransferAnswer> Connection::exchangeBlock(std::span<const Packet> packets, const AnswerParts& parts,
                                                 Clock::duration pause) {
    const Packet& command = packets.front();
    if (auto fenced = fenceBefore(command); !fenced) return fenced.error();
    auto answer = exchange(packets, timeout(0), Kind::command, parts, pause);
    if (!answer) return answer.error();
    TransferAnswer block;
    {
        const std::lock_guard lock(answerMutex_);
        block.parts = matcher_.parts();
    }
    if (!answer.value()) return block;
    const Packet& last = *answer.value();
    if (last.code() == kPidError) {
        block.refusal = errorOf(command, last);
    } else {
        block.isWhole = parts.count == 1 || block.parts.size() == parts.count;
    }
    return block;
}

}  // namespace lm::xcp
