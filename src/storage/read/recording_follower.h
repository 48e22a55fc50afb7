// Follows a recording while another thread or program writes it: each look takes up what the files hold by
// then, and every record and every entry of index and levels is given once, whole and in order, in constant
// memory. A recording that has ended is given as a whole.
//
//     auto follower = RecordingFollower::open(directory);
//     for (bool more = true; more;) {
//         more = follower.value().look().value();
//         GroupFollower& group = follower.value().group(0);
//         for (;;) {
//             auto batch = group.nextRecords();
//             if (!batch || batch.value().count == 0) break;
//             ...
//         }
//     }
//
// Threads: one at a time. Lifetime: owns its files; a GroupFollower lives in its RecordingFollower.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "core/result.h"
#include "storage/read/entry_reader.h"
#include "storage/read/group_reader.h"
#include "storage/read/input_file.h"
#include "storage/read/recording_reader.h"

namespace lm::storage {

class GroupFollower {
  public:
    /// Records of the latest look that were not given yet; none when all were. Valid until the next call.
    /// Errors: those of InputFile::readAt().
    Result<RecordBatch> nextRecords();

    /// Entries back to back; the first is number `first` of its file.
    struct Entries {
        std::uint64_t first = 0;
        std::span<const std::uint8_t> bytes;
    };
    /// The same of summary file `number` (SummaryFile); they cover records of this look or an earlier one.
    Result<Entries> nextEntries(std::size_t number);

  private:
    friend class RecordingFollower;
    GroupFollower(std::filesystem::path directory, GroupReader reader);

    struct FollowedFile {
        std::optional<EntryReader> reader;
        std::uint64_t given = 0;
    };

    Result<void> look(bool live);
    Result<void> lookAt(std::size_t number, bool live);

    std::filesystem::path directory_;
    GroupReader reader_;
    std::optional<RecordStream> stream_;  ///< holds the batch that was given last
    std::uint64_t given_ = 0;             ///< records
    std::vector<FollowedFile> files_;     ///< by number
};

class RecordingFollower {
  public:
    /// Errors: those of RecordingReader::open() (notFound before there is a recording) and
    /// GroupReader::open().
    static Result<RecordingFollower> open(const std::filesystem::path& directory);

    const RecordingInfo& info() const { return recording_.info(); }
    GroupFollower& group(std::size_t number) { return groups_[number]; }

    /// Takes up what came since the last look. False: no one writes any more, and this look has found all
    /// there is; on a file system without locks, where that cannot be known, always. Errors: those of
    /// InputFile::refresh(), ioError "FILE: shorter than before".
    Result<bool> look();

  private:
    RecordingFollower(RecordingReader recording, std::optional<InputFile> events)
        : recording_(std::move(recording)), events_(std::move(events)) {}

    RecordingReader recording_;
    /// The writer closes this file last; programs that made none have ended long ago.
    std::optional<InputFile> events_;
    std::vector<GroupFollower> groups_;
};

}  // namespace lm::storage
