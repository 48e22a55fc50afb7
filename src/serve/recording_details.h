// What lists of recordings and their pictures tell of one, as JSON.
//
// Threads: any, as of the opened recording. Lifetime: a Catalogue owns what it keeps.
#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

#include "serve/opened_recording.h"

namespace lm::serve {

/// {"startUtcNs", "fromNs", "toNs", "signals", "groups", "events", "eventsLeftOut"}; times count from the
/// start of the recording. Errors: those of reading.
Result<std::string> pictureOf(OpenedRecording& recording);

/// One line of a list each, kept while the files do not change.
class Catalogue {
  public:
    /// {"name", "startUtcNs", "durationNs", "bytes", "ecus", "records", "outages", "complete"}, or "name" and
    /// "error".
    nlohmann::json detailsOf(const std::string& name, const std::filesystem::path& directory);

  private:
    struct Known {
        std::string stamp;
        nlohmann::json details;
    };
    std::mutex mutex_;
    std::map<std::filesystem::path, Known> known_;
};

}  // namespace lm::serve
