#include "exporter/export_plan.h"

#include <algorithm>
#include <utility>

#include "storage/read/signal_selection.h"

namespace lm::exporter {
Result<storage::TimeRange> exportedTimes(const storage::RecordingInfo& info, const ExportOptions& options) {
    storage::TimeRange times;
    if (options.from) {
        auto from = storage::parseRecordingTime(*options.from, info);
        if (!from) return from.error();
        times.fromNs = from.value();
    }
    if (options.to) {
        auto to = storage::parseRecordingTime(*options.to, info);
        if (!to) return to.error();
        times.endNs = to.value();
    }
    return times;
}

Result<void> Progress::advance(std::uint64_t bytes) {
    done_ += bytes;
    if (function_) function_(done_, total_);
    return stop_.requested() ? Error::stopped("stopped") : Result<void>();
}

Result<std::vector<ExportGroup>> planExport(const storage::RecordingReader& recording,
                                            const ExportOptions& options) {
    const storage::RecordingInfo& info = recording.info();
    auto places = storage::selectSignals(info, options.signals);
    if (!places) return places.error();
    auto times = exportedTimes(info, options);
    if (!times) return times.error();
    std::vector<ExportGroup> groups;
    for (const storage::SignalPlace& place : places.value()) {
        const storage::GroupInfo& group = info.groups[place.group];
        if (groups.empty() || groups.back().reader.number() != place.group) {
            auto reader = recording.openGroup(place.group);
            if (!reader) return reader.error();
            auto range = reader.value().find(times.value());
            if (!range) return range.error();
            groups.push_back({std::move(reader).value(), {}, range.value(), options.every});
        }
        groups.back().signals.push_back(&group.signals[place.signal]);
    }
    if (groups.empty()) {
        return Error{ErrorCode::notFound, recording.directory().string() + ": no signals in this recording"};
    }
    return groups;
}

std::string timeName(const std::vector<ExportGroup>& groups) {
    std::string name = "time";
    const auto isTaken = [&name](const ExportGroup& group) {
        return std::any_of(group.signals.begin(), group.signals.end(),
                           [&name](const storage::SignalInfo* signal) { return signal->name == name; });
    };
    while (std::any_of(groups.begin(), groups.end(), isTaken))
        name.insert(0, "master_");
    return name;
}

std::uint64_t totalBytes(const std::vector<ExportGroup>& groups) {
    std::uint64_t bytes = 0;
    for (const ExportGroup& group : groups)
        bytes += group.sourceBytes();
    return bytes;
}

ExportPass::ExportPass(const ExportGroup& group, Progress& progress)
    : stream_(group.reader.read(group.range)),
      progress_(&progress),
      begin_(group.range.first),
      every_(group.every) {}

Result<ExportPass::Batch> ExportPass::next() {
    auto records = stream_.next();
    if (!records) return records.error();
    Batch batch{records.value(), 0, 0};
    if (auto goOn = progress_->advance(batch.records.count * batch.records.stride); !goOn)
        return goOn.error();
    const std::uint64_t phase = (batch.records.firstNumber - begin_) % every_;
    const std::uint64_t first = phase == 0 ? 0 : every_ - phase;
    batch.first = static_cast<std::size_t>(std::min<std::uint64_t>(first, batch.records.count));
    batch.step = static_cast<std::size_t>(std::min<std::uint64_t>(every_, batch.records.count + 1));
    return batch;
}

}  // namespace lm::exporter
