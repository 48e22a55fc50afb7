#include "params/parameter_diff.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include <spdlog/fmt/fmt.h>
#include <spdlog/fmt/ranges.h>

#include "core/text.h"

namespace lm::params {
namespace {

using value::Exact;
using value::Value;
using Kind = ParameterDifference::Kind;

bool isText(const Value& value) {
    return std::holds_alternative<std::string>(value);
}

bool signOfZero(const Value& value) {
    const auto* const number = std::get_if<double>(&value);
    return number != nullptr && *number == 0 && std::signbit(*number);
}

std::optional<double> distance(const Value& a, const Value& b) {
    if (isText(a) || isText(b)) return std::nullopt;
    const auto* const exactA = std::get_if<Exact>(&a);
    const auto* const exactB = std::get_if<Exact>(&b);
    const double by = exactA != nullptr && exactB != nullptr ? (*exactB - *exactA).toDouble()
                                                             : value::toDouble(b) - value::toDouble(a);
    return std::isfinite(by) ? std::optional(by) : std::nullopt;
}

std::string placeOf(std::size_t number, const std::vector<std::size_t>& dimensions) {
    std::string text;
    for (const std::size_t count : dimensions) {
        text += fmt::format("[{}]", number % count);
        number /= count;
    }
    return text;
}

/// A dimension of one is none; not all forms hold it.
std::vector<std::size_t> countsOf(const Parameter& parameter) {
    std::vector<std::size_t> counts = parameter.dimensions;
    while (counts.size() > 1 && counts.back() == 1)
        counts.pop_back();
    return counts;
}

std::string sizeText(const Parameter& parameter) {
    const bool arePoints = !parameter.axes.empty() || parameter.shape == Shape::axis;
    return fmt::format("{} {}", fmt::join(parameter.dimensions, " x "), arePoints ? "points" : "values");
}

/// Where both are known.
bool conflict(std::string_view a, std::string_view b) {
    return !a.empty() && !b.empty() && a != b;
}

/// Numbers of one kind in both: the values, or the points of an axis.
struct Numbers {
    const std::vector<Value>& values;
    const std::vector<Value>& raws;
};

std::string shown(const Value& value) {
    if (const auto* const text = std::get_if<std::string>(&value)) return *text;
    const auto* const exact = std::get_if<Exact>(&value);
    return exact != nullptr ? exact->shortest() : formatShortest(value::toDouble(value));
}

/// Points of a rescale axis, or of one that is a curve, are not the same thing in all forms.
bool haveSamePoints(const Parameter& a, const Parameter& b, std::size_t axis) {
    const auto isPlain = [](AxisKind kind) { return kind == AxisKind::common || kind == AxisKind::standard; };
    const ParameterAxis& inA = a.axes[axis];
    const ParameterAxis& inB = b.axes[axis];
    if (inA.points.size() != inB.points.size()) return false;
    if (isPlain(inA.kind) && isPlain(inB.kind)) return true;
    return inA.kind == inB.kind && !a.digest.empty() && !b.digest.empty();
}

class Comparison {
  public:
    Comparison(const Parameter& a, const Parameter& b, const WithinStep& within)
        : a_(a), b_(b), within_(within) {}

    ParameterDifference run(const std::function<bool(const std::string&)>& isIn) {
        result_.a = &a_;
        result_.b = &b_;
        result_.why = whyNotComparable(a_, b_, "A", "B");
        if (!result_.why.empty()) {
            result_.kind = Kind::notComparable;
            return std::move(result_);
        }
        compare({a_.values, a_.raws}, {b_.values, b_.raws}, std::nullopt);
        for (std::size_t i = 0; i < std::min(a_.axes.size(), b_.axes.size()); ++i) {
            const ParameterAxis& inA = a_.axes[i];
            const ParameterAxis& inB = b_.axes[i];
            // The parameter that holds the points of such an axis is compared itself.
            if (!inA.reference.empty() || !inB.reference.empty()) continue;
            compare({inA.points, inA.raws}, {inB.points, inB.raws}, i);
        }
        judgeBytes();
        const std::string axis = differentSharedAxis(a_, b_, within_, isIn, "A", "B");
        if (!axis.empty()) result_.why = axis;
        findLargest();
        return std::move(result_);
    }

