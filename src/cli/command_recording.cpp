#include "cli/command_recording.h"

#include <cstdio>
#include <string>
#include <unistd.h>

#include <spdlog/fmt/fmt.h>

#include "cli/recording_overview.h"
#include "cli/recording_plot.h"
#include "cli/stop_signal.h"
#include "storage/care/recording_check.h"
#include "storage/care/recording_repair.h"
#include "storage/read/recording_reader.h"

namespace lm::cli {
namespace {

constexpr const char* kPrefix = "recording";

int fail(const Error& error) {
    // Who asked for the stop knows of it.
    if (error.code != ErrorCode::closed) printError(kPrefix, error);
    return 1;
}

/// As a shell takes it.
std::string quoted(const std::string& text) {
    constexpr const char* kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_./-+:@%,";
    if (!text.empty() && text.find_first_not_of(kPlain) == std::string::npos) return text;
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

int runCheck(const std::string& directory, Output& output) {
    auto checked = storage::checkRecording(directory, stopRequested);
    if (!checked) return fail(checked.error());
    const storage::RecordingCheck& check = checked.value();
    bool mendable = false;
    for (const storage::Finding& finding : check.findings) {
        output.append(finding.text + (finding.mendable ? "\n" : " (cannot be mended)\n"));
        mendable = mendable || finding.mendable;
    }
    output.append(
        fmt::format("{}: {} group(s), {} record(s), {}\n", directory, check.groups, check.records,
                    check.findings.empty() ? "sound" : fmt::format("{} fault(s)", check.findings.size())));
    output.flush();
    if (check.beingWritten) {
        std::fprintf(stderr, "%s: still being recorded; what is not whole yet is no fault\n",
                     directory.c_str());
    } else if (mendable) {
        std::fprintf(stderr, "mend it with `xcplumo-cli recording repair %s`\n", quoted(directory).c_str());
    }
    return check.findings.empty() ? 0 : 1;
}

int runRepair(const std::string& directory, Output& output) {
    bool changed = false;
    auto left = storage::repairRecording(directory, stopRequested, [&](const std::string& deed) {
        changed = true;
        output.append(deed + "\n");
    });
    output.flush();
    if (!left) {
        const int exitCode = fail(left.error());
        if (changed) std::fputs("what is told above is done; the rest is as it was\n", stderr);
        return exitCode;
    }
    for (const storage::Finding& finding : left.value())
        output.append(finding.text + " (cannot be mended)\n");
    if (left.value().empty()) {
        output.append(directory + (changed ? ": repaired\n" : ": sound, nothing to repair\n"));
    }
    return left.value().empty() ? 0 : 1;
}

int runInfo(const std::string& directory, value::NumberStyle style, Output& output) {
    auto recording = storage::RecordingReader::open(directory);
    if (!recording) return fail(recording.error());
    return printOverview(recording.value(), style, output);
}

int runShow(const RecordingOptions& options, Output& output) {
    auto recording = storage::RecordingReader::open(options.directory);
    if (!recording) return fail(recording.error());
    return plotSignals(recording.value(), options, plotStyleFor(STDOUT_FILENO), output);
}

}  // namespace

int runRecording(const RecordingOptions& options, value::NumberStyle style, Output& output) {
    switch (options.action) {
        case RecordingAction::check:
            return runCheck(options.directory, output);
        case RecordingAction::repair:
            return runRepair(options.directory, output);
        case RecordingAction::show:
            return runShow(options, output);
        default:
            return runInfo(options.directory, style, output);
    }
}

}  // namespace lm::cli
