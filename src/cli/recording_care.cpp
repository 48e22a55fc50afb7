#include "cli/recording_care.h"

#include "core/log.h"
#include "exporter/export_recording.h"
#include "storage/care/recording_check.h"
#include "storage/read/recording_reader.h"

namespace lm::cli {

bool RecordingCare::isSound(const std::filesystem::path& recording) const {
    const auto checked = storage::checkRecording(recording, {});
    if (!checked) {
        log::error("recording: cannot check {}: {}", recording.string(), checked.error().text());
        return false;
    }
    for (const storage::Finding& finding : checked.value().findings)
        log::error("recording: {}", finding.text);
    return checked.value().findings.empty();
}

exporter::ExportOptions RecordingCare::optionsFor(const std::filesystem::path& recording) const {
    exporter::ExportOptions options;
    options.format = exportAs_ == "csv" ? exporter::Format::csv : exporter::Format::mf4;
    options.output = recording.string() + "." + exportAs_;
    return options;
}

std::vector<std::filesystem::path> RecordingCare::filesOf(const storage::RecordingReader& recording) const {
    if (exportAs_.empty()) return {};
    auto files = exporter::exportedFiles(recording, optionsFor(recording.directory()));
    return files ? std::move(files).value() : std::vector<std::filesystem::path>();
}

std::vector<std::filesystem::path> RecordingCare::careFor(const std::filesystem::path& recording) {
    const bool sound = isSound(recording);
    if (!sound) ++failures_;
    if (exportAs_.empty()) return {};
    const auto opened = storage::RecordingReader::open(recording);
    const auto done = opened ? exporter::exportRecording(opened.value(), optionsFor(recording), {})
                             : Result<exporter::ExportSummary>(opened.error());
    if (done) return done.value().files;
    log::error("recording: cannot export {}: {}", recording.string(), done.error().text());
    if (sound) ++failures_;
    return {};
}

}  // namespace lm::cli
