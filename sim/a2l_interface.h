// Writes what the A2L description says about XCP: protocol, DAQ and transport layer.
//
// Threads: a pure function. Lifetime: nothing is kept.
#pragma once

#include <string>
#include <string_view>

#include "sim/catalog.h"
#include "sim/options.h"

namespace lm::sim {

/// The byte order as the A2L writes it.
std::string_view orderWord(ByteOrder order);
/// What MOD_PAR tells of the software and the memory.
std::string a2lSoftware(const Options& options, const Catalog& catalog);
/// The blocks inside the IF_DATA of the module.
std::string a2lInterface(const Options& options, const Catalog& catalog);

}  // namespace lm::sim
