// Whether the records behind a damaged header are those of their group: a header is written in front of them
// only when their times are the times of this recording, which those of another file, or data taken for
// times, are not.
//
// Threads: one at a time. Lifetime: keeps no reference; batches are borrowed during the call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "storage/format/recording_info.h"
#include "storage/read/group_reader.h"

namespace lm::storage {

class RecordProof {
  public:
    RecordProof(const RecordingInfo& recording, const GroupInfo& group);

    /// All records of the group, batch by batch.
    void look(const RecordBatch& batch);

    /// True when there are records enough, each from the start of the recording on, in order and within a
    /// month of the one before; they keep the pace of a cyclic group; and no smaller record would read as
    /// well.
    bool holds() const;

  private:
    void lookAt(std::int64_t timeNs);
    void trySmallerRecords(const RecordBatch& batch, std::size_t record);

    const std::int64_t startNs_;
    const std::int64_t cycleNs_;
    std::vector<std::size_t> smallerStrides_;  ///< that still give times in order
    std::uint64_t count_ = 0;
    std::uint64_t steadySteps_ = 0;  ///< of 1.5 cycles at most
    std::int64_t firstNs_ = 0;
    std::int64_t lastNs_ = 0;
    bool fits_ = true;
};

}  // namespace lm::storage
