// The text of a condition taken apart: numbers, names, the operators and functions of the formula language,
// and rises(), falls() and for(), which look back. What the names mean is found out with resolve().
//
// Threads: a plain value. Lifetime: owns its text.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "value/element.h"

namespace lm::watch {

enum class NodeKind : std::uint8_t {
    number,
    word,       ///< a name or the text of a table: resolve() finds out which
    signal,     ///< its number
    textMatch,  ///< whether it has the text of the table
    unary,
    binary,
    function,
    pass,  ///< what its operand is
    rises,
    falls,
    held,     ///< for()
    nothing,  ///< of a text that a textMatch has taken over
};

struct Node {
    static constexpr std::size_t kNone = SIZE_MAX;

    NodeKind kind = NodeKind::number;
    std::uint8_t opcode = 0;  ///< a value::FormulaOpcode
    bool inBrackets = false;
    std::size_t left = kNone;  ///< operands stand before their operator
    std::size_t right = kNone;
    double number = 0;
    std::chrono::nanoseconds duration{0};
    std::string name = {};  ///< of a signal
    std::string text = {};  ///< of a table
    std::size_t column = 1;
};

/// The element that a name stands for. Errors: that it is no signal, or several.
using FindSignal = std::function<Result<value::Element>(const std::string& name)>;

class Expression {
  public:
    /// Errors (invalidArgument): "column N: REASON", columns counted from 1 in characters.
    static Result<Expression> parse(std::string_view text);

    /// Tells names from texts: a word beside == or != is a text where the conversion of the other word has
    /// it, else a name. Errors: "column N: ..." with those of `find`, texts that no table has.
    Result<void> resolve(const FindSignal& find);

    /// The same condition, true once it has held so long.
    void holdFor(std::chrono::nanoseconds duration);

    const std::string& text() const { return text_; }
    const std::vector<Node>& nodes() const { return nodes_; }
    /// After resolve(): each once, in the order of the text.
    std::vector<std::string> signalNames() const;

  private:
    friend class ExpressionParser;

    Result<void> resolveComparison(Node& node, const FindSignal& find);

    std::string text_;
    std::vector<Node> nodes_;  ///< the last one is the whole
};

}  // namespace lm::watch
