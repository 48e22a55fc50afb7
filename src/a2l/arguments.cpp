#include "a2l/arguments.h"

#include <cmath>
#include <string>

#include "a2l/object.h"

namespace lm::a2l {
namespace {

[[noreturn]] void fail(std::string_view label, std::string_view complaint) {
    throw ObjectError(std::string(label) + std::string(complaint));
}

[[noreturn]] void failUnknown(std::string_view what, std::string_view word) {
    throw ObjectError("unknown " + std::string(what) + " '" + std::string(word) + "'");
}

const Token& tokenAt(const Block& block, std::size_t index, std::string_view label) {
    if (index >= block.tokens().size()) throw ObjectError("missing " + std::string(label));
    return block.tokens()[index];
}

// The digits of a plain integer without the detour over a double; false when the text is none or does not
// fit into 64 bits.
bool plainUnsigned(std::string_view text, std::uint64_t& value) {
    if (text.starts_with('+')) text.remove_prefix(1);
    const bool hexadecimal = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    if (hexadecimal) text.remove_prefix(2);
    const char* end = text.data() + text.size();
    const std::uint64_t base = hexadecimal ? 16 : 10;
    value = 0;
    for (const char* c = text.data(); c != end; ++c) {
        std::uint64_t digit = static_cast<std::uint64_t>(*c - '0');
        if (digit > 9) {
            digit = static_cast<std::uint64_t>((*c | 0x20) - 'a') + 10;
            if (!hexadecimal || digit < 10 || digit > 15) return false;
        }
        if (value > (std::numeric_limits<std::uint64_t>::max() - digit) / base) return false;
        value = value * base + digit;
    }
    return !text.empty();
}

}  // namespace

std::string_view readIdentifier(const Block& block, std::size_t index, std::string_view label) {
    const Token& token = tokenAt(block, index, label);
    if (token.kind == TokenKind::string) fail(label, " must not be a string");
    return token.text;
}

std::string_view readString(const Block& block, std::size_t index, std::string_view label) {
    const Token& token = tokenAt(block, index, label);
    if (token.kind != TokenKind::string) fail(label, " must be a string");
    return token.text;
}

double readNumber(const Block& block, std::size_t index, std::string_view label) {
    const Token& token = tokenAt(block, index, label);
    if (token.kind != TokenKind::number) {
        fail(label, " must be a number, got '" + std::string(token.text) + "'");
    }
    return token.value;
}

std::uint64_t readUnsigned(const Block& block, std::size_t index, std::string_view label,
                           std::uint64_t maximum) {
    constexpr double kTwoTo64 = 18446744073709551616.0;
    const Token& token = tokenAt(block, index, label);
    std::uint64_t value = 0;
    bool good = token.kind == TokenKind::number;
    if (good && !plainUnsigned(token.text, value)) {
        // "1e3", "255.0", "-0"
        good = token.value >= 0 && token.value < kTwoTo64 && std::trunc(token.value) == token.value;
        if (good) value = static_cast<std::uint64_t>(token.value);
    }
    if (!good || value > maximum) fail(label, " must be a non-negative integer");
    return value;
}

DataType readDataType(const Block& block, std::size_t index) {
    const std::string_view word = readIdentifier(block, index, "data type");
    const auto type = dataTypeFromName(word);
    if (!type) failUnknown("data type", word);
    return *type;
}

ByteOrder readByteOrder(const Block& block, std::size_t index) {
    const std::string_view word = readIdentifier(block, index, "BYTE_ORDER");
    if (word == "MSB_LAST" || word == "LITTLE_ENDIAN") return ByteOrder::littleEndian;
    if (word == "MSB_FIRST" || word == "BIG_ENDIAN") return ByteOrder::bigEndian;
    failUnknown("byte order", word);
}

}  // namespace lm::a2l
