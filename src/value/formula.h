// Formulas of FORM conversions: expansion of system constants, compilation to a postfix program, evaluation.
//
// Threads: a compiled formula is immutable; evaluate() may run on any number of threads and allocates
// nothing. Lifetime: owns its text and program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/result.h"

namespace lm::value {

using SystemConstants = std::unordered_map<std::string_view, std::string_view>;

class Formula {
  public:
    /// Errors (invalidArgument): "formula: ..." of the constant expansion, else "formula 'TEXT': ...".
    static Result<Formula> compile(std::string_view text, const SystemConstants& constants);

    /// The value with `variables[0 .. count)` bound to X (X1), X2, ...; a variable that is not given is 0.
    /// Domain errors give NaN or infinity.
    double evaluate(const double* variables, std::size_t count) const;
    double evaluate(double x) const { return evaluate(&x, 1); }

    /// What a formula of X, numbers and arithmetic alone comes to when it is a * X + b with an a that is not
    /// 0; none for every other. Computed so, its values may differ in their last digits.
    struct Linear {
        double a = 1;
        double b = 0;
    };
    std::optional<Linear> asLinear() const;

    /// 3 for a formula whose last variable is X3.
    std::size_t variableCount() const;

    /// The text after expansion of the system constants; compiling it again needs no constants.
    const std::string& text() const { return text_; }

  private:
    struct Instruction {
        double constant;
        std::uint8_t opcode;
        std::uint8_t variable;
    };
    friend class FormulaCompiler;

    std::string text_;
    std::vector<Instruction> program_;
};

}  // namespace lm::value
