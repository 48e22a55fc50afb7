#include "cli/watch_options.h"

#include <utility>

#include "core/text.h"
#include "core/whole_file.h"
#include "watch/duration.h"

namespace lm::cli {
namespace {

constexpr std::size_t kMostFileBytes = std::size_t{16} << 20U;

/// "NAME: EXPRESSION", or an expression that is its own name. None has a colon but in quotation marks.
Result<WantedExpression> parseAssertion(std::string place, std::string_view text) {
    const std::size_t colon = text.find_first_of(":\"");
    std::string_view name;
    std::string_view expression = trimmed(text);
    if (colon != std::string_view::npos && text[colon] == ':') {
        name = trimmed(text.substr(0, colon));
        expression = trimmed(text.substr(colon + 1));
        if (name.empty())
            return Error{ErrorCode::invalidArgument, place + ": a name belongs in front of the colon"};
    }
    return parseWanted(std::move(place), std::string(name.empty() ? expression : name), expression);
}

Result<void> readAssertions(const std::string& path, const StopToken& stop,
                            std::vector<WantedExpression>& assertions) {
    auto text = readWholeFile(path, kMostFileBytes, stop);
    if (!text) return text.error();
    std::string_view rest = text.value();
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (rest.starts_with(kByteOrderMark)) rest.remove_prefix(kByteOrderMark.size());
    const std::size_t before = assertions.size();
    for (std::size_t number = 1; !rest.empty(); ++number) {
        const auto end = rest.find('\n');
        const std::string_view line = trimmed(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (line.empty() || line.starts_with('#')) continue;
        auto wanted = parseAssertion(path + " line " + std::to_string(number), line);
        if (!wanted) return wanted.error();
        assertions.push_back(std::move(wanted).value());
    }
    if (assertions.size() > before) return {};
    return Error{ErrorCode::invalidArgument, path + " holds no assertion (an expression a line)"};
}

Result<void> parseTriggers(const char* option, const std::vector<std::string>& texts,
                           std::vector<WantedExpression>& triggers) {
    for (const std::string& text : texts) {
        auto wanted = parseWanted(std::string(option) + " '" + text + "'", "", text);
        if (!wanted) return wanted.error();
        triggers.push_back(std::move(wanted).value());
    }
    return {};
}

Error needs(const char* what, const char* other) {
    return {ErrorCode::invalidArgument, std::string(what) + " needs " + other};
}

Result<void> parseTakes(const WatchOptions& options, const std::string& recordDirectory, WatchPlan& plan) {
    watch::TakeOptions& takes = plan.takes;
    takes.directory = recordDirectory;
    for (const WantedExpression& wanted : plan.starts)
        takes.starts.push_back(wanted.expression.text());
    for (const WantedExpression& wanted : plan.stops)
        takes.stops.push_back(wanted.expression.text());
    const bool hasStart = !takes.starts.empty();
    takes.repeat = options.repeat.value_or(1);
    if (plan.recordsTakes() && recordDirectory.empty())
        return needs(hasStart ? "--start-when" : "--stop-when", "-r DIRECTORY, below which the takes go");
    if (options.pre && !hasStart) return needs("--pre", "--start-when");
    if (options.repeat && !hasStart) return needs("--repeat", "--start-when");
    if (options.post && !plan.recordsTakes()) return needs("--post", "--start-when or --stop-when");
    const bool endsTakes = !takes.stops.empty() || options.post;
    if (options.repeat && takes.repeat != 1 && !endsTakes)
        return needs("--repeat", "--stop-when or --post, which end a take");
    if (options.pre) {
        auto pre = parseTime("--pre", *options.pre);
        if (!pre) return pre.error();
        takes.pre = pre.value();
    }
    if (options.post) {
        auto post = parseTime("--post", *options.post);
        if (!post) return post.error();
        takes.post = post.value();
    }
    return {};
}

}  // namespace

void addWatchOptions(OptionSet& options, WatchOptions& target) {
    options
        .add("--assert", target.assertions,
             "EXPRESSION or NAME: EXPRESSION that must hold for every record; exit code 3 when it does not")
        .oneEach();
    options.add("--assert-file", target.assertFiles, "File with more of them, one a line").oneEach();
    options.add("--start-when", target.startWhen, "Record a take below -r when EXPRESSION becomes true")
        .oneEach();
    options.add("--stop-when", target.stopWhen, "End the take when EXPRESSION is true").oneEach();
    options.add("--pre", target.pre, "With this much time before its start, as 5s (from memory)");
    options.add("--post", target.post, "And this much after its end, or without --stop-when after its start");
    options.add("--repeat", target.repeat, "End after so many takes (0 = none does)").showDefault("1");
}

void addReport(OptionSet& options, std::optional<std::string>& target) {
    options.add("--report", target, "Write what came of it to FILE.xml (JUnit) or FILE.json");
}

Result<WantedExpression> parseWanted(std::string place, std::string name, std::string_view text) {
    auto expression = watch::Expression::parse(text);
    if (!expression) return Error{expression.error().code, place + ": " + expression.error().text()};
    return WantedExpression{std::move(place), std::move(name), std::move(expression).value()};
}

Result<std::chrono::nanoseconds> parseTime(std::string_view option, std::string_view text) {
    if (const auto time = watch::parseDuration(text)) return *time;
    return Error{ErrorCode::invalidArgument,
                 std::string(option) + ": '" + std::string(text) + "' is no time (2s, 500ms, 1.5min or 1h)"};
}

Result<WatchPlan> parseWatchOptions(const WatchOptions& options, const std::string& recordDirectory,
                                    const StopToken& stop) {
    WatchPlan plan;
    for (const std::string& text : options.assertions) {
        auto wanted = parseAssertion("--assert '" + text + "'", text);
        if (!wanted) return wanted.error();
        plan.assertions.push_back(std::move(wanted).value());
    }
    for (const std::string& path : options.assertFiles) {
        if (auto read = readAssertions(path, stop, plan.assertions); !read) return read.error();
    }
    if (auto parsed = parseTriggers("--start-when", options.startWhen, plan.starts); !parsed)
        return parsed.error();
    if (auto parsed = parseTriggers("--stop-when", options.stopWhen, plan.stops); !parsed)
        return parsed.error();
    if (auto parsed = parseTakes(options, recordDirectory, plan); !parsed) return parsed.error();
    return plan;
}

}  // namespace lm::cli
