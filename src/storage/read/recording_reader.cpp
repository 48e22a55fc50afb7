#include "storage/read/recording_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "storage/format/recording_meta.h"
#include "storage/read/gap_search.h"
#include "storage/read/input_file.h"

namespace lm::storage {
namespace {

/// Far above what the largest A2L file gives, far below what would hurt: foreign text is not parsed without
/// end.
constexpr std::size_t kMaxMetaSize = std::size_t{64} << 20U;

Result<RecordingInfo> readMeta(const std::filesystem::path& path) {
    auto file = InputFile::open(path);
    if (!file) return file.error();
    if (file.value().size() > kMaxMetaSize) {
        return Error{ErrorCode::invalidArgument, "meta.json: larger than 64 MiB"};
    }
    std::vector<std::uint8_t> bytes(file.value().size());
    if (auto read = file.value().readAt(0, bytes.data(), bytes.size()); !read) return read.error();
    return metaFromJson({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

bool sameSignal(const SignalInfo& a, const SignalInfo& b) {
    return a.name == b.name && a.coding.dataType == b.coding.dataType &&
           a.coding.byteOrder == b.coding.byteOrder && a.coding.bitMask == b.coding.bitMask &&
           a.recordOffset == b.recordOffset;
}

bool recordsTheSame(const RecordingInfo& a, const RecordingInfo& b) {
    const auto sameGroup = [](const GroupInfo& left, const GroupInfo& right) {
        return left.recordSize == right.recordSize && left.cycleNs == right.cycleNs &&
               std::equal(left.signals.begin(), left.signals.end(), right.signals.begin(),
                          right.signals.end(), sameSignal);
    };
    return std::equal(a.groups.begin(), a.groups.end(), b.groups.begin(), b.groups.end(), sameGroup);
}

}  // namespace

Result<RecordingReader> RecordingReader::open(const std::filesystem::path& directory) {
    auto info = readMeta(directory / kMetaFileName);
    if (info) return RecordingReader(directory, std::move(info).value());
    const Error& error = info.error();
    if (error.sysErrno != ENOENT && error.sysErrno != ENOTDIR) return error;
    return Error{ErrorCode::notFound, "no recording in " + directory.string()};
}

Result<RecordingReader> RecordingReader::join(std::vector<RecordingReader> recordings,
                                              const std::string& name) {
    RecordingReader joined = std::move(recordings.front());
    for (std::size_t i = 1; i < recordings.size(); ++i) {
        RecordingReader& next = recordings[i];
        if (!recordsTheSame(joined.info_, next.info_)) {
            return Error{ErrorCode::invalidArgument,
                         next.directory_.string() + ": records other signals than " +
                             joined.directory_.string() + ", the two cannot be read as one"};
        }
        const bool sameSeries =
            joined.info_.part && next.info_.part && joined.info_.part->series == next.info_.part->series;
        const std::int64_t shiftNs = sameSeries
                                         ? 0
                                         : timeBetween(joined.info_.startUtcNs, next.info_.startUtcNs) -
                                               timeBetween(joined.info_.startHostNs, next.info_.startHostNs);
        joined.more_.push_back({std::move(next.directory_), std::move(next.info_), shiftNs});
    }
    if (!name.empty()) joined.info_.name = name;
    return joined;
}

Result<GroupReader> RecordingReader::openGroup(std::size_t number) const {
    auto group = GroupReader::open(directory_, number, info_.groups[number]);
    if (!group) return group;
    for (const RecordingPart& part : more_) {
        auto next = GroupReader::open(part.directory, number, part.info.groups[number]);
        if (!next) return next;
        auto joined = group.value().append(std::move(next).value(), part.shiftNs);
        if (!joined) return joined.error();
    }
    return group;
}

RecordingEvents RecordingReader::events() const {
    RecordingEvents all = readEvents(directory_, info_);
    for (const RecordingPart& part : more_) {
        RecordingEvents events = readEvents(part.directory, part.info);
        if (all.trouble.empty()) all.trouble = events.trouble;
        all.beingWritten = events.beingWritten;
        for (Outage& outage : events.outages) {
            outage.beginNs += part.shiftNs;
            if (outage.endNs) *outage.endNs += part.shiftNs;
            const auto before =
                std::find_if(all.outages.begin(), all.outages.end(), [&](const Outage& earlier) {
                    return earlier.ecu == outage.ecu && earlier.outcome == kOutageGoesOn &&
                           earlier.endNs == outage.beginNs;
                });
            if (before != all.outages.end()) {
                outage.beginNs = before->beginNs;
                all.outages.erase(before);
            }
            all.outages.push_back(std::move(outage));
        }
        for (ClockPair& pair : events.clocks)
            all.clocks.push_back({pair.hostNs + part.shiftNs, pair.utcNs});
        for (ClockStep& step : events.steps) {
            step.after.hostNs += part.shiftNs;
            all.steps.push_back(step);
        }
        for (EcuChange& change : events.ecuChanges) {
            change.timeNs += part.shiftNs;
            all.ecuChanges.push_back(std::move(change));
        }
        for (Trigger& trigger : events.triggers) {
            trigger.timeNs += part.shiftNs;
            all.triggers.push_back(std::move(trigger));
        }
        for (EcuNote& note : events.ecus) {
            note.timeNs += part.shiftNs;
            // What a split repeats is not new.
            const bool isKnown = std::any_of(all.ecus.begin(), all.ecus.end(), [&](const EcuNote& before) {
                return before.timeNs == note.timeNs && before.ecu == note.ecu;
            });
            if (!isKnown) all.ecus.push_back(std::move(note));
        }
        for (EcuClock& clock : events.ecuClocks) {
            clock.timeNs += part.shiftNs;
            clock.offsetNs += part.shiftNs;
            replaceClock(all.ecuClocks, std::move(clock));
        }
        for (Marker& marker : events.markers) {
            marker.timeNs += part.shiftNs;
            all.markers.push_back(std::move(marker));
        }
        for (ParameterWrite& write : events.writes) {
            write.timeNs += part.shiftNs;
            all.writes.push_back(std::move(write));
        }
        all.end = events.end;
    }
    return all;
}

TimeSpan RecordingReader::timeSpan() const {
    TimeSpan whole;
    for (std::size_t i = 0; i < info_.groups.size(); ++i) {
        auto group = openGroup(i);
        auto span = group ? group.value().timeSpan() : Result<TimeSpan>(group.error());
        if (span) whole.add(span.value());
    }
    return whole;
}

}  // namespace lm::storage
