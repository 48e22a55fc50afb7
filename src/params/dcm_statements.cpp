#include "params/dcm_statements.h"

#include <algorithm>
#include <utility>

namespace lm::params {
namespace {

constexpr std::string_view kBlanks = " \t";

std::string_view withoutBlanks(std::string_view text) {
    return text.substr(std::min(text.find_first_not_of(kBlanks), text.size()));
}

/// Up to the next blank.
std::string_view takeBare(std::string_view& rest) {
    const std::string_view word = rest.substr(0, rest.find_first_of(kBlanks));
    rest.remove_prefix(word.size());
    return word;
}

/// After the opening quote, up to the closing one; none without it. A quote inside is \" or "".
std::optional<std::string> takeQuoted(std::string_view& rest) {
    std::string text;
    for (std::size_t i = 0; i < rest.size(); ++i) {
        const bool beforeQuote = i + 1 < rest.size() && rest[i + 1] == '"';
        // A path may end with a backslash: the quote after it is the closing one when no other comes.
        const bool isEscaped = rest[i] == '\\' && beforeQuote && !withoutBlanks(rest.substr(i + 2)).empty();
        if (isEscaped || (rest[i] == '"' && beforeQuote)) {
            text += '"';
            ++i;
        } else if (rest[i] == '"') {
            rest.remove_prefix(i + 1);
            return text;
        } else {
            text += rest[i];
        }
    }
    return std::nullopt;
}

/// "*SSTX" and the like for a comment that names an axis; empty for every other comment.
std::string_view axisKeyword(std::string_view comment, std::string_view& rest) {
    if (!comment.starts_with('*')) return {};
    rest = withoutBlanks(comment.substr(1));
    const std::string_view word = takeBare(rest);
    const std::string_view name = withoutBlanks(rest);
    // A sentence that begins so is a comment all the same.
    if (name.empty() || name.find_first_of(kBlanks) < name.find_last_not_of(kBlanks)) return {};
    if (word == "SSTX" || word == "SST") return "*SSTX";
    return word == "SSTY" ? "*SSTY" : std::string_view();
}

}  // namespace

std::string_view DcmStatements::takeLine() {
    const std::size_t end = std::min(rest_.find_first_of("\r\n"), rest_.size());
    const std::string_view line = rest_.substr(0, end);
    rest_.remove_prefix(end);
    if (!rest_.empty()) rest_.remove_prefix(rest_.starts_with("\r\n") ? 2 : 1);
    ++line_;
    return line;
}

Result<std::optional<DcmStatement>> DcmStatements::next() {
    while (!rest_.empty()) {
        std::string_view rest = withoutBlanks(takeLine());
        if (rest.empty()) continue;
        DcmStatement statement;
        statement.line = line_;
        if (std::string_view("*!.").find(rest[0]) != std::string_view::npos) {
            const std::string_view comment = rest;
            statement.keyword = axisKeyword(comment, rest);
            if (statement.keyword.empty()) continue;
        } else {
            statement.keyword = takeBare(rest);
        }
        for (rest = withoutBlanks(rest); !rest.empty(); rest = withoutBlanks(rest)) {
            if (rest[0] != '"') {
                statement.words.emplace_back(takeBare(rest));
                continue;
            }
            rest.remove_prefix(1);
            auto text = takeQuoted(rest);
            if (!text) return Error{ErrorCode::invalidArgument, "a text without its closing quote"};
            statement.words.push_back(std::move(*text));
        }
        return std::optional(std::move(statement));
    }
    return std::optional<DcmStatement>();
}

std::string dcmQuoted(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"') quoted += '\\';
        quoted += c;
    }
    return quoted + '"';
}

}  // namespace lm::params
