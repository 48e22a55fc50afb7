#include "serve/recordings.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "serve/layouts.h"
#include "storage/format/recording_meta.h"

namespace lm::serve {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostNameBytes = 100;

/// Letters, digits, '_', '-' and '.', which does not come first: no separator, no way upwards, nothing
/// hidden.
bool isName(const std::string& name) {
    constexpr std::string_view kOthers = "_-.";
    return !name.empty() && name.size() <= kMostNameBytes && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), [&](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      kOthers.find(c) != std::string_view::npos;
           });
}

std::int64_t nowNs() {
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

Result<fs::path> Recordings::freePath(const std::string& name) const {
    if (folder_.empty()) {
        return Error{ErrorCode::unsupported, "this server keeps no recordings (`serve --recordings DIR`)"};
    }
    if (!isName(name)) {
        return Error{ErrorCode::invalidArgument,
                     "the name of a recording has letters, digits, '_', '-' and '.', 100 at most, and does "
                     "not begin with '.'"};
    }
    return folder_ / name;
}

Result<fs::path> Recordings::pathOf(const std::string& name) const {
    Result<fs::path> path = freePath(name);
    if (path && !isRecordingAt(path.value()))
        return Error{ErrorCode::notFound, fmt::format("there is no recording '{}'", name)};
    return path;
}

Result<std::vector<std::string>> Recordings::names() const {
    if (folder_.empty()) return std::vector<std::string>();
    std::error_code failure;
    std::vector<std::pair<fs::file_time_type, std::string>> found;
    for (fs::directory_iterator at(folder_, failure), end; !failure && at != end; at.increment(failure)) {
        const std::string name = at->path().filename().string();
        std::error_code ignored;
        if (isName(name) && isRecordingAt(at->path())) {
            found.emplace_back(fs::last_write_time(at->path() / storage::kMetaFileName, ignored), name);
        }
    }
    if (failure) return Error::fromErrno(failure.value(), "cannot read " + folder_.string());
    std::sort(found.begin(), found.end());
    std::vector<std::string> names;
    names.reserve(found.size());
    for (auto& [time, name] : found)
        names.push_back(std::move(name));
    return names;
}

Result<void> Recordings::start(session::Session& session, const std::string& name) {
    const Result<fs::path> path = freePath(name);
    if (!path) return path.error();
    if (name == kLayoutsFolder)
        return Error{ErrorCode::invalidArgument, fmt::format("'{}' is the folder of the layouts", name)};
    std::error_code failure;
    if (fs::is_symlink(fs::symlink_status(path.value(), failure)))
        return Error{ErrorCode::invalidArgument, fmt::format("'{}' is a link to another place", name)};
    const std::lock_guard lock(mutex_);
    if (recorder_) return Error{ErrorCode::alreadyOpen, fmt::format("'{}' is being recorded", name_)};
    if (!hub_.measured()) return Error{ErrorCode::notOpen, "nothing is measured that could be recorded"};
    storage::RecordingInfo info = session.describeRecording(path.value());
    std::vector<storage::GroupInfo> groups = std::exchange(info.groups, {});
    auto recorder = std::make_shared<storage::Recorder>(std::move(info));
    const storage::GroupRange range = recorder->add(std::move(groups));
    storage::RecordingPlace place;
    place.directory = path.value();
    if (Result<void> begun = recorder->begin(place, storage::DiskForecast::Seconds(0)); !begun) return begun;
    recorder_ = std::move(recorder);
    name_ = name;
    outage_ = false;
    hub_.recordTo(recorder_, range);
    return {};
}

Result<void> Recordings::stop() {
    std::shared_ptr<storage::Recorder> recorder;
    {
        const std::lock_guard lock(mutex_);
        if (!recorder_) return Error{ErrorCode::notOpen, "nothing is being recorded"};
        hub_.recordTo(nullptr, std::nullopt);
        recorder = std::exchange(recorder_, nullptr);
    }
    // It waits for the disk, which whoever asks for the state does not.
    return recorder->close();
}

Result<void> Recordings::mark(const std::string& text) {
    const std::lock_guard lock(mutex_);
    if (!recorder_) return Error{ErrorCode::notOpen, "nothing is being recorded"};
    hub_.note(storage::markerLine({nowNs(), text}));
    return {};
}

void Recordings::noteWrite(storage::ParameterWrite write) {
    write.timeNs = nowNs();
    hub_.note(storage::parameterLine(write));
}

void Recordings::noteOutage(bool begins, const std::string& text) {
    const std::lock_guard lock(mutex_);
    if (!recorder_ || outage_ == begins) return;
    outage_ = begins;
    hub_.note(begins ? storage::outageBeginLine(hub_.lastRecordNs(), text)
                     : storage::outageEndLine(nowNs(), true, text));
}

nlohmann::json Recordings::state() const {
    const std::lock_guard lock(mutex_);
    if (!recorder_) return nullptr;
    return {
        {"name", name_}, {"recorded", recorder_->recordsWritten()}, {"dropped", recorder_->recordsDropped()}};
}

}  // namespace lm::serve
