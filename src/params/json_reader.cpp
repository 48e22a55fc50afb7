#include "params/json_reader.h"

#include <algorithm>
#include <cstdint>

#include <spdlog/fmt/fmt.h>

#include "core/printable_text.h"
#include "core/text.h"

namespace lm::params {
namespace {

constexpr std::size_t kMostNesting = 32;

bool isBlank(char c) {
    return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

void appendUtf8(std::string& text, unsigned character) {
    const auto put = [&](unsigned byte) { text += static_cast<char>(byte); };
    if (character < 0x80) return put(character);
    if (character < 0x800) {
        put(0xC0U | character >> 6U);
    } else if (character < 0x10000) {
        put(0xE0U | character >> 12U);
        put(0x80U | (character >> 6U & 0x3FU));
    } else {
        put(0xF0U | character >> 18U);
        put(0x80U | (character >> 12U & 0x3FU));
        put(0x80U | (character >> 6U & 0x3FU));
    }
    put(0x80U | (character & 0x3FU));
}

}  // namespace

std::size_t JsonReader::line() {
    const std::size_t to = std::min(at_, text_.size());
    line_ += static_cast<std::size_t>(std::count(text_.begin() + static_cast<std::ptrdiff_t>(countedTo_),
                                                 text_.begin() + static_cast<std::ptrdiff_t>(to), '\n'));
    countedTo_ = to;
    return line_;
}

void JsonReader::fail(const std::string& what) {
    if (!ok_) return;
    ok_ = false;
    error_ = {ErrorCode::invalidArgument, fmt::format("line {}: {}", line(), what)};
    at_ = text_.size();
}

void JsonReader::blanks() {
    while (at_ < text_.size() && isBlank(text_[at_]))
        ++at_;
}

char JsonReader::peek() {
    blanks();
    if (at_ >= text_.size()) return 0;
    const char c = text_[at_];
    return c == '-' || isDigit(c) ? '0' : c;
}

void JsonReader::begin(char bracket) {
    const char found = peek();
    if (found != bracket) return fail(fmt::format("a '{}' is missing", bracket));
    ++at_;
}

bool JsonReader::next(char closing, bool& isFirst) {
    const char found = peek();
    if (!ok_) return false;
    if (found == closing) {
        ++at_;
        return false;
    }
    if (!isFirst) {
        if (found != ',') {
            fail(fmt::format("a ',' or '{}' is missing", closing));
            return false;
        }
        ++at_;
    }
    isFirst = false;
    return true;
}

std::string_view JsonReader::key() {
    const std::string_view name = text();
    if (peek() == ':') {
        ++at_;
    } else {
        fail("a ':' is missing behind the name of a member");
    }
    return ok_ ? name : std::string_view();
}

std::string_view JsonReader::text() {
    if (peek() != '"') {
        fail("a text in quotation marks is missing");
        return {};
    }
    const std::size_t begin = ++at_;
    while (at_ < text_.size() && text_[at_] != '"' && text_[at_] != '\\' &&
           static_cast<unsigned char>(text_[at_]) >= 0x20)
        ++at_;
    if (at_ < text_.size() && text_[at_] == '"') return text_.substr(begin, at_++ - begin);
    return escaped(begin);
}

/// The same from the first escape on.
std::string_view JsonReader::escaped(std::size_t begin) {
    unescaped_.assign(text_.substr(begin, at_ - begin));
    while (at_ < text_.size() && text_[at_] != '"') {
        const char c = text_[at_];
        if (static_cast<unsigned char>(c) < 0x20) {
            fail("a text is not closed by a quotation mark on its line");
            return {};
        }
        ++at_;
        if (c == '\\') {
            escape();
        } else {
            unescaped_ += c;
        }
    }
    if (at_ >= text_.size()) {
        fail("a text is not closed by a quotation mark");
        return {};
    }
    ++at_;
    return unescaped_;
}

void JsonReader::escape() {
    constexpr std::string_view kLetters = "\"\\/bfnrt";
    constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    const char c = at_ < text_.size() ? text_[at_++] : '\0';
    const std::size_t letter = kLetters.find(c);
    if (letter != std::string_view::npos) {
        unescaped_ += kMeanings[letter];
        return;
    }
    if (c != 'u') return fail("a '\\' in a text stands before no character that it may stand before");
    unsigned character = hexQuad();
    if (character >= 0xD800 && character < 0xDC00 && text_.substr(at_, 2) == "\\u") {
        at_ += 2;
        const unsigned low = hexQuad();
        if (low < 0xDC00 || low > 0xDFFF) return fail("half a character in a text");
        character = 0x10000 + ((character - 0xD800) << 10U) + (low - 0xDC00);
    }
    if (character >= 0xD800 && character < 0xE000) return fail("half a character in a text");
    appendUtf8(unescaped_, character);
}

unsigned JsonReader::hexQuad() {
    unsigned number = 0;
    for (int i = 0; i < 4; ++i) {
        const auto digit = at_ < text_.size() ? hexDigit(text_[at_]) : std::nullopt;
        if (!digit) {
            fail("\\u in a text wants four hexadecimal digits");
            return 0;
        }
        number = number << 4U | *digit;
        ++at_;
    }
    return number;
}

void JsonReader::digits() {
    if (at_ >= text_.size() || !isDigit(text_[at_])) return fail("a digit is missing in a number");
    while (at_ < text_.size() && isDigit(text_[at_]))
        ++at_;
}

std::string_view JsonReader::number() {
    if (peek() != '0') {
        fail("a number is missing");
        return {};
    }
    const std::size_t begin = at_;
    if (text_[at_] == '-') ++at_;
    if (at_ + 1 < text_.size() && text_[at_] == '0' && isDigit(text_[at_ + 1]))
        fail("a number begins with 0");
    digits();
    if (at_ < text_.size() && text_[at_] == '.') {
        ++at_;
        digits();
    }
    if (at_ < text_.size() && (text_[at_] == 'e' || text_[at_] == 'E')) {
        ++at_;
        if (at_ < text_.size() && (text_[at_] == '+' || text_[at_] == '-')) ++at_;
        digits();
    }
    return ok_ ? text_.substr(begin, at_ - begin) : std::string_view();
}

void JsonReader::word(std::string_view wanted) {
    blanks();
    if (text_.substr(at_, wanted.size()) != wanted) return fail(fmt::format("'{}' is missing", wanted));
    at_ += wanted.size();
}

void JsonReader::skip() {
    skipNested(0);
}

void JsonReader::skipNested(std::size_t depth) {
    if (depth > kMostNesting) return fail(fmt::format("nested more than {} times", kMostNesting));
    const char found = peek();
    bool isFirst = true;
    switch (found) {
        case '{':
            begin('{');
            while (next('}', isFirst)) {
                key();
                skipNested(depth + 1);
            }
            return;
        case '[':
            begin('[');
            while (next(']', isFirst))
                skipNested(depth + 1);
            return;
        case '"':
            text();
            return;
        case '0':
            number();
            return;
        case 't':
            return word("true");
        case 'f':
            return word("false");
        case 'n':
            return word("null");
        default:
            return fail("a value is missing");
    }
}

void JsonReader::end() {
    if (peek() != 0) fail("something stands behind the end");
}

}  // namespace lm::params
