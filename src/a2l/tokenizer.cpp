#include "a2l/tokenizer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "a2l/block_scanner.h"
#include "a2l/number_word.h"

namespace lm::a2l {
namespace {

// Real files nest some ten levels; the limit keeps everything that walks the tree from exhausting the stack.
constexpr std::size_t kMaxBlockDepth = 250;

enum class Class : std::uint8_t { other, blank, lineFeed, word, quote, slash };

constexpr std::array<Class, 256> makeClasses() {
    std::array<Class, 256> classes{};
    for (const char c : {' ', '\t', '\v', '\f', '\r'})
        classes[static_cast<unsigned char>(c)] = Class::blank;
    classes['\n'] = Class::lineFeed;
    classes['"'] = Class::quote;
    classes['/'] = Class::slash;
    for (unsigned c = '0'; c <= '9'; ++c)
        classes[c] = Class::word;
    for (unsigned c = 'A'; c <= 'Z'; ++c)
        classes[c] = classes[c + ('a' - 'A')] = Class::word;
    for (const char c : {'+', '-', '.', '_', '[', ']'})
        classes[static_cast<unsigned char>(c)] = Class::word;
    return classes;
}

constexpr std::array<Class, 256> kClasses = makeClasses();

Class classOf(char c) {
    return kClasses[static_cast<unsigned char>(c)];
}

}  // namespace

Result<Block> BlockScanner::buildTree() {
    Block root;
    block_ = &root;
    open_.push_back({{}, 1, Step::collect, block_});
    if (auto result = run(); !result) return result.error();
    return root;
}

Result<void> BlockScanner::visit(BlockVisitor& visitor) {
    visitor_ = &visitor;
    block_ = &descended_.emplace_back();
    open_.push_back({{}, 1, Step::descend, block_});
    if (auto result = run(); !result) return result.error();
    visitor.closed(*block_, 0);
    return {};
}

Result<void> BlockScanner::run() {
    while (skipBlanks()) {
        if (at_ == end_) {
            if (!waiting_.empty()) {
                leave();
                continue;
            }
            const Open& open = open_.back();
            if (open_.size() == 1) return {};
            fail("missing /end " + std::string(open.keyword) + " for block at " + where(open.line));
            break;
        }
        const Class c = classOf(*at_);
        const bool good = c == Class::word    ? readWord()
                          : c == Class::quote ? readString()
                          : c == Class::slash
                              ? readSlash()
                              : (append({at_, 1}, TokenKind::identifier, 0, line_), ++at_, true);
        if (!good) break;
    }
    return error_;
}

bool BlockScanner::failAt(std::uint32_t line, std::string message) {
    error_.code = ErrorCode::invalidArgument;
    error_.message = "A2L " + where(line) + ": " + std::move(message);
    return false;
}

void BlockScanner::countLines(const char* from, const char* to) {
    while (from != to) {
        const auto* found =
            static_cast<const char*>(std::memchr(from, '\n', static_cast<std::size_t>(to - from)));
        if (found == nullptr) return;
        ++line_;
        from = found + 1;
    }
}

void BlockScanner::append(std::string_view text, TokenKind kind, double value, std::uint32_t line) {
    if (block_ != nullptr) block_->tokens_.push_back({text, value, line, kind});
}

bool BlockScanner::skipBlanks() {
    for (; at_ != end_; ++at_) {
        const Class c = classOf(*at_);
        if (c == Class::lineFeed) {
            ++line_;
        } else if (c == Class::slash && end_ - at_ > 1 && (at_[1] == '*' || at_[1] == '/')) {
            if (!skipComment()) return false;
            if (at_ == end_) return true;
            --at_;
        } else if (c != Class::blank) {
            return true;
        }
    }
    return true;
}

bool BlockScanner::skipComment() {
    const std::string_view rest(at_ + 2, static_cast<std::size_t>(end_ - at_ - 2));
    if (at_[1] == '/') {
        at_ = rest.data() + std::min(rest.find('\n'), rest.size());
        return true;
    }
    const auto close = rest.find("*/");
    if (close == std::string_view::npos) return fail("unterminated comment");
    countLines(at_, rest.data() + close);
    at_ = rest.data() + close + 2;
    return true;
}

bool BlockScanner::readString() {
    const std::uint32_t line = line_;
    const char* const first = at_ + 1;
    const char* at = first;
    bool quotes = false;
    for (;; ++at) {
        while (at != end_ && *at != '"' && *at != '\\' && *at != '\n')
            ++at;
        if (at == end_) break;
        const bool quote = *at == '"';
        if (quote && (end_ - at < 2 || at[1] != '"')) break;  // two of them are one of the text
        if ((quote || *at == '\\') && end_ - at > 1) {
            ++at;
            quotes = quotes || *at == '"';
        }
        if (*at == '\n') ++line_;
    }
    at_ = at;
    if (at_ == end_) return fail("unterminated string");
    append({first, static_cast<std::size_t>(at_ - first)}, TokenKind::string, 0, line);
    if (quotes && block_ != nullptr) block_->hasQuotes = true;
    ++at_;
    return true;
}

bool BlockScanner::readWord() {
    const char* first = at_;
    do
        ++at_;
    while (at_ != end_ && classOf(*at_) == Class::word);
    if (block_ == nullptr) return true;
    const std::string_view word(first, static_cast<std::size_t>(at_ - first));
    if (*first <= '9') {
        if (const auto value = numberValue(word)) {
            append(word, TokenKind::number, *value, line_);
            return true;
        }
    }
    append(word, TokenKind::identifier, 0, line_);
    return true;
}

bool BlockScanner::startsWithKeyword(std::string_view keyword) const {
    const auto left = static_cast<std::size_t>(end_ - at_);
    return left >= keyword.size() && std::memcmp(at_, keyword.data(), keyword.size()) == 0 &&
           (left == keyword.size() || classOf(at_[keyword.size()]) != Class::word);
}

bool BlockScanner::readSlash() {
    if (startsWithKeyword("/begin")) return beginBlock();
    if (startsWithKeyword("/end")) return endBlock();
    if (visitor_ != nullptr && startsWithKeyword("/include")) {
        if (sources_ != nullptr) return followInclude();
        reportInclude();
    }
    append({at_, 1}, TokenKind::identifier, 0, line_);
    ++at_;
    return true;
}

// The identifier behind /begin or /end.
bool BlockScanner::readKeyword(std::string_view& keyword) {
    constexpr const char* kExpected = "keyword expected after /begin or /end";
    if (!skipBlanks()) return false;
    if (at_ == end_) return fail(kExpected);
    const Class c = classOf(*at_);
    if (c == Class::quote) return readString() && fail(kExpected);
    const char* first = at_;
    if (c == Class::slash && (startsWithKeyword("/begin") || startsWithKeyword("/end")))
        return fail(kExpected);
    ++at_;
    if (c == Class::word) {
        while (at_ != end_ && classOf(*at_) == Class::word)
            ++at_;
    }
    keyword = {first, static_cast<std::size_t>(at_ - first)};
    if (c == Class::word && *first <= '9' && numberValue(keyword)) return fail(kExpected);
    return true;
}

bool BlockScanner::beginBlock() {
    const std::uint32_t line = line_;
    at_ += std::string_view("/begin").size();
    std::string_view keyword;
    if (!readKeyword(keyword)) return false;
    if (keyword == "A2ML") return skipA2ml(line);
    if (open_.size() > kMaxBlockDepth) {
        return fail("blocks nested deeper than " + std::to_string(kMaxBlockDepth) + " levels");
    }
    openBlock(keyword, line);
    return true;
}

void BlockScanner::openBlock(std::string_view keyword, std::uint32_t line) {
    const Open& parent = open_.back();
    Open open{keyword, line, parent.step, nullptr};
    if (parent.step == Step::collect) {
        open.block = &parent.block->addChild();
    } else if (parent.step == Step::descend) {
        const std::size_t depth = open_.size() - 1;
        open.step = visitor_->opened(keyword, depth);
        if (open.step == Step::collect) open.block = &collected_;
        if (open.step == Step::descend) {
            if (descended_.size() <= depth + 1) descended_.emplace_back();
            open.block = &descended_[depth + 1];
        }
    }
    if (open.block != nullptr) {
        open.block->reset(keyword, line, static_cast<std::uint32_t>(parent.block->tokens_.size()));
    }
    block_ = open.block;
    open_.push_back(open);
}

bool BlockScanner::endBlock() {
    at_ += std::string_view("/end").size();
    std::string_view keyword;
    if (!readKeyword(keyword)) return false;
    if (open_.size() == 1) return fail("unexpected /end " + std::string(keyword));
    const Open& open = open_.back();
    if (keyword != open.keyword) {
        return fail("/end " + std::string(keyword) + " does not match /begin " + std::string(open.keyword) +
                    " (" + where(open.line) + ")");
    }
    closeBlock();
    return true;
}

void BlockScanner::closeBlock() {
    const Open closing = open_.back();
    open_.pop_back();
    const Open& parent = open_.back();
    block_ = parent.block;
    if (block_ != nullptr && closing.block != nullptr && closing.block->hasQuotes) block_->hasQuotes = true;
    if (visitor_ == nullptr) return;
    if (parent.step == Step::descend && closing.step == Step::collect) visitor_->collected(*closing.block);
    if (closing.step == Step::descend) visitor_->closed(*closing.block, open_.size() - 1);
    const std::size_t offset = before_ + static_cast<std::size_t>(at_ - start_);
    if (offset - passed_ >= BlockVisitor::kPassedStep) {
        passed_ = offset;
        visitor_->passed(offset, size_);
    }
}

bool BlockScanner::skipA2ml(std::uint32_t beginLine) {
    constexpr std::string_view kEnd = "/end";
    constexpr std::string_view kName = "A2ML";
    const std::string_view rest(at_, static_cast<std::size_t>(end_ - at_));
    for (auto found = rest.find(kEnd); found != std::string_view::npos; found = rest.find(kEnd, found + 1)) {
        const auto name = rest.find_first_not_of(" \t\r\n", found + kEnd.size());
        if (name == std::string_view::npos || !rest.substr(name).starts_with(kName)) continue;
        countLines(at_, rest.data() + name);
        at_ = rest.data() + name + kName.size();
        return true;
    }
    countLines(at_, end_);
    return fail("missing /end A2ML for block at " + where(beginLine));
}

Result<Block> parse(std::string_view text) {
    return BlockScanner(text).buildTree();
}

Result<void> scan(std::string_view text, BlockVisitor& visitor, SourceTexts* sources) {
    return BlockScanner(text, sources).visit(visitor);
}

}  // namespace lm::a2l
