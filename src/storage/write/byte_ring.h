// The queue of records between the receive threads and the file thread: one block of memory, filled and
// emptied in a circle, nothing allocated per record.
//
// Threads: push() and close() from any number of threads (serialised by a mutex); front(), pop() and rewind()
// from one consumer thread, which takes no lock but in rewind(). Lifetime: the ring owns its bytes; an
// entry's data is valid until pop().
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "storage/write/record_source.h"

namespace lm::storage {

/// An entry in memory: 4 bytes length L (16 + record bytes), 2 bytes group, 6 zero bytes, 8 bytes timestamp,
/// the record; rounded up to a multiple of 4. An entry never wraps: when it does not fit before the end of
/// the buffer, the length 0xFFFFFFFF stands there and the entry at the start.
class ByteRing final : public IRecordSource {
  public:
    static constexpr std::uint64_t kEntryHeader = 20;  ///< bytes of an entry in front of its record
    static constexpr std::uint64_t kMaxCapacity = std::uint64_t{1} << 62U;

    /// `bytes` (at most kMaxCapacity) is rounded up to a power of two, at least 64. Without so much memory
    /// the capacity is 0. The memory is not touched before it is used.
    explicit ByteRing(std::uint64_t bytes);

    std::uint64_t capacity() const { return capacity_; }

    /// False when the entry would be larger than half the ring, when there is no room, or after close().
    bool push(std::uint16_t group, std::int64_t timestampNs, const std::uint8_t* data, std::size_t length);

    /// From now on push() refuses; what is queued stays.
    void close();

    std::optional<QueuedRecord> front() override;
    void pop() override;
    /// Lets an empty ring begin at its start again, so that only as much of its memory is ever touched as was
    /// queued at once. Does nothing while there are entries or a producer is at work.
    void rewind() override;

  private:
    std::uint8_t* at(std::uint64_t position) { return &buffer_[position & mask_]; }

    std::uint64_t capacity_ = 0;
    std::uint64_t mask_ = 0;
    std::unique_ptr<std::uint8_t[]> buffer_;

    // Byte counters that only grow. The producer publishes written_, the consumer read_; each on a cache
    // line of its own.
    alignas(64) std::atomic<std::uint64_t> written_{0};
    alignas(64) std::atomic<std::uint64_t> read_{0};
    std::uint64_t frontEnd_ = 0;  ///< consumer only: position behind the entry that front() returned

    alignas(64) std::mutex mutex_;  ///< producers
    bool closed_ = false;           ///< under mutex_
};

}  // namespace lm::storage
