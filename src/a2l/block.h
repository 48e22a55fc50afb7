// What stands between /begin KEYWORD and /end KEYWORD of an A2L text: tokens and child blocks.
//
// Threads: plain data. Lifetime: keywords and token texts are views into the text that was tokenized, which
// must outlive the blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

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
    const Block* child(std::string_view name) const {
        for (const Block& block : children()) {
            if (block.keyword == name) return &block;
        }
        return nullptr;
    }

  private:
    friend class BlockScanner;

    // Forgets the content but keeps the memory, also that of the children, for the next block.
    void reset(std::string_view newKeyword, std::uint32_t newLine, std::uint32_t newPosition) {
        keyword = newKeyword;
        line = newLine;
        position = newPosition;
        hasQuotes = false;
        tokens_.clear();
        childCount_ = 0;
    }
    Block& addChild() {
        if (childCount_ == children_.size()) children_.emplace_back();
        return children_[childCount_++];
    }

    std::vector<Token> tokens_;
    std::vector<Block> children_;  // those from childCount_ on are kept for reuse
    std::size_t childCount_ = 0;
};

}  // namespace lm::a2l
