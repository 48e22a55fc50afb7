// "meta.json": what a recording says about itself, as text and as a file (docs/recording-format.md).
//
// Threads: pure functions; a MetaFile belongs to the recording's owner. Lifetime: results own everything.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "core/durable_file.h"
#include "core/result.h"
#include "storage/recording_info.h"

namespace lm::storage {

inline constexpr std::string_view kMetaFileName = "meta.json";

/// Bytes of a text that are not UTF-8 become U+FFFD.
std::string metaToJson(const RecordingInfo& info);

/// Errors: unsupported for another format version, else invalidArgument "meta.json: " and the reason; a
/// missing key or a wrong type bears the text of the JSON library.
Result<RecordingInfo> metaFromJson(std::string_view text);

/// Errors when a signal does not lie inside its group's record: "SIGNAL: outside the group record".
Result<void> checkSignalPlaces(const GroupInfo& group);

/// "meta.json" on its way: whole and on the disk under another name after stage(), and under its own after
/// commit(). Without commit() nothing of it is left.
class MetaFile {
  public:
    explicit MetaFile(const std::filesystem::path& directory);

    /// Errors: "cannot write PATH.tmp" when it cannot be made, "cannot write meta.json: REASON".
    Result<void> stage(const RecordingInfo& info);
    /// Error: "cannot write PATH"; the file may be there all the same.
    Result<void> commit();

  private:
    std::filesystem::path path_;
    std::filesystem::path temporary_;
    StagedFile file_;
};

}  // namespace lm::storage
