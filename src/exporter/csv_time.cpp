#include "exporter/csv_time.h"

#include <array>
#include <charconv>

#include "exporter/number_text.h"
#include "storage/read/signal_selection.h"

namespace lm::exporter {

void CsvTime::append(std::string& line, std::int64_t timestampNs) {
    if (absolute_) {
        appendUtc(line, timestampNs);
        return;
    }
    const auto sinceStart =
        static_cast<std::uint64_t>(timestampNs) - static_cast<std::uint64_t>(info_.startHostNs);
    std::array<char, kNumberWidth> text{};
    line.append(text.data(), writeSeconds(text.data(), static_cast<std::int64_t>(sinceStart)));
}

void CsvTime::appendUtc(std::string& line, std::int64_t timestampNs) {
    // Only the fraction changes from one record to most next ones.
    constexpr std::size_t kDecimals = 9;
    // Damaged timestamps may be any numbers.
    const std::uint64_t inSecond = static_cast<std::uint64_t>(timestampNs) - secondNs_;
    if (second_.empty() || inSecond >= 1000000000) {
        const std::string text = storage::utcText(timestampNs, info_, kDecimals);
        second_ = text.substr(0, text.size() - kDecimals - 1);
        std::uint64_t nanoseconds = 0;
        std::from_chars(text.data() + second_.size(), text.data() + text.size(), nanoseconds);
        secondNs_ = static_cast<std::uint64_t>(timestampNs) - nanoseconds;
        line += text;
        return;
    }
    line += second_;
    std::uint64_t unit = 100000000;
    for (std::size_t i = 0; i < kDecimals; ++i, unit /= 10)
        line += static_cast<char>('0' + inSecond / unit % 10);
    line += 'Z';
}

}  // namespace lm::exporter
