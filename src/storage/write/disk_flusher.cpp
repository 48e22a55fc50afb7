#include "storage/write/disk_flusher.h"

#include <pthread.h>
#include <utility>

#include "core/durable_file.h"
#include "core/thread.h"

namespace lm::storage {

Result<void> DiskFlusher::start(std::vector<int> descriptors) {
    descriptors_ = std::move(descriptors);
    auto started = startThread("cannot start the flushing thread", [this] { run(); });
    if (!started) return started.error();
    thread_ = std::move(started).value();
    return {};
}

void DiskFlusher::request() {
    {
        const std::scoped_lock lock(mutex_);
        requested_ = true;
    }
    changed_.notify_one();
}

void DiskFlusher::stop() {
    {
        const std::scoped_lock lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) thread_.join();
}

void DiskFlusher::run() {
    pthread_setname_np(pthread_self(), "rec-flush");
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return requested_ || stopping_; });
        if (stopping_) return;
        requested_ = false;
        lock.unlock();
        for (const int descriptor : descriptors_) {
            if (flushToDisk(descriptor) != 0) failed_ = true;
        }
        lock.lock();
    }
}

}  // namespace lm::storage
