// Several recordings as one: the parts of a series, or whatever follows each other with the same signals.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "core/result.h"
#include "storage/read/recording_reader.h"

namespace lm::storage {

/// The recordings that these paths name, each a recording or a folder of recordings, in their order: by the
/// start of their series, then by number. Errors: those of RecordingReader::open(); notFound "no recording in
/// PATH".
Result<std::vector<RecordingReader>> findRecordings(const std::vector<std::filesystem::path>& paths);

/// The parts of an ECU in a folder, in their order; what cannot be read is passed over. Errors: that the
/// folder cannot.
Result<std::vector<RecordingReader>> findParts(const std::filesystem::path& folder, const std::string& ecu);

/// All of them as one. Errors: likewise, and those of RecordingReader::join().
Result<RecordingReader> openRecordings(const std::vector<std::filesystem::path>& paths);

/// Where one recording does not simply go on in the next.
struct PartBreak {
    std::string text;     ///< "between A and B: what is missing"
    bool isLoss = false;  ///< something that was recorded is not there
};
/// Of recordings in their order, as far as their events tell it.
std::vector<PartBreak> findBreaks(const RecordingReader& recording);

}  // namespace lm::storage
