#include "watch/record_memory.h"

#include <cstring>
#include <limits>
#include <new>

namespace lm::watch {
namespace {

constexpr std::uint32_t kSkip = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t kStep = 8;  // there is room for the size of a header at every position

std::uint64_t rounded(std::uint64_t bytes) {
    return (bytes + kStep - 1) / kStep * kStep;
}

}  // namespace

RecordMemory::RecordMemory(std::uint64_t bytes) {
    const std::uint64_t capacity = rounded(bytes);
    block_.reset(new (std::nothrow) std::uint8_t[capacity]);
    if (block_) capacity_ = capacity;
}

bool RecordMemory::push(std::size_t group, std::int64_t timeNs, const std::uint8_t* data, std::size_t size) {
    const std::uint64_t needed = rounded(sizeof(Header) + size);
    if (begin_ == end_ && needed <= capacity_) rewind();
    const std::uint64_t behind = capacity_ - end_ % capacity_;
    const std::uint64_t skipped = behind < needed ? behind : 0;
    if (size >= kSkip || end_ - begin_ + skipped + needed > capacity_) return false;
    if (skipped != 0) std::memcpy(&block_[end_ % capacity_], &kSkip, sizeof kSkip);
    end_ += skipped;
    const Header header{static_cast<std::uint32_t>(size), static_cast<std::uint32_t>(group), timeNs};
    std::uint8_t* const place = &block_[end_ % capacity_];
    std::memcpy(place, &header, sizeof header);
    if (size != 0) std::memcpy(place + sizeof header, data, size);
    end_ += needed;
    return true;
}

/// Begins at the start of the block again, so that it touches no more of it than it holds at once.
void RecordMemory::rewind() {
    const std::uint64_t place = end_ % capacity_;
    if (place != 0) begin_ = end_ += capacity_ - place;
}

RecordMemory::Entry RecordMemory::at(Position position) const {
    std::uint32_t size = 0;
    std::memcpy(&size, &block_[position % capacity_], sizeof size);
    if (size == kSkip) position += capacity_ - position % capacity_;
    Header header{};
    const std::uint8_t* const place = &block_[position % capacity_];
    std::memcpy(&header, place, sizeof header);
    return {header.group, header.timeNs, place + sizeof header, header.size,
            position + rounded(sizeof header + header.size)};
}

void RecordMemory::dropOldest() {
    begin_ = at(begin_).next;
}

}  // namespace lm::watch
