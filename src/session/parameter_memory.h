// The memory in which parameters lie, as an image for flashing tools: their memory segments whole, and the
// bytes of those that lie in none.
//
// Threads: one at a time. Lifetime: all is borrowed for the call.
#pragma once

#include "a2l/description.h"
#include "core/result.h"
#include "params/memory_file.h"
#include "session/parameter_reading.h"

namespace lm::session {

/// `choice` gets what could not be read, `elsewhere` the names of those with another address extension than
/// 0, for which an image has no place. `wholeSegments`: else nothing but the bytes of the parameters. Errors:
/// those of `read`; notFound when no byte was read.
Result<params::MemoryFile> readParameterMemory(const a2l::Description& description, ParameterChoice& choice,
                                               bool wholeSegments, const ReadObjects& read,
                                               std::vector<std::string>& elsewhere);

}  // namespace lm::session
