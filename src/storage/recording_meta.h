// "meta.json": what a recording says about itself, as text and as a file (docs/recording-format.md).
//
// Threads: pure functions but for writeMeta(), which belongs to the recording's owner. Lifetime: results own
// everything.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

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

/// Writes the file under another name, flushes it to the disk and renames it: it is whole or not there.
/// Errors: "cannot write meta.json: REASON", "cannot write PATH" when opening or renaming fails; a failure
/// leaves no file behind.
Result<void> writeMeta(const std::filesystem::path& directory, const RecordingInfo& info);

}  // namespace lm::storage
