// Where the records and events of a measurement are recorded, if anywhere: recordings begin and end while it
// runs.
//
// Threads: any. Lifetime: the groups of a recording are borrowed from begin() to end().
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "session/outage_notes.h"
#include "storage/write/recorder.h"

namespace lm::session {

class RecordingSwitch {
  public:
    /// `sinceNs`: older records, which were held back, belong to the time before.
    void begin(const storage::GroupRange& recording, std::int64_t nowNs, std::int64_t sinceNs);
    /// Once it has returned nothing more comes to the recording.
    void end();
    bool isOn() const;

    void write(std::size_t list, std::int64_t timeNs, const std::uint8_t* data, std::size_t size);
    /// False: nothing is recorded.
    bool note(const std::string& line);
    /// As of OutageNotes.
    void onState(SessionState state, const std::string& message, std::int64_t lastSampleNs,
                 std::int64_t nowNs);
    /// The measurement ends.
    void finish(const std::optional<OutageNotes::Silence>& silence, std::int64_t nowNs);

  private:
    const storage::GroupRange* target() const { return recording_ ? &*recording_ : nullptr; }

    mutable std::mutex mutex_;
    std::optional<storage::GroupRange> recording_;
    std::int64_t sinceNs_ = 0;
    OutageNotes outages_;
};

}  // namespace lm::session
