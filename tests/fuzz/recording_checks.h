// What reads a recording, compared with a plain look at its records.
//
// Threads: one. Lifetime: nothing is kept.
#pragma once

#include <filesystem>

#include "exporter/export_recording.h"
#include "fuzz_input.h"
#include "storage/group_reader.h"

namespace lm::fuzz {

/// Search, gaps, extremes and records of a group. While its files are damaged (`sound` is false) each ends
/// with a value or an error; else with what the records give.
void checkReading(const std::filesystem::path& directory, const storage::GroupReader& reader, Input input,
                  bool sound);

/// Exports into the empty directory `to`, as the input says: the files are there, whole, or none is.
void checkExport(const storage::RecordingReader& recording, const std::filesystem::path& to, Input& input);

}  // namespace lm::fuzz
