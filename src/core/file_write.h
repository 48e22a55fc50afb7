// Writing all of some bytes, whatever the system takes at once. A write of nothing counts as a full device
// that does not say so.
//
// Threads: pure functions. Lifetime: the descriptors are the caller's.
#pragma once

#include <cstdint>
#include <string_view>

namespace lm {

struct Written {
    std::uint64_t bytes = 0;
    int systemError = 0;  ///< why not all of them, 0 when all
};

/// Writes at a place of a file.
Written writeAt(int descriptor, std::uint64_t offset, const void* data, std::uint64_t size);

/// Asked when the system refuses: 0 to try again, else the errno to end with.
using AnswerRefusal = int (*)(int descriptor, int systemError);
/// Tries again after EINTR.
int onlyInterrupted(int descriptor, int systemError);

/// Writes at the end of what was written before, or into a pipe or a device. Returns 0 or an errno.
int writeAll(int descriptor, std::string_view text, AnswerRefusal answer = &onlyInterrupted);

}  // namespace lm
