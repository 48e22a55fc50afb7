// What wants the blocks of an A2L text one at a time, while it is tokenized.
//
// Threads: one at a time. Lifetime: a block ends with the call that brings it; keywords and token texts live
// as long as the text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "a2l/block.h"

namespace lm::a2l {

class BlockVisitor {
  public:
    enum class Step : std::uint8_t {
        descend,  ///< ask about its children too; closed() brings its own tokens
        collect,  ///< build it with everything in it; collected() brings it
        skip,     ///< check it only
    };

    virtual ~BlockVisitor() = default;

    /// Asked at the /begin of every child of the root and of a descended block; `depth` is 0 in the root.
    virtual Step opened(std::string_view keyword, std::size_t depth) = 0;
    virtual void collected(const Block& block) = 0;
    /// `depth` as in opened(). The root is closed last, with an empty keyword.
    virtual void closed(const Block& block, std::size_t depth) = 0;
    /// `/include` outside of A2ML; `file` is empty when no name follows in
    /// its line.
    virtual void included(std::string_view file, std::uint32_t line) = 0;
    /// Everything before `offset` has been read and reported. Called behind an /end, not more often than
    /// every kPassedStep bytes.
    virtual void passed(std::size_t offset) = 0;

    static constexpr std::size_t kPassedStep = std::size_t{1} << 20U;
};

}  // namespace lm::a2l
