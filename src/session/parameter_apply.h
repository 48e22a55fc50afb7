// Puts a parameter set into the ECU: finds out what differs and checks all of it, then writes and reads back
// one object after the other, and takes everything back when one of them fails.
//
// Threads: one at a time; a stop may be requested from any. Lifetime: description, set and memory are
// borrowed for the calls; a plan owns everything.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "a2l/description.h"
#include "a2l/object.h"
#include "a2l/object_content.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "params/parameter_set.h"
#include "session/ecu_memory.h"
#include "session/joint_reading.h"
#include "session/object_bytes.h"
#include "session/parameter_reading.h"

namespace lm::session {

struct ApplyStep {
    a2l::Object object;
    a2l::ObjectContent before;
    a2l::MemoryImage wanted;
    ObjectBytes change;
    std::vector<BytePiece> shared = {};  ///< bits that an earlier step writes for it
};

struct ApplyPlan {
    std::vector<ApplyStep> steps;  ///< in the order in which they are written
    /// Why nothing may be written, all of it.
    std::vector<UnreadParameter> problems;
    // What differs, as the ECU holds it and as the file has it.
    params::ParameterSet held;
    params::ParameterSet wanted;
    std::size_t equal = 0;
};

/// Reads each object once and writes nothing. Axes and counts come before the values that use them, all else
/// by address. Errors: those of `read`.
Result<ApplyPlan> planApply(const a2l::Description& description, const params::ParameterSet& set,
                            bool extendedLimits, const ReadObjects& read);

struct ApplyOutcome {
    std::vector<std::size_t> written;     ///< steps, read back
    std::vector<UnreadParameter> failed;  ///< at most one unless it keeps going; no name: the conclusion
    std::vector<PutBack> takenBack;       ///< the last one first; of one that keeps going, those that failed
    bool stopped = false;
};

struct ApplyOptions {
    bool keepGoing = false;
    std::function<void(std::size_t done, std::size_t total)> progress = {};
    /// Before each object is written.
    std::function<void(const ApplyStep&)> writing = {};
    /// After each object that was written.
    std::function<void(const ApplyStep&)> written = {};
    /// Once, when the ECU has ended the session, or was silent, before all was taken back. Error: why nothing
    /// more is to be written.
    std::function<Result<void>()> reconnect = {};
    /// After the last object, with all that were written: what fails takes them back.
    std::function<Result<void>(const std::vector<std::size_t>& steps)> conclude = {};
    /// Before anything is taken back. What fails leaves all as it is.
    std::function<Result<void>()> retreat = {};
};

/// A stop request ends it after the object that is being written, and everything is taken back; that is then
/// done to its end.
ApplyOutcome carryOut(IMemory& memory, const StopToken& stop, const ApplyPlan& plan,
                      const ApplyOptions& options);

}  // namespace lm::session
