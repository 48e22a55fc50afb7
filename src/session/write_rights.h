// Whether the A2L lets an object be written at all.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include "a2l/object.h"
#include "core/result.h"

namespace lm::session {

/// Errors (permissionDenied): "NAME is not writable", "NAME is a measurement without READ_WRITE" (which
/// `allowMeasurements` waives), "NAME: BIT_MASK 0x0 leaves no bit that may be written".
Result<void> checkWritable(const a2l::Object& object, bool allowMeasurements);

/// Whether the A2L leaves a bit to write. Error: that of checkWritable.
Result<void> checkMask(const a2l::Object& object);

/// Logs what an object that is about to be written rests on.
void logAssumptions(const a2l::Object& object);

}  // namespace lm::session
