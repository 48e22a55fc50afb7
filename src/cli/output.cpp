#include "cli/output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <system_error>

#include "cli/message_output.h"
#include "cli/nonblocking_output.h"
#include "cli/stop_signal.h"
#include "core/file_write.h"
#include "core/printable_text.h"

namespace lm::cli {
namespace {

constexpr std::size_t kBlock = 64 * 1024;

// Texts of A2L files and ECUs must not steer the terminal. Nearly all are plain.
void appendPrintable(std::string& buffer, std::string_view text) {
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
    if (plain) {
        buffer += text;
    } else {
        buffer += printableText(text);
    }
}

// A descriptor that its other users made non-blocking takes text again when its reader has caught up; EINTR
// when a stop request ended the wait for a reader that takes nothing.
int waitForReader(int descriptor, int systemError) {
    if (systemError != EINTR && systemError != EAGAIN) return systemError;
    if (stopRequested()) return EINTR;
    if (systemError == EINTR) return 0;
    std::array<pollfd, 2> waits = {pollfd{descriptor, POLLOUT, 0},
                                   pollfd{stopToken().descriptor(), POLLIN, 0}};
    ::poll(waits.data(), waits.size(), -1);
    return 0;
}

}  // namespace

void Output::append(std::string_view text) {
    if (failure_ != 0) return;
    buffer_ += text;
    if (buffer_.size() >= kBlock) flush();
}

void Output::appendPadded(std::string_view text, std::size_t width) {
    if (failure_ != 0) return;
    const std::size_t before = buffer_.size();
    appendPrintable(buffer_, text);
    const std::size_t added = buffer_.size() - before;
    if (added < width) buffer_.append(width - added, ' ');
}

void Output::appendValueLine(std::string_view name, std::string_view value) {
    appendPadded(name, 50);
    append(' ');
    appendPadded(value, 0);
    append('\n');
}

bool Output::flush() {
    if (failure_ == 0) failure_ = writeAll(descriptor_, buffer_, &waitForReader);
    buffer_.clear();
    return failure_ == 0;
}

int Output::finish(int exitCode) {
    flush();
    return failure_ == EINTR || reportOutputFailure(failure_) ? 1 : exitCode;
}

int Output::finishWithin(std::chrono::milliseconds limit, int exitCode) {
    using Clock = std::chrono::steady_clock;
    NonblockingOutput output(descriptor_);
    const auto deadline = Clock::now() + limit;
    for (std::string_view rest = buffer_; !rest.empty() && Clock::now() < deadline;) {
        const auto taken = output.tryWrite(rest);
        if (!taken) return reportOutputFailure(taken.error().sysErrno) ? 1 : exitCode;
        rest.remove_prefix(taken.value());
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (taken.value() == 0 && left.count() > 0) output.waitWritable(-1, left);
    }
    return exitCode;
}

bool reportOutputFailure(int systemError) {
    if (systemError == 0 || systemError == EPIPE) return false;
    printError("output", Error{ErrorCode::ioError, std::generic_category().message(systemError)});
    return true;
}

void printError(std::string_view prefix, const Error& error) {
    const std::string hint = error.hint.empty() ? "" : hintLine(error);
    printMessage(std::string(prefix) + (prefix.empty() ? "" : ": ") + printableText(error.text()) + "\n" +
                 hint);
}

std::string hintLine(const Error& error) {
    return "hint: " + printableText(error.hint) + "\n";
}

}  // namespace lm::cli
