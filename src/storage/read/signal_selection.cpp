#include "storage/read/signal_selection.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>
#include <optional>

#include <spdlog/fmt/fmt.h>

#include "core/text.h"

namespace lm::storage {
namespace {

constexpr std::int64_t kSecondNs = 1000000000;
constexpr std::int64_t kDayNs = 86400 * kSecondNs;
constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kGreatest = std::numeric_limits<std::int64_t>::max();

std::int64_t saturatingAdd(std::int64_t a, std::int64_t b) {
    std::int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum)) return sum;
    return b < 0 ? kLeast : kGreatest;
}

std::int64_t saturatingSubtract(std::int64_t a, std::int64_t b) {
    std::int64_t difference = 0;
    if (!__builtin_sub_overflow(a, b, &difference)) return difference;
    return b > 0 ? kLeast : kGreatest;
}

/// Bytes of the UTF-8 character at the start of a text that is not empty.
std::size_t characterSize(std::string_view text) {
    std::size_t size = 1;
    while (size < text.size() && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80)
        ++size;
    return size;
}

/// Takes the parts of a time off the front of a text.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : text_(text) {}

    bool atEnd() const { return text_.empty(); }
    bool take(char c) {
        if (!text_.starts_with(c)) return false;
        text_.remove_prefix(1);
        return true;
    }
    /// Exactly `digits` digits.
    std::optional<int> number(std::size_t digits) {
        int value = 0;
        const char* begin = text_.data();
        if (text_.size() < digits || text_[0] < '0' || text_[0] > '9') return std::nullopt;
        const auto [end, failure] = std::from_chars(begin, begin + digits, value);
        if (failure != std::errc() || end != begin + digits) return std::nullopt;
        text_.remove_prefix(digits);
        return value;
    }
    /// Digits behind a point, in billionths; what is finer is cut off.
    std::int64_t fraction() {
        std::int64_t value = 0;
        for (std::int64_t unit = kSecondNs / 10; !text_.empty() && text_[0] >= '0' && text_[0] <= '9';
             unit /= 10) {
            value += unit * (text_[0] - '0');
            text_.remove_prefix(1);
        }
        return value;
    }

  private:
    std::string_view text_;
};

/// HH:MM or HH:MM:SS with a fraction, in nanoseconds.
std::optional<std::int64_t> timeOfDay(Scanner& scanner) {
    const auto hour = scanner.number(2);
    if (!hour || *hour > 24 || !scanner.take(':')) return std::nullopt;
    const auto minute = scanner.number(2);
    if (!minute || *minute > 59) return std::nullopt;
    std::int64_t seconds = *hour * 3600LL + *minute * 60LL;
    std::int64_t fraction = 0;
    if (scanner.take(':')) {
        const auto second = scanner.number(2);
        if (!second || *second > 60) return std::nullopt;
        seconds += *second;
        if (scanner.take('.')) fraction = scanner.fraction();
    }
    return seconds * kSecondNs + fraction;
}

/// What a zone such as "Z" or "+01:00" is ahead of UTC, 0 for none.
std::optional<std::int64_t> zoneOffset(Scanner& scanner) {
    if (scanner.atEnd() || scanner.take('Z')) return 0;
    const bool west = scanner.take('-');
    if (!west && !scanner.take('+')) return std::nullopt;
    const auto hour = scanner.number(2);
    scanner.take(':');
    const auto minute = scanner.number(2);
    if (!hour || !minute) return std::nullopt;
    const std::int64_t offset = (*hour * 3600LL + *minute * 60LL) * kSecondNs;
    return west ? -offset : offset;
}

/// Nanoseconds since 1970, UTC.
std::optional<std::int64_t> parseIsoTime(std::string_view text) {
    Scanner scanner(text);
    const auto year = scanner.number(4);
    if (!year || !scanner.take('-')) return std::nullopt;
    const auto month = scanner.number(2);
    if (!month || !scanner.take('-')) return std::nullopt;
    const auto day = scanner.number(2);
    if (!day) return std::nullopt;
    const std::chrono::year_month_day date(std::chrono::year{*year},
                                           std::chrono::month{static_cast<unsigned>(*month)},
                                           std::chrono::day{static_cast<unsigned>(*day)});
    // Beyond these years nanoseconds do not fit.
    if (!date.ok() || *year < 1678 || *year > 2261) return std::nullopt;
    std::int64_t time = std::chrono::sys_days(date).time_since_epoch().count() * kDayNs;
    if (scanner.atEnd()) return time;
    if (!scanner.take('T') && !scanner.take(' ')) return std::nullopt;
    const auto ofDay = timeOfDay(scanner);
    if (!ofDay) return std::nullopt;
    const auto offset = zoneOffset(scanner);
    if (!offset || !scanner.atEnd()) return std::nullopt;
    time += *ofDay - *offset;
    return time;
}

