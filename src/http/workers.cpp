#include "http/workers.h"

#include <utility>

#include "core/thread.h"

namespace lm::http {

Result<std::unique_ptr<Workers>> Workers::create(std::size_t count) {
    std::unique_ptr<Workers> workers(new Workers);
    for (std::size_t i = 0; i < count; ++i) {
        Result<std::thread> thread =
            startThread("cannot start a thread for requests", [owner = workers.get()] { owner->run(); });
        if (!thread) return thread.error();
        workers->threads_.push_back(std::move(thread).value());
    }
    return workers;
}

bool Workers::post(std::function<void()> task) {
    {
        const std::lock_guard lock(mutex_);
        if (stopped_) return false;
        tasks_.push_back(std::move(task));
    }
    changed_.notify_one();
    return true;
}

void Workers::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) {
        if (thread.joinable()) thread.join();
    }
}

void Workers::run() {
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return stopped_ || !tasks_.empty(); });
            if (tasks_.empty()) return;
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        task();
    }
}

}  // namespace lm::http
