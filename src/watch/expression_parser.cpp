#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <system_error>
#include <utility>

#include "core/text.h"
#include "value/formula_opcode.h"
#include "value/formula_operations.h"
#include "watch/duration.h"
#include "watch/expression.h"

namespace lm::watch {
namespace {

/// Far more than a condition needs, far less than the thread's stack holds.
constexpr unsigned kNestingLimit = 200;
constexpr std::size_t kMostNodes = 4096;
constexpr std::size_t kMostBytes = std::size_t{64} << 10U;

constexpr bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
constexpr bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}
constexpr bool continuesCharacter(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}
}  // namespace

/// Precedence climbing, with the operators and the precedence of the formula language.
class ExpressionParser {
  public:
    explicit ExpressionParser(std::string_view text) : text_(text) {}

    Result<std::vector<Node>> run() {
        if (text_.size() > kMostBytes) static_cast<void>(fail("the expression is too long"));
        if (!problem_.empty() || !parseExpression(1)) return wrong();
        if (peek() != '\0' || at_ < text_.size()) {
            static_cast<void>(unexpected());
            return wrong();
        }
        const bool any = std::any_of(nodes_.begin(), nodes_.end(),
                                     [](const Node& node) { return node.kind == NodeKind::word; });
        if (any) return std::move(nodes_);
        at_ = 0;
        static_cast<void>(fail("no signal is named"));
        return wrong();
    }

  private:
    Error wrong() const {
        return {ErrorCode::invalidArgument, "column " + std::to_string(column(failedAt_)) + ": " + problem_};
    }

    std::size_t column(std::size_t at) const {
        const std::string_view before = text_.substr(0, at);
        return 1 + static_cast<std::size_t>(std::count_if(before.begin(), before.end(),
                                                          [](char c) { return !continuesCharacter(c); }));
    }

    /// The next character behind white space, not consumed; 0 at the end.
    char peek() {
        while (at_ < text_.size() && isSpace(text_[at_]))
            ++at_;
        return at_ < text_.size() ? text_[at_] : '\0';
    }

    bool fail(std::string problem) {
        problem_ = std::move(problem);
        failedAt_ = at_;
        return false;
    }

    bool unexpected() {
        peek();
        if (at_ == text_.size()) return fail("the expression ends too early");
        std::size_t length = 1;
        while (at_ + length < text_.size() && continuesCharacter(text_[at_ + length]))
            ++length;
        if (text_[at_] == '=') return fail("unexpected '=' (equality is '==')");
        const std::string_view word = wordHere();
        if (word == "and") return fail("unexpected 'and' (write '&&')");
        if (word == "or") return fail("unexpected 'or' (write '||')");
        return fail("unexpected '" + std::string(word.empty() ? text_.substr(at_, length) : word) + "'");
    }

    bool expect(char mark) {
        if (peek() == mark) {
            ++at_;
            return true;
        }
        if (at_ == text_.size()) return fail(std::string("'") + mark + "' is missing");
        if (!unexpected()) problem_ += std::string(", '") + mark + "' belongs here";
        return false;
    }

    bool add(Node node) {
        if (nodes_.size() >= kMostNodes) return fail("the expression is too long");
        nodes_.push_back(std::move(node));
        return true;
    }

    std::size_t last() const { return nodes_.size() - 1; }

    const value::BinaryOperator* peekOperator() {
        peek();
        return value::operatorAt(text_.substr(at_));
    }

    /// 1 < x < 3 would compare a truth with 3.
    bool comparesTruth(std::uint8_t opcode, const Node& operand) const {
        return value::isComparison(opcode) && operand.kind == NodeKind::binary &&
               value::isComparison(operand.opcode) && !operand.inBrackets;
    }

    bool parseExpression(int minimumPrecedence) {
        if (++nesting_ > kNestingLimit) return fail("the expression is nested too deeply");
        if (!parsePrimary()) return false;
        for (const value::BinaryOperator* next = peekOperator();
             next != nullptr && next->precedence >= minimumPrecedence; next = peekOperator()) {
            const std::size_t left = last();
            const std::size_t place = at_;
            if (comparesTruth(next->opcode, nodes_[left]))
                return fail("a comparison is compared again: write a<x && x<b, or brackets");
            at_ += next->text.size();
            if (!parseExpression(next->precedence + 1)) return false;
            Node node{.kind = NodeKind::binary, .opcode = next->opcode, .left = left, .right = last()};
            node.column = column(place);
            if (!add(std::move(node))) return false;
        }
        --nesting_;
        return true;
    }

    bool parsePrimary() {
        const char c = peek();
        if (isDigit(c) || c == '.') return parseNumber();
        if (isLetter(c)) return parseWord();
        if (c == '"') return parseQuoted();
        if (c == '(') {
            ++at_;
            if (!parseExpression(1) || !expect(')')) return false;
            nodes_.back().inBrackets = true;
            return true;
        }
        if (c != '-' && c != '!' && c != '~') return unexpected();
        Node node{.kind = NodeKind::unary};
        node.opcode = c == '-' ? value::kNegate : c == '!' ? value::kNot : value::kComplement;
        node.column = column(at_++);
        if (++nesting_ > kNestingLimit) return fail("the expression is nested too deeply");
        if (!parsePrimary()) return false;
        --nesting_;
        node.left = last();
        return add(std::move(node));
    }

