// Whether a file may be run or believed: no one but root and the user can have changed it, or its SHA-256 is
// one that the user named.
//
// Threads: pure functions. Lifetime: a VouchedFile owns its descriptor, if it has one.
#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include "core/result.h"
#include "core/unique_fd.h"

namespace lm {

/// Why others can have changed an open file, in words; nothing when they cannot: it, and each directory above
/// it, belongs to root or the user, and only its owner may write there. A sticky directory is as good.
std::optional<std::string> whyOthersMayWrite(int descriptor);

/// A file that was looked at.
struct VouchedFile {
    std::filesystem::path path;  ///< absolute, without links
    /// With a digest: a copy in memory that no one can change any more, of the very bytes that were hashed.
    UniqueFd copy = UniqueFd();
};

/// `digests` are lower-case hexadecimal. Without one, each directory and link that `path` goes through is
/// looked at as well, so `path` itself leads to the same file later. Errors: by errno "cannot open PATH:
/// REASON" and "cannot copy PATH: REASON", invalidArgument "PATH is not a regular file", permissionDenied
/// "PATH is refused: REASON".
Result<VouchedFile> vouchFor(const std::filesystem::path& path, std::span<const std::string> digests);

}  // namespace lm
