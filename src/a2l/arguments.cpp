#include "a2l/arguments.h"

#include <cmath>
#include <string>

#include "a2l/number_word.h"

namespace lm::a2l {
namespace {

[[noreturn]] void fail(std::string_view label, std::string_view complaint) {
    throw BlockError(std::string(label) + std::string(complaint));
}

[[noreturn]] void failUnknown(std::string_view what, std::string_view word) {
    throw BlockError("unknown " + std::string(what) + " '" + std::string(word) + "'");
}

const Token& tokenAt(const Block& block, std::size_t index, std::string_view label) {
    if (index >= block.tokens().size()) throw BlockError("missing " + std::string(label));
    return block.tokens()[index];
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

std::string withPlainQuotes(std::string_view text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool pair = i + 1 < text.size();
        if (pair && text[i + 1] == '"' && (text[i] == '"' || text[i] == '\\')) {
            ++i;
        } else if (pair && text[i] == '\\') {
            plain += text[i++];
        }
        plain += text[i];
    }
    return plain;
}

double readNumber(const Block& block, std::size_t index, std::string_view label) {
    const Token& token = tokenAt(block, index, label);
    if (token.kind != TokenKind::number) {
        fail(label, " must be a number, got '" + std::string(token.text) + "'");
    }
    return token.value;
}

std::pair<double, double> readPair(const Block& block, std::size_t index, std::string_view label) {
    return {readNumber(block, index, label), readNumber(block, index + 1, label)};
}

std::uint64_t readUnsigned(const Block& block, std::size_t index, std::string_view label,
                           std::uint64_t maximum) {
    constexpr double kTwoTo64 = 18446744073709551616.0;
    const Token& token = tokenAt(block, index, label);
    std::optional<std::uint64_t> value;
    if (token.kind == TokenKind::number) value = plainUnsigned(token.text);
    if (!value && token.kind == TokenKind::number && token.value >= 0 && token.value < kTwoTo64 &&
        std::trunc(token.value) == token.value) {
        value = static_cast<std::uint64_t>(token.value);  // "1e3", "255.0", "-0"
    }
    if (!value || *value > maximum) fail(label, " must be a non-negative integer");
    return *value;
}

value::DataType readDataType(const Block& block, std::size_t index) {
    const std::string_view word = readIdentifier(block, index, "data type");
    const auto type = value::dataTypeFromName(word);
    if (!type) failUnknown("data type", word);
    return *type;
}

ByteOrder readByteOrder(const Block& block, std::size_t index) {
    const std::string_view word = readIdentifier(block, index, "BYTE_ORDER");
    if (word == "MSB_LAST" || word == "LITTLE_ENDIAN") return ByteOrder::littleEndian;
    if (word == "MSB_FIRST" || word == "BIG_ENDIAN") return ByteOrder::bigEndian;
    failUnknown("byte order", word);
}

void tellOdd(const Block& block, const std::string& what, Diagnostics& diagnostics) {
    diagnostics.odd(block.line,
                    std::string(block.keyword) + " (" + diagnostics.where(block.line) + "): " + what);
}

}  // namespace lm::a2l
