#include "a2l/conversion_readers.h"

#include <algorithm>
#include <array>
#include <string>

#include "a2l/arguments.h"

namespace lm::a2l {
namespace {

enum class ConversionWord : std::uint8_t { other, coeffs, coeffsLinear, compuTabRef, statusStringRef };
using ConversionKeyword = OptionalKeyword<ConversionWord>;

constexpr std::array kMethodKeywords = {
    ConversionKeyword{"COEFFS", 0, ConversionWord::coeffs},
    ConversionKeyword{"COEFFS_LINEAR", 0, ConversionWord::coeffsLinear},
    ConversionKeyword{"COMPU_TAB_REF", 1, ConversionWord::compuTabRef},
    ConversionKeyword{"STATUS_STRING_REF", 1, ConversionWord::statusStringRef},
    ConversionKeyword{"REF_UNIT", 1, ConversionWord::other},
};

ConversionType readConversionType(const Block& block, std::size_t index) {
    static constexpr std::array<std::string_view, 7> kNames = {
        "IDENTICAL", "LINEAR", "RAT_FUNC", "TAB_INTP", "TAB_NOINTP", "TAB_VERB", "FORM"};
    const std::string_view word = readIdentifier(block, index, "conversion type");
    const auto* found = std::find(kNames.begin(), kNames.end(), word);
    if (found == kNames.end()) throw BlockError("unknown conversion type '" + std::string(word) + "'");
    return static_cast<ConversionType>(found - kNames.begin());
}

std::vector<double> numbersFrom(const Block& block, std::size_t first) {
    std::vector<double> numbers;
    const auto tokens = block.tokens();
    for (std::size_t i = first; i < tokens.size() && tokens[i].kind == TokenKind::number; ++i) {
        numbers.push_back(tokens[i].value);
    }
    return numbers;
}

void readFormula(CompuMethod& method, const Block& block, ModelStore& store) {
    method.formula = store.own(readString(block, 0, "FORMULA"));
    const auto tokens = block.tokens();
    for (std::size_t i = 1; i < tokens.size(); ++i) {
        if (!tokens[i].is("FORMULA_INV")) continue;
        method.formulaInverse = store.own(readString(block, i + 1, "FORMULA_INV"));
    }
}

struct Coefficients {
    std::optional<std::vector<double>> linear;
    std::optional<std::vector<double>> rational;
};

// What the conversion type needs has to be there.
void checkMethod(CompuMethod& method, Coefficients& coefficients, bool hasFormula) {
    if (coefficients.linear && coefficients.linear->size() != 2) {
        throw BlockError("COEFFS_LINEAR needs 2 numbers");
    }
    if (coefficients.rational && coefficients.rational->size() != 6) {
        throw BlockError("COEFFS needs 6 numbers");
    }
    switch (method.type) {
        case ConversionType::identical:
            break;
        case ConversionType::linear:
            if (!coefficients.linear) throw BlockError("LINEAR without COEFFS_LINEAR");
            method.coefficients = std::move(*coefficients.linear);
            break;
        case ConversionType::ratFunc:
            if (!coefficients.rational) throw BlockError("RAT_FUNC without COEFFS");
            method.coefficients = std::move(*coefficients.rational);
            break;
        case ConversionType::tabIntp:
        case ConversionType::tabNointp:
        case ConversionType::tabVerb:
            if (method.tableRef.empty()) throw BlockError("table conversion without COMPU_TAB_REF");
            break;
        case ConversionType::form:
            if (!hasFormula) throw BlockError("FORM without FORMULA");
            break;
    }
}

}  // namespace

CompuMethod readCompuMethod(const Block& block, ModelStore& store) {
    constexpr std::size_t kPositional = 5;
    CompuMethod method;
    const std::string_view name = readIdentifier(block, 0, "name");
    method.longIdentifier = store.own(readString(block, 1, "long identifier"));
    method.type = readConversionType(block, 2);
    method.format = store.common(readString(block, 3, "format"));
    method.unit = store.common(readString(block, 4, "unit"));
    Coefficients coefficients;
    forEachOptional<ConversionWord>(
        block, kPositional, kMethodKeywords, [&](ConversionWord word, std::size_t value) {
            if (word == ConversionWord::coeffs) coefficients.rational = numbersFrom(block, value);
            if (word == ConversionWord::coeffsLinear) coefficients.linear = numbersFrom(block, value);
            if (word == ConversionWord::compuTabRef) {
                method.tableRef = store.common(readIdentifier(block, value, "COMPU_TAB_REF"));
            }
            if (word == ConversionWord::statusStringRef) {
                method.statusStringRef = store.common(readIdentifier(block, value, "STATUS_STRING_REF"));
            }
        });
    const Block* formula = block.child("FORMULA");
    if (formula != nullptr) readFormula(method, *formula, store);
    checkMethod(method, coefficients, formula != nullptr);
    method.name = store.common(name);
    return method;
}

CompuTab readCompuTab(const Block& block, ModelStore& store) {
    CompuTab table;
    const std::string_view name = readIdentifier(block, 0, "name");
    readString(block, 1, "long identifier");
    readConversionType(block, 2);
    const auto count = readCount<std::uint32_t>(block, 3, "number of value pairs");
    std::size_t next = 4;
    for (std::uint32_t i = 0; i < count; ++i, next += 2) {
        const double input = readNumber(block, next, "InVal");
        table.pairs.emplace_back(input, readNumber(block, next + 1, "OutVal"));
    }
    for (; next < block.tokens().size(); ++next) {
        if (block.tokens()[next].is("DEFAULT_VALUE")) {
            table.defaultText = store.own(readString(block, next + 1, "DEFAULT_VALUE"));
        } else if (block.tokens()[next].is("DEFAULT_VALUE_NUMERIC")) {
            table.defaultNumeric = readNumber(block, next + 1, "DEFAULT_VALUE_NUMERIC");
        }
    }
    table.name = store.own(name);
    return table;
}

namespace {

// Entries of `numbers` numbers (the bounds) and a text each, then the default text.
CompuVtab readTexts(const Block& block, std::size_t next, std::uint32_t count, std::size_t numbers,
                    ModelStore& store) {
    CompuVtab table;
    for (std::uint32_t i = 0; i < count; ++i, next += numbers + 1) {
        CompuVtab::Range range;
        range.lower = range.upper = readNumber(block, next, "InVal");
        if (numbers == 2) range.upper = readNumber(block, next + 1, "InValMax");
        range.text = store.common(readString(block, next + numbers, "OutVal"));
        table.ranges.push_back(range);
    }
    for (; next < block.tokens().size(); ++next) {
        if (!block.tokens()[next].is("DEFAULT_VALUE")) continue;
        table.defaultText = store.common(readString(block, next + 1, "DEFAULT_VALUE"));
    }
    table.name = store.own(readIdentifier(block, 0, "name"));
    return table;
}

}  // namespace

CompuVtab readCompuVtab(const Block& block, ModelStore& store) {
    readIdentifier(block, 0, "name");
    readString(block, 1, "long identifier");
    readConversionType(block, 2);
    return readTexts(block, 4, readCount<std::uint32_t>(block, 3, "number of value pairs"), 1, store);
}

CompuVtab readCompuVtabRange(const Block& block, ModelStore& store) {
    readIdentifier(block, 0, "name");
    readString(block, 1, "long identifier");
    return readTexts(block, 3, readCount<std::uint32_t>(block, 2, "number of entries"), 2, store);
}

}  // namespace lm::a2l