  private:
    void compare(const Numbers& a, const Numbers& b, std::optional<std::size_t> axis) {
        const std::size_t count = std::min(a.values.size(), b.values.size());
        result_.compared += count;
        const bool haveRaws = a.raws.size() == count && b.raws.size() == count;
        hasRaws_ = hasRaws_ || !a.raws.empty() || !b.raws.empty();
        knowsAllRaws_ = knowsAllRaws_ && haveRaws;
        for (std::size_t i = 0; i < count; ++i) {
            hasSigns_ = hasSigns_ || signOfZero(a.values[i]) != signOfZero(b.values[i]);
            // An infinity is read from a file as no number, with its bits as the raw value.
            const bool areBits = haveRaws && isText(a.raws[i]) && !isText(a.values[i]);
            const bool same = isSame(a.values[i], b.values[i]) || (areBits && isSame(a.raws[i], b.raws[i])) ||
                              (within_ && within_(a_, axis, a.values[i], b.values[i]));
            if (!same) {
                add(i, axis, a.values[i], b.values[i], false);
            } else if (haveRaws && !isSame(a.raws[i], b.raws[i]) && isSame(a.values[i], b.values[i])) {
                add(i, axis, a.raws[i], b.raws[i], true);
            }
        }
    }

    void add(std::size_t number, std::optional<std::size_t> axis, const Value& a, const Value& b,
             bool areRaw) {
        constexpr std::array<const char*, 5> kAxes = {".x", ".y", ".z", ".4", ".5"};
        std::string place =
            axis ? fmt::format("{}[{}]", kAxes.at(*axis), number) : placeOf(number, a_.dimensions);
        result_.numbers.push_back({std::move(place), &a, &b, areRaw, distance(a, b)});
    }

    /// Physical values that are the same and did not tell all: the bytes decide, where both are known.
    void judgeBytes() {
        const bool differ = !a_.digest.empty() && !b_.digest.empty() && a_.digest != b_.digest;
        if (result_.numbers.empty() && differ && ((hasRaws_ && !knowsAllRaws_) || hasSigns_))
            result_.why = "the physical values are the same, the bytes in the ECU are not";
    }

    void findLargest() {
        for (std::size_t i = 0; i < result_.numbers.size(); ++i) {
            const auto& by = result_.numbers[i].by;
            if (!by || result_.numbers[i].areRaw) continue;
            if (!result_.largest || std::fabs(*by) > std::fabs(*result_.numbers[*result_.largest].by))
                result_.largest = i;
        }
    }

