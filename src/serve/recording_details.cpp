#include "serve/recording_details.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "serve/signal_facts.h"

namespace lm::serve {
namespace {

using nlohmann::json;

/// A picture with more marks than these shows none of them.
constexpr std::size_t kMostEvents = 5000;
constexpr std::size_t kMostKnown = 10000;

/// Collects what happened, with times from the start.
class EventList {
  public:
    explicit EventList(std::int64_t startNs) : startNs_(startNs) {}

    void add(const char* kind, std::int64_t timeNs, const std::string& text) {
        if (isFull()) return leaveOut();
        list_.push_back({{"kind", kind}, {"tNs", storage::timeBetween(startNs_, timeNs)}, {"text", text}});
    }
    void addStretch(const char* kind, std::int64_t beginNs, std::int64_t endNs, const std::string& text) {
        if (isFull()) return leaveOut();
        add(kind, beginNs, text);
        list_.back()["untilNs"] = storage::timeBetween(startNs_, endNs);
    }
    void leaveOut(std::uint64_t count = 1) { leftOut_ += count; }
    std::uint64_t leftOut() const { return leftOut_; }
    json take() {
        std::stable_sort(list_.begin(), list_.end(), [](const json& a, const json& b) {
            return a["tNs"].get<std::int64_t>() < b["tNs"].get<std::int64_t>();
        });
        return std::move(list_);
    }

  private:
    bool isFull() const { return list_.size() >= kMostEvents; }

    const std::int64_t startNs_;
    json list_ = json::array();
    std::uint64_t leftOut_ = 0;
};

json eventsOf(OpenedRecording& recording, const storage::TimeSpan& span) {
    const storage::RecordingEvents& events = recording.events();
    EventList list(recording.info().startHostNs);
    for (const storage::Outage& outage : events.outages) {
        const std::string outcome = outage.outcome.empty() ? "" : "; " + outage.outcome;
        list.addStretch("outage", outage.beginNs, outage.endNs.value_or(span.lastNs),
                        outage.reason + outcome);
    }
    for (const storage::Marker& marker : events.markers)
        list.add("mark", marker.timeNs, marker.text);
    for (const storage::ParameterWrite& write : events.writes) {
        list.add("write", write.timeNs,
                 fmt::format("{}: {} -> {} ({})", write.name, write.before.empty() ? "?" : write.before,
                             write.after, write.by));
    }
    for (const storage::Trigger& trigger : events.triggers)
        list.add("trigger", trigger.timeNs, trigger.text);
    for (const storage::EcuChange& change : events.ecuChanges)
        list.add("ecu", change.timeNs, change.text);
    for (const storage::ClockStep& step : events.steps)
        list.add("clock", step.after.hostNs, fmt::format("the clock was set by {} ns", step.byNs));
    for (std::size_t i = 0; i < recording.info().groups.size(); ++i) {
        const auto gaps = recording.gaps(i);
        if (!gaps) {
            list.leaveOut();
            continue;
        }
        list.leaveOut(gaps.value()->count - gaps.value()->gaps.size());
        for (const storage::Gap& gap : gaps.value()->gaps) {
            list.addStretch("gap", gap.beginNs, gap.endNs,
                            fmt::format("no record of {} for {:.3f} ms", recording.info().groups[i].name,
                                        static_cast<double>(gap.lengthNs()) / 1e6));
        }
    }
    return {{"events", list.take()}, {"eventsLeftOut", list.leftOut()}};
}

std::string textOf(const json& told) {
    return told.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

json ecusOf(const storage::RecordingInfo& info) {
    json ecus = json::array();
    for (const storage::EcuInfo& ecu : info.ecus)
        ecus.push_back(ecu.name);
    if (ecus.empty() && !info.ecu.empty()) ecus.push_back(info.ecu);
    return ecus;
}

std::uint64_t bytesIn(const std::filesystem::path& directory) {
    std::uint64_t bytes = 0;
    std::error_code failure;
    for (std::filesystem::directory_iterator at(directory, failure), end; !failure && at != end;
         at.increment(failure)) {
        std::error_code ignored;
        const std::uintmax_t size = at->is_regular_file(ignored) ? at->file_size(ignored) : 0;
        if (!ignored) bytes += size;
    }
    return bytes;
}

json readDetails(const std::filesystem::path& directory) {
    const auto recording = storage::RecordingReader::open(directory);
    if (!recording) return {{"error", http::errorJson(recording.error())}};
    const storage::RecordingInfo& info = recording.value().info();
    const storage::RecordingEvents events = recording.value().events();
    std::uint64_t records = 0;
    bool isComplete = !events.beingWritten && events.trouble.empty() && events.tornBytes == 0 &&
                      std::all_of(events.outages.begin(), events.outages.end(),
                                  [](const storage::Outage& outage) { return outage.endNs.has_value(); });
    storage::TimeSpan span;
    for (std::size_t i = 0; i < info.groups.size(); ++i) {
        const auto group = recording.value().openGroup(i);
        const auto of = group ? group.value().timeSpan() : Result<storage::TimeSpan>(group.error());
        if (!of) {
            isComplete = false;
            continue;
        }
        records += group.value().recordCount();
        span.add(of.value());
        isComplete = isComplete && group.value().tornBytes() == 0 && !group.value().isBeingWritten();
    }
    return {{"startUtcNs", info.startUtcNs},
            {"durationNs", span.isEmpty() ? 0 : storage::timeBetween(span.firstNs, span.lastNs)},
            {"bytes", bytesIn(directory)},
            {"ecus", ecusOf(info)},
            {"records", records},
            {"outages", events.outages.size()},
            {"complete", isComplete}};
}

}  // namespace

Result<std::string> pictureOf(OpenedRecording& recording) {
    const storage::RecordingInfo& info = recording.info();
    json signals = json::array();
    json groups = json::array();
    storage::TimeSpan span;
    for (std::size_t i = 0; i < info.groups.size(); ++i) {
        const storage::GroupInfo& group = info.groups[i];
        json& told = groups.emplace_back(json{{"name", group.name}});
        if (group.cycleNs > 0) told["cycleNs"] = group.cycleNs;
        const Result<OpenedGroup*> opened = recording.group(i);
        if (opened) {
            told["records"] = opened.value()->reader.recordCount();
            if (const auto of = opened.value()->reader.timeSpan()) span.add(of.value());
        } else {
            told["error"] = http::errorJson(opened.error());
        }
        for (const storage::SignalInfo& signal : group.signals) {
            json& one = signals.emplace_back(
                json{{"name", signal.name}, {"description", signal.description}, {"group", i}});
            addSignalFacts(one, signal);
        }
    }
    if (span.isEmpty()) span = {info.startHostNs, info.startHostNs};
    json told = eventsOf(recording, span);
    told.update({{"startUtcNs", info.startUtcNs},
                 {"fromNs", storage::timeBetween(info.startHostNs, span.firstNs)},
                 {"toNs", storage::timeBetween(info.startHostNs, span.lastNs)},
                 {"signals", std::move(signals)},
                 {"groups", std::move(groups)}});
    return textOf(told);
}

json Catalogue::detailsOf(const std::string& name, const std::filesystem::path& directory) {
    std::string stamp = stampOf(directory);
    {
        const std::lock_guard lock(mutex_);
        const auto known = known_.find(directory);
        if (known != known_.end() && known->second.stamp == stamp) return known->second.details;
    }
    json details = readDetails(directory);
    details["name"] = name;
    const std::lock_guard lock(mutex_);
    if (known_.size() >= kMostKnown) known_.clear();
    known_[directory] = {std::move(stamp), details};
    return details;
}

}  // namespace lm::serve
