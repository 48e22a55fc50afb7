// What a session that goes through another program's connection to its ECU tells that program: where its
// operations begin and end, what it is about to write, and what it wrote.
//
// Threads: the session's, one at a time. Lifetime: belongs to the medium.
#pragma once

#include <vector>

#include "core/result.h"
#include "session/object_bytes.h"
#include "storage/format/recording_events.h"

namespace lm::session {

class ISharing {
  public:
    virtual ~ISharing() = default;

    /// Until the last end() no one else's commands come between this one's; calls may nest. A refusal is the
    /// error of the first command.
    virtual void begin() = 0;
    virtual void end() = 0;

    /// Before the first write packet: what the other program has to finish if this one vanishes half-way. It
    /// holds until end() or the next call.
    virtual void announce(const std::vector<ObjectBytes>& changes) = 0;
    /// Written and read back.
    virtual void tellWritten(const std::vector<ObjectBytes>& changes) = 0;
    virtual void tellParameter(const storage::ParameterWrite& write) = 0;
};

/// One operation, for as long as it lives. `sharing` may be null.
class SharedOperation {
  public:
    explicit SharedOperation(ISharing* sharing) : sharing_(sharing) {
        if (sharing_ != nullptr) sharing_->begin();
    }
    ~SharedOperation() {
        if (sharing_ != nullptr) sharing_->end();
    }
    SharedOperation(const SharedOperation&) = delete;
    SharedOperation& operator=(const SharedOperation&) = delete;

  private:
    ISharing* sharing_;
};

}  // namespace lm::session
