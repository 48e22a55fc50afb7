// A question that a slave need not know. One that it refuses as unknown, or leaves without an answer while it
// answers SYNCH, is passed over; a slave in trouble is not mistaken for one that does not know it.
//
// Threads: whoever holds the line. Lifetime: a Silence borrows the turn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "xcp/connection.h"

namespace lm::xcp {

/// Finds out that a slave never answers a question. One in trouble is told from it by its SYNCHs, which it
/// leaves unanswered, and by its answers, which come too late.
class Silence {
  public:
    explicit Silence(const Connection::Turn& turn) : turn_(turn), dropped_(turn.droppedAnswers()) {}

    bool means(const Error& error, const Repeats& repeats) const {
        return error.code == ErrorCode::timeout && turn_.answeredAllSynchs(repeats) &&
               turn_.droppedAnswers() == dropped_;
    }

  private:
    const Connection::Turn& turn_;
    const std::uint64_t dropped_;
};

/// The answer to a question that a slave need not know; nothing when it does not.
Result<std::optional<Packet>> askOptional(Connection::Turn& turn, const Packet& question,
                                          std::size_t minimumLength);

}  // namespace lm::xcp
