// Time index and levels of a group while it is recorded: the entries of a SummaryBuilder, each in its file.
//
// Threads: one at a time. Lifetime: borrows the group and the faults, which outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <vector>

#include "core/result.h"
#include "storage/format/recording_faults.h"
#include "storage/format/recording_info.h"
#include "storage/write/derived_file.h"
#include "storage/write/summary_builder.h"

namespace lm::storage {

class SummaryWriter {
  public:
    /// Makes the index; a level is made with its first entry. Errors: those of ClaimedFile::create().
    static Result<SummaryWriter> create(std::size_t groupIndex, const GroupInfo& group,
                                        RecordingFaults& faults);

    /// As SummaryBuilder::add().
    void add(const std::uint8_t* records, std::size_t count);
    void flush();
    void close();

    /// The files that this object made and did not find there.
    void appendNewFiles(std::vector<std::filesystem::path>& files) const;

  private:
    SummaryWriter(std::size_t groupIndex, const GroupInfo& group, RecordingFaults& faults);

    Result<DerivedFile> makeFile(std::size_t number) const;
    void append(std::size_t number, std::span<const std::uint8_t> entry);

    std::size_t groupIndex_;
    const GroupInfo* group_;
    RecordingFaults* faults_;
    SummaryBuilder builder_;
    std::vector<std::optional<DerivedFile>> files_;  ///< by number; none where it cannot be made
};

}  // namespace lm::storage
