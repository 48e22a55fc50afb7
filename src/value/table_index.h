// Finds the place of a value in a sorted conversion table in nearly constant time: the range of the inputs is
// cut into buckets of equal width, and each bucket knows the first pair that may answer for it. On random
// values a binary search would spend its time on mispredicted branches.
//
// Threads: immutable once built. Lifetime: borrows nothing; every call gets the pairs that the index was
// built for.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace lm::value {

using TablePair = std::pair<double, double>;  ///< (input, output)
using TablePairs = std::vector<TablePair>;    ///< sorted by input, NaN behind every number

class TableIndex {
  public:
    TableIndex() = default;
    explicit TableIndex(const TablePairs& pairs);

    /// False for tables of few pairs and for those with inputs that are not finite or all alike.
    bool usable() const { return !starts_.empty(); }

    /// The nearest value between the first and the last input.
    double inside(double raw) const { return std::min(std::max(raw, first_), last_); }

    /// The first pair whose input is not below `raw`, which lies inside; of a usable index.
    std::size_t firstNotBelow(const TablePairs& pairs, double raw) const {
        std::size_t at = starts_[bucketOf(raw)];
        // Most buckets begin at the pair wanted or at the one before it: a step without a branch.
        at += static_cast<std::size_t>(pairs[at].first < raw);
        while (pairs[at].first < raw)
            ++at;
        return at;
    }

  private:
    // Never falls when its argument rises, whatever the rounding: that alone makes the index exact.
    std::size_t bucketOf(double input) const {
        return static_cast<std::size_t>(static_cast<std::int64_t>((input - first_) * scale_));
    }

    double first_ = 0;
    double last_ = 0;
    double scale_ = 0;
    std::vector<std::uint32_t> starts_;  ///< by bucket; empty: no index
};

/// The first pair whose input is not below `raw`, by binary search; pairs.size() when there is none.
std::size_t firstNotBelowBySearch(const TablePairs& pairs, double raw);

/// nearestOutput() for any value, slowly.
double nearestOutputBySearch(const TablePairs& pairs, double raw);

/// The output between two neighbours; the first and last outputs beyond the ends. `pairs` is not empty.
inline double interpolate(const TablePairs& pairs, const TableIndex& index, double raw) {
    if (std::isnan(raw)) return raw;
    if (raw <= pairs.front().first) return pairs.front().second;
    if (raw >= pairs.back().first) return pairs.back().second;
    const TablePair* const upper =
        &pairs[index.usable() ? index.firstNotBelow(pairs, raw) : firstNotBelowBySearch(pairs, raw)];
    const TablePair* const lower = upper - 1;
    return lower->second +
           (upper->second - lower->second) * (raw - lower->first) / (upper->first - lower->first);
}

/// The output of the input that equals `raw`, else of the nearest one, the earliest of those that are as
/// near. `pairs` is not empty; NaN where `raw` is.
inline double nearestOutput(const TablePairs& pairs, const TableIndex& index, double raw) {
    if (!index.usable() || !std::isfinite(raw)) return nearestOutputBySearch(pairs, raw);
    // No branch that depends on where the value lies.
    const std::size_t above = index.firstNotBelow(pairs, index.inside(raw));
    if (above == 0) return pairs.front().second;
    const double distanceAbove = std::fabs(pairs[above].first - raw);
    const double distanceBelow = raw - pairs[above - 1].first;
    const std::size_t nearest = above - static_cast<std::size_t>(!(distanceAbove < distanceBelow));
    const double distance = distanceAbove < distanceBelow ? distanceAbove : distanceBelow;
    if (nearest == 0 || raw - pairs[nearest - 1].first > distance) return pairs[nearest].second;
    return nearestOutputBySearch(pairs, raw);
}

}  // namespace lm::value
