#include "storage/read/recording_parts.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>
#include <system_error>
#include <tuple>
#include <utility>

#include <spdlog/fmt/fmt.h>

namespace lm::storage {
namespace {

namespace fs = std::filesystem;

std::vector<fs::path> directoriesIn(const fs::path& folder, std::error_code& failure) {
    std::vector<fs::path> directories;
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end;
         entry.increment(failure)) {
        std::error_code unknown;
        if (entry->is_directory(unknown)) directories.push_back(entry->path());
    }
    std::sort(directories.begin(), directories.end());
    return directories;
}

/// The recordings in a folder; what is none is passed over.
Result<std::vector<RecordingReader>> recordingsBelow(const fs::path& folder) {
    std::vector<RecordingReader> found;
    std::error_code isNoFolder;
    for (const fs::path& directory : directoriesIn(folder, isNoFolder)) {
        auto opened = RecordingReader::open(directory);
        // A part that was just being removed or made is none.
        if (!opened && opened.error().code == ErrorCode::notFound) continue;
        if (!opened) return Error{opened.error().code, directory.string() + ": " + opened.error().text()};
        found.push_back(std::move(opened).value());
    }
    return found;
}

void sortParts(std::vector<RecordingReader>& recordings) {
    // The clock may have been set back within a series: there, the numbers count.
    std::map<std::string, std::int64_t> begins;
    for (const RecordingReader& recording : recordings) {
        const RecordingInfo& info = recording.info();
        if (!info.part) continue;
        const auto [at, isNew] = begins.emplace(info.part->series, info.startUtcNs);
        if (!isNew) at->second = std::min(at->second, info.startUtcNs);
    }
    const auto key = [&begins](const RecordingReader& recording) {
        const RecordingInfo& info = recording.info();
        const bool isPart = info.part.has_value();
        return std::tuple(isPart ? begins.at(info.part->series) : info.startUtcNs,
                          isPart ? info.part->series : std::string(), isPart ? info.part->number : 0);
    };
    std::stable_sort(recordings.begin(), recordings.end(),
                     [&key](const RecordingReader& a, const RecordingReader& b) { return key(a) < key(b); });
}

std::string nameOf(const fs::path& directory) {
    return directory.filename().empty() ? directory.string() : directory.filename().string();
}

/// A recording beside what is needed to see whether the next one continues it.
struct Neighbour {
    fs::path directory;
    const RecordingInfo* info = nullptr;
    std::optional<PartBorder> begin;
};

std::uint64_t recordsOf(const Neighbour& part, std::size_t group) {
    const auto reader = GroupReader::open(part.directory, group, part.info->groups[group]);
    return reader ? reader.value().recordCount() : 0;
}

/// Records that the numbers of the next part say there were, and that are not in this one.
std::uint64_t missingBetween(const Neighbour& before, const Neighbour& after) {
    if (!after.begin) return 0;
    const bool knowsFirst = before.begin || before.info->part->number == 1;
    std::uint64_t missing = 0;
    for (std::size_t group = 0; knowsFirst && group < before.info->groups.size(); ++group) {
        const std::uint64_t first = before.begin ? before.begin->records[group] : 0;
        const std::uint64_t end = first + recordsOf(before, group);
        missing += std::max(end, after.begin->records[group]) - end;
    }
    return missing;
}

std::optional<PartBreak> breakBetween(const Neighbour& before, const Neighbour& after) {
    const auto& a = before.info->part;
    const auto& b = after.info->part;
    const std::string place =
        fmt::format("between {} and {}: ", nameOf(before.directory), nameOf(after.directory));
    if (!a || !b || a->series != b->series) return PartBreak{place + "nothing was recorded", false};
    if (b->number <= a->number) return PartBreak{place + "both have the same number", true};
    if (b->number > a->number + 1)
        return PartBreak{place + fmt::format("{} part(s) are missing", b->number - a->number - 1), true};
    const std::uint64_t missing = missingBetween(before, after);
    if (missing == 0) return std::nullopt;
    return PartBreak{place + fmt::format("{} record(s) are missing", missing), true};
}

}  // namespace

Result<std::vector<RecordingReader>> findRecordings(const std::vector<fs::path>& paths) {
    std::vector<RecordingReader> all;
    for (const fs::path& path : paths) {
        auto opened = RecordingReader::open(path);
        if (opened) {
            all.push_back(std::move(opened).value());
            continue;
        }
        if (opened.error().code != ErrorCode::notFound) return opened.error();
        auto below = recordingsBelow(path);
        if (!below) return below.error();
        if (below.value().empty()) return opened.error();
        std::move(below.value().begin(), below.value().end(), std::back_inserter(all));
    }
    sortParts(all);
    return all;
}

Result<std::vector<RecordingReader>> findParts(const fs::path& folder, const std::string& ecu) {
    std::vector<RecordingReader> parts;
    std::error_code failure;
    for (const fs::path& directory : directoriesIn(folder, failure)) {
        auto opened = RecordingReader::open(directory);
        const bool isPart = opened && opened.value().info().part && opened.value().info().ecu == ecu;
        if (isPart) parts.push_back(std::move(opened).value());
    }
    if (failure) return Error::fromErrno(failure.value(), "cannot read " + folder.string());
    sortParts(parts);
    return parts;
}

Result<RecordingReader> openRecordings(const std::vector<fs::path>& paths) {
    auto found = findRecordings(paths);
    if (!found) return found.error();
    std::vector<RecordingReader>& all = found.value();
    if (all.size() == 1) return std::move(all.front());
    std::error_code unknown;
    const fs::path whole = paths.size() == 1 ? fs::weakly_canonical(paths.front(), unknown) : fs::path();
    return RecordingReader::join(std::move(all), nameOf(whole));
}

std::vector<PartBreak> findBreaks(const RecordingReader& recording) {
    std::vector<PartBreak> breaks;
    Neighbour before{recording.directory(), &recording.info(),
                     readEvents(recording.directory(), recording.info()).begin};
    for (const RecordingPart& part : recording.more()) {
        Neighbour after{part.directory, &part.info, readEvents(part.directory, part.info).begin};
        if (auto found = breakBetween(before, after)) breaks.push_back(std::move(*found));
        before = std::move(after);
    }
    return breaks;
}

}  // namespace lm::storage
