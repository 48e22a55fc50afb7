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

/// Conversions, tables, record layouts.
std::string a2lConversions(std::uint16_t version);

/// The tables of docs/simulator.md: plain measurements, and the elements of arrays and structures.
std::string modelTable(const Catalog& catalog);

}  // namespace lm::sim
