// Notes the outages of a measurement in its recording, while there is one: the changes of the session's state
// tell when one begins and ends.
//
// Threads: one at a time. Lifetime: the groups of the recording are borrowed during each call; null: nothing
// is recorded.
#pragma once

#include <cstdint>
#include <string>

#include "session/session_state.h"
#include "storage/write/recorder.h"

namespace lm::session {

class OutageNotes {
  public:
    /// A time without samples at the end, which no state may have told.
    struct Silence {
        std::int64_t fromNs = 0;
        std::int64_t toNs = 0;
    };

    /// `lastSampleNs`: when the last record came, or DAQ was started without one. All times are on the clock
    /// of the recording.
    void onState(SessionState state, const std::string& message, std::int64_t lastSampleNs,
                 std::int64_t nowNs, const storage::GroupRange* recording);

    /// A recording begins, perhaps within an outage, or ends within one, which goes on without it.
    void beginRecording(std::int64_t nowNs, const storage::GroupRange& recording) const;
    void endRecording(std::int64_t nowNs, const storage::GroupRange& recording) const;

    /// Before end(): the measurement ends without samples since `lastSampleNs`, which no state may have told:
    /// the supervisor had not noticed it yet.
    void endSilent(std::int64_t lastSampleNs, std::int64_t nowNs, const storage::GroupRange* recording);

    /// The measurement ends: so does the outage in which it does.
    void end(std::int64_t nowNs, const storage::GroupRange* recording);

  private:
    bool isOpen_ = false;
    std::int64_t endedNs_ = 0;  ///< when the last outage that ended was over
    std::string reason_;        ///< of the outage that is open
    std::string outcome_;       ///< of the outage that is open, empty while it may still pass
};

}  // namespace lm::session
