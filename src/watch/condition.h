// A condition ready to be evaluated for every record: a flat program over the values of signals, and what its
// rises(), falls() and for() remember.
//
// A truth is 1, 0 or, where a value is missing, NaN: a comparison with NaN is NaN, and so are !NaN, what is
// computed with it, `true && NaN` and `false || NaN`.
//
// Threads: one at a time; evaluate() allocates nothing. Lifetime: owns everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/result.h"
#include "watch/expression.h"

namespace lm::watch {

/// Where the number of a signal is found among the values, or with a text 1 or 0: whether it has that one.
using SlotOf = std::function<std::size_t(const std::string& name, const std::string& text)>;

class Condition {
  public:
    /// `expression` is resolved. Error: it needs too much of the stack.
    static Result<Condition> compile(const Expression& expression, const SlotOf& slotOf);

    /// 1, 0 or NaN. `nowNs` never goes back from one call to the next.
    double evaluate(const double* values, std::int64_t nowNs);

    /// The whole is a comparison of numbers: the next two tell of the last evaluation.
    bool comparesNumbers() const { return compares_; }
    double left() const { return left_; }
    /// By how much it held, below 0 by how much it did not.
    double margin() const { return margin_; }

    /// Begins again as if there had been no evaluation.
    void forget();

    /// Each once.
    const std::vector<std::size_t>& slots() const { return slots_; }

    /// A value compared with a number.
    struct Plain {
        std::size_t slot = 0;
        std::uint8_t opcode = 0;  ///< a value::FormulaOpcode
        double number = 0;
    };
    /// Those that must all hold, when the condition is no more than that, which nearly all are; else none.
    std::vector<Plain> plainParts() const;

  private:
    /// Beyond those of the formula language.
    enum Opcode : std::uint8_t { kSlotCompared = 99, kSlot = 100, kRises, kFalls, kHeld };
    struct Instruction {
        std::uint8_t opcode = 0;
        std::uint8_t comparison = 0;  ///< of a slot with the constant, all in one instruction
        std::uint32_t index = 0;      ///< of a value, or of a history
        double constant = 0;
        std::int64_t durationNs = 0;
    };
    struct History {
        double last = 0;
        bool known = false;  ///< `last` is set
        bool holds = false;
        std::int64_t sinceNs = 0;  ///< while it holds
    };

    bool append(const Node& node, const SlotOf& slotOf);
    void fuse();
    double compareLast(double left, double right);
    double lookBack(const Instruction& step, double truth, std::int64_t nowNs);

    std::vector<Instruction> program_;  ///< without the comparison of `compares_`
    std::vector<History> histories_;
    std::vector<std::size_t> slots_;
    bool compares_ = false;
    std::uint8_t comparison_ = 0;
    double left_ = 0;
    double margin_ = 0;
};

}  // namespace lm::watch
