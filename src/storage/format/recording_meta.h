// "meta.json": what a recording says about itself, as text and as a file (docs/recording-format.md).
//
// Threads: pure functions; a MetaFile belongs to the recording's owner. Lifetime: results own everything.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include "core/durable_file.h"
#include "core/result.h"
#include "storage/format/recording_info.h"

namespace lm::storage {

inline constexpr std::string_view kMetaFileName = "meta.json";

/// Bytes of a text that are not UTF-8 become U+FFFD.
std::string metaToJson(const RecordingInfo& info);

/// Errors: unsupported for another format version, else invalidArgument "meta.json: " and the reason; a
/// missing key or a wrong type bears the text of the JSON library.
Result<RecordingInfo> metaFromJson(std::string_view text);

/// Errors when a signal does not lie inside its group's record: "SIGNAL: outside the group record".
Result<void> checkSignalPlaces(const GroupInfo& group);

/// wouldBlock "DIRECTORY is being recorded to by another program".
Error recordedByAnother(const std::filesystem::path& directory);
/// wouldBlock "DIRECTORY is still being recorded: stop the measurement first".
Error stillRecorded(const std::filesystem::path& directory);
/// alreadyOpen "DIRECTORY already contains a recording".
Error alreadyRecorded(const std::filesystem::path& directory);

/// "meta.json" on its way: whole and on the disk under another name after stage(), and under its own after
/// commit(). Without commit() nothing of it is left. From stage() to commit() no other program can be there.
class MetaFile {
  public:
    explicit MetaFile(std::filesystem::path directory) : directory_(std::move(directory)) {}

    /// Errors: recordedByAnother(), alreadyRecorded(), "cannot write PATH.tmp" when it cannot be made,
    /// "cannot write meta.json: REASON".
    Result<void> stage(const RecordingInfo& info);
    /// Errors: alreadyRecorded(), "cannot write PATH"; the latter also when isInPlace().
    Result<void> commit();
    bool isInPlace() const { return inPlace_; }

  private:
    std::filesystem::path directory_;
    StagedFile file_;
    bool inPlace_ = false;
};

}  // namespace lm::storage
