// From A2L text to a tree of blocks: what stands between /begin KEYWORD and /end KEYWORD, as tokens and child
// blocks. Knows no keyword but A2ML, whose content it passes over unread.
//
// Two ways over one scanner, with the same blocks and the same errors: parse() builds the whole tree; scan()
// hands the blocks that a visitor asks for over one at a time and forgets them, so that a large file needs
// the memory of its largest block.
//
// Threads: pure functions. Lifetime: keywords and token texts are views into the text given, which must
// outlive the blocks; blocks given to a visitor end with the call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "core/result.h"

namespace lm::a2l {

enum class TokenKind : std::uint8_t {
    identifier = 0,  ///< a word that is not a number
    string = 1,      ///< the characters between the quotes; one inside stands there as "" or \"
    number = 2,      ///< a word that is a number as a whole
};

struct Token {
    std::string_view text;
    double value = 0;  ///< of a number; infinite beyond the range of a double
    std::uint32_t line = 0;
    TokenKind kind = TokenKind::identifier;

    /// An unquoted word equal to `word`.
    bool is(std::string_view word) const { return kind != TokenKind::string && text == word; }
};

class Block {
  public:
    std::string_view keyword;  ///< empty: the root, the whole file
    std::uint32_t line = 1;    ///< of its /begin

    /// How many tokens of the parent stand before this block: the order between tokens and children.
    std::uint32_t position = 0;

    /// Some string in here holds a quote: texts need a look only then.
    bool hasQuotes = false;

    std::span<const Token> tokens() const { return tokens_; }
    std::span<const Block> children() const { return {children_.data(), childCount_}; }

    /// The first child with this keyword, or nullptr.
    const Block* child(std::string_view name) const;

  private:
    friend class BlockScanner;

    // Forgets the content but keeps the memory, also that of the children, for the next block.
    void reset(std::string_view newKeyword, std::uint32_t newLine, std::uint32_t newPosition);
    Block& addChild();

    std::vector<Token> tokens_;
    std::vector<Block> children_;  // those from childCount_ on are kept for reuse
    std::size_t childCount_ = 0;
};

/// What scan() reports.
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
    /// `/include` outside of A2ML; `file` is empty when no string follows.
    virtual void included(std::string_view file, std::uint32_t line) = 0;
    /// Everything before `offset` has been read and reported. Called behind an /end, not more often than
    /// every kPassedStep bytes.
    virtual void passed(std::size_t offset) = 0;

    static constexpr std::size_t kPassedStep = std::size_t{1} << 20U;
};

/// The root block. Errors (invalidArgument): "A2L line N: " and "unterminated comment", "unterminated
/// string", "keyword expected after /begin or /end", "unexpected /end KEYWORD", "/end KEYWORD does not match
/// /begin OPEN (line M)", "missing /end OPEN for block at line M", "blocks nested deeper than 250 levels".
Result<Block> parse(std::string_view text);

/// The same errors; what the visitor was given before an error is then void.
Result<void> scan(std::string_view text, BlockVisitor& visitor);

}  // namespace lm::a2l
