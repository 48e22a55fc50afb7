// Values that tools compute from others: DEPENDENT_CHARACTERISTIC, VIRTUAL_CHARACTERISTIC, and VIRTUAL of a
// measurement.
//
// Threads: pure functions over an immutable description. Lifetime: names and pointers live as long as the
// description; a formula owns everything.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "value/formula.h"

namespace lm::a2l {

class Description;

enum class DependencyKind : std::uint8_t {
    dependentCharacteristic,  ///< lies in the ECU; to be written when a source changes
    virtualCharacteristic,    ///< has no place in the ECU
    virtualMeasurement,       ///< has none either; its formula is that of its COMPU_METHOD
};

struct Dependency {
    std::string_view name;     ///< of the object that is computed
    std::string_view formula;  ///< as written; empty for a virtual measurement
    std::uint32_t firstSource = 0;
    std::uint32_t sourceCount = 0;
    DependencyKind kind = DependencyKind::dependentCharacteristic;
};

/// What is to be computed again when the named objects change, through all steps, virtual parameters
/// included; each after its sources. A name stands for its elements, too, and NAME[1] for a part of NAME.
/// Error (invalidArgument): "A depends on itself: A <- B <- A".
Result<std::vector<const Dependency*>> dependentsOf(const Description& description,
                                                    std::span<const std::string_view> changed);

/// X1, X2.. are the physical values of the sources in their order. Errors (invalidArgument), with the
/// object's name: those of Formula::compile, "the formula uses X3, but there are 2 sources", "has no
/// formula" for a virtual measurement whose conversion is none.
Result<value::Formula> formulaOf(const Description& description, const Dependency& dependency);

}  // namespace lm::a2l
