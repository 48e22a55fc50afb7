// Names of recordings below a folder: what a pattern makes of the time, the ECU and a number.
//
// Threads: immutable once created; claim() from one at a time. Lifetime: owns everything.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/result.h"

namespace lm::storage {

class PartNames {
  public:
    /// "{time}" becomes the local time of the start, "{ecu}" the ECU's name and "{n}" a number of four
    /// digits. Errors (invalidArgument): what a pattern may not hold.
    static Result<void> check(std::string_view pattern);
    /// `pattern` is good; one for parts that has no "{n}" gets it at its end.
    static PartNames forParts(std::filesystem::path folder, std::string pattern, std::string ecu);
    static PartNames forRecordings(std::filesystem::path folder, std::string pattern, std::string ecu);

    struct Claimed {
        std::filesystem::path path;
        std::vector<std::filesystem::path>
            made;  ///< directories, the outermost first; `path` is the last one
    };
    /// Makes the directory of recording `number`. A name that is taken is left alone: a part gets "-2" and so
    /// on behind it, a recording the next number, when the pattern has one. Errors: "cannot create PATH:
    /// REASON".
    Result<Claimed> claim(std::uint64_t number, std::int64_t utcNs) const;

    const std::filesystem::path& folder() const { return folder_; }

  private:
    PartNames(std::filesystem::path folder, std::string pattern, std::string ecu, bool countsOn)
        : folder_(std::move(folder)),
          pattern_(std::move(pattern)),
          ecu_(std::move(ecu)),
          countsOn_(countsOn) {}

    std::string nameOf(std::uint64_t number, std::int64_t utcNs) const;

    std::filesystem::path folder_;
    std::string pattern_;
    std::string ecu_;
    bool countsOn_;  ///< to the first number that is free
};

}  // namespace lm::storage
