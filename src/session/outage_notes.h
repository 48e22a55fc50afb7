// Notes the outages of a measurement in its recording: the changes of the session's state tell when one
// begins and ends.
//
// Threads: onState() on the supervisor's thread, end() on the owner's when that one has ended. Lifetime: the
// groups of the recording are borrowed during each call.
#pragma once

#include <cstdint>
#include <string>

#include "session/session_state.h"
#include "storage/write/recorder.h"

namespace lm::session {

class OutageNotes {
  public:
    /// `lastSampleNs`: when the last record came, or DAQ was started without one. All times are on the clock
    /// of the recording.
    void onState(SessionState state, const std::string& message, std::int64_t lastSampleNs,
                 std::int64_t nowNs, const storage::GroupRange& recording);

    /// Before end(): the measurement ends without samples since `lastSampleNs`, which no state may have told:
    /// the supervisor had not noticed it yet.
    void endSilent(std::int64_t lastSampleNs, std::int64_t nowNs, const storage::GroupRange& recording);

    /// The measurement ends: so does the outage in which it does.
    void end(std::int64_t nowNs, const storage::GroupRange& recording);

  private:
    bool isOpen_ = false;
    std::int64_t endedNs_ = 0;  ///< when the last outage that ended was over
    std::string outcome_;       ///< of the outage that is open, empty while it may still pass
};

}  // namespace lm::session
