#include "http/reply.h"

#include <utility>

#include <fmt/format.h>

namespace lm::http {

void EventStream::wakeIfIdle(bool wasIdle) {
    if (wasIdle && wake_) wake_();
}

bool EventStream::push(std::string_view event, std::string_view data, std::uint64_t weight) {
    bool wasIdle = false;
    {
        const std::lock_guard lock(mutex_);
        if (finished_ || closed()) return false;
        wasIdle = waiting_.empty();
        if (waiting_.size() + event.size() + data.size() > maxBytes_) {
            missed_ += weight;
            missedInAll_ += weight;
            return false;
        }
        if (missed_ > 0) {
            waiting_ += fmt::format("event: missed\ndata: {{\"missed\": {}}}\n\n", std::exchange(missed_, 0));
        }
        waiting_ += fmt::format("event: {}\ndata: {}\n\n", event, data);
    }
    wakeIfIdle(wasIdle);
    return true;
}

void EventStream::addMissed(std::uint64_t count) {
    const std::lock_guard lock(mutex_);
    missed_ += count;
    missedInAll_ += count;
}

void EventStream::finish() {
    {
        const std::lock_guard lock(mutex_);
        finished_ = true;
    }
    wakeIfIdle(true);
}

std::string EventStream::take() {
    const std::lock_guard lock(mutex_);
    if (missed_ > 0) {
        waiting_ += fmt::format("event: missed\ndata: {{\"missed\": {}}}\n\n", std::exchange(missed_, 0));
    }
    return std::exchange(waiting_, {});
}

bool EventStream::finished() const {
    const std::lock_guard lock(mutex_);
    return finished_ && waiting_.empty();
}

struct Reply::State {
    explicit State(std::unique_ptr<IReplyTarget> to) : target(std::move(to)) {}
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() {
        if (!answered.exchange(true)) {
            target->send(
                errorResponse(500, Error{ErrorCode::ioError, "the request was left without an answer"}));
        }
    }

    const std::unique_ptr<IReplyTarget> target;
    std::atomic<bool> answered{false};
};

Reply::Reply(std::unique_ptr<IReplyTarget> target) : state_(std::make_shared<State>(std::move(target))) {}

void Reply::send(Response response) const {
    if (!state_->answered.exchange(true)) state_->target->send(std::move(response));
}

std::shared_ptr<EventStream> Reply::stream() const {
    return state_->answered.exchange(true) ? nullptr : state_->target->stream();
}

}  // namespace lm::http
