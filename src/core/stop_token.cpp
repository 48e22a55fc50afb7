#include "core/stop_token.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <mutex>
#include <optional>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "core/unique_fd.h"

namespace lm {

class StopState {
  public:
    StopState(UniqueFd event, const StopToken& parent) : event_(std::move(event)), parent_(parent) {
        link_.emplace(parent, [this] {
            const std::lock_guard lock(mutex_);
            wakeLocked();
        });
    }
    ~StopState() { link_.reset(); }  // uses the others
    StopState(const StopState&) = delete;
    StopState& operator=(const StopState&) = delete;

    int event() const { return event_.get(); }
    bool requested() const { return own_.load() || parent_.requested(); }

    bool requestFromSignalHandler() noexcept {
        const bool first = !own_.exchange(true);
        signal();
        return first;
    }

    void request() {
        const std::lock_guard lock(mutex_);
        own_.store(true);
        wakeLocked();
    }

    void reset() {
        const std::lock_guard lock(mutex_);
        own_.store(false);
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t drained = ::read(event_.get(), &count, sizeof(count));
        // The parent's request may have come before its callback.
        if (requested()) signal();
    }

    void add(const StopCallback& callback) {
        const std::lock_guard lock(mutex_);
        callbacks_.push_back(&callback);
        if (requested()) callback.function_();
    }

    void remove(const StopCallback& callback) {
        const std::lock_guard lock(mutex_);
        callbacks_.erase(std::remove(callbacks_.begin(), callbacks_.end(), &callback), callbacks_.end());
    }

  private:
    void wakeLocked() const {
        signal();
        for (const StopCallback* const callback : callbacks_)
            callback->function_();
    }
    void signal() const noexcept {
        const std::uint64_t one = 1;
        // Fails only when the counter is full, and then the descriptor is readable.
        [[maybe_unused]] const ssize_t count = ::write(event_.get(), &one, sizeof(one));
    }

    static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler stores it");
    std::atomic<bool> own_{false};
    const UniqueFd event_;
    const StopToken parent_;
    std::mutex mutex_;
    std::vector<const StopCallback*> callbacks_;  // under mutex_
    std::optional<StopCallback> link_;            // set for life
};

bool StopToken::requested() const {
    return state_ && state_->requested();
}

int StopToken::descriptor() const {
    return state_ ? state_->event() : -1;
}

bool StopToken::waitFor(std::chrono::milliseconds time) const {
    using Clock = std::chrono::steady_clock;
    constexpr std::int64_t kLongest = std::numeric_limits<int>::max();
    const auto end = Clock::now() + time;
    while (!requested()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) return false;
        pollfd wait{descriptor(), POLLIN, 0};
        ::poll(&wait, 1, static_cast<int>(std::min<std::int64_t>(left, kLongest)));
    }
    return true;
}

Result<StopSource> StopSource::create(const StopToken& parent) {
    UniqueFd event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!event.valid()) return Error::fromErrno(errno, "cannot create an event descriptor");
    return StopSource(std::make_shared<StopState>(std::move(event), parent));
}

void StopSource::request() {
    state_->request();
}

bool StopSource::requestFromSignalHandler() noexcept {
    return state_->requestFromSignalHandler();
}

void StopSource::reset() {
    state_->reset();
}

StopCallback::StopCallback(const StopToken& token, std::function<void()> function)
    : state_(token.state_), function_(std::move(function)) {
    if (state_) state_->add(*this);
}

StopCallback::~StopCallback() {
    if (state_) state_->remove(*this);
}

}  // namespace lm
