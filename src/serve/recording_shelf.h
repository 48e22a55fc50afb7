// Where recordings are found by name. Names come from requests: they never become a path as they are.
//
// Threads: any. Lifetime: owns everything.
#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "core/result.h"

namespace lm::serve {

class IRecordingShelf {
  public:
    virtual ~IRecordingShelf() = default;
    /// Of a recording that is there. Errors: notFound, invalidArgument for what is no name, unsupported
    /// without a folder.
    virtual Result<std::filesystem::path> pathOf(const std::string& name) const = 0;
    /// The oldest first. Errors: "cannot read FOLDER: REASON".
    virtual Result<std::vector<std::string>> names() const = 0;
};

/// A directory of a recording, and not a link to one, which could lead anywhere.
bool isRecordingAt(const std::filesystem::path& path);

/// Directories that the user names: recordings, or folders below which there are some.
class FoundRecordings final : public IRecordingShelf {
  public:
    explicit FoundRecordings(std::vector<std::filesystem::path> directories)
        : directories_(std::move(directories)) {}

    Result<std::filesystem::path> pathOf(const std::string& name) const override;
    /// Looks for them again. One that was found before keeps its name.
    Result<std::vector<std::string>> names() const override;

  private:
    using Path = std::filesystem::path;

    std::vector<Path> search() const;
    std::string nameFor(const Path& path) const;

    const std::vector<Path> directories_;
    mutable std::mutex mutex_;
    mutable std::map<std::string, Path> paths_;
    mutable std::map<Path, std::string> names_;
};

}  // namespace lm::serve
