// Conditions of `measure` and `wait`: what is refused has a place, what was compiled evaluates anything, and
// a comparison tells its left side.
#include "watch/condition.h"

#include <array>
#include <cmath>
#include <limits>

#include "fuzz_input.h"
#include "watch/duration.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    const std::string_view text = fuzz::Input(data, size).rest();
    if (const auto time = watch::parseDuration(text))
        fuzz::require(time->count() >= 0, "no time is negative");
    Result<watch::Expression> parsed = watch::Expression::parse(text);
    if (!parsed) {
        fuzz::require(parsed.error().text().starts_with("column "), "the error has a place");
        return 0;
    }
    watch::Expression& expression = parsed.value();
    value::Conversion::VerbalTable table;
    table.ranges = {{0, 1, "off"}, {2, 5, "on"}};
    const auto find = [&](const std::string& name) -> Result<value::Element> {
        if (name.front() == 'o') return Error{ErrorCode::notFound, "none"};
        value::Element element;
        element.name = name;
        if (name.front() == 'g')
            element.conversion = std::make_shared<const value::Conversion>(table, "", "");
        return element;
    };
    if (auto resolved = expression.resolve(find); !resolved) {
        fuzz::require(resolved.error().text().starts_with("column "), "the error has a place");
        return 0;
    }
    fuzz::require(!expression.signalNames().empty(), "a signal is named");
    expression.holdFor(std::chrono::seconds(1));
    std::size_t slots = 0;
    auto condition = watch::Condition::compile(expression, [&](const auto&, const auto&) { return slots++; });
    if (!condition) return 0;
    using Limits = std::numeric_limits<double>;
    std::vector<double> values(slots);
    std::int64_t now = -5;
    for (const double start : {0.0, -1.5, 1e300, Limits::infinity(), Limits::quiet_NaN()}) {
        for (std::size_t i = 0; i < slots; ++i)
            values[i] = start - static_cast<double>(i);
        const double truth = condition.value().evaluate(values.data(), now += 400'000'000);
        fuzz::require(std::isnan(truth) || truth == 0 || truth == 1, "for() is true, false or open");
    }
    condition.value().forget();
    return 0;
}
