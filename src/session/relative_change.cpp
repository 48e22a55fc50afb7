#include "session/relative_change.h"

#include <cmath>
#include <optional>
#include <string>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/text.h"

namespace lm::session {
namespace {

using value::Exact;
using value::Value;

Error fault(const std::string& name, const std::string& what) {
    return {ErrorCode::invalidArgument, name + ": " + what};
}

/// All that the axis holds, or of the values the chosen ones.
class Physicals {
  public:
    Physicals(const a2l::ObjectName& name, const a2l::ObjectContent& content) : content_(content) {
        const auto& axes = content.placed.axes();
        const bool isAxisObject = content.placed.object().kind == a2l::ObjectKind::axisPoints;
        const bool areSums = isAxisObject && axes.front().about().difference;
        if (!name.axis && !areSums) return;
        const std::size_t axis = name.axis.value_or(0);
        for (const Value& raw : content.points(axis))
            points_.push_back(axes[axis].physical(raw));
        arePoints_ = true;
    }
    Value at(std::size_t number) const { return arePoints_ ? points_[number] : content_.physical(number); }

  private:
    const a2l::ObjectContent& content_;
    std::vector<Value> points_;
    bool arePoints_ = false;
};

using value::Int128;

/// "-1.05" as -105 and 2.
struct Decimal {
    Int128 digits = 0;
    int places = 0;
};

/// None for what has an exponent, is hexadecimal or has more digits than a factor needs.
std::optional<Decimal> parseDecimal(std::string_view text) {
    constexpr std::size_t kMostDigits = 18;
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    if (text.size() > kMostDigits) return std::nullopt;
    Decimal number;
    bool behindPoint = false;
    for (const char c : text) {
        if (c != '.' && (c < '0' || c > '9')) return std::nullopt;
        if (c == '.') {
            behindPoint = true;
            continue;
        }
        number.digits = number.digits * 10 + (c - '0');
        number.places += behindPoint ? 1 : 0;
    }
    if (negative) number.digits = -number.digits;
    return number;
}

/// To the nearest 256th of a unit of `held`; none where that is beyond 128 bits.
std::optional<Exact> product(const Exact& held, const Decimal& by) {
    constexpr int kMoreBits = 8;
    Int128 units = 0;
    if (__builtin_mul_overflow(held.units, by.digits, &units)) return std::nullopt;
    Int128 divisor = 1;
    for (int i = 0; i < by.places; ++i)
        divisor *= 10;
    if (units % divisor == 0) return Exact{units / divisor, held.exponent};
    if (__builtin_mul_overflow(units, Int128{1} << kMoreBits, &units)) return std::nullopt;
    const Int128 half = units < 0 ? -divisor / 2 : divisor / 2;
    return Exact{(units + half) / divisor, held.exponent - kMoreBits};
}

/// 64-bit integers keep all digits; none where that is not possible.
std::optional<Value> related(const Value& held, Relation relation, std::string_view text, double by) {
    const auto* const exact = std::get_if<Exact>(&held);
    if (exact != nullptr && relation == Relation::times) {
        const auto decimal = parseDecimal(text);
        if (const auto all = decimal ? product(*exact, *decimal) : std::nullopt) return *all;
        if (std::fabs(exact->toDouble()) >= 0x1p53) return std::nullopt;
    } else if (exact != nullptr) {
        if (auto step = Exact::parse(text)) {
            if (relation == Relation::plus) step->units = -step->units;
            return *exact - *step;
        }
    }
    const double number = value::toDouble(held);
    if (relation == Relation::times) return number * by;
    return relation == Relation::plus ? number + by : number - by;
}

std::string textOf(const Value& value) {
    const auto* const exact = std::get_if<Exact>(&value);
    return exact != nullptr ? exact->shortest() : formatShortest(value::toDouble(value));
}

}  // namespace

Result<std::vector<TypedChange>> relativeChanges(const a2l::ObjectName& name,
                                                 const a2l::ObjectContent& content, Relation relation,
                                                 std::string_view text) {
    const auto by = parseDouble(text);
    if (!by) return fault(name.text, fmt::format("'{}' is not a number", text));
    const auto chosen = chooseNumbers(name, content.placed);
    if (!chosen) return chosen.error();
    if (name.indices.empty() && !chosen.value().dimensions.empty()) {
        Error error = fault(name.text, fmt::format("has {} values", chosen.value().numbers.size()));
        error.hint = name.text + "[*] takes all of them";
        return error;
    }
    const Physicals physicals(name, content);
    std::vector<TypedChange> changes;
    for (const std::size_t number : chosen.value().numbers) {
        value::Element element = elementOf(name, content.placed, number);
        const Value held = physicals.at(number);
        if (const auto* verbal = std::get_if<std::string>(&held))
            return fault(element.name, fmt::format("is '{}' now, which is no number", *verbal));
        std::optional<Value> wanted = related(held, relation, text, *by);
        if (!wanted)
            return fault(element.name,
                         fmt::format("{} times {} is not known to the last digit", textOf(held), text));
        std::string typed = textOf(*wanted);
        changes.push_back({{name.axis, number, std::move(*wanted)}, std::move(element), std::move(typed)});
    }
    return changes;
}

}  // namespace lm::session
