#include "serve/ecu_desk.h"

#include <algorithm>
#include <pthread.h>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "core/thread.h"

namespace lm::serve {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLook{100};

}  // namespace

Result<void> EcuDesk::start(std::function<void(session::Session&)> look) {
    look_ = std::move(look);
    Result<std::thread> desk = startThread("cannot start the thread of the ECU", [this] { run(); });
    if (!desk) return desk.error();
    thread_ = std::move(desk).value();
    Result<std::thread> limits =
        startThread("cannot start the thread of the limits", [this] { watchLimits(); });
    if (!limits) return limits.error();
    limits_ = std::move(limits).value();
    return {};
}

void EcuDesk::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) thread_.join();
    if (limits_.joinable()) limits_.join();
    std::deque<Waiting> left;
    {
        const std::lock_guard lock(mutex_);
        left.swap(queue_);
    }
    for (const Waiting& one : left)
        one.reply.fail(Error::stopped("the server is being stopped"));
}

void EcuDesk::post(const http::Reply& reply, milliseconds limit, bool needsEcu, Task task) {
    {
        const std::lock_guard lock(mutex_);
        if (!stopping_) {
            queue_.push_back({reply, Clock::now() + limit, needsEcu, std::move(task)});
            changed_.notify_all();
            return;
        }
    }
    reply.fail(Error::stopped("the server is being stopped"));
}

void EcuDesk::run() {
    pthread_setname_np(pthread_self(), "ecu-desk");
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            changed_.wait_for(lock, kLook, [this] { return stopping_ || !queue_.empty(); });
            if (stopping_) return;
        }
        // What waits for others meanwhile stays in the queue, where its limit is watched.
        const auto alone = alone_ ? alone_() : Result<std::shared_ptr<void>>(nullptr);
        std::optional<Waiting> one;
        {
            const std::lock_guard lock(mutex_);
            if (!queue_.empty()) {
                one = std::move(queue_.front());
                queue_.pop_front();
            }
        }
        if (!alone) {
            if (one) one->reply.fail(alone.error());
            continue;
        }
        if (one) runOne(*one);
        heartbeat();
        look_(session_);
    }
}

void EcuDesk::runOne(Waiting& one) {
    if (Clock::now() >= one.deadline) {
        one.reply.fail(Error{ErrorCode::timeout, "the ECU was busy with other requests for too long"});
        return;
    }
    if (doubtful_) nextBeat_ = {};
    if (one.needsEcu && (doubtful_ || !connected_)) {
        heartbeat();
        if (!connected_) {
            Error error{ErrorCode::notOpen, "the ECU is not connected"};
            error.hint = lastError_;
            return one.reply.fail(error);
        }
    }
    one.task(session_);
}

Result<void> EcuDesk::connect() {
    if (Result<void> opened = session_.open(); !opened) return opened;
    session_.watchForReset();
    connected_ = true;
    nextBeat_ = Clock::now() + session_.config().reconnect.heartbeat;
    lastError_.clear();
    return {};
}

/// While it measures, the supervisor of the measurement does this.
void EcuDesk::heartbeat() {
    using session::SessionState;
    doubtful_ = false;
    const SessionState state = session_.state();
    const Clock::time_point now = Clock::now();
    if (state == SessionState::measuring || state == SessionState::reconnecting) return;
    if (connected_ && state == SessionState::failed)
        return lost(Error{ErrorCode::timeout, "the measurement failed"});
    if (connected_ && now >= nextBeat_) {
        nextBeat_ = now + session_.config().reconnect.heartbeat;
        const Result<xcp::SlaveStatus> status = session_.status();
        if (!status) lost(status.error());
        return;
    }
    if (connected_ || now < nextTry_) return;
    const Result<void> connected = connect();
    nextTry_ = Clock::now() + session_.config().reconnect.interval;
    if (connected || connected.error().text() == lastError_) return;
    lastError_ = connected.error().text();
    chronicle_.note("warning", "not connected: " + lastError_);
}

void EcuDesk::lost(const Error& error) {
    connected_ = false;
    lastError_ = error.text();
    chronicle_.note("warning", "connection lost: " + lastError_);
}

EcuDesk::Clock::time_point EcuDesk::nextDeadline() const {
    Clock::time_point next = Clock::time_point::max();
    for (const Waiting& one : queue_)
        next = std::min(next, one.deadline);
    return next;
}

void EcuDesk::watchLimits() {
    pthread_setname_np(pthread_self(), "desk-limits");
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        const Clock::time_point next = nextDeadline();
        if (next == Clock::time_point::max()) {
            changed_.wait(lock);
        } else {
            changed_.wait_until(lock, next);
        }
        std::vector<http::Reply> late;
        const Clock::time_point now = Clock::now();
        std::erase_if(queue_, [&](const Waiting& one) {
            if (now < one.deadline) return false;
            late.push_back(one.reply);
            return true;
        });
        lock.unlock();
        for (const http::Reply& reply : late) {
            reply.fail(Error{ErrorCode::timeout, "the ECU was busy with other requests for too long"});
        }
        late.clear();
        lock.lock();
    }
}

}  // namespace lm::serve
