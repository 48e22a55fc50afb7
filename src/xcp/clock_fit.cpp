#include "xcp/clock_fit.h"

#include <cmath>

namespace lm::xcp {
namespace {

constexpr std::int64_t kFirstWindowNs = 100'000'000;
constexpr std::size_t kLeastPoints = 10;  // a second: less tells the noise
constexpr double kLeastForLine = 3;
constexpr double kNsPerSecond = 1e9;

/// Times of absurd tick lengths wrap instead of being undefined.
std::int64_t wrappedDifference(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

}  // namespace

void ClockFit::begin(std::int64_t receiveNs, std::uint32_t generation) {
    begun_ = true;
    generation_ = generation;
    windowNs_ = kFirstWindowNs;
    windowStartNs_ = receiveNs;
    quickest_ = {};
    const std::lock_guard lock(mutex_);
    points_.clear();
}

void ClockFit::add(std::int64_t offsetNs, std::int64_t receiveNs, std::uint32_t generation) {
    if (!begun_ || generation != generation_) begin(receiveNs, generation);
    if (receiveNs - windowStartNs_ >= windowNs_) endWindow(receiveNs);
    if (offsetNs < quickest_.offsetNs) quickest_ = {receiveNs, offsetNs};
}

void ClockFit::endWindow(std::int64_t receiveNs) {
    windowStartNs_ = receiveNs;
    const std::lock_guard lock(mutex_);
    if (points_.empty()) origin_ = quickest_;
    points_.push_back(quickest_);
    quickest_ = {};
    if (points_.size() < kMostPoints) return;
    halve();
    windowNs_ *= 2;
}

void ClockFit::halve() {
    const Line now = line();
    for (std::size_t i = 0; i + 1 < points_.size(); i += 2) {
        const bool firstIsLower = distance(now, points_[i]) <= distance(now, points_[i + 1]);
        points_[i / 2] = points_[firstIsLower ? i : i + 1];
    }
    points_.resize(points_.size() / 2);
}

double ClockFit::distance(const Line& line, const Point& point) const {
    const auto x = static_cast<double>(wrappedDifference(point.receiveNs, origin_.receiveNs)) / kNsPerSecond;
    const auto y = static_cast<double>(wrappedDifference(point.offsetNs, origin_.offsetNs));
    return y - line.at0 - line.slope * x;
}

/// Through the points that are not so far above another line.
ClockFit::Line ClockFit::fit(double farthest, const Line& against) const {
    const Line zero;
    double count = 0;
    double sumX = 0;
    double sumY = 0;
    const auto eachPoint = [&](const auto& take) {
        for (const Point& point : points_) {
            if (distance(against, point) > farthest) continue;
            const auto x =
                static_cast<double>(wrappedDifference(point.receiveNs, origin_.receiveNs)) / kNsPerSecond;
            take(x, distance(zero, point));
        }
    };
    eachPoint([&](double x, double y) {
        ++count;
        sumX += x;
        sumY += y;
    });
    if (count < kLeastForLine) return against;
    const double meanX = sumX / count;
    const double meanY = sumY / count;
    double xx = 0;
    double xy = 0;
    eachPoint([&](double x, double y) {
        xx += (x - meanX) * (x - meanX);
        xy += (x - meanX) * (y - meanY);
    });
    Line line{.slope = xx > 0 ? xy / xx : 0};
    line.at0 = meanY - line.slope * meanX;
    double squares = 0;
    eachPoint([&](double x, double y) { squares += std::pow(y - line.at0 - line.slope * x, 2); });
    line.residual = std::sqrt(squares / count);
    return line;
}

ClockFit::Line ClockFit::line() const {
    const Line first = fit(std::numeric_limits<double>::infinity(), {});
    return fit(first.residual, first);
}

std::optional<ClockFigures> ClockFit::figures() const {
    const std::lock_guard lock(mutex_);
    if (points_.size() < kLeastPoints) return std::nullopt;
    const Line found = line();
    const std::int64_t endNs = points_.back().receiveNs;
    ClockFigures figures{.residualNs = found.residual,
                         .spanNs = wrappedDifference(endNs, points_.front().receiveNs)};
    const double lengthS = static_cast<double>(wrappedDifference(endNs, origin_.receiveNs)) / kNsPerSecond;
    figures.offsetNs = origin_.offsetNs + std::llround(found.at0 + found.slope * lengthS);
    // The slope is of the host's seconds; a slave that is fast by p counts 1 + p of its own in each.
    figures.driftPpm = -found.slope * 1e6 / kNsPerSecond;
    return figures;
}

}  // namespace lm::xcp
