#include "session/outage_notes.h"

#include <algorithm>
#include <utility>

#include "storage/format/recording_events.h"

namespace lm::session {
namespace {

void note(const storage::GroupRange* recording, const std::string& line) {
    if (recording != nullptr) recording->note(line);
}

}  // namespace

void OutageNotes::onState(SessionState state, const std::string& message, std::int64_t lastSampleNs,
                          std::int64_t nowNs, const storage::GroupRange* recording) {
    const bool isOut = state == SessionState::reconnecting || state == SessionState::failed;
    if (isOut && !isOpen_) {
        isOpen_ = true;
        outcome_.clear();
        reason_ = message;
        // A record may bear an earlier time than the end of an outage before, when none came since.
        note(recording, storage::outageBeginLine(std::max(lastSampleNs, endedNs_), message));
    } else if (isOut) {
        outcome_ = message;
    } else if (state == SessionState::measuring && isOpen_) {
        isOpen_ = false;
        endedNs_ = nowNs;
        note(recording, storage::outageEndLine(nowNs, true, message));
    }
}

void OutageNotes::beginRecording(std::int64_t nowNs, const storage::GroupRange& recording) const {
    if (isOpen_) recording.note(storage::outageBeginLine(nowNs, reason_));
}

void OutageNotes::endRecording(std::int64_t nowNs, const storage::GroupRange& recording) const {
    if (isOpen_) recording.note(storage::outageEndLine(nowNs, false, "the recording ended"));
}

void OutageNotes::endSilent(std::int64_t lastSampleNs, std::int64_t nowNs,
                            const storage::GroupRange* recording) {
    if (isOpen_) return;
    note(recording, storage::outageBeginLine(std::max(lastSampleNs, endedNs_), "no samples up to the end"));
    note(recording, storage::outageEndLine(nowNs, false, "the measurement ended"));
}

void OutageNotes::end(std::int64_t nowNs, const storage::GroupRange* recording) {
    if (!std::exchange(isOpen_, false)) return;
    note(recording,
         storage::outageEndLine(nowNs, false, outcome_.empty() ? "the measurement ended" : outcome_));
}

}  // namespace lm::session
