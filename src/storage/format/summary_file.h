// The files that summarise a group, by number: 0 is the time index, L is level L of the pyramid.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "storage/format/recording_format.h"
#include "storage/format/recording_info.h"

namespace lm::storage {

struct SummaryFile {
    static constexpr std::size_t kIndex = 0;
    /// 16^15 records are more than a file holds.
    static constexpr std::size_t kMaxLevel = 15;

    static std::filesystem::path path(const std::filesystem::path& directory, std::size_t group,
                                      std::size_t number);
    static FileHeader header(std::size_t number, const GroupInfo& group);
    static std::size_t entrySize(std::size_t number, const GroupInfo& group);
    /// Records that an entry covers.
    static std::uint64_t span(std::size_t number);
};

}  // namespace lm::storage
