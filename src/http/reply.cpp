#include "http/reply.h"

#include <utility>

#include <fmt/format.h>

#include "core/bytes.h"

namespace lm::http {
namespace {

std::string frameOf(FrameKind kind, std::string_view payload) {
    constexpr std::size_t kHead = 8;
    std::string frame(kHead, '\0');
    writeLittle(reinterpret_cast<std::uint8_t*>(frame.data()),
                static_cast<std::uint32_t>(4 + payload.size()));
    frame[4] = static_cast<char>(kind);
    frame += payload;
    return frame;
}

}  // namespace

void EventStream::wakeIfIdle(bool wasIdle) {
    if (wasIdle && wake_) wake_();
}

bool EventStream::push(std::string_view event, std::string_view data, std::uint64_t weight) {
    return add(formed(event, data), weight);
}

bool EventStream::pushAlways(std::string_view event, std::string_view data) {
    return add(formed(event, data), 0, false);
}

bool EventStream::pushFrame(FrameKind kind, std::string_view payload, std::uint64_t weight) {
    return add(frameOf(kind, payload), weight);
}

bool EventStream::add(std::string_view bytes, std::uint64_t weight, bool mayDrop) {
    bool wasIdle = false;
    {
        const std::lock_guard lock(mutex_);
        if (finished_ || closed()) return false;
        wasIdle = waiting_.empty();
        if (mayDrop && waiting_.size() + bytes.size() > maxBytes_) {
            missed_ += weight;
            missedInAll_ += weight;
            return false;
        }
        addMissedText();
        waiting_ += bytes;
    }
    wakeIfIdle(wasIdle);
    return true;
}

/// The name of an event becomes the first member of its data in a frame.
std::string EventStream::formed(std::string_view event, std::string_view data) const {
    if (form_ == StreamForm::events) return fmt::format("event: {}\ndata: {}\n\n", event, data);
    const std::string_view members = data.substr(1);
    const char* separator = members == "}" ? "" : ",";
    return frameOf(FrameKind::event, fmt::format("{{\"event\":\"{}\"{}{}", event, separator, members));
}

void EventStream::addMissedText() {
    if (missed_ > 0)
        waiting_ += formed("missed", fmt::format("{{\"missed\": {}}}", std::exchange(missed_, 0)));
}

std::string EventStream::alive() const {
    return form_ == StreamForm::events ? ": alive\n\n" : frameOf(FrameKind::alive, {});
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
    addMissedText();
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

std::shared_ptr<EventStream> Reply::stream(StreamForm form) const {
    return state_->answered.exchange(true) ? nullptr : state_->target->stream(form);
}

}  // namespace lm::http
