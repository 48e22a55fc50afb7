// Writes to a descriptor without waiting for its reader, and without changing the descriptor: O_NONBLOCK set
// on a terminal or pipe would hold for every other process that shares it.
//
// A pipe or terminal is opened again through /proc/self/fd with a mode of its own; a socket has a flag per
// call; a file takes everything. Where the new opening is refused, poll() asks before each write: for a pipe
// that guarantees room for PIPE_BUF bytes.
//
// Threads: one tryWrite at a time, waitWritable also beside it. Lifetime: the descriptor is borrowed and
// stays open.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/result.h"
#include "core/unique_fd.h"

namespace lm::cli {

class NonblockingOutput {
  public:
    /// Longer texts are written in part only.
    static constexpr std::size_t kMaxWrite = 4096;

    explicit NonblockingOutput(int descriptor);
    NonblockingOutput(const NonblockingOutput&) = delete;
    NonblockingOutput& operator=(const NonblockingOutput&) = delete;

    /// How many bytes were taken, 0 when the reader takes none now. Error: ioError with the errno.
    Result<std::size_t> tryWrite(std::string_view text);

    /// To which it writes, for signal handlers.
    int descriptor() const { return descriptor_; }

    /// Waits until a write may succeed or fail, until `wakeUp` is readable, or for `limit` (negative: ever).
    void waitWritable(int wakeUp, std::chrono::milliseconds limit) const;

  private:
    enum class Kind : std::uint8_t { file, reopened, socket, polled };

    UniqueFd own_;  ///< the same, opened for this alone
    int descriptor_;
    Kind kind_;
};

}  // namespace lm::cli
