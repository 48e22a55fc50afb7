// What `measure` does with each recording that is closed: it is checked, and exported when that is asked for.
//
// Threads: careFor() and filesOf() on the thread of storage::PartKeeper, the counters from any. Lifetime:
// outlives the recording.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "exporter/export_plan.h"
#include "storage/write/part_keeper.h"

namespace lm::cli {

class RecordingCare final : public storage::ICareForParts {
  public:
    /// `exportAs`: "mf4", "csv" or empty.
    explicit RecordingCare(std::string exportAs) : exportAs_(std::move(exportAs)) {}

    /// Returns the files that it made. What is wrong has been logged.
    std::vector<std::filesystem::path> careFor(const std::filesystem::path& recording) override;
    std::vector<std::filesystem::path> filesOf(const storage::RecordingReader& recording) const override;

    /// Recordings that are not sound, or could not be checked or exported.
    std::uint64_t failures() const { return failures_.load(); }

  private:
    exporter::ExportOptions optionsFor(const std::filesystem::path& recording) const;
    bool isSound(const std::filesystem::path& recording) const;

    const std::string exportAs_;
    std::atomic<std::uint64_t> failures_{0};
};

}  // namespace lm::cli
