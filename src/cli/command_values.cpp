#include "cli/command_values.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <unistd.h>

#include <fmt/format.h>

#include "cli/message_output.h"
#include "cli/object_report.h"
#include "cli/options.h"
#include "cli/recording_plot.h"
#include "cli/stop_signal.h"
#include "cli/value_json.h"
#include "core/printable_text.h"
#include "session/name_pattern.h"
#include "session/session.h"
#include "value/typed_text.h"

namespace lm::cli {
namespace {

using session::Reading;

std::string shownText(const Reading& reading, value::NumberStyle style) {
    const std::string text = value::valueText(reading.element, reading.physical(), style);
    return text.empty() ? "?" : text;
}

void writeReading(JsonWriter& json, const Reading& reading, value::NumberStyle style) {
    writeValue(json, reading.element, reading.bytes.data(), shownText(reading, style));
}

/// A value that was read, or why it was not.
class ReadReport : public IReport {
  public:
    ReadReport(std::string_view name, const Result<Reading>& value, value::NumberStyle style)
        : name_(name), value_(value), style_(style) {}

    void print(Output& output) const override {
        output.appendValueLine(name_,
                               value_ ? shownText(value_.value(), style_) : "ERROR " + value_.error().text());
    }

    void write(JsonWriter& json) const override {
        json.beginObject();
        json.member("name", name_);
        writeMembers(json);
        json.endObject();
    }

  protected:
    virtual void writeMembers(JsonWriter& json) const {
        if (value_) return writeReading(json.key("value"), value_.value(), style_);
        json.key("error").beginObject();
        writeError(json, value_.error());
        json.endObject();
    }

    const std::string_view name_;
    const Result<Reading>& value_;
    const value::NumberStyle style_;
};

/// What became of an assignment.
class WriteReport final : public ReadReport {
  public:
    WriteReport(std::string_view name, std::string_view typed, const session::WriteOutcome& outcome,
                value::NumberStyle style)
        : ReadReport(name, outcome.value, style), typed_(typed), outcome_(outcome) {
        if (!value_) return;
        const value::Element& element = value_.value().element;
        deviation_ = value::deviationText(element, typed, outcome.asked, outcome.written, style);
    }

    void print(Output& output) const override {
        ReadReport::print(output);
        output.flush();
        if (outcome_.held) tell(heldText(*outcome_.held));
        if (!deviation_.empty()) tell(deviation_);
    }

  private:
    void writeMembers(JsonWriter& json) const override {
        json.member("typed", typed_);
        ReadReport::writeMembers(json);
        if (!deviation_.empty()) json.member("deviation", deviation_);
        if (!outcome_.held) return;
        json.key("held");
        if (*outcome_.held) return writeReading(json, outcome_.held->value(), style_);
        json.null();
        json.key("heldError").beginObject();
        writeError(json, outcome_.held->error());
        json.endObject();
    }

    /// A write that failed on its way may have changed the ECU: the user must not have to guess.
    std::string heldText(const Result<Reading>& held) const {
        if (held) return "the ECU now holds " + shownText(held.value(), style_);
        if (held.error().code == ErrorCode::timeout)
            return "the ECU does not answer, what it now holds is not known";
        return "what the ECU now holds is not known: " + held.error().text();
    }

    void tell(const std::string& what) const { printMessage(std::string(name_) + ": " + what + "\n"); }

