#include "session/write_rights.h"

#include <string>

#include <spdlog/spdlog.h>

#include "core/text.h"
#include "value/value_text.h"

namespace lm::session {

Result<void> checkWritable(const a2l::Object& object, WriteRights rights) {
    const bool isMeasurement = object.kind == a2l::ObjectKind::measurement;
    if (!object.writable && !(isMeasurement && rights.measurements)) {
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

void warnBeyondLimits(const value::Element& element, const value::Value& physical) {
    if (!value::isBeyondLimits(element, physical)) return;
    spdlog::warn("{}: {} is outside the limits [{}, {}], the extended ones allow it", element.name,
                 value::valueText(element, physical, value::NumberStyle::exact),
                 formatGeneral(element.lowerLimit), formatGeneral(element.upperLimit));
}

void logAssumptions(const a2l::Object& object) {
    for (const a2l::Assumption assumption : object.assumptions.list())
        spdlog::info("{} rests on: {}", object.name, a2l::assumptionText(assumption));
}

}  // namespace lm::session
