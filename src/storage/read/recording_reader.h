// Opens a recording directory again: what "meta.json" says about it, and its groups.
//
//     auto recording = RecordingReader::open(directory);
//     auto group = recording.value().openGroup(0);
//     auto range = group.value().find({fromNs, endNs});
//     auto records = group.value().read(range.value());
//     for (auto batch = records.next(); batch && batch.value().count > 0; batch = records.next()) ...
//
// Threads: immutable once opened. Lifetime: owns the descriptions that its group readers borrow; no file
// stays open.
#pragma once

#include <cstddef>
#include <filesystem>
#include <utility>

#include "core/result.h"
#include "storage/format/recording_info.h"
#include "storage/read/group_reader.h"

namespace lm::storage {

class RecordingReader {
  public:
    /// Errors: notFound "no recording in DIRECTORY"; unsupported "unsupported recording format version N"
    /// (below 2 with " (recorded by an older XCP-Lumo)"); "cannot open FILE"; invalidArgument "meta.json: "
    /// and what is wrong with it.
    static Result<RecordingReader> open(const std::filesystem::path& directory);

    const std::filesystem::path& directory() const { return directory_; }
    const RecordingInfo& info() const { return info_; }

    /// `number` is below info().groups.size(). The group reader borrows from this object, which may be moved
    /// meanwhile. Errors: those of GroupReader::open().
    Result<GroupReader> openGroup(std::size_t number) const {
        return GroupReader::open(directory_, number, info_.groups[number]);
    }

    /// Of all groups that can be read.
    TimeSpan timeSpan() const;

  private:
    RecordingReader(std::filesystem::path directory, RecordingInfo info)
        : directory_(std::move(directory)), info_(std::move(info)) {}

    std::filesystem::path directory_;
    RecordingInfo info_;
};

}  // namespace lm::storage
