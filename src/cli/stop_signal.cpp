#include "cli/stop_signal.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <limits>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "core/thread.h"

namespace lm::cli {
namespace {

std::atomic<bool> stopFlag{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler stores it");
std::atomic<std::int64_t> stoppedMs{std::numeric_limits<std::int64_t>::max()};
static_assert(std::atomic<std::int64_t>::is_always_lock_free, "a signal handler stores it");
int stopEvent = -1;

// timeout(1) signals its command and then the command's process group: signals this close together are one.
// The end of a login sends SIGHUP several times, from the terminal, the shell and the kernel: it never kills.
constexpr std::int64_t kOneStopMs = 300;

void signal(int descriptor) {
    const std::uint64_t one = 1;
    // The counter cannot overflow with the few events of a process, so the write does not fail.
    [[maybe_unused]] const ssize_t count = ::write(descriptor, &one, sizeof(one));
}

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
    if (!stopFlag.exchange(true)) {
        stoppedMs.store(nowMs());
        signal(stopEvent);
    } else if (number != SIGHUP && nowMs() - stoppedMs.load() >= kOneStopMs) {
        setAction(number, SIG_DFL);
        raise(number);  // delivered when the handler has returned
    }
    errno = before;
}

}  // namespace

Result<void> installStopHandlers() {
    stopEvent = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (stopEvent < 0) return Error::fromErrno(errno, "cannot create an event descriptor");
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
    return stopFlag.load();
}

int stopDescriptor() {
    return stopEvent;
}

StopWatcher::StopWatcher(std::function<void()> onStop)
    : onStop_(std::move(onStop)), end_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (end_ < 0) throw std::system_error(errno, std::generic_category(), "event descriptor");
}

StopWatcher::~StopWatcher() {
    signal(end_);
    if (thread_.joinable()) thread_.join();
    ::close(end_);
}

Result<void> StopWatcher::start() {
    auto thread = startThread("cannot watch for signals", [this] { watch(); });
    if (!thread) return thread.error();
    thread_ = std::move(thread).value();
    return {};
}

void StopWatcher::stopNow() {
    std::call_once(called_, onStop_);
}

void StopWatcher::watch() {
    std::array<pollfd, 2> waits = {pollfd{stopEvent, POLLIN, 0}, pollfd{end_, POLLIN, 0}};
    while (::poll(waits.data(), waits.size(), -1) < 0 && errno == EINTR) {
    }
    if (waits[1].revents == 0) stopNow();
}

}  // namespace lm::cli
