// A file descriptor that closes itself.
//
// Threads: a plain value of one owner. Lifetime: owns the descriptor.
#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace lm {

class UniqueFd {
  public:
    explicit UniqueFd(int descriptor = -1) : descriptor_(descriptor) {}
    UniqueFd(UniqueFd&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    /// Who writes asks close() what a late failure has lost.
    ~UniqueFd() {
        if (valid()) ::close(descriptor_);
    }

    int get() const { return descriptor_; }
    bool valid() const { return descriptor_ >= 0; }
    /// Who takes it closes it.
    int release() { return std::exchange(descriptor_, -1); }
    /// 0 or the errno of a late failure. After EINTR the descriptor is gone all the same.
    int close() {
        if (!valid()) return 0;
        return ::close(std::exchange(descriptor_, -1)) == 0 || errno == EINTR ? 0 : errno;
    }

  private:
    int descriptor_;
};

}  // namespace lm
