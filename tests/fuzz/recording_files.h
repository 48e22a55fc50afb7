// The files of a recording, made and damaged as an input says.
//
// Threads: one. Lifetime: nothing is kept.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_input.h"
#include "storage/recording_info.h"

namespace lm::fuzz {

using Bytes = std::vector<std::uint8_t>;

/// Empty when there is no such file.
Bytes readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, std::span<const std::uint8_t> bytes);

/// Groups that get files.
inline constexpr std::size_t kMostGroups = 4;

/// Records in order, with gaps as the input has them; no index and no levels.
void makeRecordFile(const std::filesystem::path& path, const storage::RecordingInfo& info,
                    const storage::GroupInfo& group, Input& input);

/// Takes a file of a group and changes, cuts, lengthens, replaces or removes it.
void damageFile(const std::filesystem::path& directory, Input& input);

/// The whole records of a group, read plainly.
struct PlainRecords {
    PlainRecords(const std::filesystem::path& path, const storage::GroupInfo& group);

    bool inOrder() const { return std::is_sorted(times.begin(), times.end()); }

    std::size_t stride;
    Bytes bytes;
    std::vector<std::int64_t> times;
};

}  // namespace lm::fuzz
