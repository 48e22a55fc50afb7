// The text of one file: its bytes, and its encoding.
//
// The file is read, not mapped: a mapping of a file that another program cuts short meanwhile ends the
// process.
//
// Threads: one at a time. Lifetime: owns the text, which stays where it is when the FileText is moved, but
// for a decoded one of another encoding.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "core/stop_token.h"

namespace lm::a2l {

/// Far above the largest A2L files: what has no end is not read until the memory has one.
constexpr std::size_t kMaxText = std::size_t{2} << 30U;

/// The text in UTF-8 when it is something else; none for UTF-8.
std::optional<std::string> toUtf8(std::string_view text, bool isUtf8);

/// The bytes of a file as they come, and whether they are UTF-8: this is seen while they are in the cache,
/// not in a pass of its own over hundreds of megabytes.
class FileText {
  public:
    explicit FileText(std::size_t expected = 0);

    std::string_view text() const { return {bytes_.get(), size_}; }

    /// Reads to the end: 0, or the errno of what failed; EFBIG above `maxSize`.
    int read(int descriptor, std::size_t maxSize, const StopToken& stop);

    /// What was read, in UTF-8, valid as long as this.
    std::string_view decoded();

    static constexpr std::size_t kReadStep = std::size_t{256} << 10U;

  private:
    char* room();
    std::size_t roomSize() const;
    void add(std::size_t count);
    void grow(std::size_t capacity);
    void check(std::size_t end);

    std::size_t capacity_;
    std::unique_ptr<char[]> bytes_;
    std::size_t size_ = 0;
    std::size_t checked_ = 0;
    bool utf8_ = true;
    std::string other_;  // when the file has another encoding
};

}  // namespace lm::a2l
