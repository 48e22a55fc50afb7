#include "exporter/export_recording.h"

#include <algorithm>
#include <string>
#include <utility>

#include "exporter/csv_export.h"
#include "exporter/mf4_export.h"
#include "storage/format/recording_events.h"

namespace lm::exporter {
namespace {

void noteUnfinished(const std::vector<ExportGroup>& groups, std::vector<std::string>& notes) {
    if (std::any_of(groups.begin(), groups.end(),
                    [](const ExportGroup& group) { return group.reader.isBeingWritten(); })) {
        notes.emplace_back("the recording is still being written; exported is what was there at the start");
    }
}

/// What is known of what happened in the times that are exported.
Result<storage::RecordingEvents> eventsOf(const storage::RecordingReader& recording,
                                          const ExportOptions& options) {
    auto times = exportedTimes(recording.info(), options);
    if (!times) return times.error();
    storage::RecordingEvents events = recording.events();
    std::vector<storage::Outage>& outages = events.outages;
    outages.erase(std::remove_if(outages.begin(), outages.end(),
                                 [&times](const storage::Outage& outage) {
                                     return !storage::overlaps(outage, times.value());
                                 }),
                  outages.end());
    const auto isOutside = [&times](const auto& event) {
        return event.timeNs < times.value().fromNs || event.timeNs >= times.value().endNs;
    };
    std::erase_if(events.markers, isOutside);
    std::erase_if(events.writes, isOutside);
    return events;
}

void noteMarkers(const storage::RecordingEvents& events, const ExportOptions& options,
                 std::vector<std::string>& notes) {
    const std::size_t count = events.markers.size() + events.writes.size();
    if (count == 0) return;
    notes.push_back(std::to_string(count) + " marker(s) and written parameter(s)" +
                    (options.format == Format::mf4 ? ", in the file as events"
                                                   : " in this time, `recording info` lists them"));
}

void noteOutages(const storage::RecordingEvents& events, const ExportOptions& options,
                 std::vector<std::string>& notes) {
    if (!events.trouble.empty()) notes.push_back("outages not known: " + events.trouble);
    if (events.file == storage::RecordingEvents::File::absent && options.gaps) {
        notes.emplace_back("outages not known: the recording has no events.jsonl, an older program made it");
    }
    const std::size_t count = events.outages.size();
    if (count == 0 || options.gaps) return;
    notes.push_back(std::to_string(count) + (options.format == Format::mf4
                                                 ? " outage(s), in the file as events"
                                                 : " outage(s) in this time, --gaps lists them"));
}

}  // namespace

Result<std::vector<std::filesystem::path>> exportedFiles(const storage::RecordingReader& recording,
                                                         const ExportOptions& options) {
    if (options.format == Format::mf4) return std::vector<std::filesystem::path>{options.output};
    auto groups = planExport(recording, options);
    if (!groups) return groups.error();
    return csvFiles(groups.value(), options);
}

Result<ExportSummary> exportRecording(const storage::RecordingReader& recording, const ExportOptions& options,
                                      const ProgressFunction& progress, const StopToken& stop) {
    auto groups = planExport(recording, options);
    if (!groups) return groups.error();
    auto events = eventsOf(recording, options);
    if (!events) return events.error();
    Progress meter(progress, totalBytes(groups.value()), stop);
    ExportSummary summary;
    summary.groups = groups.value().size();
    for (const ExportGroup& group : groups.value()) {
        summary.signals += group.signals.size();
        summary.records += group.recordCount();
    }
    if (options.format == Format::mf4) {
        auto notes = exportMf4(recording.info(), groups.value(), events.value(), options, meter);
        if (!notes) return notes.error();
        summary.files = {options.output};
        summary.notes = std::move(notes).value();
    } else {
        auto files = exportCsv(recording.info(), groups.value(), events.value().outages, options, meter);
        if (!files) return files.error();
        summary.files = std::move(files).value();
    }
    noteOutages(events.value(), options, summary.notes);
    noteMarkers(events.value(), options, summary.notes);
    noteUnfinished(groups.value(), summary.notes);
    return summary;
}

}  // namespace lm::exporter
