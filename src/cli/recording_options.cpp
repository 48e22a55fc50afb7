#include "cli/recording_options.h"

#include <charconv>
#include <cmath>
#include <fstream>
#include <iterator>

#include <fmt/format.h>

#include "storage/write/part_names.h"

namespace lm::cli {
namespace {

struct Unit {
    std::string_view name;
    double seconds;
    double bytes;
};

constexpr Unit kUnits[] = {{"s", 1, 0},    {"min", 60, 0}, {"h", 3600, 0}, {"d", 86400, 0},
                           {"kB", 0, 1e3}, {"MB", 0, 1e6}, {"GB", 0, 1e9}, {"TB", 0, 1e12}};

/// All values of an option as one rule.
template <typename Rule>
Result<Rule> ruleOf(const char* option, const std::vector<std::string>& values) {
    Rule rule;
    for (const std::string& value : values) {
        const auto parsed = parseTimeOrSize(value);
        if (!parsed) return invalidArgument(std::string(option) + ": " + parsed.error().text());
        const bool isTime = parsed.value().time.count() != 0;
        if (isTime ? rule.time.count() != 0 : rule.bytes != 0)
            return invalidArgument(fmt::format("{}: two {} are given", option, isTime ? "times" : "sizes"));
        if (isTime) rule.time = parsed.value().time;
        if (!isTime) rule.bytes = parsed.value().bytes;
    }
    return rule;
}

}  // namespace

Result<TimeOrSize> parseTimeOrSize(std::string_view text) {
    const Error wrong =
        invalidArgument(fmt::format("'{}' is no time and no size (90s, 15min, 1h, 14d, 500MB, 2GB)", text));
    double number = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (failure != std::errc() || !std::isfinite(number) || number <= 0) return wrong;
    const std::string_view name(end, static_cast<std::size_t>(text.data() + text.size() - end));
    for (const Unit& unit : kUnits) {
        if (unit.name != name) continue;
        constexpr double kLongest = 1e9;  // seconds: thirty years
        constexpr double kLargest = 1e18;
        const double seconds = number * unit.seconds;
        const double bytes = number * unit.bytes;
        if (seconds > kLongest || bytes > kLargest) return wrong;
        TimeOrSize parsed;
        parsed.time = std::chrono::nanoseconds(std::llround(seconds * 1e9));
        parsed.bytes = static_cast<std::uint64_t>(bytes);
        return parsed;
    }
    return wrong;
}

void RecordingOptions::addOptions(OptionSet& options) {
    options.add("-r,--record", directory_, "Recording directory").each([this](const std::string& directory) {
        recordsNowhere_ = directory.empty();
    });
    options
        .add("--split", split_,
             "Record in parts below the directory: a part ends after a time (1h), at a size (2GB) or both "
             "(1h,2GB)")
        .oneEach(',');
    options
        .add("--keep", keep_,
             "With --split: remove the oldest closed parts beyond a size (200GB) or an age (14d)")
        .oneEach(',');
    options.add("--name", name_,
                "Name of the recording or part below the directory, with {time}, {ecu} and {n}");
    options.add("--export", exportAs_, "Export each closed recording beside it: mf4 | csv")
        .oneOf({"mf4", "csv"});
    options.addFlag("--with-parameters", withParameters_,
                    "Keep a snapshot of all parameters in the recording (parameters.json)");
}

Result<void> RecordingOptions::check() const {
    const bool isAny = !split_.empty() || !keep_.empty() || name_ || !exportAs_.empty() || withParameters_;
    if (isAny && directory_.empty())
        return invalidArgument(
            "--split, --keep, --name, --export and --with-parameters are about a recording: give -r");
    if (!keep_.empty() && split_.empty()) return invalidArgument("--keep removes closed parts: give --split");
    if (auto able = place(); !able) return able.error();
    return {};
}

Result<storage::RecordingPlace> RecordingOptions::place() const {
    storage::RecordingPlace place{directory_};
    auto split = ruleOf<storage::SplitRule>("--split", split_);
    if (!split) return split.error();
    place.split = split.value();
    constexpr std::chrono::seconds kShortest{1};
    constexpr std::uint64_t kSmallest = 100'000;
    const bool tooShort = place.split.time.count() != 0 && place.split.time < kShortest;
    if (tooShort || (place.split.bytes != 0 && place.split.bytes < kSmallest))
        return invalidArgument("--split: a part has at least 1s or 100kB");
    auto keep = ruleOf<storage::KeepRule>("--keep", keep_);
    if (!keep) return keep.error();
    place.keep = keep.value();
    if (name_) {
        if (auto good = storage::PartNames::check(*name_); !good)
            return invalidArgument("--name: " + good.error().text());
        place.name = *name_;
    }
    return place;
}

std::vector<std::string> commandLineWords() {
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    const std::string all{std::istreambuf_iterator<char>(file), {}};
    std::vector<std::string> words;
    for (std::size_t at = 0; at < all.size(); at += words.back().size() + 1)
        words.emplace_back(all.c_str() + at);
    return words;
}

}  // namespace lm::cli
