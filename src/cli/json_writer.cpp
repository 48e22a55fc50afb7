#include "cli/json_writer.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "core/text.h"

namespace lm::cli {
namespace {

bool isPlain(char c) {
    return c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
}

/// Bytes of the character that begins here, 0 when it is not UTF-8.
std::size_t characterLength(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    return text.size() >= length && isValidUtf8(text.substr(0, length)) ? length : 0;
}

/// The code of a control character of one or two bytes, -1 for any other.
int controlCode(std::string_view character) {
    const auto last = static_cast<unsigned char>(character.back());
    if (character.size() == 1) return last < 0x20 || last == 0x7F ? last : -1;
    return character.size() == 2 && character.front() == '\xC2' && last < 0xA0 ? last : -1;
}

}  // namespace

void JsonWriter::appendDouble(double number) {
    if (!std::isfinite(number)) {
        text_ += "null";
        return;
    }
    char digits[32];
    text_.append(digits, std::to_chars(std::begin(digits), std::end(digits), number).ptr);
}

void JsonWriter::appendValue(const value::Value& value) {
    if (const auto* exact = std::get_if<value::Exact>(&value)) {
        text_ += exact->shortest();
    } else if (const auto* text = std::get_if<std::string>(&value)) {
        appendText(*text);
    } else {
        appendDouble(std::get<double>(value));
    }
}

void JsonWriter::appendText(std::string_view text) {
    text_ += '"';
    if (std::all_of(text.begin(), text.end(), isPlain)) {
        text_ += text;
    } else {
        appendEscaped(text);
    }
    text_ += '"';
}

void JsonWriter::appendEscaped(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = characterLength(text);
        const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
        text.remove_prefix(character.size());
        if (length == 0) {
            text_ += "\xEF\xBF\xBD";
        } else if (const int code = controlCode(character); code >= 0) {
            text_ += fmt::format("\\u{:04x}", code);
        } else {
            if (character == "\"" || character == "\\") text_ += '\\';
            text_ += character;
        }
    }
}

}  // namespace lm::cli
