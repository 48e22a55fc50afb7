#include "watch/duration.h"

#include <array>
#include <cmath>
#include <utility>

#include "core/text.h"

namespace lm::watch {

std::optional<std::chrono::nanoseconds> parseDuration(std::string_view text) {
    using Unit = std::pair<std::string_view, double>;
    static constexpr std::array<Unit, 4> kUnits = {{{"ms", 1e6}, {"s", 1e9}, {"min", 60e9}, {"h", 3600e9}}};
    constexpr double kLongestNs = 1000.0 * 24 * 3600e9;
    const std::size_t behind = text.find_first_not_of("0123456789.");
    if (behind == 0 || behind == std::string_view::npos) return std::nullopt;
    const std::optional<double> number = parseDouble(text.substr(0, behind));
    const std::size_t unitAt = text.find_first_not_of(' ', behind);
    if (!number || unitAt == std::string_view::npos) return std::nullopt;
    for (const auto& [name, factor] : kUnits) {
        if (text.substr(unitAt) != name || *number * factor > kLongestNs) continue;
        return std::chrono::nanoseconds(std::llround(*number * factor));
    }
    return std::nullopt;
}

}  // namespace lm::watch
