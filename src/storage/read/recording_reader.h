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
#include <string>
#include <utility>
#include <vector>

#include "core/result.h"
#include "storage/format/recording_events.h"
#include "storage/format/recording_info.h"
#include "storage/read/group_reader.h"

namespace lm::storage {

/// One of several recordings that are read as one.
struct RecordingPart {
    std::filesystem::path directory;
    RecordingInfo info;
    /// From its timestamps to those of the first one: parts of a series share a clock, others are placed by
    /// UTC.
    std::int64_t shiftNs = 0;
};

class RecordingReader {
  public:
    /// Errors: notFound "no recording in DIRECTORY"; unsupported "unsupported recording format version N"
    /// (below 2 with " (recorded by an older XCP-Lumo)"); "cannot open FILE"; invalidArgument "meta.json: "
    /// and what is wrong with it.
    static Result<RecordingReader> open(const std::filesystem::path& directory);

    /// Recordings that follow each other, in their order, as one. Errors: invalidArgument "DIRECTORY: records
    /// other signals than DIRECTORY".
    static Result<RecordingReader> join(std::vector<RecordingReader> recordings, const std::string& name);

    /// Those that follow the first one, which is what the functions below tell of.
    const std::vector<RecordingPart>& more() const { return more_; }

    const std::filesystem::path& directory() const { return directory_; }
    const RecordingInfo& info() const { return info_; }

    /// `number` is below info().groups.size(). The group reader borrows from this object, which may be moved
    /// meanwhile. Errors: those of GroupReader::open() and append().
    Result<GroupReader> openGroup(std::size_t number) const;

    /// Of all parts. An outage that a split cut in two is one.
    RecordingEvents events() const;

    /// Of all groups that can be read.
    TimeSpan timeSpan() const;

  private:
    RecordingReader(std::filesystem::path directory, RecordingInfo info)
        : directory_(std::move(directory)), info_(std::move(info)) {}

    std::filesystem::path directory_;
    RecordingInfo info_;
    std::vector<RecordingPart> more_;
};

}  // namespace lm::storage
