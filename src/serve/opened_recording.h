// Recordings that were asked for lately stay open, so that the next look at one costs no opening.
//
// Threads: any; one recording serves one at a time. Lifetime: owns everything; what use() is given is
// borrowed during the call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/result.h"
#include "storage/read/gap_finder.h"
#include "storage/read/pyramid_reader.h"
#include "storage/read/recording_reader.h"

namespace lm::serve {

/// A group with what is read of it, in place.
struct OpenedGroup {
    explicit OpenedGroup(storage::GroupReader group) : reader(std::move(group)), pyramid(reader) {}
    OpenedGroup(const OpenedGroup&) = delete;
    OpenedGroup& operator=(const OpenedGroup&) = delete;

    storage::GroupReader reader;
    storage::PyramidReader pyramid;
    std::optional<storage::Gaps> gaps;
};

class OpenedRecording {
  public:
    /// Errors: those of RecordingReader::open().
    static Result<std::unique_ptr<OpenedRecording>> open(const std::filesystem::path& directory);

    const storage::RecordingInfo& info() const { return recording_.info(); }
    const storage::RecordingReader& reader() const { return recording_; }
    const storage::RecordingEvents& events() const { return events_; }
    /// Opened when it is asked for first. Errors: those of GroupReader::open().
    Result<OpenedGroup*> group(std::size_t number);
    /// Errors: those of findGaps().
    Result<const storage::Gaps*> gaps(std::size_t number);

  private:
    explicit OpenedRecording(storage::RecordingReader recording)
        : recording_(std::move(recording)),
          events_(recording_.events()),
          groups_(recording_.info().groups.size()) {}

    storage::RecordingReader recording_;
    storage::RecordingEvents events_;
    std::vector<std::unique_ptr<OpenedGroup>> groups_;
};

/// Tells whether the files of a recording are those that they were: sizes, times and numbers of the files.
std::string stampOf(const std::filesystem::path& directory);

class OpenRecordings {
  public:
    using Use = std::function<Result<std::string>(OpenedRecording&)>;

    /// Opens the recording, or finds it open; one whose files changed since is opened anew.
    Result<std::string> use(const std::filesystem::path& directory, const Use& use);

  private:
    struct Kept {
        std::filesystem::path directory;
        std::mutex mutex;
        std::string stamp;
        std::unique_ptr<OpenedRecording> recording;
    };
    std::shared_ptr<Kept> keptOf(const std::filesystem::path& directory);

    std::mutex mutex_;
    std::list<std::shared_ptr<Kept>> kept_;  ///< the one that was used last first
};

}  // namespace lm::serve
