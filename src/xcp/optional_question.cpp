#include "xcp/optional_question.h"

#include "core/log.h"

namespace lm::xcp {

Result<std::optional<Packet>> askOptional(Connection::Turn& turn, const Packet& question,
                                          std::size_t minimumLength) {
    Repeats repeats;
    const Silence silence(turn);
    for (;;) {
        auto answer = turn.attempt(question, minimumLength, repeats);
        if (answer && answer.value()) return answer;
        if (answer) continue;  // SYNCH was answered
        const Error& error = answer.error();
        if (!silence.means(error, repeats) && error.detail != kErrCmdUnknown) return error;
        log::info("{}; taken as not known to the ECU", error.text());
        return std::optional<Packet>{};
    }
}

}  // namespace lm::xcp
