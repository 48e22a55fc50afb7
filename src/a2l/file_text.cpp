#include "a2l/file_text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/mman.h>
#include <utility>

#include "core/stoppable_input.h"
#include "core/text.h"

namespace lm::a2l {
namespace {

std::unique_ptr<char[]> allocate(std::size_t size) {
    constexpr std::size_t kPage = 4096;
    // Left uninitialised: zeroing would take another pass.
    std::unique_ptr<char[]> bytes(new char[size]);
    // Asking the system for one small page after the other costs more than reading the file into them.
    // Where it has no large ones, nothing is lost.
    void* whole = bytes.get();
    if (std::align(kPage, kPage, whole, size) != nullptr)
        ::madvise(whole, size / kPage * kPage, MADV_HUGEPAGE);
    return bytes;
}

}  // namespace

std::optional<std::string> toUtf8(std::string_view text, bool isUtf8) {
    constexpr std::size_t kMarkSize = 2;
    if (text.starts_with("\xFF\xFE")) return utf16ToUtf8(text.substr(kMarkSize), false);
    if (text.starts_with("\xFE\xFF")) return utf16ToUtf8(text.substr(kMarkSize), true);
    if (isUtf8) return std::nullopt;
    return windows1252ToUtf8(text);
}

FileText::FileText(std::size_t expected) : capacity_(expected), bytes_(allocate(expected)) {}

int FileText::read(int descriptor, std::size_t maxSize, const StopToken& stop) {
    while (size_ <= maxSize) {
        char* const into = room();
        const ssize_t count = readUnlessStopped(descriptor, into, roomSize(), stop);
        if (count == 0) return 0;
        if (count < 0) return errno;
        add(static_cast<std::size_t>(count));
    }
    return EFBIG;
}

std::string_view FileText::decoded() {
    check(size_);
    auto other = toUtf8(text(), utf8_);
    if (!other) return text();
    other_ = std::move(*other);
    bytes_ = nullptr;
    capacity_ = size_ = checked_ = 0;
    return other_;
}

// Room for at least one more step.
char* FileText::room() {
    if (capacity_ - size_ < kReadStep) grow(size_ + size_ / 2 + kReadStep);
    return bytes_.get() + size_;
}

std::size_t FileText::roomSize() const {
    return std::min(capacity_ - size_, kReadStep);
}

void FileText::add(std::size_t count) {
    size_ += count;
    // The last character may go on in the next step.
    std::size_t whole = size_;
    for (int i = 0; i < 4 && whole > checked_; ++i) {
        if ((static_cast<unsigned char>(bytes_[--whole]) & 0xC0U) != 0x80U) break;
    }
    check(whole);
}

void FileText::grow(std::size_t capacity) {
    std::unique_ptr<char[]> larger = allocate(capacity);
    if (size_ > 0) std::memcpy(larger.get(), bytes_.get(), size_);
    bytes_ = std::move(larger);
    capacity_ = capacity;
}

void FileText::check(std::size_t end) {
    utf8_ = utf8_ && isValidUtf8(text().substr(checked_, end - checked_));
    checked_ = end;
}

}  // namespace lm::a2l
