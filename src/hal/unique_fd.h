// A file descriptor that closes itself.
//
// Threads: a plain value of one owner. Lifetime: owns the descriptor.
#pragma once

#include <unistd.h>
#include <utility>

namespace lm::hal {

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
    ~UniqueFd() {
        // Sockets and eventfds hold nothing back that a failing close could lose.
        if (descriptor_ >= 0) ::close(descriptor_);
    }

    int get() const { return descriptor_; }
    bool valid() const { return descriptor_ >= 0; }

  private:
    int descriptor_;
};

}  // namespace lm::hal
