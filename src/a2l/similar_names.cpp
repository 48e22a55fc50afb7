#include "a2l/similar_names.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

#include "core/text.h"

namespace lm::a2l {
namespace {

constexpr std::size_t kLongestName = 255;
constexpr std::size_t kPart = 10;  ///< the rank of names that only have it as a part, and above
constexpr std::size_t kNotSimilar = 1000;

/// Which characters a text holds: what differs here in more than two bits per edit is no slip.
std::uint64_t characterSet(std::string_view text) {
    std::uint64_t set = 0;
    for (const char c : text)
        set |= std::uint64_t{1} << (static_cast<unsigned char>(c) % 64U);
    return set;
}

/// How many letters were mistyped, left out, added or swapped with the next one; kNotSimilar above `limit`.
std::size_t editDistance(std::string_view a, std::string_view b, std::size_t limit) {
    std::array<std::array<std::size_t, kLongestName + 1>, 3> rows;
    for (std::size_t j = 0; j <= b.size(); ++j)
        rows[0][j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        auto& row = rows[i % 3];
        const auto& above = rows[(i + 2) % 3];
        const auto& twoAbove = rows[(i + 1) % 3];
        row[0] = i;
        std::size_t least = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const bool same = a[i - 1] == b[j - 1];
            row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (same ? 0 : 1)});
            const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (swapped) row[j] = std::min(row[j], twoAbove[j - 2] + 1);
            least = std::min(least, row[j]);
        }
        if (least > limit) return kNotSimilar;
    }
    const std::size_t distance = rows[a.size() % 3][b.size()];
    return distance <= limit ? distance : kNotSimilar;
}

/// Compares one name after the other with the one that was typed.
class Likeness {
  public:
    explicit Likeness(std::string_view typed)
        : limit_(typed.size() < 3 ? 0 : std::clamp<std::size_t>(typed.size() / 4, 1, 3)) {
        lowerAsciiInto(typed_, typed);
        characters_ = characterSet(typed_);
    }

    /// The smaller, the more alike.
    std::size_t rank(std::string_view name) {
        if (typed_.empty() || name.size() > kLongestName || typed_.size() > kLongestName) return kNotSimilar;
        if (name.size() + limit_ < typed_.size()) return kNotSimilar;
        lowerAsciiInto(name_, name);
        if (name_ == typed_) return 0;
        const std::uint64_t characters = characterSet(name_);
        const bool near = name.size() <= typed_.size() + limit_;
        if (near && static_cast<std::size_t>(std::popcount(characters ^ characters_)) <= 2 * limit_) {
            const std::size_t distance = editDistance(typed_, name_, limit_);
            if (distance != kNotSimilar) return distance;
        }
        const bool isPart = limit_ > 0 && (characters & characters_) == characters_ &&
                            name_.find(typed_) != std::string::npos;
        return isPart ? kPart + name_.size() - typed_.size() : kNotSimilar;
    }

  private:
    const std::size_t limit_;  ///< of edits
    std::string typed_;
    std::uint64_t characters_ = 0;
    std::string name_;  // its storage serves all names
};

}  // namespace

std::vector<std::string_view> similarNames(const Description& description, std::string_view name,
                                           std::size_t most) {
    struct Candidate {
        std::size_t rank;
        std::string_view name;
    };
    std::vector<Candidate> best;  // ascending by rank
    Likeness likeness(name);
    const auto consider = [&](std::string_view other) {
        const std::size_t rank = likeness.rank(other);
        if (rank == kNotSimilar || (best.size() == most && rank >= best.back().rank)) return;
        const auto place = std::upper_bound(best.begin(), best.end(), rank,
                                            [](std::size_t r, const Candidate& c) { return r < c.rank; });
        best.insert(place, {rank, other});
        if (best.size() > most) best.pop_back();
    };
    for (const Measurement& object : description.measurements)
        consider(object.name);
    for (const Characteristic& object : description.characteristics)
        consider(object.name);
    std::vector<std::string_view> names;
    for (const Candidate& candidate : best) {
        // Beside a slip, or another case, the others are noise.
        if (candidate.rank >= kPart && best.front().rank < kPart) break;
        if (candidate.rank > 0 && best.front().rank == 0) break;
        names.push_back(candidate.name);
    }
    return names;
}

std::string unknownNameHint(const Description& description, std::string_view name) {
    if (description.findAxisPoints(name) != nullptr) {
        return std::string(name) + " is an AXIS_PTS, `describe` shows it; reading axes is not supported yet";
    }
    // Only a measurement's signals have an event behind them.
    const auto names = similarNames(description, name.substr(0, name.find('@')));
    if (names.empty()) return {};
    std::string text = std::string(name) + ": did you mean ";
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i > 0) text += i + 1 == names.size() ? " or " : ", ";
        text += "'" + std::string(names[i]) + "'";
    }
    return text + "?";
}

}  // namespace lm::a2l
