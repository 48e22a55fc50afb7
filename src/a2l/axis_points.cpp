#include "a2l/axis_points.h"

#include <algorithm>
#include <compare>
#include <utility>

#include "a2l/placed_object.h"
#include "value/raw_value.h"

namespace lm::a2l {
namespace {

std::partial_ordering compare(const value::Value& a, const value::Value& b) {
    const auto* exactA = std::get_if<value::Exact>(&a);
    const auto* exactB = std::get_if<value::Exact>(&b);
    if (exactA != nullptr && exactB != nullptr) return *exactA <=> *exactB;
    return value::toDouble(a) <=> value::toDouble(b);
}

/// Whether the step from one point to the next is allowed; `up` is the way of an axis that may go either.
bool isAllowed(std::partial_ordering step, Monotony monotony, bool up) {
    switch (monotony) {
        case Monotony::none:
            return true;
        case Monotony::increase:
            return std::is_lteq(step);
        case Monotony::decrease:
            return std::is_gteq(step);
        case Monotony::strictIncrease:
            return std::is_lt(step);
        case Monotony::strictDecrease:
            return std::is_gt(step);
        case Monotony::monotonous:
            return up ? std::is_lteq(step) : std::is_gteq(step);
        case Monotony::strictMonotonous:
            return up ? std::is_lt(step) : std::is_gt(step);
    }
    return true;
}

/// The sums of stored steps, as wide as they get.
class Sum {
  public:
    explicit Sum(const value::Element& point)
        : point_(point), isFloat_(value::isFloat(point.coding.dataType)) {}

    value::Value add(const std::uint8_t* bytes) {
        if (isFloat_) return number_ += value::decodeRaw(bytes, point_.coding);
        exact_ += value::exactInteger(value::decodeInteger(bytes, point_.coding), point_.coding).units;
        if (point_.keepsIntegers()) return value::Exact{exact_};
        return static_cast<double>(exact_);
    }

  private:
    const value::Element& point_;
    const bool isFloat_;
    value::Int128 exact_ = 0;
    double number_ = 0;
};

std::vector<bool> breaksOf(std::span<const value::Value> points, Monotony monotony, bool up) {
    std::vector<bool> breaks(points.size());
    for (std::size_t i = 1; i < points.size(); ++i)
        breaks[i] = !isAllowed(compare(points[i - 1], points[i]), monotony, up);
    return breaks;
}

}  // namespace

std::vector<double> rescaledPoints(std::span<const double> pairs, std::uint32_t count) {
    std::vector<double> points;
    const std::size_t last = pairs.size() / 2 - 1;
    const auto axisValue = [&](std::size_t pair) { return pairs[2 * pair]; };
    // The last index counts as one more: 255 is the end of a range of 256.
    const auto indexValue = [&](std::size_t pair) { return pairs[2 * pair + 1] + (pair == last ? 1 : 0); };
    const double distance = count > 1 ? (indexValue(last) - indexValue(0)) / (count - 1) : 0;
    std::size_t pair = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const double index = indexValue(0) + i * distance;
        while (pair + 1 < last && indexValue(pair + 1) < index)
            ++pair;
        const std::size_t next = std::min(pair + 1, last);
        const double width = indexValue(next) - indexValue(pair);
        const double share = width != 0 ? (index - indexValue(pair)) / width : 0;
        points.push_back(axisValue(pair) + share * (axisValue(next) - axisValue(pair)));
    }
    return points;
}

std::size_t brokenMonotony(std::span<const value::Value> before, std::span<const value::Value> after,
                           Monotony monotony) {
    struct Way {
        std::ptrdiff_t oldBreaks;
        std::size_t firstNew;  ///< break that was none before
    };
    std::vector<Way> ways;
    for (const bool up : {true, false}) {
        const std::vector<bool> was = breaksOf(before, monotony, up);
        const std::vector<bool> is = breaksOf(after, monotony, up);
        if (std::find(is.begin(), is.end(), true) == is.end()) return after.size();
        std::size_t i = 0;
        while (i < is.size() && (!is[i] || was[i]))
            ++i;
        ways.push_back({std::count(was.begin(), was.end(), true), i});
    }
    // The way it goes is the one with fewer breaks; with as many, whichever suits the change.
    if (ways[0].oldBreaks != ways[1].oldBreaks)
        return ways[0].oldBreaks < ways[1].oldBreaks ? ways[0].firstNew : ways[1].firstNew;
    return std::max(ways[0].firstNew, ways[1].firstNew);
}

Result<std::vector<value::Value>> PlacedAxis::raw(const MemoryImage& image) const {
    std::vector<value::Value> points;
    points.reserve(count_);
    if (!stored_ && !isPairs_) {
        const FixedAxis& fixed = axis_->fixed;
        const double offset = axis_->kind == AxisKind::curve ? 0 : fixed.given ? fixed.offset : offset_;
        const double step = axis_->kind == AxisKind::curve ? 1 : fixed.given ? fixed.step : step_;
        for (std::uint32_t i = 0; i < count_; ++i)
            points.emplace_back(fixed.values.empty() ? offset + i * step : fixed.values[i]);
        return points;
    }
    const value::RawCoding& coding = axis_->point.coding;
    const std::size_t stored = isPairs_ ? std::size_t{2} * grid_.counts[1] : count_;
    std::vector<double> pairs;
    Sum sum(axis_->point);
    for (std::size_t i = 0; i < stored; ++i) {
        const std::uint8_t* const bytes = image.at(grid_.address(i), grid_.size);
        if (bytes == nullptr)
            return Error{ErrorCode::notFound, name_ + ": the memory of its points was not read"};
        if (isPairs_) {
            pairs.push_back(value::decodeRaw(bytes, coding));
        } else {
            points.push_back(axis_->difference ? sum.add(bytes) : value::rawValue(axis_->point, bytes));
        }
    }
    if (isPairs_ && !axis_->shared) {  // of the AXIS_PTS itself: what the pairs say
        for (std::size_t i = 0; i < pairs.size(); i += 2)
            points.emplace_back(pairs[i]);
    } else if (isPairs_) {
        for (const double point : rescaledPoints(pairs, count_))
            points.emplace_back(point);
    }
    return points;
}

}  // namespace lm::a2l
