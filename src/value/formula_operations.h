// The operators and functions of the formula language, for all who compile or evaluate it: their texts,
// their precedence, and what those compute that C++ leaves undefined for some numbers.
//
// Threads: constants and pure functions. Lifetime: nothing is kept.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string_view>

#include "value/formula_opcode.h"

namespace lm::value {

inline constexpr std::array<std::string_view, 15> kFunctionNames = {  // from kSin on
    "sin",  "cos", "tan", "asin",  "acos", "atan", "sinh", "cosh",
    "tanh", "exp", "log", "log10", "sqrt", "abs",  "pow"};

struct BinaryOperator {
    std::string_view text;
    FormulaOpcode opcode;
    int precedence;
};

/// In the order in which they are tried: two characters before their one-character prefixes.
inline constexpr std::array<BinaryOperator, 18> kBinaryOperators = {{
    {"||", kOr, 1},
    {"&&", kAnd, 2},
    {"==", kEqual, 6},
    {"!=", kNotEqual, 6},
    {"<=", kLessEqual, 7},
    {">=", kGreaterEqual, 7},
    {"<<", kShiftLeft, 8},
    {">>", kShiftRight, 8},
    {"|", kBitOr, 3},
    {"^", kBitXor, 4},
    {"&", kBitAnd, 5},
    {"<", kLess, 7},
    {">", kGreater, 7},
    {"+", kAdd, 9},
    {"-", kSubtract, 9},
    {"*", kMultiply, 10},
    {"/", kDivide, 10},
    {"%", kRemainder, 10},
}};

/// The operator with which the text begins; null: none.
inline const BinaryOperator* operatorAt(std::string_view text) {
    for (const BinaryOperator& candidate : kBinaryOperators)
        if (text.starts_with(candidate.text)) return &candidate;
    return nullptr;
}

/// Truncation towards zero that is defined for every double: out of range saturates, NaN is 0.
inline std::int64_t truncated(double value) {
    if (value >= 0x1p63) return std::numeric_limits<std::int64_t>::max();
    if (value >= -0x1p63) return static_cast<std::int64_t>(value);
    return std::isnan(value) ? 0 : std::numeric_limits<std::int64_t>::min();
}

inline double shiftedLeft(double value, double count) {
    const auto bits = static_cast<std::uint64_t>(truncated(value));
    return static_cast<double>(static_cast<std::int64_t>(bits << (truncated(count) & 63)));
}

inline double shiftedRight(double value, double count) {
    return static_cast<double>(truncated(value) >> (truncated(count) & 63));
}

inline double truth(bool value) {
    return value ? 1.0 : 0.0;
}

inline double applyFunction(std::uint8_t opcode, double x) {
    switch (opcode) {
        case kSin:
            return std::sin(x);
        case kCos:
            return std::cos(x);
        case kTan:
            return std::tan(x);
        case kAsin:
            return std::asin(x);
        case kAcos:
            return std::acos(x);
        case kAtan:
            return std::atan(x);
        case kSinh:
            return std::sinh(x);
        case kCosh:
            return std::cosh(x);
        case kTanh:
            return std::tanh(x);
        case kExp:
            return std::exp(x);
        case kLog:
            return std::log(x);
        case kLog10:
            return std::log10(x);
        case kSqrt:
            return std::sqrt(x);
        default:
            return std::fabs(x);
    }
}

}  // namespace lm::value