/// NAME stands for its elements, NAME[0] or NAME[0][3], too.
bool standsFor(std::string_view pattern, std::string_view signal) {
    if (matchesPattern(signal, pattern)) return true;
    while (signal.ends_with(']')) {
        const std::size_t open = signal.rfind('[');
        if (open == std::string_view::npos || open == 0) return false;
        signal = signal.substr(0, open);
        if (matchesPattern(signal, pattern)) return true;
    }
    return false;
}

}  // namespace

bool matchesPattern(std::string_view text, std::string_view pattern) {
    if (text == pattern) return true;
    // On a mismatch the last '*' takes one character more; earlier ones need not be tried again.
    std::optional<std::string_view> starPattern;
    std::string_view starText;
    while (!text.empty()) {
        if (pattern.starts_with('*')) {
            starPattern = pattern.substr(1);
            starText = text;
            pattern.remove_prefix(1);
        } else if (pattern.starts_with('?')) {
            text.remove_prefix(characterSize(text));
            pattern.remove_prefix(1);
        } else if (pattern.starts_with(text[0])) {
            text.remove_prefix(1);
            pattern.remove_prefix(1);
        } else if (starPattern) {
            starText.remove_prefix(characterSize(starText));
            text = starText;
            pattern = *starPattern;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*') == std::string_view::npos;
}

Result<std::vector<SignalPlace>> selectSignals(const RecordingInfo& info,
                                               const std::vector<std::string>& patterns) {
    std::vector<SignalPlace> places;
    std::vector<bool> used(patterns.size());
    for (std::size_t g = 0; g < info.groups.size(); ++g) {
        for (std::size_t s = 0; s < info.groups[g].signals.size(); ++s) {
            bool wanted = patterns.empty();
            for (std::size_t p = 0; p < patterns.size(); ++p) {
                if (!standsFor(patterns[p], info.groups[g].signals[s].name)) continue;
                used[p] = true;
                wanted = true;
            }
            if (wanted) places.push_back({g, s});
        }
    }
    for (std::size_t p = 0; p < patterns.size(); ++p) {
        if (used[p]) continue;
        return Error{ErrorCode::notFound, "no signal matches '" + patterns[p] + "' in this recording"};
    }
    return places;
}

Result<std::int64_t> parseRecordingTime(std::string_view text, const RecordingInfo& info) {
    if (const auto seconds = parseDouble(text); seconds && std::isfinite(*seconds)) {
        // Some 292 years are more than any recording has, and all that nanoseconds hold.
        constexpr double kMaxSeconds = 9.2e9;
        const double inRange = std::min(std::max(*seconds, -kMaxSeconds), kMaxSeconds);
        return saturatingAdd(info.startHostNs, std::llround(inRange * static_cast<double>(kSecondNs)));
    }
    if (const auto utc = parseIsoTime(text)) {
        return saturatingAdd(info.startHostNs, saturatingSubtract(*utc, info.startUtcNs));
    }
    return Error{ErrorCode::invalidArgument,
                 "'" + std::string(text) +
                     "' is neither seconds from the start nor a time such as 2026-03-01T12:00:00Z"};
}

std::string utcText(std::int64_t timestampNs, const RecordingInfo& info, int decimals) {
    namespace chrono = std::chrono;
    const std::int64_t utc =
        saturatingAdd(info.startUtcNs, saturatingSubtract(timestampNs, info.startHostNs));
    const chrono::sys_time<chrono::nanoseconds> time{chrono::nanoseconds(utc)};
    const auto day = chrono::floor<chrono::days>(time);
    const chrono::year_month_day date(day);
    const chrono::hh_mm_ss clock(chrono::floor<chrono::nanoseconds>(time - day));
    std::string text = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(date.year()),
                                   static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                                   clock.hours().count(), clock.minutes().count(), clock.seconds().count());
    if (decimals > 0) {
        text += '.';
        text +=
            fmt::format("{:09}", clock.subseconds().count()).substr(0, static_cast<std::size_t>(decimals));
    }
    return text + 'Z';
}

}  // namespace lm::storage
