// How `recording info` shows an overview, as text and as JSON.
//
// Threads: one thread. Lifetime: borrows the overview.
#pragma once

#include <cstdint>
#include <string>

#include "cli/recording_overview.h"
#include "cli/results.h"

namespace lm::cli {

/// "92.6 kB".
std::string sizeText(std::uint64_t bytes);

class RecordingReport final : public IReport {
  public:
    explicit RecordingReport(const RecordingOverview& overview) : overview_(overview) {}

    void print(Output& output) const override;
    void write(JsonWriter& json) const override;

  private:
    const RecordingOverview& overview_;
};

}  // namespace lm::cli