    bool parseNumber() {
        const std::string_view rest = text_.substr(at_);
        Node node{.kind = NodeKind::number};
        node.column = column(at_);
        std::size_t length = 0;
        if (rest.starts_with("0x") || rest.starts_with("0X")) {
            std::uint64_t number = 0;
            const auto [stop, failure] =
                std::from_chars(rest.data() + 2, rest.data() + rest.size(), number, 16);
            if (failure != std::errc()) return fail("this is no hexadecimal number");
            length = static_cast<std::size_t>(stop - rest.data());
            node.number = static_cast<double>(number);
        } else {
            while (length < rest.size() && continuesNumber(rest, length))
                ++length;
            const std::optional<double> number = parseDouble(rest.substr(0, length));
            if (!number || std::isinf(*number))
                return fail("'" + std::string(rest.substr(0, length)) + "' is no number");
            node.number = *number;
        }
        at_ += length;
        if (isLetter(at_ < text_.size() ? text_[at_] : ' ')) return unexpected();
        return add(std::move(node));
    }

    static bool continuesNumber(std::string_view text, std::size_t at) {
        const char c = text[at];
        if (isDigit(c) || c == '.') return true;
        if (c == 'e' || c == 'E') return at + 1 < text.size() && !isLetter(text[at + 1]);
        return (c == '+' || c == '-') && at > 0 && (text[at - 1] == 'e' || text[at - 1] == 'E');
    }

    /// Letters, digits, points, indices and an event behind @; empty when there is none.
    std::string_view wordHere() const {
        const std::string_view rest = text_.substr(at_);
        std::size_t length = 0;
        while (length < rest.size()) {
            const char c = rest[length];
            if (isLetter(c) || (length > 0 && (isDigit(c) || c == '.' || c == '@'))) {
                ++length;
                continue;
            }
            const std::size_t close =
                c == '[' && length > 0 ? rest.find(']', length) : std::string_view::npos;
            if (close == std::string_view::npos) break;
            const std::string_view index = rest.substr(length + 1, close - length - 1);
            if (!std::all_of(index.begin(), index.end(), [](char i) { return isLetter(i) || isDigit(i); }))
                break;
            length = close + 1;
        }
        return rest.substr(0, length);
    }

    bool parseWord() {
        const std::string_view word = wordHere();
        const std::size_t start = at_;
        at_ += word.size();
        if (peek() == '(') return parseCall(word, start);
        Node node{.kind = NodeKind::word};
        node.name = word;
        node.column = column(start);
        return add(std::move(node));
    }

    bool parseQuoted() {
        const std::size_t close = text_.find('"', at_ + 1);
        if (close == std::string_view::npos) return fail("the closing '\"' is missing");
        Node node{.kind = NodeKind::word};
        node.name = text_.substr(at_ + 1, close - at_ - 1);
        node.column = column(at_);
        if (node.name.empty()) return fail("there is nothing between the quotation marks");
        at_ = close + 1;
        return add(std::move(node));
    }

    bool parseCall(std::string_view word, std::size_t start) {
        Node node;
        node.column = column(start);
        const auto function = std::find(value::kFunctionNames.begin(), value::kFunctionNames.end(), word);
        if (function != value::kFunctionNames.end()) {
            node.kind = NodeKind::function;
            node.opcode = static_cast<std::uint8_t>(value::kSin + (function - value::kFunctionNames.begin()));
        } else if (word == "rises" || word == "falls") {
            node.kind = word == "rises" ? NodeKind::rises : NodeKind::falls;
        } else if (word == "for") {
            node.kind = NodeKind::held;
        } else {
            at_ = start;
            return fail("there is no function '" + std::string(word) +
                        "' (rises, falls, for, sin, cos, tan, asin, acos, atan, sinh, cosh, tanh, exp, log, "
                        "log10, sqrt, abs, pow)");
        }
        if (!expect('(') || !parseExpression(1)) return false;
        node.left = last();
        if (node.opcode == value::kPow && node.kind == NodeKind::function) {
            if (!expect(',') || !parseExpression(1)) return false;
            node.right = last();
        }
        if (node.kind == NodeKind::held && (!expect(',') || !parseTime(node.duration))) return false;
        return expect(')') && add(std::move(node));
    }

    bool parseTime(std::chrono::nanoseconds& duration) {
        peek();
        std::size_t length = 0;
        const std::string_view rest = text_.substr(at_);
        while (length < rest.size() && (isDigit(rest[length]) || isLetter(rest[length]) ||
                                        rest[length] == '.' || rest[length] == ' '))
            ++length;
        while (length > 0 && rest[length - 1] == ' ')
            --length;
        const auto parsed = parseDuration(rest.substr(0, length));
        if (!parsed) return fail("a time belongs here, as 2s, 500ms, 1.5min or 1h");
        duration = *parsed;
        at_ += length;
        return true;
    }

    std::string_view text_;
    std::size_t at_ = 0;
    unsigned nesting_ = 0;
    std::size_t failedAt_ = 0;
    std::string problem_;
    std::vector<Node> nodes_;
};

Result<Expression> Expression::parse(std::string_view text) {
    Result<std::vector<Node>> nodes = ExpressionParser(text).run();
    if (!nodes) return nodes.error();
    Expression expression;
    expression.text_ = text;
    expression.nodes_ = std::move(nodes).value();
    return expression;
}

}  // namespace lm::watch
