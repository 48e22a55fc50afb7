#include "cli/stop_signal.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <limits>
#include <poll.h>
#include <utility>

#include "cli/terminal_screen.h"
#include "core/thread.h"

namespace lm::cli {
namespace {

/// Never destroyed: a signal may come and a detached thread ask to the very end.
StopSource* stopSource = nullptr;
std::atomic<std::int64_t> stoppedMs{std::numeric_limits<std::int64_t>::max()};
static_assert(std::atomic<std::int64_t>::is_always_lock_free, "a signal handler stores it");

// timeout(1) signals its command and then the command's process group: signals this close together are one.
// The end of a login sends SIGHUP several times, from the terminal, the shell and the kernel: it never kills.
constexpr std::int64_t kOneStopMs = 300;

void setAction(int number, void (*handler)(int)) {
    // No SA_RESTART: a blocked write notices the stop.
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(number, &action, nullptr);
}

std::int64_t nowMs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

void onStopSignal(int number) {
    const int before = errno;
    if (stopSource->requestFromSignalHandler()) {
        stoppedMs.store(nowMs());
    } else if (number != SIGHUP && nowMs() - stoppedMs.load() >= kOneStopMs) {
        restoreTerminal();
        setAction(number, SIG_DFL);
        raise(number);  // delivered when the handler has returned
    }
    errno = before;
}

}  // namespace

Result<void> installStopHandlers() {
    auto source = StopSource::create();
    if (!source) return source.error();
    stopSource = new StopSource(std::move(source).value());
    setAction(SIGPIPE, SIG_IGN);
    setAction(SIGXFSZ, SIG_IGN);  // a file at its size limit is a write error like a full disk
    setAction(SIGINT, onStopSignal);
    setAction(SIGTERM, onStopSignal);
    struct sigaction hangup = {};
    sigaction(SIGHUP, nullptr, &hangup);
    // Ignored under nohup(1).
    if (hangup.sa_handler != SIG_IGN) setAction(SIGHUP, onStopSignal);
    return {};
}

bool stopRequested() {
    return stopToken().requested();
}

StopToken stopToken() {
    return stopSource == nullptr ? StopToken() : stopSource->token();
}

StopWatcher::~StopWatcher() {
    if (!thread_.joinable()) return;
    end_->request();
    thread_.join();
}

Result<void> StopWatcher::start() {
    auto end = StopSource::create();
    if (!end) return end.error();
    end_ = std::move(end).value();
    auto thread = startThread("cannot watch for signals", [end = end_->token()] {
        std::array<pollfd, 2> waits = {pollfd{stopToken().descriptor(), POLLIN, 0},
                                       pollfd{end.descriptor(), POLLIN, 0}};
        while (::poll(waits.data(), waits.size(), -1) < 0 && errno == EINTR) {
        }
        if (waits[1].revents == 0) stopSource->request();
    });
    if (!thread) return thread.error();
    thread_ = std::move(thread).value();
    return {};
}

}  // namespace lm::cli
