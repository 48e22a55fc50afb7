#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>
#include <system_error>
#include <utility>

#include "core/text.h"
#include "value/formula.h"
#include "value/formula_opcode.h"
#include "value/formula_operations.h"

namespace lm::value {
namespace {

/// Nested right operands, parentheses, calls and unary operators: far more than a formula needs, far less
/// than the thread's stack holds.
constexpr unsigned kNestingLimit = 1000;

/// A text that constants inside constants have blown up beyond this is refused before it eats the memory.
constexpr std::size_t kExpandedLimit = std::size_t{1} << 20U;

constexpr int kExpansionPasses = 16;

constexpr bool isWordStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
constexpr bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// --- System constants

Error expansionError(const std::string& what) {
    return {ErrorCode::invalidArgument, "formula: " + what};
}

/// Where the introducer that ends with the parenthesis at `open` begins; npos when it is a plain one.
std::size_t introducerStart(std::string_view text, std::size_t from, std::size_t open) {
    for (const std::string_view word : {std::string_view("sysc"), std::string_view("$")}) {
        if (open >= from + word.size() && text.substr(open - word.size(), word.size()) == word)
            return open - word.size();
    }
    return std::string_view::npos;
}

/// One pass over the text; none when there was nothing to replace.
Result<std::optional<std::string>> expandOnce(std::string_view text, const SystemConstants& constants) {
    std::string out;
    std::size_t done = 0;
    for (std::size_t open = text.find('('); open != std::string_view::npos; open = text.find('(', open + 1)) {
        const std::size_t start = introducerStart(text, done, open);
        if (start == std::string_view::npos) continue;
        const std::size_t close = text.find(')', open);
        if (close == std::string_view::npos) return expansionError("unterminated system constant");
        const std::string_view name = text.substr(open + 1, close - open - 1);
        const auto constant = constants.find(name);
        if (constant == constants.end())
            return expansionError("unknown system constant '" + std::string(name) + "'");
        out.append(text.substr(done, start - done)).append("(").append(constant->second).append(")");
        if (out.size() > kExpandedLimit) return expansionError("system constants nested too deeply");
        done = close + 1;
        open = close;
    }
    if (done == 0) return std::optional<std::string>();
    out.append(text.substr(done));
    return std::optional<std::string>(std::move(out));
}

Result<std::string> expandConstants(std::string_view text, const SystemConstants& constants) {
    std::string expanded(text);
    for (int pass = 1; pass <= kExpansionPasses; ++pass) {
        Result<std::optional<std::string>> next = expandOnce(expanded, constants);
        if (!next) return next.error();
        if (!next.value()) return expanded;
        expanded = std::move(*next.value());
    }
    return expansionError("system constants nested too deeply");
}

}  // namespace

/// Precedence climbing over the expanded text. An instruction is appended behind its operands.
class FormulaCompiler {
  public:
    explicit FormulaCompiler(std::string_view text) : text_(text) {}

    /// The program, or what is wrong with the text.
    Result<std::vector<Formula::Instruction>> run() {
        if (!parseExpression(1)) return Error{ErrorCode::invalidArgument, problem_};
        if (peek() != '\0' || at_ < text_.size()) return Error{ErrorCode::invalidArgument, unexpected()};
        if (deepest_ > kFormulaStackSize) return Error{ErrorCode::invalidArgument, "formula too complex"};
        return std::move(program_);
    }

  private:
    /// The next character behind white space, not consumed; 0 at the end.
    char peek() {
        while (at_ < text_.size() && isSpace(text_[at_]))
            ++at_;
        return at_ < text_.size() ? text_[at_] : '\0';
    }

    bool fail(std::string problem) {
        problem_ = std::move(problem);
        return false;
    }

    /// Names the character at hand, all bytes of it.
    std::string unexpected() {
        peek();
        if (at_ == text_.size()) return "unexpected end";
        std::size_t length = 1;
        while (at_ + length < text_.size() &&
               (static_cast<unsigned char>(text_[at_ + length]) & 0xC0U) == 0x80U)
            ++length;
        return "unexpected '" + std::string(text_.substr(at_, length)) + "'";
    }

    bool expect(char mark) {
        if (peek() != mark) return fail(std::string("'") + mark + "' expected");
        ++at_;
        return true;
    }

    void emit(std::uint8_t opcode, double constant = 0, std::uint8_t variable = 0) {
        if (opcode <= kVariable) {
            deepest_ = std::max(deepest_, ++depth_);
        } else if ((opcode >= kAdd && opcode <= kOr) || opcode == kPow) {
            --depth_;
            if (opcode <= kDivide && fuse(opcode)) return;
        }
        program_.push_back({constant, opcode, variable});
    }

