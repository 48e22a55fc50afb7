// The checksums that one `check` saved and a later one compares with.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/result.h"
#include "session/page_control.h"

namespace lm::session {

struct SavedSums {
    std::uint8_t segment = 0;
    std::optional<std::uint8_t> page = {};  ///< that XCP was on
    std::uint32_t address = 0;
    std::uint8_t addressExtension = 0;
    std::uint32_t size = 0;
    SegmentSums sums = {};
};

struct ChecksumFile {
    std::string ecuEpk = {};
    std::vector<SavedSums> segments = {};

    const SavedSums* find(std::uint8_t segment) const;
};

std::string checksumFileText(const ChecksumFile& file);
/// Errors (invalidArgument): "NAME: ..." with what is wrong.
Result<ChecksumFile> checksumFileFrom(std::string_view text, const std::string& name);

/// Errors: "cannot open PATH", "cannot read PATH", checksumFileFrom()'s.
Result<ChecksumFile> loadChecksums(const std::filesystem::path& path);
/// Error: "cannot write PATH"; a file is the whole old or the whole new one.
Result<void> saveChecksums(const std::filesystem::path& path, const ChecksumFile& file);

}  // namespace lm::session
