#include "serve/opened_recording.h"

#include <algorithm>
#include <sys/stat.h>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace lm::serve {
namespace {

/// As many as a page shows over each other. Each group has some ten files open.
constexpr std::size_t kMostOpen = 8;

}  // namespace

Result<std::unique_ptr<OpenedRecording>> OpenedRecording::open(const std::filesystem::path& directory) {
    auto reader = storage::RecordingReader::open(directory);
    if (!reader) return reader.error();
    return std::unique_ptr<OpenedRecording>(new OpenedRecording(std::move(reader).value()));
}

Result<OpenedGroup*> OpenedRecording::group(std::size_t number) {
    std::unique_ptr<OpenedGroup>& group = groups_[number];
    if (!group) {
        auto reader = recording_.openGroup(number);
        if (!reader) return reader.error();
        group = std::make_unique<OpenedGroup>(std::move(reader).value());
    }
    return group.get();
}

Result<const storage::Gaps*> OpenedRecording::gaps(std::size_t number) {
    Result<OpenedGroup*> opened = group(number);
    if (!opened) return opened.error();
    std::optional<storage::Gaps>& gaps = opened.value()->gaps;
    if (!gaps) {
        auto found = storage::findGaps(opened.value()->reader);
        if (!found) return found.error();
        gaps = std::move(found).value();
    }
    return &*gaps;
}

std::string stampOf(const std::filesystem::path& directory) {
    std::vector<std::string> files;
    std::error_code failure;
    for (std::filesystem::directory_iterator at(directory, failure), end; !failure && at != end;
         at.increment(failure)) {
        struct stat facts {};
        if (::lstat(at->path().c_str(), &facts) != 0) continue;
        files.push_back(fmt::format("{} {} {} {}.{}", at->path().filename().string(), facts.st_ino,
                                    facts.st_size, facts.st_mtim.tv_sec, facts.st_mtim.tv_nsec));
    }
    std::sort(files.begin(), files.end());
    return fmt::format("{}", fmt::join(files, "\n"));
}

std::shared_ptr<OpenRecordings::Kept> OpenRecordings::keptOf(const std::filesystem::path& directory) {
    const std::lock_guard lock(mutex_);
    auto found = std::find_if(kept_.begin(), kept_.end(),
                              [&](const auto& kept) { return kept->directory == directory; });
    std::shared_ptr<Kept> kept;
    if (found != kept_.end()) {
        kept = *found;
        kept_.erase(found);
    } else {
        kept = std::make_shared<Kept>();
        kept->directory = directory;
    }
    kept_.push_front(kept);
    if (kept_.size() > kMostOpen) kept_.pop_back();
    return kept;
}

Result<std::string> OpenRecordings::use(const std::filesystem::path& directory, const Use& use) {
    const std::shared_ptr<Kept> kept = keptOf(directory);
    const std::lock_guard lock(kept->mutex);
    std::string stamp = stampOf(directory);
    if (!kept->recording || kept->stamp != stamp) {
        kept->recording.reset();
        auto opened = OpenedRecording::open(directory);
        if (!opened) return opened.error();
        kept->recording = std::move(opened).value();
        kept->stamp = std::move(stamp);
    }
    return use(*kept->recording);
}

}  // namespace lm::serve
