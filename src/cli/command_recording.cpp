#include "cli/command_recording.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>
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
#include "storage/read/recording_parts.h"
#include "storage/read/recording_reader.h"

namespace lm::cli {
namespace {

constexpr const char* kPrefix = "recording";

int fail(Results& results, const Error& error, const std::string& directory) {
    results.failOrStopped(kPrefix, error, directory);
    return 1;
}

AddedOption addDirectories(OptionSet& options, std::vector<std::string>& directories) {
    return options.add("directory", directories, kDirectoriesHelp).required();
}

std::vector<std::filesystem::path> pathsOf(const std::vector<std::string>& directories) {
    return {directories.begin(), directories.end()};
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

class RecordingCheckReport final : public IReport {
  public:
    RecordingCheckReport(const std::string& directory, std::size_t recordings,
                         const storage::RecordingCheck& check)
        : directory_(directory), recordings_(recordings), check_(check) {}

    void print(Output& output) const override {
        bool mendable = false;
        for (const storage::Finding& finding : check_.findings) {
            const std::string repair = "repair " + finding.repair;
            output.append(finding.text + " (" + (finding.mendable() ? repair : "cannot be mended") + ")\n");
            mendable = mendable || finding.mendable();
        }
        output.append(fmt::format(
            "{}: {}{} group(s), {} record(s), {}\n", directory_,
            recordings_ == 1 ? "" : fmt::format("{} recordings, ", recordings_), check_.groups,
            check_.records,
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
        json.member("recordings", recordings_);
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
    const std::size_t recordings_;
    const storage::RecordingCheck& check_;
};

/// How `info` shows numbers: of a configuration that is given, this alone counts.
Result<value::NumberStyle> numberStyle(bool exact, const Options& options) {
    if (options.configFile) {
        auto config = session::loadConfigDocument(*options.configFile, stopToken());
        if (!config) return config.error();
        const auto& ecus = config.value().ecus;
        exact = exact || config.value().one.display.exact ||
                std::any_of(ecus.begin(), ecus.end(), [](const auto& ecu) { return ecu.display.exact; });
    }
    return exact ? value::NumberStyle::exact : value::NumberStyle::formatted;
}

}  // namespace

void RecordingInfoCommand::addOptions(OptionSet& options) {
    addDirectories(options, directories_);
    addExact(options, exact_);
}

int RecordingInfoCommand::run(Workplace& place) {
    const auto style = numberStyle(exact_, place.options);
    if (!style) {
        place.results.fail("configuration", style.error(), *place.options.configFile);
        return 1;
    }
    auto recording = storage::openRecordings(pathsOf(directories_));
    if (!recording) return fail(place.results, recording.error(), directories_.front());
    int exitCode = 0;
    const auto overview = overviewOf(recording.value(), style.value(), [&](const Error& error) {
        place.results.fail(kPrefix, error, directories_.front());
        exitCode = 1;
    });
    place.results.show(RecordingReport(overview));
    return exitCode;
}

void RecordingCheckCommand::addOptions(OptionSet& options) {
    addDirectories(options, directories_);
}

int RecordingCheckCommand::run(Workplace& place) {
    auto parts = storage::findRecordings(pathsOf(directories_));
    if (!parts) return fail(place.results, parts.error(), directories_.front());
    storage::RecordingCheck whole;
    for (const storage::RecordingReader& part : parts.value()) {
        auto check = storage::checkRecording(part.directory(), stopToken());
        if (!check) return fail(place.results, check.error(), part.directory().string());
        whole.groups = check.value().groups;
        whole.records += check.value().records;
        whole.beingWritten = whole.beingWritten || check.value().beingWritten;
        std::vector<storage::Finding>& findings = check.value().findings;
        std::move(findings.begin(), findings.end(), std::back_inserter(whole.findings));
    }
    const std::size_t count = parts.value().size();
    const auto joined = storage::RecordingReader::join(std::move(parts).value(), "");
    if (!joined) return fail(place.results, joined.error(), directories_.front());
    for (storage::PartBreak& found : storage::findBreaks(joined.value())) {
        if (found.isLoss) whole.findings.push_back({std::move(found.text), ""});
    }
    place.results.show(RecordingCheckReport(directories_.front(), count, whole));
    return whole.findings.empty() ? 0 : 1;
}

void RecordingRepairCommand::addOptions(OptionSet& options) {
    addDirectories(options, directories_);
}

int RecordingRepairCommand::run(Workplace& place) {
    const auto parts = storage::findRecordings(pathsOf(directories_));
    if (!parts) return fail(place.results, parts.error(), directories_.front());
    int exitCode = 0;
    for (const storage::RecordingReader& part : parts.value())
        exitCode = std::max(exitCode, repairOne(place, part.directory().string()));
    return exitCode;
}

int RecordingRepairCommand::repairOne(Workplace& place, const std::string& directory) {
    Output& output = place.results.output();
    bool changed = false;
    auto left = storage::repairRecording(directory, stopToken(), [&](const std::string& change) {
        changed = true;
        output.append(change + "\n");
    });
    output.flush();
    if (!left) {
        const int exitCode = fail(place.results, left.error(), directory);
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

void RecordingShowCommand::addOptions(OptionSet& options) {
    AddedOption directory = addDirectories(options, directories_);
    addPatterns(options, options_.signals, "NAME, or a pattern with * and ?", directory).required();
    addTimes(options, options_.from, options_.to, "Seconds from the start, or ISO 8601");
}

int RecordingShowCommand::run(Workplace& place) {
    auto recording = storage::openRecordings(pathsOf(directories_));
    if (!recording) return fail(place.results, recording.error(), directories_.front());
    return plotSignals(recording.value(), options_, plotStyleFor(STDOUT_FILENO), place.results.output());
}

}  // namespace lm::cli
