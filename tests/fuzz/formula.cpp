// The formula language: constants, one NAME=VALUE per line, then an empty line and the formula. What was
// compiled evaluates anywhere, and its expanded text is the same formula.
#include "value/formula.h"

#include <array>
#include <limits>

#include "fuzz_input.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    std::string_view text = fuzz::Input(data, size).rest();
    value::SystemConstants constants;
    for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end + 1);
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) break;
        constants.emplace(line.substr(0, equals), line.substr(equals + 1));
    }
    const Result<value::Formula> formula = value::Formula::compile(text, constants);
    if (!formula) {
        fuzz::require(formula.error().text().starts_with("formula"), "the error says what it is about");
        return 0;
    }
    const Result<value::Formula> again = value::Formula::compile(formula.value().text(), {});
    fuzz::require(again.ok(), "the expanded text needs no constants");
    using Limits = std::numeric_limits<double>;
    const std::array<double, 9> variables = {-1.5, 0, 255, 1e300, -0x1p63, 1e-310, 7, 64, -0.0};
    for (const double x :
         {0.0, -1.0, 3.5, 1e19, Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN()}) {
        fuzz::require(fuzz::same(formula.value().evaluate(x), again.value().evaluate(x)), "the same value");
    }
    for (std::size_t count = 0; count <= variables.size(); ++count)
        formula.value().evaluate(variables.data(), count);
    return 0;
}
