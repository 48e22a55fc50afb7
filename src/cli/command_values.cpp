#include "cli/command_values.h"

#include <span>

#include <CLI/App.hpp>

#include "cli/message_output.h"
#include "cli/options.h"
#include "cli/stop_signal.h"
#include "session/session.h"

namespace lm::cli {
namespace {

std::string shownText(const session::SessionValue& value) {
    return value.text.empty() ? "?" : value.text;
}

bool printValue(std::string_view name, const Result<session::SessionValue>& value, Output& output) {
    output.appendValueLine(name, value ? shownText(value.value()) : "ERROR " + value.error().text());
    return value.ok();
}

/// A write that failed on its way may have changed the ECU: the user must not have to guess.
void tellHeld(std::string_view name, const Result<session::SessionValue>& held) {
    std::string what;
    if (held) {
        what = "the ECU now holds " + shownText(held.value());
    } else if (held.error().code == ErrorCode::timeout) {
        what = "the ECU does not answer, what it now holds is not known";
    } else {
        what = "what the ECU now holds is not known: " + held.error().text();
    }
    printMessage(std::string(name) + ": " + what + "\n");
}

bool assign(session::Session& session, std::string_view assignment, bool allowMeasurements, Output& output) {
    const auto parts = splitAssignment(assignment);
    if (!parts) {
        printMessage(std::string(assignment) + ": expected NAME=VALUE\n");
        return false;
    }
    const auto outcome = session.write(parts->first, parts->second, allowMeasurements);
    const bool done = printValue(parts->first, outcome.value, output);
    output.flush();
    if (outcome.held) tellHeld(parts->first, *outcome.held);
    if (!outcome.deviation.empty()) printMessage(std::string(parts->first) + ": " + outcome.deviation + "\n");
    return done;
}

int getAll(session::Session& session, const std::vector<std::string>& names, Output& output) {
    int exitCode = 0;
    for (std::span<const std::string> rest(names); !rest.empty();) {
        if (stopRequested()) return 1;
        const auto values = session.read(rest);
        for (std::size_t i = 0; i < values.size(); ++i) {
            if (!printValue(rest[i], values[i], output)) exitCode = 1;
        }
        // Each value appears soon after it is read, however slow the next one is.
        if (!output.flush()) break;
        rest = rest.subspan(values.size());
    }
    return exitCode;
}

int setAll(session::Session& session, const std::vector<std::string>& assignments, bool allowMeasurements,
           Output& output) {
    int exitCode = 0;
    for (const std::string& assignment : assignments) {
        if (stopRequested()) {
            printMessage(assignment + ": not written, stopped\n");
            exitCode = 1;
        } else if (!assign(session, assignment, allowMeasurements, output)) {
            exitCode = 1;
        }
    }
    return exitCode;
}

}  // namespace

std::optional<std::pair<std::string_view, std::string_view>> splitAssignment(std::string_view text) {
    const auto equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0) return std::nullopt;
    return std::pair(text.substr(0, equals), text.substr(equals + 1));
}

void GetCommand::addOptions(CLI::App& app) {
    app.add_option("names", names_, "MEASUREMENT or CHARACTERISTIC names")->required();
    addExact(app, exact_);
}

void GetCommand::overrule(session::SessionConfig& config) const {
    config.display.exact = config.display.exact || exact_;
}

int GetCommand::run(Workplace& place) {
    const int exitCode = getAll(*place.session, names_, place.results.output());
    return stopRequested() ? 1 : exitCode;
}

void SetCommand::addOptions(CLI::App& app) {
    app.add_option("assignments", assignments_, "NAME=VALUE")->required();
    app.add_flag("-m,--measurements", allowMeasurements_,
                 "Also overwrite measurements (without READ_WRITE in the A2L)");
    addExact(app, exact_);
}

void SetCommand::overrule(session::SessionConfig& config) const {
    config.display.exact = config.display.exact || exact_;
}

int SetCommand::run(Workplace& place) {
    const int exitCode = setAll(*place.session, assignments_, allowMeasurements_, place.results.output());
    return stopRequested() ? 1 : exitCode;
}

}  // namespace lm::cli
