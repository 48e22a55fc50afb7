// What went wrong with a recording's files so far: each kind of trouble is logged once, however often it
// happens, and the recording goes on.
//
// Threads: the file thread; others only after it has ended. Lifetime: outlives the files that report to it.
#pragma once

#include <filesystem>

#include "core/result.h"

namespace lm::storage {

class RecordingFaults {
  public:
    explicit RecordingFaults(std::filesystem::path directory);

    /// A write, flush or close of some file failed.
    void reportWriteError();
    /// A level file could not be made; `error` carries the errno, if there is one.
    void reportMissingLevel(const std::filesystem::path& file, const Error& error);

    bool writeFailed() const { return writeFailed_; }
    const std::filesystem::path& directory() const { return directory_; }

  private:
    std::filesystem::path directory_;
    bool writeFailed_ = false;
    bool levelMissing_ = false;
};

}  // namespace lm::storage
