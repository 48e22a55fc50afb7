#include "storage/care/record_proof.h"

#include <algorithm>
#include <limits>

#include "core/bytes.h"
#include "storage/format/recording_format.h"
#include "storage/read/gap_finder.h"

namespace lm::storage {
namespace {

constexpr std::int64_t kProofSecondNs = 1'000'000'000;
/// What was on its way when the recording started is a little older than that.
constexpr std::int64_t kBeforeStartNs = kProofSecondNs;
/// Longer than any pause that is worth a guess.
constexpr std::int64_t kLongestPauseNs = std::int64_t{30} * 86400 * kProofSecondNs;
constexpr std::uint64_t kFewestCyclic = 2;
/// Without a cycle only order and range speak for them.
constexpr std::uint64_t kFewestNotCyclic = 8;

/// False too where the difference has no 64 bits.
bool follows(std::int64_t earlierNs, std::int64_t laterNs) {
    return laterNs >= earlierNs &&
           static_cast<std::uint64_t>(laterNs) - static_cast<std::uint64_t>(earlierNs) <=
               static_cast<std::uint64_t>(kLongestPauseNs);
}

}  // namespace

RecordProof::RecordProof(const RecordingInfo& recording, const GroupInfo& group)
    : startNs_(std::max(recording.startHostNs, std::numeric_limits<std::int64_t>::min() + kBeforeStartNs) -
               kBeforeStartNs),
      cycleNs_(group.cycleNs) {
    const std::size_t stride = std::size_t{group.recordSize} + kTimestampSize;
    constexpr std::size_t kMostPieces = 4096;
    for (std::size_t pieces = 2; pieces <= std::min(stride / kTimestampSize, kMostPieces); ++pieces) {
        if (stride % pieces == 0) smallerStrides_.push_back(stride / pieces);
    }
}

void RecordProof::look(const RecordBatch& batch) {
    for (std::size_t i = 0; i < batch.count && fits_; ++i) {
        lookAt(batch.timestampNs(i));
        if (!smallerStrides_.empty()) trySmallerRecords(batch, i);
    }
}

void RecordProof::lookAt(std::int64_t timeNs) {
    fits_ = follows(count_ == 0 ? startNs_ : lastNs_, timeNs);
    if (count_ == 0) firstNs_ = timeNs;
    if (count_ > 0 && !isGap(lastNs_, timeNs, cycleNs_)) ++steadySteps_;
    lastNs_ = timeNs;
    ++count_;
}

/// A file of records of half the size has a time wherever one is looked for, and more between them.
void RecordProof::trySmallerRecords(const RecordBatch& batch, std::size_t record) {
    const std::uint8_t* bytes = batch.bytes + record * batch.stride;
    const auto fails = [&](std::size_t stride) {
        std::int64_t before = lastNs_;
        for (std::size_t at = stride; at < batch.stride; at += stride) {
            const auto time = static_cast<std::int64_t>(readLittle<std::uint64_t>(bytes + at));
            if (!follows(before, time)) return true;
            before = time;
        }
        return record + 1 < batch.count && !follows(before, batch.timestampNs(record + 1));
    };
    smallerStrides_.erase(std::remove_if(smallerStrides_.begin(), smallerStrides_.end(), fails),
                          smallerStrides_.end());
}

bool RecordProof::holds() const {
    if (!fits_ || !smallerStrides_.empty() || lastNs_ == firstNs_) return false;
    if (cycleNs_ <= 0) return count_ >= kFewestNotCyclic;
    if (count_ < kFewestCyclic) return false;
    const std::uint64_t steps = count_ - 1;
    const double pace =
        (static_cast<double>(lastNs_) - static_cast<double>(firstNs_)) / static_cast<double>(steps);
    return 2 * steadySteps_ >= steps && 2 * pace >= static_cast<double>(cycleNs_);
}

}  // namespace lm::storage
