#include "value/table_index.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <limits>

namespace lm::value {
namespace {

// Four to eight buckets for every pair keep the steps behind the first one rare where inputs lie unevenly.
constexpr std::size_t kBucketsPerPair = 4;
constexpr std::size_t kMostBuckets = 16384;
// A few pairs lie in a cache line or two, but even their search mispredicts.
constexpr std::size_t kFewestPairs = 3;

}  // namespace

TableIndex::TableIndex(const TablePairs& pairs) {
    if (pairs.size() < kFewestPairs || pairs.size() > std::numeric_limits<std::uint32_t>::max()) return;
    first_ = pairs.front().first;
    last_ = pairs.back().first;
    const std::size_t buckets = std::min(std::bit_ceil(pairs.size()) * kBucketsPerPair, kMostBuckets);
    scale_ = static_cast<double>(buckets - 1) / (last_ - first_);
    // Inputs that are infinite, not a number, all alike or too far apart leave no usable scale.
    if (!std::isfinite(scale_) || !(scale_ > 0) || !std::isfinite(last_ - first_)) return;
    starts_.resize(buckets);
    std::size_t at = 0;
    for (std::size_t bucket = 0; bucket < buckets; ++bucket) {
        while (at + 1 < pairs.size() && bucketOf(pairs[at].first) < bucket)
            ++at;
        starts_[bucket] = static_cast<std::uint32_t>(at);
    }
}

std::size_t firstNotBelowBySearch(const TablePairs& pairs, double raw) {
    const auto found = std::partition_point(pairs.begin(), pairs.end(),
                                            [raw](const TablePair& pair) { return pair.first < raw; });
    return static_cast<std::size_t>(found - pairs.begin());
}

double nearestOutputBySearch(const TablePairs& pairs, double raw) {
    if (std::isnan(raw)) return std::numeric_limits<double>::quiet_NaN();
    const auto above = pairs.begin() + static_cast<std::ptrdiff_t>(firstNotBelowBySearch(pairs, raw));
    if (above != pairs.end() && above->first == raw) return above->second;
    if (above == pairs.begin()) return above->second;
    const double distanceBelow = raw - std::prev(above)->first;
    if (above != pairs.end() && above->first - raw < distanceBelow) return above->second;
    // The earliest of those that are as near: equal inputs, and inputs whose distance rounds alike.
    return std::partition_point(pairs.begin(), above,
                                [&](const TablePair& pair) { return raw - pair.first > distanceBelow; })
        ->second;
}

}  // namespace lm::value
