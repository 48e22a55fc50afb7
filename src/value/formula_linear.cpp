// Whether a formula is a straight line: its program run over terms a * X + b in place of numbers.
#include <cmath>

#include "value/formula.h"
#include "value/formula_opcode.h"

namespace lm::value {
namespace {

struct Term {
    double factor = 0;
    double offset = 0;
    bool isNumber = true;  ///< X does not occur in it
};

/// One of the four arithmetic operators; none where the result is no straight line.
std::optional<Term> combined(std::uint8_t opcode, const Term& left, const Term& right) {
    const bool isNumber = left.isNumber && right.isNumber;
    switch (opcode) {
        case kAdd:
            return Term{left.factor + right.factor, left.offset + right.offset, isNumber};
        case kSubtract:
            return Term{left.factor - right.factor, left.offset - right.offset, isNumber};
        case kMultiply:
            if (left.isNumber) return Term{left.offset * right.factor, left.offset * right.offset, isNumber};
            if (right.isNumber) return Term{left.factor * right.offset, left.offset * right.offset, isNumber};
            return std::nullopt;
        default:
            if (right.isNumber) return Term{left.factor / right.offset, left.offset / right.offset, isNumber};
            return std::nullopt;
    }
}

bool takesOne(std::uint8_t opcode) {
    return opcode <= kComplement || (opcode >= kSin && opcode <= kAbs);
}

}  // namespace

std::optional<Formula::Linear> Formula::asLinear() const {
    std::vector<Term> stack;
    const auto pop = [&stack] {
        const Term top = stack.back();
        stack.pop_back();
        return top;
    };
    // Of numbers alone any operation gives a number; one with a single operand leaves the other alone.
    const auto computed = [](std::uint8_t opcode, const Term& left,
                             const Term& right) -> std::optional<Term> {
        if (!left.isNumber || !right.isNumber) return std::nullopt;
        Formula operation;
        operation.program_ = {{left.offset, kConstant, 0}, {right.offset, kConstant, 0}, {0, opcode, 0}};
        return Term{0, operation.evaluate(nullptr, 0), true};
    };
    for (const Instruction& step : program_) {
        const bool isX = step.variable == 0;
        const Term variable{isX ? 1.0 : 0.0, 0, !isX};  // what is not given is 0
        const Term number{0, step.constant, true};
        std::optional<Term> result = step.opcode == kVariable ? variable : number;
        if (step.opcode > kVariable) {
            const bool isFused = step.opcode >= kAddConstant;
            const bool endsInVariable = step.opcode >= kAddVariable && step.opcode <= kDivideVariable;
            const Term right = !isFused ? pop() : endsInVariable ? variable : number;
            const Term left = takesOne(step.opcode)                 ? Term{}
                              : step.opcode >= kVariableAddConstant ? variable
                                                                    : pop();
            const int opcode = isFused ? kAdd + (step.opcode - kAddConstant) % 4 : step.opcode;
            if (opcode == kNegate) {
                result = combined(kSubtract, {}, right);
            } else if (opcode >= kAdd && opcode <= kDivide) {
                result = combined(static_cast<std::uint8_t>(opcode), left, right);
            } else {
                result = computed(step.opcode, left, right);
            }
        }
        if (!result) return std::nullopt;
        stack.push_back(*result);
    }
    const Term line = stack.empty() ? Term{} : stack.back();
    if (line.factor == 0 || !std::isfinite(line.factor) || !std::isfinite(line.offset)) return std::nullopt;
    return Linear{line.factor, line.offset};
}

}  // namespace lm::value
