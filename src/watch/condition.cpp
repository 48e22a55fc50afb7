#include "watch/condition.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <utility>

#include "value/formula_opcode.h"
#include "value/formula_operations.h"

namespace lm::watch {
namespace {

constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

double negated(double truth) {
    return std::isnan(truth) ? truth : value::truth(truth == 0);
}

/// False decides, then what is missing.
double both(double left, double right) {
    if (left == 0 || right == 0) return 0;
    return std::isnan(left) || std::isnan(right) ? kUnknown : 1;
}

double compared(std::uint8_t opcode, double left, double right) {
    if (std::isnan(left) || std::isnan(right)) return kUnknown;
    switch (opcode) {
        case value::kLess:
            return value::truth(left < right);
        case value::kLessEqual:
            return value::truth(left <= right);
        case value::kGreater:
            return value::truth(left > right);
        case value::kGreaterEqual:
            return value::truth(left >= right);
        case value::kEqual:
            return value::truth(left == right);
        default:
            return value::truth(left != right);
    }
}

double ofBits(std::uint8_t opcode, double left, double right) {
    if (std::isnan(left) || std::isnan(right)) return kUnknown;
    switch (opcode) {
        case value::kShiftLeft:
            return value::shiftedLeft(left, right);
        case value::kShiftRight:
            return value::shiftedRight(left, right);
        case value::kBitAnd:
            return static_cast<double>(value::truncated(left) & value::truncated(right));
        case value::kBitXor:
            return static_cast<double>(value::truncated(left) ^ value::truncated(right));
        default:
            return static_cast<double>(value::truncated(left) | value::truncated(right));
    }
}

double combined(std::uint8_t opcode, double left, double right) {
    switch (opcode) {
        case value::kAdd:
            return left + right;
        case value::kSubtract:
            return left - right;
        case value::kMultiply:
            return left * right;
        case value::kDivide:
            return left / right;
        case value::kRemainder:
            return std::fmod(left, right);
        case value::kPow:
            return std::pow(left, right);
        case value::kAnd:
            return both(left, right);
        case value::kOr:
            return negated(both(negated(left), negated(right)));
        default:
            return value::isComparison(opcode) ? compared(opcode, left, right) : ofBits(opcode, left, right);
    }
}

double changed(std::uint8_t opcode, double operand) {
    if (opcode == value::kNegate) return -operand;
    if (opcode == value::kNot) return negated(operand);
    if (opcode == value::kComplement)
        return std::isnan(operand) ? kUnknown : static_cast<double>(~value::truncated(operand));
    return value::applyFunction(opcode, operand);
}

bool isBinary(std::uint8_t opcode) {
    return (opcode >= value::kAdd && opcode <= value::kOr) || opcode == value::kPow;
}

}  // namespace

bool Condition::append(const Node& node, const SlotOf& slotOf) {
    Instruction step;
    step.opcode = node.opcode;
    switch (node.kind) {
        case NodeKind::number:
            step.opcode = value::kConstant;
            step.constant = node.number;
            break;
        case NodeKind::signal:
        case NodeKind::textMatch:
            step.opcode = kSlot;
            step.index = static_cast<std::uint32_t>(slotOf(node.name, node.text));
            if (std::find(slots_.begin(), slots_.end(), step.index) == slots_.end())
                slots_.push_back(step.index);
            break;
        case NodeKind::rises:
        case NodeKind::falls:
        case NodeKind::held:
            step.opcode = node.kind == NodeKind::rises   ? kRises
                          : node.kind == NodeKind::falls ? kFalls
                                                         : kHeld;
            step.durationNs = node.duration.count();
            step.index = static_cast<std::uint32_t>(histories_.size());
            histories_.emplace_back();
            break;
        case NodeKind::unary:
        case NodeKind::binary:
        case NodeKind::function:
            break;
        default:
            return false;
    }
    program_.push_back(step);
    return true;
}

/// Makes one instruction of each value that is compared with a number, which may be negative: most of a
/// condition are such.
void Condition::fuse() {
    std::vector<Instruction> fused;
    for (const Instruction& step : program_) {
        const std::size_t size = fused.size();
        if (step.opcode == value::kNegate && size >= 1 && fused[size - 1].opcode == value::kConstant) {
            fused[size - 1].constant = -fused[size - 1].constant;
            continue;
        }
        const bool fits = value::isComparison(step.opcode) && size >= 2 && fused[size - 2].opcode == kSlot &&
                          fused[size - 1].opcode == value::kConstant;
        if (!fits) {
            fused.push_back(step);
            continue;
        }
        fused[size - 2].opcode = kSlotCompared;
        fused[size - 2].comparison = step.opcode;
        fused[size - 2].constant = fused[size - 1].constant;
        fused.pop_back();
    }
    program_ = std::move(fused);
}

Result<Condition> Condition::compile(const Expression& expression, const SlotOf& slotOf) {
    Condition condition;
    std::size_t depth = 0;
    std::size_t deepest = 0;
    for (const Node& node : expression.nodes()) {
        if (!condition.append(node, slotOf)) continue;
        const std::uint8_t opcode = condition.program_.back().opcode;
        if (opcode == value::kConstant || opcode == kSlot) deepest = std::max(deepest, ++depth);
        if (isBinary(opcode)) --depth;
    }
    if (deepest > value::kFormulaStackSize)
        return Error{ErrorCode::invalidArgument, "the expression is too complex"};
    if (value::isComparison(condition.program_.back().opcode)) {
        condition.compares_ = true;
        condition.comparison_ = condition.program_.back().opcode;
        condition.program_.pop_back();
    }
    condition.fuse();
    return condition;
}

double Condition::compareLast(double left, double right) {
    left_ = left;
    switch (comparison_) {
        case value::kLess:
        case value::kLessEqual:
            margin_ = right - left;
            break;
        case value::kEqual:
            margin_ = -std::fabs(left - right);
            break;
        case value::kNotEqual:
            margin_ = std::fabs(left - right);
            break;
        default:
            margin_ = left - right;
            break;
    }
    return compared(comparison_, left, right);
}

double Condition::lookBack(const Instruction& step, double truth, std::int64_t nowNs) {
    History& history = histories_[step.index];
    const bool isTrue = truth != 0 && !std::isnan(truth);
    if (step.opcode == kHeld) {
        if (isTrue && !history.holds) history.sinceNs = nowNs;
        history.holds = isTrue;
        return isTrue ? value::truth(nowNs - history.sinceNs >= step.durationNs) : truth;
    }
    if (std::isnan(truth)) return truth;
    const double now = value::truth(isTrue == (step.opcode == kRises));
    const bool turned = history.known && history.last == 0 && now != 0;
    history.last = now;
    history.known = true;
    return value::truth(turned);
}

double Condition::evaluate(const double* values, std::int64_t nowNs) {
    // A compiled program writes each slot before it reads it. The compiler sees that with these set only.
    std::array<double, value::kFormulaStackSize + 1> stack;
    stack[0] = stack[1] = stack[2] = 0;
    double* top = stack.data();
    for (const Instruction& step : program_) {
        if (step.opcode == kSlotCompared) {
            *++top = compared(step.comparison, values[step.index], step.constant);
        } else if (step.opcode == kSlot) {
            *++top = values[step.index];
        } else if (step.opcode == value::kConstant) {
            *++top = step.constant;
        } else if (step.opcode > kSlot) {
            *top = lookBack(step, *top, nowNs);
        } else if (isBinary(step.opcode)) {
            --top;
            *top = combined(step.opcode, *top, top[1]);
        } else {
            *top = changed(step.opcode, *top);
        }
    }
    return compares_ ? compareLast(top[-1], *top) : *top;
}

std::vector<Condition::Plain> Condition::plainParts() const {
    if (compares_) {
        if (program_.size() != 2 || program_[0].opcode != kSlot || program_[1].opcode != value::kConstant)
            return {};
        return {{program_[0].index, comparison_, program_[1].constant}};
    }
    std::vector<Plain> parts;
    for (const Instruction& step : program_) {
        if (step.opcode == value::kAnd) continue;
        if (step.opcode != kSlotCompared) return {};
        parts.push_back({step.index, step.comparison, step.constant});
    }
    return parts;
}

void Condition::forget() {
    std::fill(histories_.begin(), histories_.end(), History{});
}

}  // namespace lm::watch