    const std::string_view typed_;
    const session::WriteOutcome& outcome_;
    std::string deviation_;
};

/// What the names stand for, patterns taken apart. One that matches nothing stays, and is no name either; one
/// that reaches too far is told and left out.
std::vector<std::string> expanded(const std::vector<std::string>& names, const ObjectStyle& style,
                                  Workplace& place, int& exitCode) {
    const a2l::Description& description = place.session->description();
    std::vector<std::string> all;
    for (const std::string& name : names) {
        if (!session::isNamePattern(description, name)) {
            all.push_back(name);
            continue;
        }
        if (auto few = session::checkParts(description, name, "read"); !few) {
            place.results.show(ObjectReport(name, few.error(), style));
            exitCode = 1;
            continue;
        }
        std::vector<std::string> matches =
            session::namesMatching(description, name, session::NameKind::all, stopToken());
        const std::size_t found = matches.size();
        std::erase_if(matches, [&](const std::string& match) {
            return !stopRequested() && !place.session->objects().exists(match);
        });
        if (stopRequested()) return {};
        if (matches.size() < found && !matches.empty()) {
            printMessage(
                fmt::format("'{}' matches {} object(s), {} of which cannot be read and are left out\n",
                            printableText(name), found, found - matches.size()));
        }
        if (matches.empty()) matches.push_back(name);
        std::move(matches.begin(), matches.end(), std::back_inserter(all));
    }
    return all;
}

/// Reads and shows the first scalars of the names, or the object that is the first; returns how many.
std::size_t getSome(std::span<const std::string> names, const ObjectStyle& style, Workplace& place,
                    int& exitCode) {
    session::Session& session = *place.session;
    const auto count = static_cast<std::size_t>(
        std::find_if(names.begin(), names.end(),
                     [&](const std::string& name) { return !session.objects().isScalar(name); }) -
        names.begin());
    if (count == 0) {
        const auto reading = session.readObject(names.front());
        place.results.show(ObjectReport(names.front(), reading, style));
        if (reading) return 1;
        place.results.hint(reading.error());
        exitCode = 1;
        return 1;
    }
    const auto values = session.read(names.first(count));
    for (std::size_t i = 0; i < values.size(); ++i) {
        place.results.show(ReadReport(names[i], values[i], style.numbers));
        if (values[i]) continue;
        place.results.hint(values[i].error());
        exitCode = 1;
    }
    return values.size();
}

int getAll(const std::vector<std::string>& typed, bool plot, Workplace& place) {
    ObjectStyle style{numberStyle(place.session->config()), std::nullopt};
    if (plot) style.plot = plotStyleFor(STDOUT_FILENO);
    int exitCode = 0;
    const std::vector<std::string> names = expanded(typed, style, place, exitCode);
    for (std::span<const std::string> rest(names); !rest.empty();) {
        if (stopRequested()) return 1;
        rest = rest.subspan(getSome(rest, style, place, exitCode));
        // Each value appears soon after it is read, however slow the next one is.
        if (!place.results.output().flush()) break;
    }
    return exitCode;
}

void announceDependents(std::string_view name, const std::vector<std::string>& dependents) {
    printMessage(printableText(fmt::format("{}: what depends on it is computed and written, too: {}", name,
                                           fmt::join(dependents, ", "))) +
                 "\n");
}

bool assignObject(const session::WriteWish& wish, Workplace& place) {
    const auto writing = place.session->writeObject(
        wish, [&](const std::vector<std::string>& dependents) { announceDependents(wish.name, dependents); });
    const ObjectStyle style{numberStyle(place.session->config()), std::nullopt};
    place.results.show(ObjectWriteReport(wish, writing, style));
    if (!writing.value) place.results.hint(writing.value.error());
    return writing.value.ok();
}

struct AssignOptions {
    session::WriteRights rights;
    bool dependents = true;
};

bool assign(const std::string& assignment, AssignOptions options, Workplace& place) {
    const auto refuse = [&](const Error& error) {
        place.results.fail(assignment, error, assignment);
        return false;
    };
    if (stopRequested()) return refuse(Error::stopped("not written, stopped"));
    const auto parts = splitAssignment(assignment);
    if (!parts) return refuse({ErrorCode::invalidArgument, "expected NAME=VALUE"});
    const auto& [name, text] = *parts;
    const session::NamedObjects& objects = place.session->objects();
    if (!objects.isScalar(name) || (options.dependents && objects.hasDependents(name)))
        return assignObject({name, text, options.rights, options.dependents}, place);
    const auto outcome = place.session->write(name, text, options.rights);
    place.results.show(WriteReport(name, text, outcome, numberStyle(place.session->config())));
    if (!outcome.value) place.results.hint(outcome.value.error());
    return outcome.value.ok();
}

/// `work` shows the values one after the other and gives the exit code.
template <typename Work>
int listValues(Workplace& place, const Work& work) {
    JsonWriter* const json = place.results.json();
    if (json != nullptr) json->key("values").beginArray();
    const int exitCode = work();
    if (json != nullptr) json->endArray();
    return stopRequested() ? 1 : exitCode;
}

}  // namespace

std::optional<std::pair<std::string_view, std::string_view>> splitAssignment(std::string_view text) {
    const auto equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0) return std::nullopt;
    return std::pair(text.substr(0, equals), text.substr(equals + 1));
}

void GetCommand::addOptions(OptionSet& options) {
    options
        .add("names", names_,
             "MEASUREMENT or CHARACTERISTIC names, NAME[1][2] for an element, NAME.x[3] for a point of an "
             "axis; * and ? match")
        .required();
    options.addFlag("--plot", plot_, "Draw curves as lines and colour maps");
    addExact(options, exact_);
}

void GetCommand::overrule(session::SessionConfig& config) const {
    config.display.exact = config.display.exact || exact_;
}

int GetCommand::run(Workplace& place) {
    return listValues(place, [&] { return getAll(names_, plot_, place); });
}

void SetCommand::addOptions(OptionSet& options) {
    options
        .add("assignments", assignments_,
             "NAME=VALUE, NAME[1][2]=VALUE, NAME='[[1,2],[3,4]]', NAME[*]=VALUE, NAME=@FILE.csv")
        .required();
    options.addFlag("-m,--measurements", allowMeasurements_,
                    "Also overwrite measurements (without READ_WRITE in the A2L)");
    options.addFlag("--extended-limits", extendedLimits_,
                    "Up to the EXTENDED_LIMITS of the A2L, beyond the limits");
    options.addFlag("--no-dependents", noDependents_,
                    "Leave the parameters that are computed from what is written");
    addExact(options, exact_);
}

void SetCommand::overrule(session::SessionConfig& config) const {
    config.display.exact = config.display.exact || exact_;
}

int SetCommand::run(Workplace& place) {
    return listValues(place, [&] {
        int exitCode = 0;
        for (const std::string& assignment : assignments_) {
            if (!assign(assignment, {{allowMeasurements_, extendedLimits_}, !noDependents_}, place))
                exitCode = 1;
        }
        return exitCode;
    });
}

}  // namespace lm::cli
