// Typed readers of a block's tokens, with the messages that the user sees, and the stepping over optional
// keywords.
//
// Threads: pure functions. Lifetime: results are views into the text that the block was read from.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "a2l/block.h"
#include "a2l/diagnostics.h"
#include "core/bytes.h"
#include "value/data_type.h"

namespace lm::a2l {

/// Why a block cannot be read. It never leaves the parser, which tells it and leaves the block out.
class BlockError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// All readers throw BlockError. An index past the last token: "missing LABEL".

/// The text of an unquoted word, also of a number. "LABEL must not be a string".
std::string_view readIdentifier(const Block& block, std::size_t index, std::string_view label);

/// The characters between the quotes, which may hold quotes as "" or \". "LABEL must be a string".
std::string_view readString(const Block& block, std::size_t index, std::string_view label);

/// A string with its quotes as they are meant. Other characters behind a backslash stay as both.
std::string withPlainQuotes(std::string_view text);

/// "LABEL must be a number, got 'TEXT'".
double readNumber(const Block& block, std::size_t index, std::string_view label);

/// Two numbers.
std::pair<double, double> readPair(const Block& block, std::size_t index, std::string_view label);

/// An integral number from 0 to `maximum`, exact over all 64 bits. "LABEL must be a non-negative integer".
std::uint64_t readUnsigned(const Block& block, std::size_t index, std::string_view label,
                           std::uint64_t maximum);

template <std::unsigned_integral T>
T readCount(const Block& block, std::size_t index, std::string_view label) {
    return static_cast<T>(readUnsigned(block, index, label, std::numeric_limits<T>::max()));
}

/// "unknown data type 'WORD'".
value::DataType readDataType(const Block& block, std::size_t index);

/// MSB_FIRST, BIG_ENDIAN, MSB_LAST, LITTLE_ENDIAN. "unknown byte order 'WORD'".
ByteOrder readByteOrder(const Block& block, std::size_t index);

/// A warning about something odd in a block, with its keyword and its place.
void tellOdd(const Block& block, const std::string& what, Diagnostics& diagnostics);

/// A keyword that may stand behind the positional arguments, and how many values follow it. Keywords whose
/// values are names have to be known even when nobody needs them: a name may look like another keyword.
template <typename Id>
struct OptionalKeyword {
    std::string_view text;
    std::size_t values;
    Id id;
};

/// Calls use(id, index of the first value) for each of the keywords among the tokens from `first` on; other
/// tokens are passed over.
template <typename Id, typename Use>
void forEachOptional(const Block& block, std::size_t first, std::span<const OptionalKeyword<Id>> keywords,
                     Use use) {
    const std::span<const Token> tokens = block.tokens();
    for (std::size_t i = first; i < tokens.size(); ++i) {
        if (tokens[i].kind != TokenKind::identifier) continue;
        for (const OptionalKeyword<Id>& keyword : keywords) {
            if (keyword.text != tokens[i].text) continue;
            use(keyword.id, i + 1);
            i += keyword.values;
            break;
        }
    }
}

}  // namespace lm::a2l
