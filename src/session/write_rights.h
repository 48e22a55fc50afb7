// Whether the A2L lets an object be written at all.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include "a2l/object.h"
#include "core/result.h"

namespace lm::session {

/// What the user allows beyond what the A2L does.
struct WriteRights {
    bool measurements = false;    ///< also those without READ_WRITE
    bool extendedLimits = false;  ///< as far as EXTENDED_LIMITS
};

/// Errors (permissionDenied): "NAME is not writable", "NAME is a measurement without READ_WRITE" (which
/// `rights` may waive), "NAME: BIT_MASK 0x0 leaves no bit that may be written".
Result<void> checkWritable(const a2l::Object& object, WriteRights rights);

/// Whether the A2L leaves a bit to write. Error: that of checkWritable.
Result<void> checkMask(const a2l::Object& object);

/// Warns of a value that only the extended limits allow.
void warnBeyondLimits(const value::Element& element, const value::Value& physical);

/// Logs what an object that is about to be written rests on.
void logAssumptions(const a2l::Object& object);

}  // namespace lm::session
