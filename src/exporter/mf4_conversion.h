// How MDF expresses the conversion of a signal, and whether it can.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "exporter/mf4_blocks.h"
#include "storage/format/recording_info.h"

namespace lm::exporter {

/// A CC block before it is written. Type 0 is the identity, which needs none.
struct Mf4Conversion {
    std::uint8_t type = 0;
    std::vector<double> values;
    std::vector<std::optional<std::string>> texts;  ///< references; what is absent is a link of 0
    /// Why MDF has no form for it; empty when it has one. The values are then to be written physical.
    std::string obstacle;
};

Mf4Conversion mf4Conversion(const storage::SignalInfo& signal);

/// Decimals that a display format such as "%8.3" asks for.
std::optional<std::uint8_t> mf4Precision(const std::string& format);

/// Appends the CC block of a conversion that has a form; 0 for the identity.
Mf4Blocks::Link addConversion(Mf4Blocks& blocks, const Mf4Conversion& conversion, Mf4Blocks::Link unit,
                              std::optional<std::uint8_t> precision);

}  // namespace lm::exporter
