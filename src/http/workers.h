// A few threads that run what they are given, in its order.
//
// Threads: post() from any; create() and stop() belong to the owner. Lifetime: tasks own or outlive what they
// use; all that were posted before stop() are run.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "core/result.h"

namespace lm::http {

class Workers {
  public:
    static Result<std::unique_ptr<Workers>> create(std::size_t count);
    ~Workers() { stop(); }
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    /// False once it is stopped.
    bool post(std::function<void()> task);
    void stop();

  private:
    Workers() = default;
    void run();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> tasks_;
    bool stopped_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace lm::http
