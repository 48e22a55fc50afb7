// Times in CSV files.
//
// Threads: one at a time. Lifetime: borrows the description of the recording.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "storage/format/recording_info.h"

namespace lm::exporter {

class CsvTime {
  public:
    /// Seconds since the start of the recording; `absolute`: UTC.
    CsvTime(const storage::RecordingInfo& info, bool absolute) : info_(info), absolute_(absolute) {}

    std::string_view unit() const { return absolute_ ? "[UTC]" : "[s]"; }
    void append(std::string& line, std::int64_t timestampNs);

  private:
    void appendUtc(std::string& line, std::int64_t timestampNs);

    const storage::RecordingInfo& info_;
    bool absolute_;
    std::string second_;  ///< "2026-03-01T12:00:00." of the last time
    std::uint64_t secondNs_ = 0;
};

}  // namespace lm::exporter
