// Motorola S-records: "Stype count address data CC". S0 is a header, S1, S2 and S3 hold data at 16, 24 and 32
// bits of address, S5 and S6 count them, S7, S8 and S9 end the file.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "core/result.h"
#include "params/memory_file.h"

namespace lm::params {

/// Errors (invalidArgument): "line N: WHAT", with the mend as hint.
Result<MemoryFile> parseSRecords(std::string_view text);
/// With addresses of the fewest bytes that hold all, and at least `addressBytes` (2 to 4).
std::string sRecordText(const MemoryFile& file, std::size_t addressBytes);

}  // namespace lm::params
