#include "serve/recording_shelf.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "core/text.h"
#include "storage/format/recording_meta.h"

namespace lm::serve {
namespace {

namespace fs = std::filesystem;

constexpr int kMostDepth = 6;
constexpr std::size_t kMostRecordings = 100000;

void searchBelow(const fs::path& folder, int depth, std::vector<fs::path>& found) {
    std::error_code failure;
    for (fs::directory_iterator at(folder, failure), end; !failure && at != end; at.increment(failure)) {
        if (found.size() == kMostRecordings) return;
        std::error_code ignored;
        if (at->symlink_status(ignored).type() != fs::file_type::directory) continue;
        if (isRecordingAt(at->path())) {
            found.push_back(at->path());
        } else if (depth < kMostDepth) {
            searchBelow(at->path(), depth + 1, found);
        }
    }
}

}  // namespace

bool isRecordingAt(const fs::path& path) {
    std::error_code ignored;
    return fs::symlink_status(path, ignored).type() == fs::file_type::directory &&
           fs::symlink_status(path / storage::kMetaFileName, ignored).type() == fs::file_type::regular;
}

Result<fs::path> FoundRecordings::pathOf(const std::string& name) const {
    const std::lock_guard lock(mutex_);
    const auto found = paths_.find(name);
    if (found != paths_.end() && isRecordingAt(found->second)) return found->second;
    return Error{ErrorCode::notFound, fmt::format("there is no recording '{}'", name)};
}

std::vector<fs::path> FoundRecordings::search() const {
    std::vector<fs::path> found;
    for (const fs::path& given : directories_) {
        // The user may name a link; what lies behind it is meant.
        std::error_code failure;
        const fs::path real = fs::canonical(given, failure);
        if (failure) continue;
        if (isRecordingAt(real)) {
            found.push_back(real);
        } else {
            searchBelow(real, 0, found);
        }
    }
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

/// Its folder's name, with a number when another has it.
std::string FoundRecordings::nameFor(const fs::path& path) const {
    std::string text = path.filename().string();
    if (!isValidUtf8(text)) text = "recording";
    std::string name = text;
    for (int i = 2; paths_.contains(name); ++i)
        name = fmt::format("{}-{}", text, i);
    return name;
}

Result<std::vector<std::string>> FoundRecordings::names() const {
    const std::vector<fs::path> found = search();
    std::vector<std::pair<fs::file_time_type, std::string>> byTime;
    const std::lock_guard lock(mutex_);
    for (const fs::path& path : found) {
        std::string& name = names_[path];
        if (name.empty()) {
            name = nameFor(path);
            paths_.emplace(name, path);
        }
        std::error_code ignored;
        byTime.emplace_back(fs::last_write_time(path / storage::kMetaFileName, ignored), name);
    }
    std::sort(byTime.begin(), byTime.end());
    std::vector<std::string> names;
    names.reserve(byTime.size());
    for (auto& [time, name] : byTime)
        names.push_back(std::move(name));
    return names;
}

}  // namespace lm::serve
