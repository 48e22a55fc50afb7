#include "cli/verdict_report.h"

#include <algorithm>

#include <fmt/format.h>

#include "core/printable_text.h"
#include "core/text.h"

namespace lm::cli {
namespace {

using watch::Verdict;

double seconds(std::int64_t ns) {
    return static_cast<double>(ns) / 1e9;
}

const char* stateOf(const Verdict& verdict) {
    if (verdict.violated != 0) return "violated";
    if (verdict.undecided != 0) return "undecided";
    return verdict.records == 0 ? "not evaluated" : "held";
}

std::string worstText(const Verdict& verdict) {
    if (!verdict.worst) return "";
    return fmt::format(", worst value {} at {}", formatGeneral(*verdict.worst), secondsText(verdict.worstNs));
}

/// What there is to know beside the name and the expression.
std::string factsOf(const Verdict& verdict) {
    if (verdict.records == 0) return "no record came with a value of each of its signals";
    std::string text;
    if (verdict.violated != 0) {
        text = fmt::format("{} time(s), {} of {} record(s), from {} to {}", verdict.times, verdict.violated,
                           verdict.records, secondsText(verdict.firstNs), secondsText(verdict.lastNs));
    } else {
        text = fmt::format("{} record(s)", verdict.records);
    }
    text += worstText(verdict);
    if (verdict.undecided != 0)
        text +=
            fmt::format(", not decided for {} record(s), a value is not a number (NaN)", verdict.undecided);
    return text;
}

}  // namespace

std::string secondsText(std::int64_t ns) {
    return formatFixed(seconds(ns), 3) + " s";
}

bool allAsWanted(const std::vector<Verdict>& verdicts) {
    return std::all_of(verdicts.begin(), verdicts.end(),
                       [](const Verdict& verdict) { return verdict.asWanted(); });
}

std::string verdictLines(const std::vector<Verdict>& verdicts) {
    std::string text;
    for (const Verdict& verdict : verdicts) {
        const std::string named = verdict.name == verdict.text ? "" : printableText(verdict.text) + ", ";
        text += fmt::format("{:<14} {}: {}{}\n", stateOf(verdict), printableText(verdict.name), named,
                            factsOf(verdict));
    }
    const auto bad = std::count_if(verdicts.begin(), verdicts.end(),
                                   [](const Verdict& verdict) { return !verdict.asWanted(); });
    if (!verdicts.empty()) text += fmt::format("{} assertion(s), {} not as wanted\n", verdicts.size(), bad);
    return text;
}

void writeVerdicts(JsonWriter& json, const std::vector<Verdict>& verdicts) {
    json.key("assertions").beginArray();
    for (const Verdict& verdict : verdicts) {
        json.beginObject();
        json.member("name", verdict.name);
        json.member("expression", verdict.text);
        json.member("verdict", stateOf(verdict));
        json.member("asWanted", verdict.asWanted());
        json.member("records", verdict.records);
        json.member("violated", verdict.violated);
        json.member("undecided", verdict.undecided);
        json.member("times", verdict.times);
        if (verdict.violated != 0) {
            json.member("fromNs", verdict.firstNs);
            json.member("toNs", verdict.lastNs);
        }
        if (verdict.worst) {
            json.member("worst", *verdict.worst);
            json.member("worstNs", verdict.worstNs);
        }
        json.endObject();
    }
    json.endArray();
}

TestCase verdictCase(const Verdict& verdict, double time) {
    TestCase one{.name = verdict.name, .seconds = time};
    const std::string facts = factsOf(verdict);
    one.details = verdict.text + "\n" + facts;
    if (verdict.asWanted()) return one;
    one.outcome = TestCase::Outcome::failed;
    one.message = fmt::format("{}: {}", stateOf(verdict), facts);
    return one;
}

void writeTakes(JsonWriter& json, const std::vector<watch::Take>& takes, std::int64_t zeroNs) {
    json.key("takes").beginArray();
    for (const watch::Take& take : takes) {
        json.beginObject();
        json.member("take", take.number);
        json.member("directory", take.directory.string());
        json.member("triggerNs", take.triggerNs - zeroNs);
        json.member("fromNs", take.firstNs - zeroNs);
        json.member("toNs", take.lastNs - zeroNs);
        json.member("recorded", take.recorded);
        json.member("dropped", take.dropped);
        json.member("preCut", take.preCut);
        json.member("cutOff", take.cutOff);
        json.member("triggersInside", take.triggersInside);
        if (take.error) json.member("error", take.error->text());
        json.endObject();
    }
    json.endArray();
}

}  // namespace lm::cli
