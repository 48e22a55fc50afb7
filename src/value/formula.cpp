#include "value/formula.h"

#include <array>
#include <cmath>

#include "value/formula_opcode.h"
#include "value/formula_operations.h"

namespace lm::value {
std::size_t Formula::variableCount() const {
    std::size_t count = 0;
    for (const Instruction& step : program_) {
        const bool uses = step.opcode == kVariable || step.opcode >= kAddVariable;
        if (uses) count = std::max(count, std::size_t{step.variable} + 1);
    }
    return count;
}

// One flat switch, because every call would cost more than the operation it makes.
// The top of the stack lives in a register, `below` points behind what lies under it. The slots need no
// initial values: a compiled program writes each one before it reads it.
double Formula::evaluate(const double* variables, std::size_t count) const {  // NOLINT(*-function-size)
    std::array<double, kFormulaStackSize> stack;
    double* below = stack.data();
    double top = 0;
    const auto variable = [&](const Instruction& step) {
        return step.variable < count ? variables[step.variable] : 0;
    };
    for (const Instruction& step : program_) {
        switch (step.opcode) {
            case kConstant:
                *below++ = top;
                top = step.constant;
                break;
            case kVariable:
                *below++ = top;
                top = variable(step);
                break;
            case kAddConstant:
                top += step.constant;
                break;
            case kSubtractConstant:
                top -= step.constant;
                break;
            case kMultiplyConstant:
                top *= step.constant;
                break;
            case kDivideConstant:
                top /= step.constant;
                break;
            case kAddVariable:
                top += variable(step);
                break;
            case kSubtractVariable:
                top -= variable(step);
                break;
            case kMultiplyVariable:
                top *= variable(step);
                break;
            case kDivideVariable:
                top /= variable(step);
                break;
            case kVariableAddConstant:
                *below++ = top;
                top = variable(step) + step.constant;
                break;
            case kVariableSubtractConstant:
                *below++ = top;
                top = variable(step) - step.constant;
                break;
            case kVariableMultiplyConstant:
                *below++ = top;
                top = variable(step) * step.constant;
                break;
            case kVariableDivideConstant:
                *below++ = top;
                top = variable(step) / step.constant;
                break;
            case kNegate:
                top = -top;
                break;
            case kNot:
                top = truth(top == 0);
                break;
            case kComplement:
                top = static_cast<double>(~truncated(top));
                break;
            case kAdd:
                top = *--below + top;
                break;
            case kSubtract:
                top = *--below - top;
                break;
            case kMultiply:
                top = *--below * top;
                break;
            case kDivide:
                top = *--below / top;
                break;
            case kRemainder:
                top = std::fmod(*--below, top);
                break;
            case kShiftLeft:
                top = shiftedLeft(*--below, top);
                break;
            case kShiftRight:
                top = shiftedRight(*--below, top);
                break;
            case kLess:
                top = truth(*--below < top);
                break;
            case kLessEqual:
                top = truth(*--below <= top);
                break;
            case kGreater:
                top = truth(*--below > top);
                break;
            case kGreaterEqual:
                top = truth(*--below >= top);
                break;
            case kEqual:
                top = truth(*--below == top);
                break;
            case kNotEqual:
                top = truth(*--below != top);
                break;
            case kBitAnd:
                top = static_cast<double>(truncated(*--below) & truncated(top));
                break;
            case kBitXor:
                top = static_cast<double>(truncated(*--below) ^ truncated(top));
                break;
            case kBitOr:
                top = static_cast<double>(truncated(*--below) | truncated(top));
                break;
            case kAnd:
                --below;
                top = truth(*below != 0 && top != 0);
                break;
            case kOr:
                --below;
                top = truth(*below != 0 || top != 0);
                break;
            case kPow:
                top = std::pow(*--below, top);
                break;
            default:
                top = applyFunction(step.opcode, top);
                break;
        }
    }
    return top;
}

}  // namespace lm::value
