#include "cli/question.h"

#include <cerrno>
#include <unistd.h>

#include "cli/message_output.h"
#include "cli/stop_signal.h"
#include "core/stoppable_input.h"

namespace lm::cli {

Result<bool> isWanted(const std::string& question) {
    if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDERR_FILENO) == 0) {
        Error error{ErrorCode::permissionDenied, "nothing was changed: " + question};
        error.hint = "without a terminal --yes answers the question";
        return error;
    }
    printMessage(question + " [y/N]\n");
    char answer[64];
    const ssize_t size = readUnlessStopped(STDIN_FILENO, answer, sizeof answer, stopToken());
    if (size < 0)
        return errno == ECANCELED ? Error::stopped("stopped") : Error::fromErrno(errno, "standard input");
    return size > 0 && (answer[0] == 'y' || answer[0] == 'Y');
}

}  // namespace lm::cli
