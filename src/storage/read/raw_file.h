// What all files of a recording are made and written with: claimed under a lock, written at a place.
//
// Threads: pure functions. Lifetime: the descriptors are the caller's.
#pragma once

#include <cstdint>
#include <filesystem>

#include "core/result.h"

namespace lm::storage {

struct ClaimedFile {
    int descriptor = -1;
    bool isNew = false;  ///< decides later who may remove it
};

/// The file under its name, locked, empty. Nothing is written through a link, to where nobody asked for it,
/// nor into a pipe or a device, which wait for, or do, who knows what. Errors: recordedByAnother() while
/// another program writes it, "cannot create PATH: REASON".
Result<ClaimedFile> claimForWriting(const std::filesystem::path& path);

struct Written {
    std::uint64_t bytes = 0;
    int systemError = 0;  ///< why not all of them, 0 when all
};
Written writeAt(int descriptor, std::uint64_t offset, const std::uint8_t* data, std::uint64_t size);

}  // namespace lm::storage
