#include "value/formula.h"

#include <cmath>
#include <limits>
#include <map>
#include <string>

#include <gtest/gtest.h>

namespace lm::value {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNotANumber = std::numeric_limits<double>::quiet_NaN();

std::string errorOf(const std::string& text, const SystemConstants& constants = {}) {
    const Result<Formula> formula = Formula::compile(text, constants);
    return formula ? "compiled" : formula.error().text();
}

std::string repeated(const std::string& text, int count) {
    std::string out;
    for (int i = 0; i < count; ++i)
        out += text;
    return out;
}

TEST(Formula, Values) {
    struct Row {
        const char* text;
        double x;
        double expected;
    };
    // clang-format off
    const Row rows[] = {
        {"X*2+1", 3, 7}, {"X/4", 2, 0.5}, {"x1", 5, 5}, {"X2+1", 5, 1}, {"1<<3|1", 0, 9}, {"2-3-4", 0, -5},
        {"24/4/3", 0, 2}, {"5%3", 0, 2}, {"-5.5%X", 3, -2.5}, {"5%X", 0, kNotANumber}, {"pow(2,10)", 0, 1024},
        {" pow ( X + 1 ,\t2 )\n", 2, 9}, {"2+3*4", 0, 14}, {"(2+3)*4", 0, 20}, {"-X*2", 3, -6},
        {"10-X-X*X/X", 3, 4}, {"X-(X-1)", 9, 1}, {"2/X-X/2", 4, -1.5}, {"(X+1)*(X-1)/(X+X)", 3, 8.0 / 6},
        {"--X", 3, 3}, {"-!~X", 3, -0.0}, {"!X==1", 0, 1}, {"~X", 5, -6}, {"~X", kNotANumber, -1},
        {"0xFF&X", 0x1234, 0x34}, {"0XfFfFfFfFfFfFfFfF", 0, 0x1p64}, {"0x00000000000000000010", 0, 16},
        {"1e3+.5+2.+1E-1", 0, 1002.6}, {"X&15^3|16", 5, 22}, {"1+2<<1", 0, 6}, {"1<2==1", 0, 1},
        {"1==X&&X<2||0", 1, 1}, {"1||0&&0", 0, 1}, {"3>2>1", 0, 0}, {"X>=2&&X<=4&&X!=3", 4, 1},
        {"X>2", kNotANumber, 0}, {"X&&1", kNotANumber, 1}, {"1<<X", 65, 2}, {"1<<X", 63, -0x1p63}, {"1<<X", -1, -0x1p63},
        {"-8>>X", 1, -4}, {"-8>>X", 66, -2}, {"X|0", 1e300, 0x1p63}, {"X|0", -kInf, -0x1p63},
        {"X^0", -2.9, -2}, {"1/X", 0, kInf}, {"sqrt(X)", -1, kNotANumber}, {"log(exp(X))+log10(100)", 2, 4},
        {"sin(X)+cos(X)+tan(X)", 0, 1}, {"asin(X)+acos(X)-atan(X)*2", 1, 0},
        {"cosh(X)+sinh(X)+tanh(X)", 0, 1}, {"abs(-X)+abs(X)", 2, 4}
    };
    // clang-format on
    for (const Row& row : rows) {
        const Result<Formula> formula = Formula::compile(row.text, {});
        ASSERT_TRUE(formula.ok()) << formula.error().text();
        const double value = formula.value().evaluate(row.x);
        if (std::isnan(row.expected) && std::isnan(value)) continue;
        EXPECT_DOUBLE_EQ(value, row.expected) << row.text << " at " << row.x;
    }
    const double variables[] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    const Formula formula = Formula::compile("X1+x2*10+X9*100+X5", {}).value();
    EXPECT_EQ(formula.evaluate(variables, 9), 926);
    EXPECT_EQ(formula.evaluate(variables, 5), 26);
    EXPECT_EQ(formula.evaluate(nullptr, 0), 0);
}

TEST(Formula, StraightLinesAreKnownAsSuch) {
    struct Row {
        const char* text;
        double a;  ///< 0: no line
        double b;
    };
    // clang-format off
    const Row rows[] = {
        {"X", 1, 0}, {"X+1", 1, 1}, {"X-1", 1, -1}, {"X*2", 2, 0}, {"X/4", 0.25, 0}, {"1-X", -1, 1}, {"2*X", 2, 0},
        {"-(X-40)*3+X", -2, 120}, {"(2*X)-(X+1)/2", 1.5, -0.5}, {"X*X2+X+X3", 1, 0}, {"X*sqrt(2+2)-pow(2,3)", 2, -8},
        {"X*(1<<4)+!X2-~5%4", 16, 3}, {"X*(abs(-2)==2)", 1, 0}, {"3*4", 0, 0}, {"X-X", 0, 0}, {"X*X", 0, 0},
        {"X*(X+1)", 0, 0}, {"X/X", 0, 0}, {"1/X", 0, 0}, {"X/0", 0, 0}, {"sin(X)", 0, 0}, {"X+(X>1)", 0, 0},
        {"X&255", 0, 0}, {"pow(X,1)", 0, 0}, {"-!X", 0, 0}, {"X%2+X", 0, 0}
    };
    // clang-format on
    for (const Row& row : rows) {
        const auto line = Formula::compile(row.text, {}).value().asLinear();
        EXPECT_EQ(line ? line->a : 0, row.a) << row.text;
        EXPECT_EQ(line ? line->b : 0, row.b) << row.text;
    }
}

TEST(Formula, Errors) {
    // clang-format off
    const std::map<std::string, std::string> rows = {
        {"", "unexpected end"}, {"X+", "unexpected end"}, {"(", "unexpected end"}, {"(X", "')' expected"},
        {"sin X", "'(' expected"}, {"sin(1,2)", "')' expected"}, {"pow(2)", "',' expected"},
        {"pow(2,3", "')' expected"}, {"foo(X)", "unknown identifier 'foo'"},
        {"Sin(X)", "unknown identifier 'Sin'"}, {"X0", "unknown identifier 'X0'"},
        {"X10", "unknown identifier 'X10'"}, {"X 2", "unexpected '2'"}, {"X)", "unexpected ')'"},
        {"X**2", "unexpected '*'"}, {"X=1", "unexpected '='"}, {"+X", "unexpected '+'"},
        {"X\xC2\xB2", "unexpected '\xC2\xB2'"}, {"1.2.3", "invalid number"}, {"2e", "invalid number"},
        {"2e+", "invalid number"}, {".", "invalid number"}, {"1e999", "invalid number"},
        {"0x", "invalid hex number"}, {"0x10000000000000000", "invalid hex number"},
        {"0x1G", "unexpected 'G'"}
    };
    // clang-format on
    for (const auto& [text, problem] : rows)
        EXPECT_EQ(errorOf(text), "formula '" + text + "': " + problem);
}

TEST(Formula, DepthIsBoundedAndLengthIsNot) {
    const auto deep = [](int slots) { return repeated("X+(", slots - 1) + "X" + repeated(")", slots - 1); };
    EXPECT_EQ(Formula::compile(deep(64), {}).value().evaluate(2), 128);
    EXPECT_EQ(errorOf(deep(65)), "formula '" + deep(65) + "': formula too complex");
    const std::string nested = repeated("(", 500) + "X" + repeated(")", 500);
    EXPECT_EQ(Formula::compile(nested, {}).value().evaluate(2), 2);
    for (const char* opening : {"(", "-", "sin(", "1||1&&1|1^1&1==1<1<<1+1*("}) {
        const std::string text = repeated(opening, 100000);
        EXPECT_EQ(errorOf(text), "formula '" + text + "': formula too complex");
    }
    EXPECT_EQ(Formula::compile("X" + repeated("+X", 100000), {}).value().evaluate(1), 100001);
}

TEST(Formula, SystemConstants) {
    SystemConstants constants = {
        {"K", "2"}, {"SUM", "1+$(K)"}, {"TWICE", "$(TWICE)$(TWICE)$(TWICE)"}, {"BAD", "2 k"}};
    const Formula formula = Formula::compile("sysc(K)*X+$(SUM)*(X)", constants).value();
    EXPECT_EQ(formula.text(), "(2)*X+(1+(2))*(X)");
    EXPECT_EQ(formula.evaluate(10), 50);
    EXPECT_EQ(errorOf("X*$(TWICE)", constants), "formula: system constants nested too deeply");
    EXPECT_EQ(errorOf("sysc(K", constants), "formula: unterminated system constant");
    EXPECT_EQ(errorOf("sysc(k)", constants), "formula: unknown system constant 'k'");
    EXPECT_EQ(errorOf("$(BAD)", constants), "formula '(2 k)': ')' expected");

    // Fifteen passes may find work, the sixteenth must find none.
    std::map<std::string, std::string> chain = {{"C15", "X"}};
    for (int i = 0; i < 15; ++i)
        chain["C" + std::to_string(i)] = "$(C" + std::to_string(i + 1) + ")";
    constants.insert(chain.begin(), chain.end());
    EXPECT_EQ(Formula::compile("$(C1)", constants).value().evaluate(7), 7);
    EXPECT_EQ(errorOf("$(C0)", constants), "formula: system constants nested too deeply");
}

}  // namespace
}  // namespace lm::value
