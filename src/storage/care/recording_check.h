// Compares the files of a recording with each other: headers, sizes, the order of the timestamps, and every
// entry of index and levels with what the records say.
//
// Threads: one thread; it only reads, so the recording may be in use and even still be written. Lifetime:
// results own everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"
#include "storage/format/recording_info.h"

namespace lm::storage {

struct Finding {
    std::string text;    ///< "FILE: what is wrong, and where"
    std::string repair;  ///< what repairRecording() does about it ("removes it"), empty: it cannot be mended

    bool mendable() const { return !repair.empty(); }
};

/// What is wrong with the files of one group.
struct GroupCheck {
    /// How the header of the record file is.
    enum class Header : std::uint8_t {
        sound,
        mendable,    ///< torn, or damaged in front of records that are certainly this group's
        unreadable,  ///< file missing, of another recording or version, or nothing behind it makes sense
    };

    Header header = Header::sound;
    std::uint64_t records = 0;
    std::uint64_t tornBytes = 0;
    bool beingWritten = false;
    std::vector<std::size_t> wrongFiles;    ///< summary files (SummaryFile) to be made again
    std::vector<std::size_t> surplusFiles;  ///< levels that the group is too short for
    std::vector<Finding> findings;
};

/// Group `number` of `recording`. One that is still being written may lack the newest entries; that is no
/// finding. Error: Error::stopped "stopped".
Result<GroupCheck> checkGroup(const std::filesystem::path& directory, std::size_t number,
                              const RecordingInfo& recording, const StopToken& stop);

struct RecordingCheck {
    std::uint64_t groups = 0;
    std::uint64_t records = 0;
    bool beingWritten = false;
    std::vector<Finding> findings;
};

/// Errors: those of RecordingReader::open(); Error::stopped "stopped".
Result<RecordingCheck> checkRecording(const std::filesystem::path& directory, const StopToken& stop);

}  // namespace lm::storage
