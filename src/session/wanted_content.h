// What an object of the ECU shall hold to be what a parameter file says: everything is checked, nothing is
// written.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include "a2l/object_content.h"
#include "core/result.h"
#include "params/parameter_set.h"
#include "session/raw_steps.h"

namespace lm::session {

/// `held` is parameterOf() of the content. A number that is within half a raw step of the one that is held
/// stays; raw values of the file are taken as they are. Errors (invalidArgument) bear the object's name:
/// another shape, size or unit, no finite number, those of a2l::changed() and a2l::changedText(), a raw value
/// that does not mean the value beside it.
Result<a2l::MemoryImage> wantedContent(const a2l::ObjectContent& content, const params::Parameter& held,
                                       const params::Parameter& wanted, RawSteps& steps);

}  // namespace lm::session
