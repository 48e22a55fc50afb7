// Writes JSON into a text, piece by piece: for results, and for records that come by the hundred thousand
// each second, for which building a document first would be too slow.
//
// Threads: one thread. Lifetime: the text is borrowed; others may append whole JSON to it in between.
#pragma once

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "value/value.h"

namespace lm::cli {

class JsonWriter {
  public:
    explicit JsonWriter(std::string& text) : text_(text) {}

    void beginObject() { begin('{'); }
    void endObject() { text_ += '}'; }
    void beginArray() { begin('['); }
    void endArray() { text_ += ']'; }
    void null() {
        separate();
        text_ += "null";
    }

    /// What is written next is the value of this key.
    JsonWriter& key(std::string_view name) {
        value(name);
        text_ += ':';
        return *this;
    }

    /// A truth value, a number (integers with all digits, doubles as short as they read back the same, null
    /// for what is not finite), or a text: bytes that are not UTF-8 become U+FFFD, control characters are
    /// escaped.
    template <typename T>
    void value(const T& what) {
        separate();
        if constexpr (std::is_same_v<T, bool>) {
            text_ += what ? "true" : "false";
        } else if constexpr (std::is_integral_v<T>) {
            char digits[24];
            text_.append(digits, std::to_chars(std::begin(digits), std::end(digits), what).ptr);
        } else if constexpr (std::is_floating_point_v<T>) {
            appendDouble(what);
        } else if constexpr (std::is_same_v<T, value::Value>) {
            appendValue(what);
        } else {
            appendText(what);
        }
    }

    template <typename T>
    void member(std::string_view name, const T& what) {
        key(name).value(what);
    }

    template <typename List>
    void listMember(std::string_view name, const List& list) {
        key(name).beginArray();
        for (const auto& element : list)
            value(element);
        endArray();
    }

  private:
    void begin(char bracket) {
        separate();
        text_ += bracket;
    }
    void separate() {
        // No text ends in one of these: it has a quotation mark behind it.
        constexpr std::string_view kNoCommaAfter = "{[:,\n";
        if (!text_.empty() && kNoCommaAfter.find(text_.back()) == std::string_view::npos) text_ += ',';
    }
    void appendDouble(double number);
    void appendValue(const value::Value& value);
    void appendText(std::string_view text);
    void appendEscaped(std::string_view text);

    std::string& text_;
};

}  // namespace lm::cli
