// The scanner behind parse() and scan(): blocks and tokens in tokenizer.cpp, what included files ask for in
// block_scanner_includes.cpp.
//
// Threads: one at a time. Lifetime: borrows the text, the visitor and the sources.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/block.h"
#include "a2l/block_visitor.h"
#include "a2l/source_texts.h"
#include "core/result.h"

namespace lm::a2l {

// One pass over the text with a stack of open blocks.
class BlockScanner {
  public:
    explicit BlockScanner(std::string_view text, SourceTexts* sources = nullptr) : sources_(sources) {
        open(text);
    }

    Result<Block> buildTree();
    Result<void> visit(BlockVisitor& visitor);

  private:
    using Step = BlockVisitor::Step;

    struct Open {
        std::string_view keyword;
        std::uint32_t line;
        Step step;
        Block* block;  // nullptr: skipped
    };

    /// A text that waits for the end of one it includes.
    struct Waiting {
        const char* at;
        const char* end;
        std::uint32_t line;  // where it goes on, as it counts
        std::string file;
    };

    Result<void> run();
    void open(std::string_view text);
    bool followInclude();
    bool readFileName(std::string_view& name);
    bool enter(std::string_view name, std::uint32_t line);
    void leave();
    void atLine(std::uint32_t line, const std::string& file, std::uint32_t lineThere);
    std::string where(std::uint32_t line) const;
    bool skipBlanks();
    bool skipComment();
    bool readString();
    bool readWord();
    bool readSlash();
    bool readKeyword(std::string_view& keyword);
    bool beginBlock();
    bool endBlock();
    bool skipA2ml(std::uint32_t beginLine);
    void openBlock(std::string_view keyword, std::uint32_t line);
    void closeBlock();
    void append(std::string_view text, TokenKind kind, double value, std::uint32_t line);
    bool startsWithKeyword(std::string_view keyword) const;
    bool fail(std::string message) { return failAt(line_, std::move(message)); }
    bool failAt(std::uint32_t line, std::string message);
    void countLines(const char* from, const char* to);
    void reportInclude();

    SourceTexts* sources_;
    std::vector<Waiting> waiting_;  // innermost last
    std::string file_;              // that is read; empty: the text itself
    std::uint32_t lineOffset_ = 0;  // line_ is so much ahead of the file's own count
    const char* start_ = nullptr;
    const char* at_ = nullptr;
    const char* end_ = nullptr;
    std::uint32_t line_ = 1;
    std::vector<Open> open_;
    Block* block_ = nullptr;  // takes the tokens; nullptr while skipping
    BlockVisitor* visitor_ = nullptr;
    std::deque<Block> descended_;  // one per depth, addresses stay
    Block collected_;
    std::size_t before_ = 0;  // bytes read before start_
    std::size_t size_ = 0;    // of all texts so far
    std::size_t passed_ = 0;
    Error error_;
};

}  // namespace lm::a2l
