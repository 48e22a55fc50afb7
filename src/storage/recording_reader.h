// Opens a recording directory again: what "meta.json" says about it.
//
// Threads: immutable once opened. Lifetime: owns everything; no file stays open.
#pragma once

#include <filesystem>
#include <utility>

#include "core/result.h"
#include "storage/recording_info.h"

namespace lm::storage {

class RecordingReader {
  public:
    /// Errors: notFound "no recording in DIRECTORY"; unsupported "unsupported recording format version N"
    /// (below 2 with " (recorded by an older XCP-Lumo)"); "cannot open FILE"; invalidArgument "meta.json: "
    /// and what is wrong with it.
    static Result<RecordingReader> open(const std::filesystem::path& directory);

    const std::filesystem::path& directory() const { return directory_; }
    const RecordingInfo& info() const { return info_; }

  private:
    RecordingReader(std::filesystem::path directory, RecordingInfo info)
        : directory_(std::move(directory)), info_(std::move(info)) {}

    std::filesystem::path directory_;
    RecordingInfo info_;
};

}  // namespace lm::storage
