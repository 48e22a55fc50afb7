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

#include <string_view>

#include "a2l/block.h"
#include "a2l/block_visitor.h"
#include "a2l/source_texts.h"
#include "core/result.h"

namespace lm::a2l {

/// The root block. Errors (invalidArgument): "A2L line N: " and "unterminated comment", "unterminated
/// string", "keyword expected after /begin or /end", "unexpected /end KEYWORD", "/end KEYWORD does not match
/// /begin OPEN (line M)", "missing /end OPEN for block at line M", "blocks nested deeper than 250 levels".
Result<Block> parse(std::string_view text);

/// The same errors; what the visitor was given before an error is then void. With `sources`, the text of an
/// included file goes on in place of its `/include`, at any level; errors in it say "A2L FILE line N: ", and
/// further ones are "/include names no file" and those of SourceTexts::enter. Without, and for a `.aml` (the
/// grammar of interface data, which no one here reads), the visitor is told of the directive.
Result<void> scan(std::string_view text, BlockVisitor& visitor, SourceTexts* sources = nullptr);

}  // namespace lm::a2l
