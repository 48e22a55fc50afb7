// Writes the A2L description of the simulated ECU, for the options that it runs with.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <string>

#include "sim/catalog.h"
#include "sim/options.h"

namespace lm::sim {

/// The whole A2L file.
std::string a2lText(const Options& options, const Catalog& catalog);

/// The part that does not depend on options: conversions, tables, record layouts.
std::string a2lConversions();

/// The table of measurements of docs/simulator.md: name, type, byte order, mask, event, raw value.
std::string modelTable(const Catalog& catalog);

}  // namespace lm::sim
