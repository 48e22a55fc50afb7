#include "cli/command_export.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "cli/options.h"
#include "cli/progress_line.h"
#include "cli/stop_signal.h"
#include "exporter/export_recording.h"
#include "storage/read/recording_parts.h"

namespace lm::cli {
namespace {

bool goesToStandardOutput(const ExportCommand::Options& request) {
    return request.output.output == "-";
}

Result<exporter::Format> formatOf(const ExportCommand::Options& request) {
    std::string word = request.format.value_or(request.output.output.extension().string());
    std::transform(word.begin(), word.end(), word.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; });
    if (word == "mf4" || word == ".mf4") return exporter::Format::mf4;
    if (word == "csv" || word == ".csv") return exporter::Format::csv;
    if (!request.format && goesToStandardOutput(request)) return exporter::Format::csv;
    if (request.format) return invalidArgument("unknown format '" + *request.format + "' (mf4 or csv)");
    return invalidArgument("the name " + request.output.output.string() +
                           " does not end in .mf4 or .csv, give --format mf4 or --format csv");
}

Result<exporter::ExportOptions> checkedOptions(const ExportCommand::Options& request) {
    auto format = formatOf(request);
    if (!format) return format.error();
    exporter::ExportOptions options = request.output;
    options.format = format.value();
    options.compress = !request.noCompress;
    const bool isCsv = options.format == exporter::Format::csv;
    const bool toStream = goesToStandardOutput(request);
    const std::pair<bool, const char*> onlyOne[] = {
        {!isCsv && toStream, "an MF4 file is not written from front to back: -o - is for CSV"},
        {toStream && options.gaps, "--gaps writes a file of its own: give -o a name"},
        {!isCsv && options.merge, "--merge is for CSV files"},
        {!isCsv && options.raw, "--raw is for CSV files, an MF4 file holds raw values and their conversions"},
        {!isCsv && options.absolute, "--absolute is for CSV files, an MF4 file holds its start time"},
        {!isCsv && options.a2lFormat, "--a2l-format is for CSV files"},
        {!isCsv && options.gaps, "--gaps is for CSV files, an MF4 file holds outages and gaps as events"},
        {isCsv && request.noCompress, "--no-compress is for MF4 files"},
        {options.raw && options.a2lFormat, "--raw and --a2l-format exclude each other"},
        {options.every == 0, "--every: 0 is not a number of records"},
    };
    for (const auto& [wrong, message] : onlyOne) {
        if (wrong) return invalidArgument(message);
    }
    return options;
}

Result<exporter::ExportSummary> exportWithProgress(const ExportCommand::Options& request, Output& output) {
    auto options = checkedOptions(request);
    if (!options) return options.error();
    const bool toStream = goesToStandardOutput(request);
    if (toStream) {
        options.value().stream = [&output](std::string_view text) {
            output.append(text);
            return output.flush() ? Result<void>() : Error::stopped("standard output takes no more");
        };
    }
    auto recording = storage::openRecordings({request.directories.begin(), request.directories.end()});
    if (!recording) return recording.error();
    ProgressLine line(!toStream, "exporting");
    const auto show = [&line](std::uint64_t done, std::uint64_t total) { line.show(done, total); };
    return exporter::exportRecording(recording.value(), options.value(), show, stopToken());
}

class ExportReport final : public IReport {
  public:
    explicit ExportReport(const exporter::ExportSummary& summary) : summary_(summary) {}

    void print(Output& output) const override {
        for (const std::filesystem::path& file : summary_.files)
            output.append(file.string() + " written\n");
        output.flush();
        for (const std::string& note : summary_.notes)
            std::fputs((note + "\n").c_str(), stderr);
        std::fputs(fmt::format("{} record(s) of {} signal(s) in {} group(s)\n", summary_.records,
                               summary_.signals, summary_.groups)
                       .c_str(),
                   stderr);
    }

    void write(JsonWriter& json) const override {
        json.key("files").beginArray();
        for (const std::filesystem::path& file : summary_.files)
            json.value(file.string());
        json.endArray();
        json.member("records", summary_.records);
        json.member("signals", summary_.signals);
        json.member("groups", summary_.groups);
        json.listMember("notes", summary_.notes);
    }

  private:
    const exporter::ExportSummary& summary_;
};

}  // namespace

void ExportCommand::addOptions(OptionSet& options) {
    exporter::ExportOptions& output = options_.output;
    AddedOption directory = options.add("directory", options_.directories, kDirectoriesHelp).required();
    options
        .add("-o,--output", output.output, "Output file, NAME.mf4 or NAME.csv; - is standard output, as CSV")
        .required();
    options.add("--format", options_.format, "mf4 | csv (default: as the output's name ends)");
    options.addFlag("--force", output.force, "Overwrite existing files");
    addPatterns(options, output.signals, "NAME, or a pattern with * and ? (default: all)", directory);
    addTimes(options, output.from, output.to, "Seconds from the start, or ISO 8601; records before it");
    options.add("--every", output.every, "Only every n-th record of each group").showDefault("1");
    options.addFlag("--no-compress", options_.noCompress, "MF4: copy the records as they lie");
    options.addFlag("--merge", output.merge, "CSV: all groups in one file, on one time axis");
    options.addFlag("--raw", output.raw, "CSV: raw values");
    options.addFlag("--absolute", output.absolute, "CSV: ISO 8601 times in UTC");
    options.addFlag("--a2l-format", output.a2lFormat, "CSV: decimals as the A2L says");
    options.addFlag("--gaps", output.gaps, "CSV: list outages and gaps in NAME_gaps.csv");
}

int ExportCommand::run(Workplace& place) {
    if (goesToStandardOutput(options_) && place.results.json() != nullptr) {
        place.results.fail("export", invalidArgument("--json and -o - would both write to standard output"),
                           "");
        return 1;
    }
    Output& output = place.results.output();
    const auto done = exportWithProgress(options_, output);
    if (!done && !output.flush()) return 0;  // which the output tells at its end
    if (!done) {
        place.results.failOrStopped("export", done.error(), "");
        return 1;
    }
    place.results.show(ExportReport(done.value()));
    return 0;
}

}  // namespace lm::cli
