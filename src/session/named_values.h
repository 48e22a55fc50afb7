// Scalars under their A2L names: what a name stands for, whether it may be written, what was typed for it.
//
// Threads: one at a time; a stop may be requested from any. Lifetime: description and memory are borrowed.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "a2l/description.h"
#include "a2l/object.h"
#include "session/ecu_memory.h"
#include "session/value_access.h"
#include "session/write_rights.h"

namespace lm::session {

class NamedValues {
  public:
    /// `stop` is that of the memory's waits.
    NamedValues(const a2l::Description& description, IMemory& memory, StopToken stop)
        : description_(description), access_(memory, std::move(stop)) {}

    /// As IValues has them.
    ReadOutcome read(std::span<const std::string> names);
    WriteOutcome write(std::string_view name, std::string_view text, WriteRights rights,
                       const BeforeWriting& beforeWriting = {});

  private:
    Result<a2l::Object> find(std::string_view name);

    const a2l::Description& description_;
    ValueAccess access_;
    std::size_t unknownNames_ = 0;  ///< asked for so far
};

}  // namespace lm::session
