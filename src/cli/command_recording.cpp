#include "cli/command_recording.h"

#include <cstdio>
#include <string>
#include <unistd.h>

#include <spdlog/fmt/fmt.h>

#include "cli/options.h"
#include "cli/recording_overview.h"
#include "cli/recording_plot.h"
#include "cli/recording_report.h"
#include "cli/stop_signal.h"
#include "storage/care/recording_check.h"
#include "storage/care/recording_repair.h"
#include "storage/read/recording_reader.h"

namespace lm::cli {
namespace {

constexpr const char* kPrefix = "recording";

int fail(Results& results, const Error& error, const std::string& directory) {
    results.failOrStopped(kPrefix, error, directory);
    return 1;
}

AddedOption addDirectory(OptionSet& options, std::string& directory) {
    return options.add("directory", directory, "Recording directory").required();
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

class CheckReport final : public IReport {
  public:
    CheckReport(const std::string& directory, const storage::RecordingCheck& check)
        : directory_(directory), check_(check) {}

    void print(Output& output) const override {
        bool mendable = false;
        for (const storage::Finding& finding : check_.findings) {
            const std::string repair = "repair " + finding.repair;
            output.append(finding.text + " (" + (finding.mendable() ? repair : "cannot be mended") + ")\n");
            mendable = mendable || finding.mendable();
        }
        output.append(fmt::format(
            "{}: {} group(s), {} record(s), {}\n", directory_, check_.groups, check_.records,
            check_.findings.empty() ? "sound" : fmt::format("{} fault(s)", check_.findings.size())));
        output.flush();
        if (check_.beingWritten) {
            std::fprintf(stderr, "%s: still being recorded; what is not whole yet is no fault\n",
                         directory_.c_str());
        } else if (mendable) {
            std::fprintf(stderr, "mend it with `xcplumo-cli recording repair %s`\n",
                         quoted(directory_).c_str());
        }
    }

    void write(JsonWriter& json) const override {
        json.member("directory", directory_);
        json.member("groups", check_.groups);
        json.member("records", check_.records);
        json.member("beingWritten", check_.beingWritten);
        json.member("sound", check_.findings.empty());
        json.key("findings").beginArray();
        for (const storage::Finding& finding : check_.findings) {
            json.beginObject();
            json.member("text", finding.text);
            json.member("mendable", finding.mendable());
            if (finding.mendable()) json.member("repair", finding.repair);
            json.endObject();
        }
        json.endArray();
    }

  private:
    const std::string& directory_;
    const storage::RecordingCheck& check_;
};

/// How `info` shows numbers: of a configuration that is given, this alone counts.
Result<value::NumberStyle> numberStyle(bool exact, const Options& options) {
    if (options.configFile) {
        auto config = session::loadSessionConfig(*options.configFile, stopToken());
        if (!config) return config.error();
        exact = exact || config.value().display.exact;
    }
    return exact ? value::NumberStyle::exact : value::NumberStyle::formatted;
}

}  // namespace

void RecordingInfoCommand::addOptions(OptionSet& options) {
    addDirectory(options, directory_);
    addExact(options, exact_);
}

int RecordingInfoCommand::run(Workplace& place) {
    const auto style = numberStyle(exact_, place.options);
    if (!style) {
        place.results.fail("configuration", style.error(), *place.options.configFile);
        return 1;
    }
    auto recording = storage::RecordingReader::open(directory_);
    if (!recording) return fail(place.results, recording.error(), directory_);
    int exitCode = 0;
    const auto overview = overviewOf(recording.value(), style.value(), [&](const Error& error) {
        place.results.fail(kPrefix, error, directory_);
        exitCode = 1;
    });
    place.results.show(RecordingReport(overview));
    return exitCode;
}

void RecordingCheckCommand::addOptions(OptionSet& options) {
    addDirectory(options, directory_);
}

int RecordingCheckCommand::run(Workplace& place) {
    const auto check = storage::checkRecording(directory_, stopToken());
    if (!check) return fail(place.results, check.error(), directory_);
    place.results.show(CheckReport(directory_, check.value()));
    return check.value().findings.empty() ? 0 : 1;
}

void RecordingRepairCommand::addOptions(OptionSet& options) {
    addDirectory(options, directory_);
}

int RecordingRepairCommand::run(Workplace& place) {
    Output& output = place.results.output();
    bool changed = false;
    auto left = storage::repairRecording(directory_, stopToken(), [&](const std::string& change) {
        changed = true;
        output.append(change + "\n");
    });
    output.flush();
    if (!left) {
        const int exitCode = fail(place.results, left.error(), directory_);
        if (changed) std::fputs("what is told above is done; the rest is as it was\n", stderr);
        return exitCode;
    }
    for (const storage::Finding& finding : left.value())
        output.append(finding.text + " (cannot be mended)\n");
    if (left.value().empty()) {
        output.append(directory_ + (changed ? ": repaired\n" : ": sound, nothing to repair\n"));
    }
    return left.value().empty() ? 0 : 1;
}

void RecordingShowCommand::addOptions(OptionSet& options) {
    AddedOption directory = addDirectory(options, directory_);
    addPatterns(options, options_.signals, "NAME, or a pattern with * and ?", directory).required();
    addTimes(options, options_.from, options_.to, "Seconds from the start, or ISO 8601");
}

int RecordingShowCommand::run(Workplace& place) {
    auto recording = storage::RecordingReader::open(directory_);
    if (!recording) return fail(place.results, recording.error(), directory_);
    return plotSignals(recording.value(), options_, plotStyleFor(STDOUT_FILENO), place.results.output());
}

}  // namespace lm::cli
