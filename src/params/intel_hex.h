// Intel HEX: ":LLAAAATT data CC". Data at 16 bits of address over a base, which records of type 02 (segment
// times 16) and 04 (upper 16 bits) set for those after them.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <string>
#include <string_view>

#include "core/result.h"
#include "params/memory_file.h"

namespace lm::params {

/// Errors (invalidArgument): "line N: WHAT", with the mend as hint.
Result<MemoryFile> parseIntelHex(std::string_view text);
std::string intelHexText(const MemoryFile& file);

}  // namespace lm::params