    /// Makes one instruction of an arithmetic operator and the pushes before it, if there are any.
    bool fuse(std::uint8_t opcode) {
        // A push that stands last is the whole right operand, and one before it the whole left one.
        Formula::Instruction& right = program_.back();
        if (right.opcode > kVariable) return false;
        const auto fused = [opcode](std::uint8_t add) {
            return static_cast<std::uint8_t>(add + (opcode - kAdd));
        };
        if (right.opcode == kVariable) {
            right.opcode = fused(kAddVariable);
        } else if (Formula::Instruction& left = *(program_.end() - 2); left.opcode == kVariable) {
            left.opcode = fused(kVariableAddConstant);
            left.constant = right.constant;
            program_.pop_back();
        } else {
            right.opcode = fused(kAddConstant);
        }
        return true;
    }

    const BinaryOperator* peekOperator() {
        peek();
        return operatorAt(text_.substr(at_));
    }

    bool parseExpression(int minimumPrecedence) {
        if (++nesting_ > kNestingLimit) return fail("formula too complex");
        if (!parsePrimary()) return false;
        for (const BinaryOperator* next = peekOperator();
             next != nullptr && next->precedence >= minimumPrecedence; next = peekOperator()) {
            at_ += next->text.size();
            if (!parseExpression(next->precedence + 1)) return false;
            emit(next->opcode);
        }
        --nesting_;
        return true;
    }

    bool parsePrimary() {
        const char c = peek();
        if (isDigit(c) || c == '.') return parseNumber();
        if (isWordStart(c)) return parseWord();
        if (c == '(') {
            ++at_;
            return parseExpression(1) && expect(')');
        }
        if (c == '-' || c == '!' || c == '~') {
            ++at_;
            if (++nesting_ > kNestingLimit) return fail("formula too complex");
            if (!parsePrimary()) return false;
            --nesting_;
            emit(c == '-' ? kNegate : c == '!' ? kNot : kComplement);
            return true;
        }
        return fail(unexpected());
    }

    bool parseNumber() {
        const std::string_view rest = text_.substr(at_);
        if (rest.size() > 1 && rest[0] == '0' && (rest[1] == 'x' || rest[1] == 'X')) {
            std::uint64_t value = 0;
            const auto [stop, failure] =
                std::from_chars(rest.data() + 2, rest.data() + rest.size(), value, 16);
            if (failure != std::errc()) return fail("invalid hex number");
            at_ += static_cast<std::size_t>(stop - rest.data());
            emit(kConstant, static_cast<double>(value));
            return true;
        }
        std::size_t length = 0;
        while (length < rest.size() && continuesNumber(rest, length))
            ++length;
        const std::optional<double> value = parseDouble(rest.substr(0, length));
        if (!value || std::isinf(*value)) return fail("invalid number");
        at_ += length;
        emit(kConstant, *value);
        return true;
    }

    static bool continuesNumber(std::string_view text, std::size_t at) {
        const char c = text[at];
        if (isDigit(c) || c == '.' || c == 'e' || c == 'E') return true;
        return (c == '+' || c == '-') && (text[at - 1] == 'e' || text[at - 1] == 'E');
    }

    bool parseWord() {
        std::size_t length = 1;
        while (at_ + length < text_.size() &&
               (isWordStart(text_[at_ + length]) || isDigit(text_[at_ + length])))
            ++length;
        const std::string_view word = text_.substr(at_, length);
        const auto function = std::find(kFunctionNames.begin(), kFunctionNames.end(), word);
        if (function != kFunctionNames.end()) {
            at_ += length;
            return parseCall(static_cast<std::uint8_t>(kSin + (function - kFunctionNames.begin())));
        }
        const bool isVariable = (word[0] == 'X' || word[0] == 'x') &&
                                (length == 1 || (length == 2 && word[1] >= '1' && word[1] <= '9'));
        if (!isVariable) return fail("unknown identifier '" + std::string(word) + "'");
        at_ += length;
        emit(kVariable, 0, length == 1 ? std::uint8_t{0} : static_cast<std::uint8_t>(word[1] - '1'));
        return true;
    }

    bool parseCall(std::uint8_t opcode) {
        if (!expect('(') || !parseExpression(1)) return false;
        if (opcode == kPow && (!expect(',') || !parseExpression(1))) return false;
        if (!expect(')')) return false;
        emit(opcode);
        return true;
    }

    std::string_view text_;
    std::size_t at_ = 0;
    unsigned nesting_ = 0;
    std::size_t depth_ = 0;
    std::size_t deepest_ = 0;
    std::string problem_;
    std::vector<Formula::Instruction> program_;
};

Result<Formula> Formula::compile(std::string_view text, const SystemConstants& constants) {
    Result<std::string> expanded = expandConstants(text, constants);
    if (!expanded) return expanded.error();
    Formula formula;
    formula.text_ = std::move(expanded).value();
    Result<std::vector<Instruction>> program = FormulaCompiler(formula.text_).run();
    if (!program) {
        Error error = program.error();
        error.message = "formula '" + formula.text_ + "': " + error.message;
        return error;
    }
    formula.program_ = std::move(program).value();
    return formula;
}

}  // namespace lm::value
