#include "cli/command_values.h"

#include <cstdio>

#include "cli/stop_signal.h"

namespace lm::cli {
namespace {

bool printValue(std::string_view name, const Result<session::SessionValue>& value, Output& output) {
    if (value) {
        const std::string& text = value.value().text;
        output.appendValueLine(name, text.empty() ? "?" : text);
    } else {
        output.appendValueLine(name, "ERROR " + value.error().text());
    }
    return value.ok();
}

bool assign(session::Session& session, std::string_view assignment, bool allowMeasurements, Output& output) {
    const auto parts = splitAssignment(assignment);
    if (!parts) {
        std::fprintf(stderr, "%s: expected NAME=VALUE\n", std::string(assignment).c_str());
        return false;
    }
    return printValue(parts->first, session.write(parts->first, parts->second, allowMeasurements), output);
}

}  // namespace

std::optional<std::pair<std::string_view, std::string_view>> splitAssignment(std::string_view text) {
    const auto equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0) return std::nullopt;
    return std::pair(text.substr(0, equals), text.substr(equals + 1));
}

int runGet(session::Session& session, const std::vector<std::string>& names, Output& output) {
    int exitCode = 0;
    for (const std::string& name : names) {
        if (stopRequested()) return 1;
        if (!printValue(name, session.read(name), output)) exitCode = 1;
        // Each value appears when it is read, however slow the next one is.
        if (!output.flush()) break;
    }
    return exitCode;
}

int runSet(session::Session& session, const std::vector<std::string>& assignments, bool allowMeasurements,
           Output& output) {
    int exitCode = 0;
    for (const std::string& assignment : assignments) {
        if (stopRequested()) return 1;
        if (!assign(session, assignment, allowMeasurements, output)) exitCode = 1;
        output.flush();
    }
    return exitCode;
}

}  // namespace lm::cli
