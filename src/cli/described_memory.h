// What the A2L says of the ECU's software and memory segments, for `info --offline`.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <optional>
#include <string>

#include "a2l/memory_segments.h"
#include "a2l/xcp_interface.h"
#include "cli/json_writer.h"

namespace lm::cli {

/// Lines, none for a file that says nothing of it.
std::string describedMemoryLines(const a2l::ModuleParameters& parameters,
                                 const std::optional<a2l::XcpPag>& pag);
/// Members of the command's object.
void writeDescribedMemory(JsonWriter& json, const a2l::ModuleParameters& parameters,
                          const std::optional<a2l::XcpPag>& pag);

/// "ECU always, XCP reads always, writes never".
std::string pageAccessText(a2l::PageAccess ecu, a2l::PageAccess read, a2l::PageAccess write);

}  // namespace lm::cli
