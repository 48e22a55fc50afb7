#include "cli/apply_report.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

#include "cli/diff_report.h"

namespace lm::cli {
namespace {

using session::PutBack;

std::string_view stateName(PutBack::State state) {
    constexpr std::array<std::string_view, 4> kNames = {"unchanged", "restored", "other value", "unknown"};
    return kNames.at(static_cast<std::size_t>(state));
}

std::string stateText(const PutBack& object) {
    switch (object.state) {
        case PutBack::State::unchanged:
            return "as before already";
        case PutBack::State::restored:
            return "put back";
        case PutBack::State::others:
            return "left: it holds another value than the one written";
        case PutBack::State::unknown:
            return "NOT PUT BACK: " + object.error->text();
    }
    return {};
}

}  // namespace

ApplyReport::ApplyReport(const session::ApplyPlan& plan, const session::ApplyOutcome& outcome,
                         const std::optional<std::string>& undoFile)
    : plan_(plan), outcome_(outcome), undoFile_(undoFile), changes_(params::compare(plan.held, plan.wanted)) {
    std::vector<std::string_view> written;
    for (const std::size_t step : outcome.written)
        written.push_back(plan.steps[step].object.name);
    std::sort(written.begin(), written.end());
    std::erase_if(changes_.parameters, [&](const params::ParameterDifference& one) {
        return !std::binary_search(written.begin(), written.end(), std::string_view(one.any().name));
    });
}

void ApplyReport::print(Output& output) const {
    for (const params::ParameterDifference& one : changes_.parameters)
        printDifference(one, output);
    if (!outcome_.takenBack.empty()) PutBackReport(outcome_.takenBack).print(output);
    const std::size_t lost = notPutBack(outcome_.takenBack);
    const std::string more = lost == 0 ? "" : fmt::format(", {} not put back", lost);
    output.append(
        fmt::format("{} parameter(s) written, {} equal{}\n", outcome_.written.size(), plan_.equal, more));
}

void ApplyReport::write(JsonWriter& json) const {
    if (undoFile_) json.member("undoFile", *undoFile_);
    json.key("changes").beginArray();
    for (const params::ParameterDifference& one : changes_.parameters)
        writeDifference(json, one);
    json.endArray();
    json.member("written", outcome_.written.size());
    json.member("equal", plan_.equal);
    if (!outcome_.takenBack.empty()) PutBackReport(outcome_.takenBack).write(json);
}

void PutBackReport::print(Output& output) const {
    for (const PutBack& object : objects_)
        output.appendValueLine(object.name, stateText(object));
}

void PutBackReport::write(JsonWriter& json) const {
    json.key("restored").beginArray();
    for (const PutBack& object : objects_) {
        json.beginObject();
        json.member("name", object.name);
        json.member("state", stateName(object.state));
        if (object.error) {
            json.key("error").beginObject();
            writeError(json, *object.error);
            json.endObject();
        }
        json.endObject();
    }
    json.endArray();
}

std::size_t notPutBack(const std::vector<PutBack>& objects) {
    return static_cast<std::size_t>(std::count_if(objects.begin(), objects.end(), [](const PutBack& object) {
        return object.state == PutBack::State::others || object.state == PutBack::State::unknown;
    }));
}

}  // namespace lm::cli