    const Parameter& a_;
    const Parameter& b_;
    const WithinStep& within_;
    ParameterDifference result_;
    bool hasRaws_ = false;
    bool hasSigns_ = false;  ///< a zero with a sign in one, without in the other
    bool knowsAllRaws_ = true;
};

}  // namespace

std::size_t SetDifference::count(Kind kind) const {
    return static_cast<std::size_t>(
        std::count_if(parameters.begin(), parameters.end(),
                      [&](const ParameterDifference& one) { return one.kind == kind; }));
}

bool isSame(const Value& a, const Value& b) {
    if (isText(a) || isText(b))
        return a.index() == b.index() && std::get<std::string>(a) == std::get<std::string>(b);
    const auto* const exactA = std::get_if<Exact>(&a);
    const auto* const exactB = std::get_if<Exact>(&b);
    if (exactA != nullptr && exactB != nullptr) return std::is_eq(*exactA <=> *exactB);
    const double numberA = value::toDouble(a);
    const double numberB = value::toDouble(b);
    return numberA == numberB || (std::isnan(numberA) && std::isnan(numberB));
}

std::string whyNotComparable(const Parameter& a, const Parameter& b, std::string_view inA,
                             std::string_view inB) {
    const auto differ = [&](std::string_view what, std::string_view ofA, std::string_view ofB) {
        return fmt::format("{}{} in {}, {} in {}", what, ofA, inA, ofB, inB);
    };
    const auto quoted = [](std::string_view text) { return fmt::format("'{}'", text); };
    if (a.shape != b.shape) return differ("", shapeName(a.shape), shapeName(b.shape));
    if (countsOf(a) != countsOf(b)) return differ("", sizeText(a), sizeText(b));
    if (conflict(a.unit, b.unit)) return differ("unit ", quoted(a.unit), quoted(b.unit));
    for (std::size_t i = 0; i < std::min(a.axes.size(), b.axes.size()); ++i) {
        const ParameterAxis& ofA = a.axes[i];
        const ParameterAxis& ofB = b.axes[i];
        if (conflict(ofA.unit, ofB.unit))
            return differ(fmt::format("axis {} has the unit ", i + 1), quoted(ofA.unit), quoted(ofB.unit));
        if (conflict(ofA.reference, ofB.reference))
            return differ(fmt::format("axis {} is ", i + 1), quoted(ofA.reference), quoted(ofB.reference));
    }
    return {};
}

SetDifference compare(const ParameterSet& a, const ParameterSet& b, const WithinStep& within) {
    SetDifference all;
    const auto isInBoth = [&](const std::string& name) {
        return a.find(name) != nullptr && b.find(name) != nullptr;
    };
    const auto judgeAlone = [](ParameterDifference& one, const ParameterSet& other, std::string_view name) {
        const auto& leftOut = other.leftOut;
        if (std::find(leftOut.begin(), leftOut.end(), one.any().name) == leftOut.end()) return;
        one.kind = Kind::notComparable;
        one.why = fmt::format("{} has nothing of it that can be compared", name);
    };
    auto inA = a.parameters.begin();
    auto inB = b.parameters.begin();
    while (inA != a.parameters.end() || inB != b.parameters.end()) {
        ParameterDifference one;
        if (inB == b.parameters.end() || (inA != a.parameters.end() && inA->name < inB->name)) {
            one.kind = Kind::onlyInA;
            one.a = &*inA++;
            judgeAlone(one, b, "B");
        } else if (inA == a.parameters.end() || inB->name < inA->name) {
            one.kind = Kind::onlyInB;
            one.b = &*inB++;
            judgeAlone(one, a, "A");
        } else {
            one = Comparison(*inA++, *inB++, within).run(isInBoth);
            if (one.numbers.empty() && one.why.empty()) {
                ++all.equal;
                continue;
            }
        }
        all.parameters.push_back(std::move(one));
    }
    return all;
}

std::string differentSharedAxis(const Parameter& a, const Parameter& b, const WithinStep& within,
                                const std::function<bool(const std::string&)>& isIn, std::string_view inA,
                                std::string_view inB) {
    for (std::size_t i = 0; i < std::min(a.axes.size(), b.axes.size()); ++i) {
        const ParameterAxis& ofA = a.axes[i];
        const ParameterAxis& ofB = b.axes[i];
        const std::string& name = ofA.reference.empty() ? ofB.reference : ofA.reference;
        if (name.empty() || isIn(name) || !haveSamePoints(a, b, i)) continue;
        for (std::size_t point = 0; point < ofA.points.size(); ++point) {
            const Value& one = ofA.points[point];
            const Value& other = ofB.points[point];
            if (isSame(one, other) || (within && within(a, i, one, other))) continue;
            return fmt::format("its axis {} differs: [{}] {} in {}, {} in {}", name, point, shown(one), inA,
                               shown(other), inB);
        }
    }
    return {};
}

std::string_view differenceName(Kind kind) {
    constexpr std::array<std::string_view, 4> kNames = {"different", "only in A", "only in B",
                                                        "not comparable"};
    return kNames.at(static_cast<std::size_t>(kind));
}

}  // namespace lm::params
