// What `get` and `set` work on: values and objects under their A2L names, of an ECU or of an image of its
// memory.
//
// Threads: one at a time. Lifetime: results own everything; description and objects live as long as this.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "core/result.h"
#include "session/named_objects.h"
#include "session/value_access.h"
#include "session/write_rights.h"

namespace lm::session {

class IValues {
  public:
    virtual ~IValues() = default;

    virtual const a2l::Description& description() const = 0;
    /// Which names are scalars, and which have dependents; readObject() and writeObject() serve all others.
    virtual const NamedObjects& objects() const = 0;
    /// Whether a name that a pattern found can be read.
    virtual bool canRead(const std::string& name) = 0;

    /// ValueAccess::read() of what the names stand for. Further errors of a value: a2l::findScalar's.
    virtual std::vector<Result<Reading>> read(std::span<const std::string> names) = 0;
    /// ValueAccess::write() of a number or verbal text. Further errors: those of a2l::findScalar and
    /// value::parseText, "NAME is not writable", "NAME is a measurement without READ_WRITE", "NAME: BIT_MASK
    /// 0x0 leaves no bit that may be written".
    virtual WriteOutcome write(std::string_view name, std::string_view text, WriteRights rights,
                               const BeforeWriting& beforeWriting = {}) = 0;
    /// NamedObjects::read().
    virtual Result<ObjectReading> readObject(std::string_view name) = 0;
    /// NamedObjects::write().
    virtual ObjectWriting writeObject(const WriteWish& wish, const NamedObjects::Announce& announce) = 0;
};

}  // namespace lm::session
