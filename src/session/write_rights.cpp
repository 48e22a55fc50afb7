#include "session/write_rights.h"

#include <string>

#include "core/log.h"

namespace lm::session {

Result<void> checkWritable(const a2l::Object& object, bool allowMeasurements) {
    const bool isMeasurement = object.kind == a2l::ObjectKind::measurement;
    if (!object.writable && !(isMeasurement && allowMeasurements)) {
        const char* reason = isMeasurement ? " is a measurement without READ_WRITE" : " is not writable";
        Error refused{ErrorCode::permissionDenied, object.name + reason};
        if (isMeasurement) refused.hint = object.name + ": `set -m` overwrites measurements, too";
        return refused;
    }
    return checkMask(object);
}

Result<void> checkMask(const a2l::Object& object) {
    if (!object.first.emptyMask) return {};
    return Error{ErrorCode::permissionDenied,
                 object.name + ": BIT_MASK 0x0 leaves no bit that may be written"};
}

void logAssumptions(const a2l::Object& object) {
    for (const a2l::Assumption assumption : object.assumptions.list())
        log::info("{} rests on: {}", object.name, a2l::assumptionText(assumption));
}

}  // namespace lm::session
