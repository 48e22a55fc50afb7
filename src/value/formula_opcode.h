// The instruction codes that the formula compiler and the evaluation loop share.
//
// Threads: constants only. Lifetime: nothing is kept.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lm::value {

/// Slots of the evaluation stack; a formula that needs more is refused.
constexpr std::size_t kFormulaStackSize = 64;

/// The opcodes of the postfix program. The functions of one argument stand together from sine to absolute.
/// Those from kAddConstant on do the work of a push and the arithmetic operator behind it, the last four that
/// of two pushes: X and a constant. Nearly every formula has them.
enum FormulaOpcode : std::uint8_t {
    kConstant = 0,
    kVariable = 1,
    kNegate = 2,
    kNot = 3,
    kComplement = 4,
    kAdd = 5,
    kSubtract = 6,
    kMultiply = 7,
    kDivide = 8,
    kRemainder = 9,
    kShiftLeft = 10,
    kShiftRight = 11,
    kLess = 12,
    kLessEqual = 13,
    kGreater = 14,
    kGreaterEqual = 15,
    kEqual = 16,
    kNotEqual = 17,
    kBitAnd = 18,
    kBitXor = 19,
    kBitOr = 20,
    kAnd = 21,
    kOr = 22,
    kSin = 23,
    kCos = 24,
    kTan = 25,
    kAsin = 26,
    kAcos = 27,
    kAtan = 28,
    kSinh = 29,
    kCosh = 30,
    kTanh = 31,
    kExp = 32,
    kLog = 33,
    kLog10 = 34,
    kSqrt = 35,
    kAbs = 36,
    kPow = 37,
    kAddConstant = 38,
    kSubtractConstant = 39,
    kMultiplyConstant = 40,
    kDivideConstant = 41,
    kAddVariable = 42,
    kSubtractVariable = 43,
    kMultiplyVariable = 44,
    kDivideVariable = 45,
    kVariableAddConstant = 46,
    kVariableSubtractConstant = 47,
    kVariableMultiplyConstant = 48,
    kVariableDivideConstant = 49,
};

constexpr bool isComparison(std::uint8_t opcode) {
    return opcode >= kLess && opcode <= kNotEqual;
}

}  // namespace lm::value
