// The newest records of a measurement, in one block of memory of a fixed size: a queue whose reader may come
// back to what it has read, as long as that was not dropped.
//
// Threads: none of its own; its owner's lock, which at() does not need for what is before an end() seen under
// it and is not dropped meanwhile. Lifetime: owns its bytes; what at() returns is valid until that entry is
// dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace lm::watch {

class RecordMemory {
  public:
    /// Counts up over all records of a measurement.
    using Position = std::uint64_t;

    struct Entry {
        std::size_t group = 0;
        std::int64_t timeNs = 0;
        const std::uint8_t* data = nullptr;
        std::size_t size = 0;
        Position next = 0;  ///< of the entry behind it
    };

    /// The memory is not touched before it is used. Without so much memory the capacity is 0.
    explicit RecordMemory(std::uint64_t bytes);

    std::uint64_t capacity() const { return capacity_; }
    Position begin() const { return begin_; }
    Position end() const { return end_; }

    /// False when there is no room, nothing is kept then.
    bool push(std::size_t group, std::int64_t timeNs, const std::uint8_t* data, std::size_t size);
    /// From begin() and before end(). The end of an empty memory is no place of a later entry, begin() is.
    Entry at(Position position) const;
    /// Not when it is empty.
    void dropOldest();

  private:
    void rewind();

    struct Header {
        std::uint32_t size;  ///< kSkip: go on at the start of the block
        std::uint32_t group;
        std::int64_t timeNs;
    };

    std::uint64_t capacity_ = 0;
    std::unique_ptr<std::uint8_t[]> block_;
    Position begin_ = 0;
    Position end_ = 0;
};

}  // namespace lm::watch
