// A count that one thread makes and any thread reads.
//
// Threads: add() and subtract() from one thread at a time, get() from any. Without the locked instruction
// that several writers would need: some of these count every packet of a fast ECU.
#pragma once

#include <atomic>
#include <cstdint>

namespace lm::xcp {

class Counter {
  public:
    void add(std::uint64_t count) {
        value_.store(value_.load(std::memory_order_relaxed) + count, std::memory_order_relaxed);
    }
    /// Takes back what was added before.
    void subtract(std::uint64_t count) {
        value_.store(value_.load(std::memory_order_relaxed) - count, std::memory_order_relaxed);
    }
    std::uint64_t get() const { return value_.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::uint64_t> value_{0};
};

}  // namespace lm::xcp
