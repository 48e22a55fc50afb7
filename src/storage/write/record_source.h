// Where the thread of a recording takes its records from: its own queue, or a memory that somebody else fills
// and from which records need no copy on their way.
//
// Threads: the writer's thread alone calls it. Lifetime: what front() returns is valid until pop().
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace lm::storage {

struct QueuedRecord {
    std::uint16_t group = 0;
    std::int64_t timestampNs = 0;
    const std::uint8_t* data = nullptr;
    std::size_t length = 0;
};

class IRecordSource {
  public:
    virtual ~IRecordSource() = default;
    /// The oldest record, none when there is none now.
    virtual std::optional<QueuedRecord> front() = 0;
    /// That one is done with.
    virtual void pop() = 0;
    /// It was found empty, and is asked again in a while.
    virtual void rewind() {}
};

}  // namespace lm::storage
