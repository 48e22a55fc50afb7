#include <algorithm>
#include <string>
#include <string_view>

#include "a2l/block_scanner.h"

namespace lm::a2l {

// Looks ahead for the file's name without moving: the words of the directive are ordinary tokens.
void BlockScanner::reportInclude() {
    std::string_view rest(at_, static_cast<std::size_t>(end_ - at_));
    rest.remove_prefix(std::string_view("/include").size());
    const auto blanks = rest.find_first_not_of(" \t");
    std::string_view file;
    if (blanks != std::string_view::npos && rest[blanks] == '"') {
        file = rest.substr(blanks + 1);
        file = file.substr(0, file.find_first_of("\"\n"));
    } else if (blanks != std::string_view::npos) {
        file = rest.substr(blanks);
        file = file.substr(0, file.find_first_of("\"\r\n \t"));
    }
    visitor_->included(file, line_);
}

bool BlockScanner::followInclude() {
    const std::uint32_t line = line_;
    at_ += std::string_view("/include").size();
    std::string_view name;
    if (!readFileName(name)) return false;
    if (!name.ends_with(".aml") && !name.ends_with(".AML")) return enter(name, line);
    visitor_->included(name, line);
    return true;
}

// In quotes, or up to the next white space; a backslash in it is part of the path.
bool BlockScanner::readFileName(std::string_view& name) {
    if (!skipBlanks()) return false;
    const bool quoted = at_ != end_ && *at_ == '"';
    if (quoted) ++at_;
    const std::string_view rest(at_, static_cast<std::size_t>(end_ - at_));
    const auto length = std::min(rest.find_first_of(quoted ? "\"\n" : " \t\v\f\r\n\""), rest.size());
    name = rest.substr(0, length);
    if (quoted && !rest.substr(length).starts_with('"')) return fail("unterminated string");
    if (name.empty() || name == "/begin" || name == "/end") return fail("/include names no file");
    at_ += length + (quoted ? 1 : 0);
    return true;
}

bool BlockScanner::enter(std::string_view name, std::uint32_t line) {
    Result<SourceTexts::Source> source = sources_->enter(name);
    if (!source) {
        error_ = source.error();
        error_.message = "A2L " + where(line) + ": " + error_.message;
        return false;
    }
    waiting_.push_back({at_, end_, line_ - lineOffset_, file_});
    open(source.value().text);
    atLine(line_ + 1, source.value().file, 1);
    return true;
}

void BlockScanner::leave() {
    const Waiting& waiting = waiting_.back();
    before_ += static_cast<std::size_t>(at_ - start_);
    start_ = at_ = waiting.at;
    end_ = waiting.end;
    atLine(line_ + 1, waiting.file, waiting.line);
    waiting_.pop_back();
    sources_->leave();
}

// What is read next; what was read stays counted.
void BlockScanner::open(std::string_view text) {
    before_ += static_cast<std::size_t>(at_ - start_);
    size_ += text.size();
    start_ = at_ = text.data();
    end_ = at_ + text.size();
    if (text.starts_with("\xEF\xBB\xBF")) at_ += 3;
}

void BlockScanner::atLine(std::uint32_t line, const std::string& file, std::uint32_t lineThere) {
    line_ = line;
    lineOffset_ = line - lineThere;
    file_ = file;
    sources_->lines.begin(line, file, lineThere);
}

std::string BlockScanner::where(std::uint32_t line) const {
    return sources_ == nullptr ? SourceLines().where(line) : sources_->lines.where(line);
}

}  // namespace lm::a2l
