// The lines of a file of records in hexadecimal digits: cut, counted, decoded, and made.
//
// Threads: one at a time. Lifetime: borrows the text.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "core/result.h"

namespace lm::params {

/// Error (invalidArgument): "line N: WHAT".
Error lineError(std::size_t line, const std::string& what, std::string hint);

class RecordLines {
  public:
    explicit RecordLines(std::string_view text) : rest_(text) {}

    /// Goes to the next line that is not empty; blanks at the end of a line do not count.
    bool next();
    std::string_view text() const { return line_; }
    std::size_t number() const { return number_; }
    bool hasCarriageReturns() const { return hasCarriageReturns_; }

    /// The bytes of the digits behind the first `before` characters, valid until the next call. The first is
    /// the length: `counted` bytes of the record are not part of it. Errors: that there are other characters,
    /// too few or too many digits.
    Result<std::span<const std::uint8_t>> decode(std::size_t before, std::size_t counted);

    Error error(const std::string& what, std::string hint) const;

  private:
    std::string_view rest_;
    std::string_view line_;
    std::size_t number_ = 0;
    bool hasCarriageReturns_ = false;
    std::array<std::uint8_t, 264> bytes_{};
};

/// The low eight bits of the sum of the bytes.
std::uint8_t sumOf(std::span<const std::uint8_t> bytes);

/// Two digits for each byte.
void appendHex(std::string& text, std::span<const std::uint8_t> bytes);

}  // namespace lm::params
