#include "storage/write/byte_ring.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

#include "core/bytes.h"

namespace lm::storage {
namespace {

constexpr std::uint32_t kSkipToStart = 0xFFFFFFFF;
constexpr std::uint64_t kMinCapacity = 64;
constexpr std::uint64_t kLengthField = 4;
constexpr std::uint64_t kMaxRecord = kSkipToStart - ByteRing::kEntryHeader;

constexpr std::uint64_t roundUpToFour(std::uint64_t size) {
    return (size + 3) & ~std::uint64_t{3};
}

}  // namespace

ByteRing::ByteRing(std::uint64_t bytes) {
    const std::uint64_t capacity = std::bit_ceil(std::clamp(bytes, kMinCapacity, kMaxCapacity));
    buffer_.reset(new (std::nothrow) std::uint8_t[capacity]);
    if (!buffer_) return;
    capacity_ = capacity;
    mask_ = capacity - 1;
}

bool ByteRing::push(std::uint16_t group, std::int64_t timestampNs, const std::uint8_t* data,
                    std::size_t length) {
    if (length > kMaxRecord) return false;
    const std::uint64_t entrySize = roundUpToFour(kEntryHeader + length);
    if (entrySize > capacity_ / 2) return false;

    const std::scoped_lock lock(mutex_);
    if (closed_) return false;
    std::uint64_t position = written_.load(std::memory_order_relaxed);
    const std::uint64_t unread = position - read_.load(std::memory_order_acquire);
    const std::uint64_t beforeEnd = capacity_ - (position & mask_);
    const std::uint64_t skipped = entrySize > beforeEnd ? beforeEnd : 0;
    if (capacity_ - unread < entrySize + skipped) return false;

    if (skipped > 0) {
        writeLittle(at(position), kSkipToStart);
        position += skipped;
    }
    std::uint8_t* entry = at(position);
    writeLittle(entry, static_cast<std::uint32_t>(kEntryHeader - kLengthField + length));
    writeLittle(entry + 4, group);
    std::memset(entry + 6, 0, 6);
    writeLittle(entry + 12, static_cast<std::uint64_t>(timestampNs));
    if (length > 0) std::memcpy(entry + kEntryHeader, data, length);
    written_.store(position + entrySize, std::memory_order_release);
    return true;
}

void ByteRing::close() {
    const std::scoped_lock lock(mutex_);
    closed_ = true;
}

std::optional<QueuedRecord> ByteRing::front() {
    std::uint64_t position = read_.load(std::memory_order_relaxed);
    if (position == written_.load(std::memory_order_acquire)) return std::nullopt;
    auto length = readLittle<std::uint32_t>(at(position));
    if (length == kSkipToStart) {
        position += capacity_ - (position & mask_);
        length = readLittle<std::uint32_t>(at(position));
    }
    const std::uint8_t* entry = at(position);
    frontEnd_ = position + roundUpToFour(kLengthField + length);
    return QueuedRecord{readLittle<std::uint16_t>(entry + 4),
                        static_cast<std::int64_t>(readLittle<std::uint64_t>(entry + 12)),
                        entry + kEntryHeader, length - (kEntryHeader - kLengthField)};
}

void ByteRing::pop() {
    read_.store(frontEnd_, std::memory_order_release);
}

void ByteRing::rewind() {
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock) return;
    const std::uint64_t position = written_.load(std::memory_order_relaxed);
    if (position != read_.load(std::memory_order_relaxed)) return;
    const std::uint64_t start = (position + mask_) & ~mask_;
    read_.store(start, std::memory_order_relaxed);
    written_.store(start, std::memory_order_relaxed);
}

}  // namespace lm::storage
